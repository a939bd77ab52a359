#pragma once

// Codex's sessions, today's tokens and plan limits, from the rollout files Codex writes under its
// home folder (sessions/YYYY/MM/DD/*.jsonl, one JSON record per line, or *.jsonl.zst compressed
// with zstd). Codex records its limits with every reply, so nothing needs connecting.
// Long-lived: each file is tailed from where the last refresh stopped. Called from one queue
// only; never throws.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agents/agent_records.hpp"
#include "agents/codex_rollout.hpp"
#include "base/clock.hpp"
#include "sampling/records.hpp"

namespace vistrel {

struct CodexRefresh {
  std::vector<AgentCard> cards;   // live sessions and those with records today, latest first
  std::optional<PlanUsage> plan;  // the limits reported last, across every rollout
  TokenTotals today;              // tokens since the start of today
  int64_t sessionsToday = 0;      // rollouts with records today
};

class CodexReader {
 public:
  // A live Codex process is paired only with a rollout written to within this many seconds, so an
  // old rollout is not taken for the running session. A rollout of the process's own folder is
  // preferred; Codex started with --cd, or serving an editor or the desktop app, runs elsewhere.
  static constexpr double kPairingSeconds = 21'600;
  // A session whose last record is younger than this is working.
  static constexpr double kWorkingSeconds = 10;

  // `folder`: Codex's home folder. `startOfDay`: the start of the day holding a date (local
  // midnight; tests inject UTC).
  explicit CodexReader(std::string folder = defaultFolder(),
                       std::function<Date(Date)> startOfDay = localStartOfDay);

  // $CODEX_HOME when set (as Codex itself does), else ~/.codex.
  static std::string defaultFolder();

  // Codex's folder exists.
  bool installed() const;

  // Reads what was appended since the last refresh and builds the cards. `processes`: the live
  // agent sessions found by the tracker (those of other tools are ignored).
  CodexRefresh refresh(const std::vector<AgentSession>& processes, Date now);

  const std::string& folder() const { return folder_; }

 private:
  struct FoundFile {
    std::string path;
    uint64_t size = 0;
    int64_t modified = 0;  // modification time, seconds since 1970
  };

  // Every rollout file with its size and time. A resumed session appends to its original file,
  // in the folder of the day it began, however long ago: every day folder is looked at, and what
  // is read is decided by the files' modification times. A folder is listed again only when its
  // own time changed (a file was added, renamed or removed); the files are only stat'ed.
  std::vector<FoundFile> findRollouts();
  // The names in a folder, from the cache while the folder's time is unchanged.
  const std::vector<std::string>& listing(const std::string& path);
  void read(CodexRollout& rollout, const FoundFile& file, Date now);
  std::vector<AgentCard> cards(const std::vector<AgentSession>& processes, Date now,
                               Date dayStart) const;

  std::string folder_;
  std::function<Date(Date)> startOfDay_;
  std::map<std::string, CodexRollout> rollouts_;  // keyed by the file's path
  struct Listing {
    int64_t modified = 0;  // the folder's time when listed, seconds since 1970
    int64_t listedAt = 0;  // when it was listed, seconds since 1970
    std::vector<std::string> names;
  };
  std::map<std::string, Listing> listings_;  // by folder path
};

}  // namespace vistrel
