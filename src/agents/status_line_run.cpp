// The command side of the status-line bridge: storing payloads, reading them back as records, and
// the `--statusline` mode's output.

#include <cstdint>

#include "agents/status_line_bridge.hpp"
#include "agents/status_payload.hpp"
#include "base/files.hpp"
#include "base/subprocess.hpp"

namespace vistrel::StatusLineBridge {

namespace {

using Json = nlohmann::ordered_json;

// A stored payload is a few kilobytes.
constexpr size_t kMaxRecordBytes = 1 << 20;

// Session ids become file names: only the characters of Claude Code's UUIDs and the like, so that
// a payload can never name a path outside the records' folder.
bool usableSessionId(std::string_view id) {
  if (id.empty() || id.size() > 128 || id.front() == '.') return false;
  for (char c : id) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '-' || c == '_' || c == '.';
    if (!ok) return false;
  }
  return true;
}

// The payload with the time of receipt, written whole or not at all so that the app never reads
// half a file. Not flushed to disk: the next update rewrites it anyway, and this runs on every
// update of Claude Code's status line.
void store(const BridgePaths& paths, Json& payload, const std::string& sessionId, Date now) {
  std::string folder = recordFolder(paths);
  if (!makeFolders(folder)) return;
  payload["received"] = secondsSince1970(now);
  std::string text = payload.dump(-1, ' ', false, Json::error_handler_t::replace);
  text.push_back('\n');
  replaceFile(joinPath(folder, sessionId + ".json"), text, /*durable=*/false, paths.renameStep);
}

// The user's own status-line command saved at connect, unless it is missing, empty or (by some
// hand edit) our own, which would run itself without end.
std::optional<std::string> previousCommand(const BridgePaths& paths) {
  auto text = readFile(savedStatusLineFile(paths), kMaxRecordBytes);
  if (!text) return std::nullopt;
  auto saved = parseJsonObject(*text);
  if (!saved) return std::nullopt;
  auto it = saved->find("command");
  if (it == saved->end() || !it->is_string()) return std::nullopt;
  std::string command = it->get<std::string>();
  if (command.empty() || isOwnCommand(command, paths.executable)) return std::nullopt;
  return command;
}

}  // namespace

StatusRecords records(const BridgePaths& paths, Date now) {
  StatusRecords out;
  std::string folder = recordFolder(paths);
  const Date oldest = now - std::chrono::seconds(kStaleSeconds);
  std::string text;
  for (const std::string& name : listFolder(folder)) {
    // Dot names are files still being written.
    if (name.front() == '.' || !name.ends_with(".json")) continue;
    if (!readFile(joinPath(folder, name), text, kMaxRecordBytes)) continue;
    // A file without a time of receipt reads as received in 1970, hence stale.
    auto record = parseStatusPayload(text, Date{});
    if (!record || record->received < oldest) continue;
    if (record->sessionId.empty()) record->sessionId = name.substr(0, name.size() - 5);
    std::string id = record->sessionId;
    out.insert_or_assign(std::move(id), std::move(*record));
  }
  return out;
}

std::string summary(const StatusRecord& record) {
  return statusSummary(record);
}

int runStatusLine(const BridgePaths& paths, std::string_view input, std::string& output, Date now) {
  output.clear();
  auto payload = parseJsonObject(input);
  StatusRecord record;
  if (payload) {
    record = statusRecordFromJson(*payload, now);
    record.received = now;
    if (usableSessionId(record.sessionId)) store(paths, *payload, record.sessionId, now);
  }
  if (auto previous = previousCommand(paths)) {
    // Run as Claude Code would run it: through the shell, fed the same bytes, in the same folder
    // and environment. Only a command that succeeds is shown: what a failing one printed may be
    // half a line or an error message, and the short line is better than either.
    SubprocessResult result = runSubprocess("/bin/sh", {"-c", *previous}, input);
    if (result.started && result.exitStatus == 0) {
      output = std::move(result.output);
      return 0;
    }
  }
  output = summary(record);
  output.push_back('\n');
  return 0;
}

}  // namespace vistrel::StatusLineBridge
