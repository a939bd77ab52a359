// Claude Code transcript folders of about 100 MB and 500 MB in the layout Claude Code writes today
// (one API response over 2-3 lines sharing its message id and request id, earlier lines sometimes
// with a smaller output count; tool results up to 100 KB; subagent transcripts; resumed sessions
// repeating earlier responses; 5 % of sessions dated yesterday). Prints the first full refresh's
// wall time, throughput and peak resident memory (measured in a fresh process), an incremental
// refresh after appending 1 MB, and the same folder read by the npm package ccusage when npm is
// available, with the ratio and a check that today's totals per model agree.
//
// Usage: bench_transcripts [MB ...]   (default: 100 500)

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <vector>

#include "agents/claude_reader.hpp"
#include "agents/iso_date.hpp"
#include "base/files.hpp"
#include "machine.hpp"

namespace {

using namespace vistrel;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double seconds(Clock::time_point from) {
  return std::chrono::duration<double>(Clock::now() - from).count();
}

// Writes sessions the way Claude Code does. Deterministic for a given seed.
class Generator {
 public:
  Generator(Date today, Date now, uint64_t seed) : today_(today), now_(now), random_(seed) {
    // Escaped, code-like text cut on 16-byte boundaries (never inside an escape).
    const char* words[] = {"const ", "return ", "value", "\\\"key\\\"", "(x) ", "{ ", "} ", "if "};
    while (text_.size() < (128 << 10)) {
      std::string piece;
      while (piece.size() < 14) piece += words[random_() % 8];
      piece.resize(14);
      if (piece.back() == '\\' || piece[12] == '\\') piece = "abcdefghijklmn";
      text_ += piece + "\\n";
    }
  }

  std::string id(const char* prefix, size_t n) {
    static const char kAlphabet[] = "ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz0123456789";
    std::string out = prefix;
    for (size_t i = 0; i < n; ++i) out += kAlphabet[random_() % (sizeof kAlphabet - 1)];
    return out;
  }
  std::string text(size_t bytes) { return text_.substr(0, std::max<size_t>(16, bytes / 16 * 16)); }
  size_t toolResultSize() {
    const uint32_t r = random_() % 100;
    if (r < 70) return 200 + random_() % 1800;
    if (r < 95) return 2000 + random_() % 18000;
    return 20000 + random_() % 30000;  // twice over (content and toolUseResult): up to 100 KB
  }

  struct Session {
    std::string id, cwd, model;
    Date clock;
    bool sidechain = false;
  };

  std::string header(const Session& s, const char* type) {
    return std::string(R"({"parentUuid":")") + id("", 36) + R"(","isSidechain":)" +
           (s.sidechain ? "true" : "false") + R"(,"userType":"external","cwd":")" + s.cwd +
           R"(","sessionId":")" + s.id + R"(","version":"2.0.14","gitBranch":"main","type":")" +
           type + "\",";
  }
  std::string stamp(Session& s) {
    s.clock += std::chrono::milliseconds(200 + random_() % 3000);
    return isoMillis(s.clock);
  }
  static std::string isoMillis(Date d) {
    std::string base = isoDate(d);  // ...:SSZ
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(d.time_since_epoch()) % 1000;
    char frac[8];
    std::snprintf(frac, sizeof frac, ".%03d", static_cast<int>(ms.count()));
    return base.substr(0, base.size() - 1) + frac + "Z";
  }

  // One turn: a prompt or a tool result, then one response over 2-3 lines.
  void turn(Session& s, std::string& out, bool prompt) {
    const std::string tool = id("toolu_01", 22);
    if (prompt) {
      out += header(s, "user") + R"("message":{"role":"user","content":")" + text(200) +
             R"("},"uuid":")" + id("", 36) + R"(","timestamp":")" + stamp(s) + "\"}\n";
    } else {
      const std::string result = text(toolResultSize());
      out += header(s, "user") + R"("message":{"role":"user","content":[{"tool_use_id":")" + tool +
             R"(","type":"tool_result","content":")" + result +
             R"(","is_error":false}]},"uuid":")" + id("", 36) + R"(","timestamp":")" + stamp(s) +
             R"(","toolUseResult":{"stdout":")" + result +
             R"(","stderr":"","interrupted":false}})" + "\n";
    }
    const std::string message = id("msg_01", 24), request = id("req_011", 22);
    const int64_t input = 1 + random_() % 50, cacheWrite = random_() % 5000,
                  cacheRead = 10000 + random_() % 90000, output = 20 + random_() % 2000;
    const int lines = 2 + static_cast<int>(random_() % 2);
    const bool partial = random_() % 2 == 0;  // earlier lines carry a smaller output count
    for (int i = 0; i < lines; ++i) {
      const bool last = i == lines - 1;
      std::string content =
          i == 0 ? R"([{"type":"thinking","thinking":")" + text(600) + R"(","signature":")" +
                       id("", 300) + "\"}]"
          : last ? R"([{"type":"tool_use","id":")" + tool +
                       R"(","name":"Bash","input":{"command":"ls -la","description":"List"}}])"
                 : R"([{"type":"text","text":")" + text(300) + "\"}]";
      const int64_t shown = last || !partial ? output : 1 + i * 7;
      out += header(s, "assistant");
      out.pop_back();  // Claude Code puts the message before the type: rebuilt below
      out.resize(out.rfind(R"(,"type")"));
      out += R"(,"message":{"id":")" + message +
             R"(","type":"message","role":"assistant","model":")" + s.model + R"(","content":)" +
             content + R"(,"stop_reason":null,"usage":{"input_tokens":)" + std::to_string(input) +
             R"(,"cache_creation_input_tokens":)" + std::to_string(cacheWrite) +
             R"(,"cache_read_input_tokens":)" + std::to_string(cacheRead) + R"(,"output_tokens":)" +
             std::to_string(shown) + R"(,"service_tier":"standard"}},"requestId":")" + request +
             R"(","type":"assistant","uuid":")" + id("", 36) + R"(","timestamp":")" + stamp(s) +
             "\"}\n";
    }
  }

  // Writes sessions into `root` until about `bytes` are written; returns the bytes written.
  uint64_t folder(const std::string& root, uint64_t bytes) {
    uint64_t written = 0;
    std::vector<std::pair<std::string, std::string>> made;  // project folder, first turns
    for (int n = 0; written < bytes; ++n) {
      Session s;
      s.id = id("", 8) + "-" + id("", 4) + "-" + id("", 4) + "-" + id("", 4) + "-" + id("", 12);
      const int project = static_cast<int>(random_() % 20);
      s.cwd = "/home/u/code/project" + std::to_string(project);
      const std::string folder = root + "/projects/-home-u-code-project" + std::to_string(project);
      s.model = random_() % 3 == 0 ? "claude-opus-4-1-20250805" : "claude-sonnet-4-5-20250929";
      const bool yesterday = random_() % 20 == 0;
      const Date dayStart = yesterday ? today_ - std::chrono::hours(24) : today_;
      const auto span = std::chrono::duration_cast<std::chrono::milliseconds>(
          (yesterday ? today_ : now_) - dayStart);
      s.clock =
          dayStart + std::chrono::milliseconds(random_() % std::max<int64_t>(1, span.count() / 2));
      std::string out;
      // A resumed session starts by repeating an earlier session's responses.
      if (!yesterday && !made.empty() && random_() % 20 == 0) {
        out = made[random_() % made.size()].second;
      }
      const int turns = 50 + static_cast<int>(random_() % 250);
      for (int t = 0; t < turns; ++t) {
        turn(s, out, t % 5 == 0);
        if (t == 20 && !yesterday) made.emplace_back(folder, out);
      }
      if (made.size() > 50) made.erase(made.begin());
      const Date modified = s.clock;
      written += write(folder + "/" + s.id + ".jsonl", out, modified);
      if (random_() % 10 < 3) {  // subagents
        for (int a = 0, agents = 1 + static_cast<int>(random_() % 3); a < agents; ++a) {
          Session sub = s;
          sub.sidechain = true;
          sub.model = "claude-haiku-4-5-20251001";
          std::string lines;
          for (int t = 0, k = 10 + static_cast<int>(random_() % 30); t < k; ++t) {
            turn(sub, lines, t == 0);
          }
          written +=
              write(folder + "/" + s.id + "/subagents/agent-" + id("", 8) + ".jsonl", lines,
                    std::min(sub.clock, yesterday ? today_ - std::chrono::seconds(1) : now_));
        }
      }
    }
    return written;
  }

  static uint64_t write(const std::string& path, const std::string& text, Date modified,
                        bool append = false) {
    makeFolders(path.substr(0, path.rfind('/')));
    FILE* f = std::fopen(path.c_str(), append ? "ab" : "wb");
    if (!f) return 0;
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
    const auto ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(modified.time_since_epoch()).count();
    timespec times[2] = {{ns / 1'000'000'000, ns % 1'000'000'000},
                         {ns / 1'000'000'000, ns % 1'000'000'000}};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
    return text.size();
  }

 private:
  Date today_, now_;
  std::mt19937_64 random_;
  std::string text_;
};

Date now() {
  return std::chrono::system_clock::now();
}

// Today's figures as both readers report them: the four counters of the day, and fresh tokens per
// model display name.
struct Today {
  TokenTotals totals;
  std::map<std::string, int64_t> freshByModel;
};

// The child: reads the folder in a fresh process so that its peak memory is the reader's own.
int readFolder(const std::string& root, const std::string& report) {
  uint64_t todayBytes = 0, allBytes = 0;
  const Date today = localStartOfDay(now());
  std::string biggest;
  uintmax_t biggestSize = 0;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file()) continue;
    struct stat info {};
    ::stat(entry.path().c_str(), &info);
    allBytes += static_cast<uint64_t>(info.st_size);
    const Date modified = modifiedDate(info);
    if (modified < today) continue;
    todayBytes += static_cast<uint64_t>(info.st_size);
    if (entry.path().string().find("/subagents/") == std::string::npos &&
        static_cast<uintmax_t>(info.st_size) > biggestSize) {
      biggestSize = static_cast<uintmax_t>(info.st_size);
      biggest = entry.path().string();
    }
  }
  ClaudeReader reader(root);
  auto start = Clock::now();
  ClaudeRefresh first = reader.refresh({}, {}, {}, now());
  const double wall = seconds(start);
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  std::printf("folder: %.1f MB\n", allBytes / 1e6);
  std::printf("read today (files modified today): %.1f MB\n", todayBytes / 1e6);
  std::printf("first refresh: %.3f s\n", wall);
  std::printf("first refresh throughput: %.0f MB/s\n", todayBytes / 1e6 / wall);
  std::printf("first refresh peak rss: %.1f MB\n", usage.ru_maxrss / 1024.0);
  std::printf("sessions today: %lld\n", static_cast<long long>(first.sessionsToday));

  // 1 MB more in the largest session, as a long session appends it.
  Generator generator(today, now(), 7);
  Generator::Session session{"appended", "/home/u/code/project0", "claude-sonnet-4-5-20250929",
                             now() - std::chrono::minutes(1)};
  std::string more;
  while (more.size() < 1'000'000) generator.turn(session, more, more.empty());
  Generator::write(biggest, more, now(), true);
  start = Clock::now();
  ClaudeRefresh next = reader.refresh({}, {}, {}, now());
  std::printf("incremental refresh after 1 MB: %.2f ms\n", seconds(start) * 1e3);
  ::getrusage(RUSAGE_SELF, &usage);
  std::printf("peak rss: %.1f MB\n", usage.ru_maxrss / 1024.0);

  std::ofstream out(report);
  out << wall << '\n'
      << next.today.input << ' ' << next.today.output << ' ' << next.today.cacheWrite << ' '
      << next.today.cacheRead << '\n';
  for (const auto& [model, fresh] : next.byModel) out << fresh << ' ' << model << '\n';
  return 0;
}

Today readReport(const std::string& path, double& wall) {
  Today today;
  std::ifstream in(path);
  in >> wall >> today.totals.input >> today.totals.output >> today.totals.cacheWrite >>
      today.totals.cacheRead;
  int64_t fresh;
  std::string model;
  while (in >> fresh && std::getline(in >> std::ws, model)) today.freshByModel[model] = fresh;
  return today;
}

std::string localDay(Date date) {
  const std::time_t t = std::chrono::system_clock::to_time_t(date);
  std::tm local{};
  ::localtime_r(&t, &local);
  char text[16];
  std::strftime(text, sizeof text, "%Y-%m-%d", &local);
  return text;
}

// ccusage's figures for today, from `daily --json`; absent when its output does not parse.
std::optional<Today> parseCcusage(const std::string& text, const std::string& day) {
  nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
  if (json.is_discarded() || !json.contains("daily")) return std::nullopt;
  Today today;
  for (const auto& entry : json["daily"]) {
    // The day's key: "period" in ccusage 20, "date" before.
    if (entry.value("period", entry.value("date", "")) != day) continue;
    today.totals = {entry.value("inputTokens", int64_t{0}), entry.value("outputTokens", int64_t{0}),
                    entry.value("cacheCreationTokens", int64_t{0}),
                    entry.value("cacheReadTokens", int64_t{0})};
    for (const auto& model : entry.value("modelBreakdowns", nlohmann::json::array())) {
      const int64_t fresh = model.value("inputTokens", int64_t{0}) +
                            model.value("outputTokens", int64_t{0}) +
                            model.value("cacheCreationTokens", int64_t{0});
      today.freshByModel[ClaudeReader::modelName(model.value("modelName", ""))] += fresh;
    }
  }
  return today;
}

std::string run(const std::string& command, double& wall) {
  const auto start = Clock::now();
  std::string out;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char buffer[1 << 16];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    ::pclose(pipe);
  }
  wall = seconds(start);
  return out;
}

std::optional<std::string> installCcusage(const std::string& prefix) {
  const std::string bin = prefix + "/node_modules/.bin/ccusage";
  if (pathExists(bin)) return bin;
  if (std::system("command -v npm > /dev/null 2>&1") != 0) return std::nullopt;
  const std::string command = "npm install --silent --no-audit --no-fund --prefix '" + prefix +
                              "' ccusage@20.0.24 > /dev/null 2>&1";
  if (std::system(command.c_str()) != 0 || !pathExists(bin)) return std::nullopt;
  return bin;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::string(argv[1]) == "--read") return readFolder(argv[2], argv[3]);
  std::vector<int> sizes;
  for (int i = 1; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
  if (sizes.empty()) sizes = {100, 500};

  std::printf("machine: %s\n", vistrel::bench::describeMachine().c_str());
  char pattern[] = "/tmp/vistrel-bench-transcripts-XXXXXX";
  const std::string scratch = ::mkdtemp(pattern);
  const std::optional<std::string> ccusage = installCcusage(scratch + "/npm");
  if (!ccusage) std::printf("note: npm or ccusage@20.0.24 unavailable; comparison skipped\n");

  for (int size : sizes) {
    const std::string root = scratch + "/claude-" + std::to_string(size);
    const Date start = now();
    Generator generator(localStartOfDay(start), start, static_cast<uint64_t>(size));
    const uint64_t written = generator.folder(root, static_cast<uint64_t>(size) * 1'000'000);
    std::printf("\n== folder of %d MB (%.1f MB written)\n", size, written / 1e6);
    std::fflush(stdout);

    const std::string report = root + ".report";
    double wall = 0;
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    std::fputs(run("'" + self + "' --read '" + root + "' '" + report + "'", wall).c_str(), stdout);
    double ourWall = 0;
    const Today ours = readReport(report, ourWall);
    if (!ccusage) continue;

    double ccusageWall = 0;
    const std::string output = run(
        // Only the generated folder: no Codex data of this machine mixed in.
        "CLAUDE_CONFIG_DIR='" + root + "' CODEX_HOME='" + root + "/no-codex' '" + *ccusage +
            "' daily --json --offline 2> /dev/null",
        ccusageWall);
    std::printf("ccusage daily --json --offline: %.3f s\n", ccusageWall);
    std::optional<Today> theirs = parseCcusage(output, localDay(now()));
    if (!theirs) {
      std::printf("note: ccusage output did not parse (%.200s)\n", output.c_str());
      continue;
    }
    std::printf("ccusage / first refresh wall time: %.2f x\n", ccusageWall / ourWall);
    // Their figures include the 1 MB appended after our first refresh, as do ours compared here.
    const bool totalsEqual = theirs->totals == ours.totals;
    const bool modelsEqual = theirs->freshByModel == ours.freshByModel;
    std::printf("today's totals equal to ccusage: %s\n", totalsEqual ? "yes" : "NO");
    std::printf("today's fresh tokens per model equal to ccusage: %s\n",
                modelsEqual ? "yes" : "NO");
    if (!totalsEqual || !modelsEqual) {
      std::printf("ours: in %lld out %lld write %lld read %lld\n", (long long)ours.totals.input,
                  (long long)ours.totals.output, (long long)ours.totals.cacheWrite,
                  (long long)ours.totals.cacheRead);
      std::printf("ccusage: in %lld out %lld write %lld read %lld\n",
                  (long long)theirs->totals.input, (long long)theirs->totals.output,
                  (long long)theirs->totals.cacheWrite, (long long)theirs->totals.cacheRead);
      for (const auto& [m, v] : ours.freshByModel)
        std::printf("ours %s: %lld\n", m.c_str(), (long long)v);
      for (const auto& [m, v] : theirs->freshByModel)
        std::printf("ccusage %s: %lld\n", m.c_str(), (long long)v);
    }
  }
  std::error_code ignored;
  fs::remove_all(scratch, ignored);
  return 0;
}
