#pragma once

// Makes Vistrel Claude Code's status-line command, the only place Claude Code shares its plan
// limits. Inside the app: connect, disconnect and report the connection by editing Claude Code's
// settings file, and read the records the command side left. As the command (`--statusline`):
// store each payload, then print the user's own previous status line, or a short one of ours.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "agents/agent_records.hpp"
#include "agents/safe_file.hpp"
#include "agents/status_record.hpp"
#include "base/clock.hpp"

namespace vistrel {

// Where the bridge reads and writes. Tests point every path into a temporary folder.
struct BridgePaths {
  std::string settingsFile;   // Claude Code's settings.json
  std::string supportFolder;  // the records, the user's saved command and the backups
  std::string executable;     // the path written into the status-line command
  RenameStep renameStep;      // how a finished file is put in place; empty: the system's rename

  // $CLAUDE_CONFIG_DIR/settings.json when that is set (Claude Code honours it), else
  // ~/.claude/settings.json; the application's support folder; the running executable.
  static BridgePaths defaults();
};

namespace StatusLineBridge {

inline constexpr const char* kInvalidSettings =
    "Claude Code's settings file isn't valid JSON, so Vistrel left it alone.";
inline constexpr const char* kUnreadableSettings =
    "Vistrel couldn't read Claude Code's settings file, so it left it alone.";
inline constexpr const char* kNoBackup =
    "Vistrel couldn't back up Claude Code's settings file, so it left it alone.";
inline constexpr const char* kNotWritten =
    "Vistrel couldn't write Claude Code's settings file; it is as it was.";
inline constexpr const char* kNoFolder = "Vistrel couldn't create its support folder.";

// Where an executable path cannot be had.
inline constexpr const char* kFallbackExecutable =
    "/Applications/Vistrel.app/Contents/MacOS/Vistrel";

// Seconds after which a record is too old to show: two days.
inline constexpr int64_t kStaleSeconds = 172'800;

// The status-line command: the executable's path in double quotes (the characters the shell
// treats specially inside them escaped), then " --statusline".
std::string command(const BridgePaths& paths);

// True for a command that runs this executable's status-line mode: it holds "--statusline" and
// the executable's file name, compared without regard to case (the app is "Vistrel" on macOS,
// "vistrel" on Linux).
bool isOwnCommand(std::string_view command, std::string_view executable);

// The records' folder: support/claude-status.
std::string recordFolder(const BridgePaths& paths);
// The user's own "statusLine" object, saved at connect: support/statusline-previous.json.
std::string savedStatusLineFile(const BridgePaths& paths);

// Read afresh from the settings file every time: an edit by hand shows at once. A missing or
// invalid file, or one without a "statusLine" command, is notConnected.
StatusLineState state(const BridgePaths& paths);

// Becomes Claude Code's status line. Backs the whole settings file up first (every time), saves
// the user's own "statusLine" once (a second connect finds our command and keeps the saved one),
// and writes {"type": "command", "command": ..., "refreshInterval": 60} plus the old "padding".
// Every other key keeps its value and place. nullopt on success, else the message for the user;
// on failure the settings file is exactly as it was.
std::optional<std::string> connect(const BridgePaths& paths,
                                   Date now = std::chrono::system_clock::now());

// Puts the saved "statusLine" back, or removes ours when none was saved, then forgets the saved
// one. A status line the user has since set up themselves is left alone. Backs up first.
std::optional<std::string> disconnect(const BridgePaths& paths,
                                      Date now = std::chrono::system_clock::now());

// When connected through an older path (the app was moved), points the command at this
// executable. Backs up first; failures leave everything as it was.
void repairPathIfNeeded(const BridgePaths& paths, Date now = std::chrono::system_clock::now());

// One record per session from support/claude-status, skipping files received more than two days
// before `now` and files that do not parse.
StatusRecords records(const BridgePaths& paths, Date now);

// The short line for a payload's record.
std::string summary(const StatusRecord& record);

// The `--statusline` mode on one payload: stores it (with "received" = now) when it names a
// session, then fills `output` with what the user's previous status-line command prints when fed
// the same input when it exits 0, or else with the short line and a newline. Every failure falls
// through to the short line; the result is always 0, so Claude Code never shows an error.
int runStatusLine(const BridgePaths& paths, std::string_view input, std::string& output, Date now);

}  // namespace StatusLineBridge

}  // namespace vistrel
