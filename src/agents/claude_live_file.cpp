#include "agents/claude_live_file.hpp"

#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <limits>

#include "agents/json_values.hpp"

namespace vistrel {

std::optional<ClaudeLiveFile> parseLiveFile(std::string_view text) {
  thread_local DomLineParser parser;
  parser.trim(64 << 10);  // a live file is a few hundred bytes
  std::optional<simdjson::dom::object> root = parser.parse(text);
  if (!root) return std::nullopt;
  ClaudeLiveFile file;
  bool hasPid = false;
  for (const simdjson::dom::key_value_pair field : *root) {
    const std::string_view key = field.key;
    if (key == "pid") {
      const int64_t pid = jsonInt(field.value);
      hasPid = pid > 0 && pid <= std::numeric_limits<int32_t>::max();
      if (hasPid) file.pid = static_cast<int32_t>(pid);
    } else if (key == "sessionId") {
      file.sessionId = str(field.value).value_or("");
    } else if (key == "cwd") {
      file.cwd = str(field.value).value_or("");
    } else if (key == "startedAt") {
      std::optional<double> ms = dbl(field.value);
      // The clock holds nanoseconds in 64 bits (about 292 years either side of 1970): a time
      // beyond 8 * 10^12 ms (year 2223) is treated as absent.
      if (ms && *ms > -8e12 && *ms < 8e12) {
        file.started = Date(std::chrono::duration_cast<Date::duration>(
            std::chrono::milliseconds(static_cast<int64_t>(std::llround(*ms)))));
      } else {
        file.started.reset();
      }
    } else if (key == "name") {
      file.name = str(field.value);
    } else if (key == "status") {
      file.status = str(field.value);
    } else if (key == "version") {
      file.version = str(field.value);
    }
  }
  if (!hasPid || file.sessionId.empty()) return std::nullopt;
  return file;
}

bool processExists(int32_t pid) {
  if (pid <= 0) return false;
  return ::kill(pid, 0) == 0 || errno == EPERM;
}

}  // namespace vistrel
