#include "ui/quit_view.hpp"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "format/fmt.hpp"

namespace vistrel::ui {

namespace {

Affected row(const ProcessSample& p) {
  return {p.name.empty() ? "pid " + std::to_string(p.pid) : p.name,
          "pid " + std::to_string(p.pid) + " · " + Fmt::mem(p.memory)};
}

}  // namespace

std::vector<Affected> affected(const QuitRequest& request, const Snapshot& latest) {
  std::unordered_map<int32_t, const ProcessSample*> byPid;
  for (const ProcessSample& p : latest.processes) byPid.emplace(p.pid, &p);
  std::vector<Affected> out;
  if (const AppUsage* app = request.app()) {
    std::unordered_set<int32_t> own(app->pids.begin(), app->pids.end());
    for (int32_t pid : app->pids) {
      if (auto it = byPid.find(pid); it != byPid.end()) out.push_back(row(*it->second));
    }
    // Children outside the app's own list receive the signal too; the person sees them here.
    for (const ProcessSample& p : latest.processes) {
      if (!own.count(p.pid) && own.count(p.ppid)) out.push_back(row(p));
    }
    return out;
  }
  if (const auto* agent = request.agent()) {
    for (int32_t pid : agentTree(latest, agent->name, agent->folder)) {
      if (auto it = byPid.find(pid); it != byPid.end()) out.push_back(row(*it->second));
    }
  }
  return out;
}

QuitDialogView quitDialogView(const QuitRequest& request, const std::optional<Snapshot>& latest) {
  QuitDialogView v;
  v.title = request.title();
  v.message = request.message();
  if (request.app()) v.forceNote = QuitRequest::forceQuitNote();
  if (latest) v.affected = affected(request, *latest);
  if (v.affected.empty()) {
    v.nothingLeft = request.app() ? "It isn't running any more." : "Nothing of it runs any more.";
  }
  return v;
}

}  // namespace vistrel::ui
