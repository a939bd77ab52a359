#pragma once

// The small file Claude Code keeps in its "sessions" folder while a session's process runs.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.hpp"

namespace vistrel {

struct ClaudeLiveFile {
  int32_t pid = 0;
  std::string sessionId;
  std::string cwd;  // empty when the file names none
  std::optional<std::string> name;
  std::optional<std::string> status;  // "busy" while generating or running tools
  std::optional<Date> started;
  std::optional<std::string> version;
  bool operator==(const ClaudeLiveFile&) const = default;
};

// A live file's contents: a JSON object with a positive 32-bit "pid" and a non-empty "sessionId";
// "startedAt" is in milliseconds since 1970. Absent for anything else. Whether the process still
// runs is the caller's question.
std::optional<ClaudeLiveFile> parseLiveFile(std::string_view text);

// Whether a process exists: a signal-0 probe succeeds, or fails only for lack of permission (the
// process belongs to another user). Never true for 0 or a negative pid, which kill() would take
// for a process group.
bool processExists(int32_t pid);

}  // namespace vistrel
