#pragma once

// A Claude Code data folder built by a test under /tmp, and the lines Claude Code writes.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>

#include "agents/agent_records.hpp"
#include "agents/iso_date.hpp"
#include "base/clock.hpp"
#include "base/files.hpp"

namespace vistrel::test {

// The start of the UTC day of a date: tests run in UTC whatever the machine's zone.
inline Date utcStartOfDay(Date date) {
  return std::chrono::floor<std::chrono::days>(date);
}

inline Date at(const char* iso) {
  return *parseISODate(iso);
}

class ClaudeFolder {
 public:
  // Files get modification times from `clock` on, a second apart, so that every write is seen
  // as a change.
  explicit ClaudeFolder(Date clock = at("2025-01-31T12:00:00Z")) : clock_(clock) {
    char pattern[] = "/tmp/vistrel-claude-XXXXXX";
    root = ::mkdtemp(pattern);
  }
  ~ClaudeFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  }

  // Writes (or with `append`, appends) a file under the folder; returns its path.
  std::string write(const std::string& relative, const std::string& text, bool append = false,
                    std::optional<Date> modified = std::nullopt) {
    const std::string path = joinPath(root, relative);
    makeFolders(std::string(path.substr(0, path.rfind('/'))));
    FILE* f = std::fopen(path.c_str(), append ? "ab" : "wb");
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
    touch(path, modified.value_or(clock_ += std::chrono::seconds(1)));
    return path;
  }
  std::string append(const std::string& relative, const std::string& text) {
    return write(relative, text, true);
  }
  static void touch(const std::string& path, Date modified) {
    const auto ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(modified.time_since_epoch());
    timespec times[2];
    for (timespec& t : times) {
      t.tv_sec = static_cast<time_t>(ns.count() / 1'000'000'000);
      t.tv_nsec = static_cast<long>(ns.count() % 1'000'000'000);
    }
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
  }

  std::string root;

 private:
  Date clock_;
};

struct Usage {
  int64_t input = 0, output = 0, cacheWrite = 0, cacheRead = 0;
};

// An assistant record as Claude Code writes it (type after the message, as in real files).
inline std::string assistant(const std::string& id, const std::string& request, Usage u,
                             const std::string& time = "2025-01-31T10:00:00.000Z",
                             const std::string& model = "claude-sonnet-4-5-20250929",
                             int toolUses = 0, const std::string& cwd = "/home/u/code/alpha") {
  std::string content = R"([{"type":"text","text":"Done."})";
  for (int i = 0; i < toolUses; ++i) {
    content += R"(,{"type":"tool_use","id":"toolu_)" + std::to_string(i) +
               R"(","name":"Bash","input":{"command":"ls"}})";
  }
  content += "]";
  return R"({"parentUuid":"p","isSidechain":false,"userType":"external","cwd":")" + cwd +
         R"(","sessionId":"s","version":"2.0.14","gitBranch":"main","message":{"id":")" + id +
         R"(","type":"message","role":"assistant","model":")" + model + R"(","content":)" +
         content + R"(,"stop_reason":null,"usage":{"input_tokens":)" + std::to_string(u.input) +
         R"(,"cache_creation_input_tokens":)" + std::to_string(u.cacheWrite) +
         R"(,"cache_read_input_tokens":)" + std::to_string(u.cacheRead) +
         R"(,"cache_creation":{"ephemeral_5m_input_tokens":0},"output_tokens":)" +
         std::to_string(u.output) + R"(,"service_tier":"standard"}},"requestId":")" + request +
         R"(","type":"assistant","uuid":"u","timestamp":")" + time + "\"}\n";
}

// A user record with the given message content (JSON text).
inline std::string user(const std::string& content,
                        const std::string& time = "2025-01-31T09:59:00.000Z", bool meta = false,
                        const std::string& cwd = "/home/u/code/alpha") {
  return R"({"parentUuid":null,"isSidechain":false,"userType":"external","cwd":")" + cwd +
         R"(","sessionId":"s","version":"2.0.14","gitBranch":"main","type":"user",)" +
         (meta ? R"("isMeta":true,)" : "") + R"("message":{"role":"user","content":)" + content +
         R"(},"uuid":"v","timestamp":")" + time + "\"}\n";
}

}  // namespace vistrel::test
