#include "agents/agent_tracker.hpp"

#include <algorithm>
#include <cctype>
#include <unordered_set>

#include "agents/agent_records.hpp"
#include "base/files.hpp"

namespace vistrel {

namespace {

std::string lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

// A child's chain up to its agent is bounded: a cycle or a very deep tree costs at most this many
// steps per process.
constexpr int kMaxDepth = 32;

double secondsBetween(Date from, Date to) {
  return std::chrono::duration<double>(to - from).count();
}

}  // namespace

std::optional<std::string> agentOfScript(std::string_view path) {
  if (path.find("/node_modules/@anthropic-ai/claude-code/") != std::string_view::npos) {
    return kClaudeCode;
  }
  if (path.find("/node_modules/@openai/codex/") != std::string_view::npos) return kCodex;
  if (path.find("/bin/") != std::string_view::npos ||
      path.find("/node_modules/.bin/") != std::string_view::npos) {
    std::string last = lowered(lastComponent(path));
    if (last == "claude") return kClaudeCode;
    if (last == "codex") return kCodex;
  }
  return std::nullopt;
}

AgentTracker::AgentTracker(Queries queries, const Clock& clock)
    : queries_(std::move(queries)), clock_(clock) {}

std::optional<std::string> AgentTracker::tool(const ProcessSample& p) {
  if (auto cached = argsCache_.find(p.pid); cached != argsCache_.end() &&
                                            cached->second.started == p.started &&
                                            cached->second.name == p.name) {
    return cached->second.tool;
  }
  std::optional<std::string> found;
  std::string name = lowered(p.name);
  if (name == "claude") {
    found = kClaudeCode;
  } else if (name == "codex" || name == "codex-aarch64-apple-darwin" ||
             name == "codex-x86_64-apple-darwin") {
    found = kCodex;
  } else if ((name == "node" || name == "bun" || name == "deno") && queries_.arguments) {
    // The script is the first argument after the runtime itself that is not an option.
    auto args = queries_.arguments(p.pid);
    for (size_t i = 1; i < args.size(); ++i) {
      if (args[i].empty() || args[i].front() == '-') continue;
      found = agentOfScript(args[i]);
      break;
    }
  }
  argsCache_[p.pid] = {p.started, p.name, found};
  return found;
}

std::pair<std::vector<AgentSession>, AgentRoots> AgentTracker::sessions(
    const std::vector<ProcessSample>& processes) {
  const Date now = clock_.now();
  std::unordered_map<int32_t, const ProcessSample*> byPid;
  byPid.reserve(processes.size());
  for (const auto& p : processes) byPid[p.pid] = &p;

  // Agent processes, then the roots among them: an agent whose parent runs the same tool is part
  // of its parent's session (Claude Code starting a subagent process, say).
  std::unordered_map<int32_t, std::string> agentTool;
  for (const auto& p : processes) {
    if (auto t = tool(p)) agentTool[p.pid] = *t;
  }
  AgentRoots roots;
  for (const auto& [pid, name] : agentTool) {
    const ProcessSample* p = byPid[pid];
    auto parent = agentTool.find(p->ppid);
    if (parent == agentTool.end() || parent->second != name) roots[pid] = name;
  }

  std::vector<AgentSession> sessions;
  std::unordered_map<int32_t, size_t> sessionOf;  // root pid -> index in `sessions`
  for (const auto& [pid, name] : roots) {
    const ProcessSample* p = byPid[pid];
    AgentSession s;
    s.pid = pid;
    s.tool = name;
    s.started = p->started;
    if (queries_.workingFolder) s.folder = queries_.workingFolder(pid);
    sessionOf[pid] = sessions.size();
    sessions.push_back(std::move(s));
  }

  // Every process joins the session of its nearest root ancestor (itself, for a root).
  for (const auto& p : processes) {
    const ProcessSample* at = &p;
    for (int depth = 0; at && depth < kMaxDepth; ++depth) {
      if (auto found = sessionOf.find(at->pid); found != sessionOf.end()) {
        AgentSession& s = sessions[found->second];
        ++s.processCount;
        s.cpu += p.cpu;
        s.memory += p.memory;
        break;
      }
      if (at->ppid <= 1 || at->ppid == at->pid) break;
      auto parent = byPid.find(at->ppid);
      at = parent == byPid.end() ? nullptr : parent->second;
    }
  }

  for (auto& s : sessions) {
    if (s.cpu > kBusyPercent) busyAt_[s.pid] = now;
    auto busy = busyAt_.find(s.pid);
    s.working = busy != busyAt_.end() && secondsBetween(busy->second, now) < kWorkingHold;
    if (!s.working) s.idleSince = busy != busyAt_.end() ? std::optional(busy->second) : s.started;
  }

  // Forget processes that are gone.
  std::erase_if(busyAt_, [&](const auto& e) { return !byPid.count(e.first); });
  std::erase_if(argsCache_, [&](const auto& e) { return !byPid.count(e.first); });

  // Newest session first; the pid breaks ties so the order is stable across ticks.
  std::stable_sort(sessions.begin(), sessions.end(),
                   [](const AgentSession& a, const AgentSession& b) {
                     if (a.started != b.started) return a.started > b.started;
                     return a.pid < b.pid;
                   });
  return {std::move(sessions), std::move(roots)};
}

}  // namespace vistrel
