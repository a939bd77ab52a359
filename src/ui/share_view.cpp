#include "ui/share_view.hpp"

#include "format/fmt.hpp"

namespace vistrel::ui {

ShareCardView shareCardView(const std::vector<HistoryPoint>& cpu, int64_t bucketSeconds,
                            const std::vector<AppHistory>& top, const AgentsSnapshot& agents,
                            const std::vector<AlertEvent>& alerts, Date dayStart, Date now) {
  ShareCardView v;
  v.date = Fmt::dayOnly(now);
  const int64_t start = static_cast<int64_t>(secondsSince1970(dayStart));
  int64_t busySeconds = 0;
  for (const HistoryPoint& p : cpu) {
    if (p.time >= start && p.value >= kBusyShare * 100) busySeconds += bucketSeconds;
  }
  v.busy = busySeconds > 0 ? Fmt::duration(static_cast<double>(busySeconds)) : "0 min";
  v.busyNote = "busy, with the CPU above half its capacity";
  for (size_t i = 0; i < top.size() && v.apps.size() < 3; ++i) {
    v.apps.push_back({top[i].name, Fmt::appMetricValue(Metric::cpu, top[i].average) + " CPU"});
  }
  TokenTotals tokens = agents.claudeToday + agents.codexToday;
  v.tokens = Fmt::compact(tokens.fresh());
  v.tokensNote = "fresh tokens by Claude Code and Codex";
  size_t today = 0;
  for (const AlertEvent& e : alerts) today += e.date >= dayStart ? 1 : 0;
  v.alerts = std::to_string(today);
  v.alertsNote = today == 1 ? "alert" : "alerts";
  return v;
}

}  // namespace vistrel::ui
