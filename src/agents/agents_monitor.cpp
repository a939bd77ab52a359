#include "agents/agents_monitor.hpp"

namespace vistrel {

AgentsMonitor::AgentsMonitor(MainQueue& main, const Clock& clock, Options options)
    : main_(main),
      clock_(clock),
      options_(std::move(options)),
      queue_("org.brackwood.vistrel.agents") {
  if (options_.startOfDay) {
    claude_ = std::make_unique<ClaudeReader>(options_.claudeFolders, options_.startOfDay);
    codex_ = std::make_unique<CodexReader>(options_.codexFolder, options_.startOfDay);
  } else {
    claude_ = std::make_unique<ClaudeReader>(options_.claudeFolders);
    codex_ = std::make_unique<CodexReader>(options_.codexFolder);
  }
}

AgentsMonitor::~AgentsMonitor() {
  *alive_ = false;
  queue_.shutdown();
}

void AgentsMonitor::refresh(std::vector<AgentSession> processes, double minimumGap,
                            std::function<void(AgentsSnapshot)> done) {
  double now = clock_.uptime();
  {
    std::lock_guard lock(lock_);
    if (running_ || now - lastRun_ < minimumGap) return;
    running_ = true;
    lastRun_ = now;
  }
  std::weak_ptr<bool> alive = alive_;
  queue_.async([this, alive, processes = std::move(processes), done = std::move(done)]() mutable {
    AgentsSnapshot snapshot = read(processes);
    main_.post([alive, done = std::move(done), snapshot = std::move(snapshot)]() mutable {
      if (auto a = alive.lock(); a && *a && done) done(std::move(snapshot));
    });
    std::lock_guard lock(lock_);
    running_ = false;
  });
}

AgentsSnapshot AgentsMonitor::readNow(const std::vector<AgentSession>& processes) {
  return queue_.syncValue([&] { return read(processes); });
}

void AgentsMonitor::repairStatusLinePath() {
  queue_.async([this] { StatusLineBridge::repairPathIfNeeded(options_.bridge); });
}

AgentsSnapshot AgentsMonitor::read(const std::vector<AgentSession>& processes) {
  AgentsSnapshot s;
  const Date now = clock_.now();
  s.statusLine = StatusLineBridge::state(options_.bridge);
  StatusRecords records = StatusLineBridge::records(options_.bridge, now);

  std::vector<AgentSession> claudeSessions, codexSessions;
  for (const auto& p : processes) {
    if (p.tool == kClaudeCode) claudeSessions.push_back(p);
    if (p.tool == kCodex) codexSessions.push_back(p);
  }
  ClaudeRefresh claude = claude_->refresh(claude_->liveFiles(), records, claudeSessions, now);
  s.claude = std::move(claude.cards);
  s.claudeToday = claude.today;
  s.claudeTodayByModel = std::move(claude.byModel);
  s.claudeTodayByProject = std::move(claude.byProject);
  s.claudeSessionsToday = claude.sessionsToday;

  // Claude Code's limits come only from its status line: the record reported last wins.
  std::vector<std::optional<PlanUsage>> plans;
  for (const auto& [id, record] : records) plans.push_back(record.plan);
  s.claudePlan = latestPlan(plans);

  s.codexInstalled = codex_->installed();
  if (s.codexInstalled) {
    CodexRefresh codex = codex_->refresh(codexSessions, now);
    s.codex = std::move(codex.cards);
    s.codexPlan = std::move(codex.plan);
    s.codexToday = codex.today;
    s.codexSessionsToday = codex.sessionsToday;
  }
  s.claudeInstalled = claude_->installed();
  s.updated = clock_.now();
  return s;
}

}  // namespace vistrel
