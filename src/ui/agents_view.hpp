#pragma once

// What the coding agents page shows, one column per agent: the plan windows as bars with their
// pace and reset lines, the spend limit, the sessions of today, today's tokens by model and by
// project, and the status-line card. Qt-free.

#include <optional>
#include <string>
#include <vector>

#include "agents/agent_records.hpp"
#include "ui/views.hpp"

namespace vistrel::ui {

struct PlanBar {
  std::string title;           // "5-hour window", "Weekly"
  std::string percent;         // "42%"
  double used = 0;             // 0...1 for the bar (a window above 100 % fills it)
  std::optional<double> pace;  // where even use would stand now, 0...1 (the pace mark)
  std::string paceLine;        // "On pace", "At this pace: runs out 4:05 PM", ...
  std::string resetLine;       // "Resets 4:05 PM · in 2 h 10 min"
  Attention attention = Attention::none;
};

struct SessionView {
  std::string agent;        // "Claude Code": with `folder`, what ending the session needs
  std::string folder;       // absolute, "" when unknown
  std::string title;        // the project, or the session's name
  std::string subtitle;     // "~/code/x · Opus 4 · main"
  std::string state;        // "Busy", "Idle", or "Ended 2:05 PM"
  bool live = false;        // can be ended
  std::vector<Fact> facts;  // context, tokens, cost, processes
};

struct AgentColumnView {
  std::string tool;
  std::string status;  // "Not installed on this Mac", "2 live sessions", "No live session"
  std::vector<PlanBar> windows;
  std::string spend;     // "Spend $12.40 of $50.00 · 25% this month"; "" without
  std::string planNote;  // when no limits are known: why, and what would show them
  std::string today;     // "1.2M fresh tokens today in 3 sessions"
  std::vector<Fact> byModel;
  std::vector<Fact> byProject;
  std::vector<SessionView> sessions;
};

struct StatusLineView {
  std::string state;        // "Connected", "Not connected", "Another status line is set"
  std::string explanation;  // what connecting does
  std::string keepsYours;   // shown when the person has their own status line
  std::string action;       // "Connect" or "Disconnect"
  bool connected = false;
};

struct AgentsPageView {
  AgentColumnView claude;
  AgentColumnView codex;
  StatusLineView statusLine;
};

// `home`: the person's home folder, for the "~" folders.
AgentsPageView agentsPageView(const AgentsSnapshot& a, Date now, const std::string& home);

// The plan window bar of one window (already `current`), titled.
PlanBar planBar(const std::string& title, const UsageWindow& window, Date now);

// The sentence shown after connecting: the fixed text, then the backup that was made.
std::string connectedText(const std::optional<std::string>& backupFile);
inline constexpr const char* kDisconnectedText =
    "Disconnected. Claude Code's status line is back as it was.";

}  // namespace vistrel::ui
