#pragma once

// Claude Code's own files turned into session cards and today's token figures. Reads, never
// writes: the transcripts under "projects" (one JSON object per line, tailed by byte offset so a
// refresh reads only what was appended), the per-process live files under "sessions", and the
// status records of the status-line bridge. Long-lived, and called on one queue only.

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agents/agent_records.hpp"
#include "agents/claude_live_file.hpp"
#include "agents/claude_transcript.hpp"
#include "agents/message_ledger.hpp"
#include "agents/status_record.hpp"
#include "agents/tail.hpp"
#include "agents/transcript_line.hpp"
#include "base/clock.hpp"
#include "sampling/records.hpp"

namespace vistrel {

struct ClaudeRefresh {
  std::vector<AgentCard> cards;  // live sessions and those active today, latest activity first
  TokenTotals today;             // every response of today counted once
  std::vector<std::pair<std::string, int64_t>> byModel;    // fresh tokens, largest first
  std::vector<std::pair<std::string, int64_t>> byProject;  // fresh tokens, largest first
  int64_t sessionsToday = 0;
};

class ClaudeReader {
 public:
  // `folders`: Claude Code's data folders, each read where it exists (one folder reached through
  // two of these names is read once). `startOfDay`: the start of the day holding a date (tests
  // inject UTC). `processExists`: the pid probe of the live files (tests inject failures).
  explicit ClaudeReader(std::vector<std::string> folders = defaultFolders(),
                        std::function<Date(Date)> startOfDay = localStartOfDay,
                        std::function<bool(int32_t)> alive = processExists);
  explicit ClaudeReader(std::string folder, std::function<Date(Date)> startOfDay = localStartOfDay,
                        std::function<bool(int32_t)> alive = processExists)
      : ClaudeReader(std::vector<std::string>{std::move(folder)}, std::move(startOfDay),
                     std::move(alive)) {}

  // Where Claude Code keeps its data: $CLAUDE_CONFIG_DIR when set (Claude Code honours it), then
  // ~/.config/claude (newer installs) and ~/.claude (older ones). A machine may hold sessions in
  // more than one of them, so all are read.
  static std::vector<std::string> defaultFolders();

  // One of the data folders exists.
  bool installed() const;

  // The sessions whose process runs, from the "sessions" folder; files of exited processes and
  // files that do not parse are left out.
  std::vector<ClaudeLiveFile> liveFiles();

  // Reads what was appended since the last call and builds the cards. `processes`: the tracker's
  // live agent sessions, matched to live files by pid.
  ClaudeRefresh refresh(const std::vector<ClaudeLiveFile>& live, const StatusRecords& status,
                        const std::vector<AgentSession>& processes, Date now);

  // "claude-opus-4-1-20250805" reads "Opus 4.1"; "claude-sonnet-4-5" reads "Sonnet 4.5".
  static std::string modelName(std::string_view id) { return claudeModelName(id); }

 private:
  struct File {
    Tail tail;
    ClaudeTranscript* session = nullptr;
    bool subagent = false;
    // The file's size and modification time when last read completely: unchanged, it is not
    // opened again. A size of -1 forces a read.
    int64_t size = -1;
    int64_t modifiedNs = 0;
  };

  // The data folders that exist now, each once (by its resolved path).
  std::vector<std::string> existingFolders() const;
  // Walks one project folder. `live`: session ids with a running process.
  void readProject(const std::string& path, const std::vector<std::string_view>& live);
  // The session an old-layout subagent transcript ("agent-*.jsonl" beside the transcripts)
  // belongs to: the "sessionId" of its first record. Absent while that line is not complete.
  std::optional<std::string> parentOf(const std::string& path);
  void readSubagents(const std::string& sessionFolder, ClaudeTranscript& session);
  // Tails one file when its size or time changed since the last complete read.
  void readFile(const std::string& path, const struct stat& info, ClaudeTranscript& session,
                bool subagent);
  ClaudeTranscript& session(std::string_view id);
  AgentCard card(const std::string& id, const ClaudeTranscript* transcript,
                 const ClaudeLiveFile* live, const StatusRecords& status,
                 const std::vector<AgentSession>& processes) const;

  std::vector<std::string> folders_;
  std::function<Date(Date)> startOfDay_;
  std::function<bool(int32_t)> alive_;
  Date today_{};  // start of the day of the last refresh
  // Node-based maps: a File keeps a pointer to its session, and neither moves.
  std::map<std::string, ClaudeTranscript, std::less<>> sessions_;
  std::unordered_map<std::string, File> files_;  // by path
  // Old-layout subagent transcripts by path: the session they belong to.
  std::unordered_map<std::string, std::string> parents_;
  MessageLedger shared_;  // every session's responses
  TranscriptLineParser parser_;
};

}  // namespace vistrel
