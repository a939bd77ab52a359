#pragma once

// Today's summary as the share card shows it: how long the machine was busy, the busiest apps,
// the coding agents' tokens and the alerts. Qt-free.

#include <string>
#include <vector>

#include "agents/agent_records.hpp"
#include "alerts/alert_event.hpp"
#include "history/time_span.hpp"
#include "ui/views.hpp"

namespace vistrel::ui {

struct ShareCardView {
  std::string date;        // "Mon 3 Mar"
  std::string busy;        // "2 h 15 min"
  std::string busyNote;    // "with the CPU above half its capacity"
  std::vector<Fact> apps;  // the busiest apps today and their average CPU
  std::string tokens;      // "1.2M"
  std::string tokensNote;  // "fresh tokens by Claude Code and Codex"
  std::string alerts;      // "2"
  std::string alertsNote;  // "alerts" / "alert" / "no alerts today"
  bool operator==(const ShareCardView&) const = default;
};

// A bucket counts as busy when the machine's CPU averaged at least this share of all its cores.
inline constexpr double kBusyShare = 0.5;

// `cpu`: the machine's CPU series over the last day (percent, one point per `bucketSeconds`);
// only points since `dayStart` count. `top`: the apps by CPU over the last day (percent of one
// core). `alerts`: the kept alerts; those raised since `dayStart` count.
ShareCardView shareCardView(const std::vector<HistoryPoint>& cpu, int64_t bucketSeconds,
                            const std::vector<AppHistory>& top, const AgentsSnapshot& agents,
                            const std::vector<AlertEvent>& alerts, Date dayStart, Date now);

}  // namespace vistrel::ui
