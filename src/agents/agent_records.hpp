#pragma once

// What the system knows about the coding agents it watches (Claude Code and Codex): plan limits,
// token counts and one card per session. Plain copyable values compared member-wise; the readers
// fill them, the agents monitor assembles them, the pages and agent requests only read them.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "base/clock.hpp"
#include "sampling/records.hpp"

namespace vistrel {

inline constexpr const char* kClaudeCode = "Claude Code";
inline constexpr const char* kCodex = "Codex";

// One rate-limit window.
struct UsageWindow {
  double usedPercent = 0;                // 0-100 (above 100 kept as reported)
  std::optional<Date> resetsAt;          // absent when the agent did not say
  std::optional<int64_t> windowMinutes;  // 300 for the 5-hour window, 10080 for the weekly one

  // The window as it stands at `now`: past its reset it has rolled over to 0 %, reset unknown.
  UsageWindow current(Date now) const;
  // The fraction of the window gone, 0...1; absent without a reset time or a length.
  std::optional<double> elapsed(Date now) const;
  // When use at the average pace so far exhausts the window, if that comes before the reset.
  std::optional<Date> runsOut(Date now) const;
  // "Limit reached", "At this pace: runs out 4:05 PM", "Ahead of pace, still lasts" or "On pace".
  std::string paceLine(Date now) const;
  // "Resets 4:05 PM · in 2 h 10 min", "Reset at ...", or "Reset time not reported".
  std::string resetLine(Date now) const;
  bool operator==(const UsageWindow&) const = default;
};

// A spend (money) limit.
struct SpendLimit {
  double usedPercent = 0;
  std::optional<Date> resetsAt;
  std::optional<double> usedUSD;
  std::optional<double> limitUSD;
  std::optional<std::string> period;  // the agent's name for the period, as given
  bool operator==(const SpendLimit&) const = default;
};

// The plan limits of one agent at one moment.
struct PlanUsage {
  std::optional<UsageWindow> session;  // the 5-hour window
  std::optional<UsageWindow> weekly;
  std::optional<SpendLimit> spend;
  Date updated{};  // the time of the record these came from
  bool operator==(const PlanUsage&) const = default;
};

// Token counters. Every sum is checked: a 64-bit overflow is a programming error and stops the
// process rather than wrapping into a nonsense figure.
struct TokenTotals {
  int64_t input = 0;  // not served from the prompt cache
  int64_t output = 0;
  int64_t cacheWrite = 0;  // written to the prompt cache
  int64_t cacheRead = 0;   // read from the prompt cache

  int64_t total() const;
  // Input, output and cache writes: cache reads cost far less and are left out on purpose.
  int64_t fresh() const;
  TokenTotals operator+(const TokenTotals& other) const;
  TokenTotals& operator+=(const TokenTotals& other);
  bool operator==(const TokenTotals&) const = default;
};

// A checked 64-bit sum: stops the process on overflow.
int64_t checkedAdd(int64_t a, int64_t b);

// "~/code/x" for a folder under the home folder, "~" for the home folder itself, else unchanged;
// empty when absent.
std::string shortFolder(const std::optional<std::string>& folder, const std::string& home);

// One session as the pages and agent requests show it.
struct AgentCard {
  std::string id;
  std::string tool;  // "Claude Code" or "Codex"
  std::optional<std::string> name;
  std::optional<std::string> folder;
  std::optional<int32_t> pid;
  bool live = false;
  bool working = false;
  std::optional<std::string> model;
  std::optional<std::string> version;
  std::optional<std::string> gitBranch;
  std::optional<Date> started;
  std::optional<Date> lastActivity;
  TokenTotals tokens;
  int64_t prompts = 0;
  int64_t replies = 0;
  int64_t toolCalls = 0;
  int64_t subagents = 0;
  std::optional<double> contextPercent;
  std::optional<int64_t> contextSize;
  std::optional<double> cost;  // the agent's own estimate, US dollars
  std::optional<int64_t> linesAdded;
  std::optional<int64_t> linesRemoved;
  std::optional<double> apiSeconds;
  int64_t processCount = 0;
  double cpu = 0;       // percent of one core
  uint64_t memory = 0;  // bytes

  std::string shortFolder(const std::string& home) const {
    return vistrel::shortFolder(folder, home);
  }
  // The folder's last component; "Unknown folder" when there is none.
  std::string project() const;
  bool operator==(const AgentCard&) const = default;
};

// Whether the system is Claude Code's status line.
struct StatusLineState {
  enum class Kind { notConnected, connected, otherCommand };
  Kind kind = Kind::notConnected;
  std::string command;  // otherCommand: the user's own command the system would replace

  static StatusLineState notConnected() { return {}; }
  static StatusLineState connected() { return {Kind::connected, {}}; }
  static StatusLineState other(std::string command) {
    return {Kind::otherCommand, std::move(command)};
  }
  bool operator==(const StatusLineState&) const = default;
};

// Everything known about both agents at one moment.
struct AgentsSnapshot {
  std::vector<AgentCard> claude;
  std::vector<AgentCard> codex;
  std::optional<PlanUsage> claudePlan;
  std::optional<PlanUsage> codexPlan;
  TokenTotals claudeToday;
  std::vector<std::pair<std::string, int64_t>> claudeTodayByModel;    // fresh tokens per model
  std::vector<std::pair<std::string, int64_t>> claudeTodayByProject;  // fresh tokens per folder
  int64_t claudeSessionsToday = 0;
  TokenTotals codexToday;
  int64_t codexSessionsToday = 0;
  StatusLineState statusLine;
  bool claudeInstalled = false;
  bool codexInstalled = false;
  Date updated{};  // the distant past until assembled
  bool operator==(const AgentsSnapshot&) const = default;
};

// The plan of the status record reported last (the first met among equal times); absent when no
// record carries one.
std::optional<PlanUsage> latestPlan(const std::vector<std::optional<PlanUsage>>& plans);

}  // namespace vistrel
