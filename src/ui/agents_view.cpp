#include "ui/agents_view.hpp"

#include <algorithm>
#include <cstdio>

#include "format/fmt.hpp"
#include "format/platform_text.hpp"

namespace vistrel::ui {

namespace {

std::string dollars(double usd) {
  char text[32];
  std::snprintf(text, sizeof text, "$%.2f", usd);
  return text;
}

std::string tokens(int64_t n) {
  return Fmt::compact(n);
}

std::vector<Fact> facts(const std::vector<std::pair<std::string, int64_t>>& pairs) {
  std::vector<Fact> out;
  for (const auto& [name, n] : pairs) out.push_back({name, tokens(n)});
  return out;
}

SessionView sessionView(const AgentCard& c, Date now, const std::string& home) {
  SessionView s;
  s.agent = c.tool;
  s.folder = c.folder.value_or("");
  s.title = c.name.value_or(c.project());
  std::string subtitle = c.shortFolder(home);
  for (const auto& part : {c.model, c.gitBranch}) {
    if (!part) continue;
    if (!subtitle.empty()) subtitle += " · ";
    subtitle += *part;
  }
  s.subtitle = subtitle;
  s.live = c.live;
  if (c.live) {
    s.state = c.working ? "Busy" : "Idle";
  } else {
    s.state = c.lastActivity ? "Ended " + Fmt::clock(*c.lastActivity) : "Ended";
  }
  if (c.contextPercent) {
    std::string text = Fmt::percent(*c.contextPercent / 100);
    if (c.contextSize) text += " of " + tokens(*c.contextSize);
    s.facts.push_back({"Context", text});
  }
  s.facts.push_back({"Tokens today", tokens(c.tokens.fresh()) + " fresh"});
  // The agent's own estimate (the column is the agent's); the figure's column is narrow.
  if (c.cost) s.facts.push_back({"Estimated cost", dollars(*c.cost)});
  if (c.live && c.processCount > 0) {
    s.facts.push_back(
        {c.processCount == 1 ? "1 process" : std::to_string(c.processCount) + " processes",
         Fmt::appMetricValue(Metric::cpu, c.cpu) + " CPU · " + Fmt::mem(c.memory)});
  }
  (void)now;
  return s;
}

AgentColumnView column(const std::string& tool, bool installed, const std::vector<AgentCard>& cards,
                       const std::optional<PlanUsage>& plan, const TokenTotals& today,
                       int64_t sessionsToday, Date now, const std::string& home) {
  AgentColumnView v;
  v.tool = tool;
  if (!installed) {
    v.status = platformText("Not installed on this Mac");
    return v;
  }
  size_t live = static_cast<size_t>(
      std::count_if(cards.begin(), cards.end(), [](const AgentCard& c) { return c.live; }));
  v.status = live == 0   ? "No live session"
             : live == 1 ? "1 live session"
                         : std::to_string(live) + " live sessions";
  if (plan) {
    if (plan->session)
      v.windows.push_back(planBar("5-hour window", plan->session->current(now), now));
    if (plan->weekly) v.windows.push_back(planBar("Weekly", plan->weekly->current(now), now));
    if (plan->spend) {
      const SpendLimit& s = *plan->spend;
      std::string text = "Spend";
      if (s.usedUSD && s.limitUSD) {
        text += " " + dollars(*s.usedUSD) + " of " + dollars(*s.limitUSD);
      }
      text += " · " + Fmt::percent(s.usedPercent / 100) + " used";
      if (s.period) text += " this " + *s.period;
      v.spend = text;
    }
  }
  if (v.windows.empty()) {
    v.planNote = tool == kClaudeCode
                     ? "No plan limits yet. Connect the status line below; Claude Code shares its "
                       "limits with it after its next reply."
                     : "No plan limits yet. Codex reports them in its session files after its "
                       "next reply.";
  }
  std::string sessions =
      sessionsToday == 1 ? "1 session" : std::to_string(sessionsToday) + " sessions";
  v.today = tokens(today.fresh()) + " fresh tokens today in " + sessions;
  for (const AgentCard& c : cards) v.sessions.push_back(sessionView(c, now, home));
  return v;
}

}  // namespace

PlanBar planBar(const std::string& title, const UsageWindow& w, Date now) {
  PlanBar b;
  b.title = title;
  b.percent = Fmt::percent(w.usedPercent / 100);
  b.used = std::clamp(w.usedPercent / 100, 0.0, 1.0);
  b.pace = w.elapsed(now);
  b.paceLine = w.paceLine(now);
  b.resetLine = w.resetLine(now);
  if (w.usedPercent >= 100) {
    b.attention = Attention::trouble;
  } else if (w.runsOut(now) || w.usedPercent >= 80) {
    b.attention = Attention::notice;
  }
  return b;
}

AgentsPageView agentsPageView(const AgentsSnapshot& a, Date now, const std::string& home) {
  AgentsPageView v;
  v.claude = column(kClaudeCode, a.claudeInstalled, a.claude, a.claudePlan, a.claudeToday,
                    a.claudeSessionsToday, now, home);
  v.claude.byModel = facts(a.claudeTodayByModel);
  v.claude.byProject = facts(a.claudeTodayByProject);
  v.codex = column(kCodex, a.codexInstalled, a.codex, a.codexPlan, a.codexToday,
                   a.codexSessionsToday, now, home);

  StatusLineView& s = v.statusLine;
  s.explanation =
      "Claude Code shares its limits with its status line. Connect, and Vistrel becomes that "
      "status line: it records the limits and shows a short line under your prompt (model · "
      "context · session · week).";
  s.keepsYours =
      "Your own status line keeps showing: Vistrel passes it the same data and prints what it "
      "prints.";
  switch (a.statusLine.kind) {
    case StatusLineState::Kind::connected:
      s.state = "Connected";
      s.action = "Disconnect";
      s.connected = true;
      break;
    case StatusLineState::Kind::otherCommand:
      s.state = "Your own status line is set: " + a.statusLine.command;
      s.action = "Connect";
      break;
    case StatusLineState::Kind::notConnected:
      s.state = "Not connected";
      s.action = "Connect";
      s.keepsYours.clear();
      break;
  }
  return v;
}

std::string connectedText(const std::optional<std::string>& backupFile) {
  std::string text =
      "Connected. Claude Code sends its limits after its next reply in any session (Pro and Max "
      "plans).";
  if (backupFile) text += " Your settings were backed up first to " + *backupFile + ".";
  return text;
}

}  // namespace vistrel::ui
