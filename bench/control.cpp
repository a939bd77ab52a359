// The control socket's round trip: connect, send one request line, wait for the answer line, as
// the --mcp process does for every tool call. The server posts both requests to a main queue run
// by its own thread, as the application does; the handler returns answers built once, of the size
// a real `status` and a real `list_apps` (30 apps) give, so that the figures are the transport's.

#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "base/files.hpp"
#include "base/main_queue.hpp"
#include "base/subprocess.hpp"
#include "control/control_server.hpp"
#include "machine.hpp"

namespace {

using namespace vistrel;
using Timer = std::chrono::steady_clock;

std::string statusAnswer() {
  nlohmann::ordered_json result = {
      {"summary",
       "CPU 23% (4 of 10 cores busy), memory pressure normal, 18.2 GB of 32 GB used; "
       "busiest app: Google Chrome at 41% CPU"},
      {"cpu",
       {{"usagePercent", 23.4},
        {"user", 15.1},
        {"system", 8.3},
        {"cores", 10},
        {"loadAverages", {3.1, 2.8, 2.5}},
        {"temperatureC", 52.5}}},
      {"memory",
       {{"usedGB", 18.2},
        {"totalGB", 32.0},
        {"pressure", "normal"},
        {"swapUsedGB", 0.4},
        {"compressedGB", 1.2},
        {"cachedGB", 6.1}}},
      {"disk", {{"readMBps", 1.2}, {"writeMBps", 4.5}, {"freeGB", 211.4}, {"totalGB", 994.7}}},
      {"network", {{"downloadMBps", 0.3}, {"uploadMBps", 0.1}, {"interface", "en0"}}},
      {"gpu", {{"usagePercent", 12.0}}},
      {"battery", {{"percent", 81}, {"charging", false}, {"minutesLeft", 312}, {"watts", 9.8}}},
      {"thermal", "nominal"},
      {"uptime", "3 days, 4 hours"},
      {"alerts", {{"unread", 2}, {"newest", "Memory pressure high for 5 minutes"}}}};
  return nlohmann::ordered_json({{"ok", true}, {"result", result}}).dump();
}

std::string listAppsAnswer() {
  nlohmann::ordered_json apps = nlohmann::ordered_json::array();
  for (int i = 0; i < 30; ++i) {
    apps.push_back({{"name", "Application " + std::to_string(i)},
                    {"bundleId", "com.vendor" + std::to_string(i % 7) + ".app" + std::to_string(i)},
                    {"cpuPercent", 41.2 / (i + 1)},
                    {"memoryMB", 2400.0 / (i + 1)},
                    {"energyImpact", 30.5 / (i + 1)},
                    {"diskReadMBps", 0.1 * i},
                    {"diskWriteMBps", 0.05 * i},
                    {"networkMBps", 0.01 * i},
                    {"gpuPercent", i < 3 ? 5.0 : 0.0},
                    {"processes", 1 + i % 9},
                    {"pid", 1000 + i},
                    {"canQuit", i % 4 != 0}});
  }
  return nlohmann::ordered_json({{"ok", true}, {"result", {{"apps", apps}}}}).dump();
}

class Handler final : public ControlHandler {
 public:
  std::optional<std::string> answerOffMain(const std::string&, const nlohmann::json&) override {
    return std::nullopt;
  }
  std::string answerOnMain(const std::string& tool, const nlohmann::json&) override {
    return tool == "status" ? status : apps;
  }
  const std::string status = statusAnswer(), apps = listAppsAnswer();
};

void measure(const std::string& path, const std::string& name, const std::string& line,
             size_t answerBytes) {
  constexpr int kRuns = 1000;
  std::vector<double> times;
  times.reserve(kRuns);
  for (int i = 0; i < kRuns + 20; ++i) {
    auto start = Timer::now();
    std::optional<std::string> answer = ControlSocket::request(path, line, 10);
    double ms = std::chrono::duration<double, std::milli>(Timer::now() - start).count();
    if (!answer || answer->size() != answerBytes) {
      std::fprintf(stderr, "%s: no answer or a wrong one\n", name.c_str());
      std::exit(1);
    }
    if (i >= 20) times.push_back(ms);  // the first few warm the caches and the thread pool
  }
  std::sort(times.begin(), times.end());
  std::printf("%s round trip median: %.3f ms\n", name.c_str(), times[times.size() / 2]);
  std::printf("%s round trip p99: %.3f ms\n", name.c_str(), times[times.size() * 99 / 100]);
  std::printf("%s answer size: %zu bytes\n", name.c_str(), answerBytes);
}

// One `vistrel --mcp` process from start to its first tool call's answer: it initializes, calls
// `status` through the socket, and ends with its input. Returns the median wall time of `runs`
// processes in milliseconds, or -1 when an answer is missing.
double mcpFirstCall(int runs) {
  const std::string input =
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
      R"("capabilities":{},"clientInfo":{"name":"bench","version":"1"}}})"
      "\n"
      R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
      "\n"
      R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"status","arguments":{}}})"
      "\n";
  // The --mcp process finds the socket through the home folder (set in main), as the
  // application places it.
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    auto start = Timer::now();
    auto result = runSubprocess(VISTREL_BINARY, {"--mcp"}, std::string_view(input));
    double ms = std::chrono::duration<double, std::milli>(Timer::now() - start).count();
    if (!result.started || result.output.find("\"id\":2") == std::string::npos ||
        result.output.find("isError\":true") != std::string::npos) {
      return -1;
    }
    times.push_back(ms);
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

}  // namespace

int main() {
  char pattern[] = "/tmp/vistrel-bench-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) return 1;
  std::string dataHome = pattern;
  // Where a real application keeps it, so that a --mcp process (which inherits HOME) finds it too.
  ::setenv("HOME", dataHome.c_str(), 1);
  std::string path = ControlSocket::path();
  makeFolders(path.substr(0, path.rfind('/')));

  ManualMainQueue queue;
  std::thread mainThread([&] { queue.run(); });
  Handler handler;
  int status = 0;
  {
    ControlServer server(queue, handler, path);
    if (server.start()) {
      std::printf("machine: %s\n", bench::describeMachine().c_str());
      measure(path, "status", R"({"tool":"status","args":{}})", handler.status.size());
      measure(path, "list_apps", R"({"tool":"list_apps","args":{"limit":30}})",
              handler.apps.size());
      double first = mcpFirstCall(50);
      if (first < 0) {
        std::printf("mcp first tool call: no answer\n");
      } else {
        std::printf("mcp first tool call median: %.2f ms\n", first);
      }
    } else {
      status = 1;
    }
  }
  queue.quit();
  mainThread.join();
  std::filesystem::remove_all(dataHome);
  return status;
}
