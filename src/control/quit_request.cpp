#include "control/quit_request.hpp"

#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <unordered_map>
#include <unordered_set>

#include "alerts/alert_event.hpp"
#include "processes/app_bundles.hpp"

namespace vistrel {

QuitRequest QuitRequest::forApp(AppUsage app) {
  return QuitRequest{makeUUID(), AppTarget{std::move(app)}};
}

QuitRequest QuitRequest::forAgent(std::string name, std::string folder) {
  return QuitRequest{makeUUID(), AgentTarget{std::move(name), std::move(folder)}};
}

std::string QuitRequest::title() const {
  if (const AppUsage* a = app()) return "Quit " + a->name + "?";
  return "End this " + agent()->name + " session?";
}

std::string QuitRequest::message() const {
  if (const AppUsage* a = app()) {
    return a->name + " will be asked to quit, like choosing Quit from its menu.";
  }
  return "This ends the session in " + agent()->folder + " and everything it started.";
}

std::string QuitRequest::forceQuitNote() {
  return "Force quit closes it at once. Anything unsaved is lost.";
}

// --- Which apps may be asked to quit ---

QuitContext QuitContext::current() {
  QuitContext context;
  context.ownPid = static_cast<int32_t>(::getpid());
  context.ownUid = static_cast<uint32_t>(::getuid());
  context.pathExists = [](const std::string& path) {
    std::error_code ignored;
    return std::filesystem::exists(path, ignored);
  };
  return context;
}

bool isMacOSBundle(const std::optional<std::string>& path,
                   const std::function<bool(const std::string&)>& pathExists) {
  if (!path) return false;
  // Safari's cryptex reads as /System/Applications/, the system's cryptex as /System/.
  const std::string_view p = withoutCryptexPrefix(*path);
  if (!p.starts_with("/System/") || p.starts_with("/System/Applications/")) return false;
  return pathExists && pathExists(*path);
}

QuitRefusal quitRefusal(const AppUsage& app, const std::vector<ProcessSample>& processes,
                        const QuitContext& context) {
  if (app.isSystem) return QuitRefusal::system;
  if (isMacOSBundle(app.bundlePath, context.pathExists)) return QuitRefusal::macOSBundle;
  if (app.pids.empty()) return QuitRefusal::noProcesses;
  for (int32_t pid : app.pids) {
    if (pid == context.ownPid) return QuitRefusal::itself;
  }
  for (int32_t pid : app.pids) {
    auto found = std::find_if(processes.begin(), processes.end(),
                              [pid](const ProcessSample& p) { return p.pid == pid; });
    if (found == processes.end() || found->uid != context.ownUid) return QuitRefusal::anotherUser;
  }
  return QuitRefusal::none;
}

// --- Carrying out a confirmed request ---

namespace {

class KillSender final : public SignalSender {
 public:
  bool send(int32_t pid, int signal) override {
    if (pid <= 1 || pid == static_cast<int32_t>(::getpid())) return false;
    return ::kill(static_cast<pid_t>(pid), signal) == 0;
  }
};

bool contains(const std::vector<int32_t>& pids, int32_t pid) {
  return std::find(pids.begin(), pids.end(), pid) != pids.end();
}

}  // namespace

std::unique_ptr<SignalSender> makeSignalSender() {
  return std::make_unique<KillSender>();
}

std::vector<int32_t> agentTree(const Snapshot& latest, const std::string& name,
                               const std::string& folder) {
  std::vector<int32_t> tree;
  std::unordered_set<int32_t> seen;
  for (const AgentSession& session : latest.agents) {
    if (session.tool != name || session.folder.value_or("") != folder) continue;
    if (session.pid > 0 && seen.insert(session.pid).second) tree.push_back(session.pid);
  }
  std::unordered_multimap<int32_t, int32_t> children;
  for (const ProcessSample& p : latest.processes) children.emplace(p.ppid, p.pid);
  // Breadth first over the parent links; `seen` stops a (corrupt) cycle of parents.
  for (size_t i = 0; i < tree.size(); ++i) {
    auto [from, to] = children.equal_range(tree[i]);
    for (auto it = from; it != to; ++it) {
      if (it->second > 0 && seen.insert(it->second).second) tree.push_back(it->second);
    }
  }
  return tree;
}

QuitOutcome performQuit(const QuitRequest& request, bool force, const Snapshot& latest,
                        AppQuitter& apps, SignalSender& signals, int32_t ownPid) {
  const int signal = force ? SIGKILL : SIGTERM;
  QuitOutcome outcome;
  auto sendTo = [&](int32_t pid) {
    if (pid <= 1 || pid == ownPid) return;
    if (signals.send(pid, signal)) ++outcome.processes;
  };

  if (const auto* target = request.agent()) {
    for (int32_t pid : agentTree(latest, target->name, target->folder)) sendTo(pid);
    return outcome;
  }

  const AppUsage& app = *request.app();
  // Only processes still running (present in the newest snapshot) are reached, in the app's
  // order, so the main process stays first.
  std::vector<int32_t> running;
  for (int32_t pid : app.pids) {
    if (pid <= 1 || pid == ownPid || contains(running, pid)) continue;
    bool present = std::any_of(latest.processes.begin(), latest.processes.end(),
                               [pid](const ProcessSample& p) { return p.pid == pid; });
    if (present) running.push_back(pid);
  }
  std::vector<int32_t> signalled;
  if (app.bundlePath) {
    if (!running.empty()) outcome.applications = apps.quit(running, force);
  } else {
    // No application to ask (a script, a server, a command-line tool grouped by its name): its
    // processes are signalled as an application's helpers are.
    for (int32_t pid : running) sendTo(pid);
    signalled = running;
  }
  for (const ProcessSample& p : latest.processes) {
    if (contains(running, p.ppid) && !contains(signalled, p.pid)) sendTo(p.pid);
  }
  return outcome;
}

std::string quitToast(const QuitRequest& request, bool force, const QuitOutcome& outcome) {
  if (const AppUsage* app = request.app()) {
    if (!outcome.reachedAnything()) return app->name + " had already quit.";
    return force ? "Force quit " + app->name + "." : "Asked " + app->name + " to quit.";
  }
  const auto* session = request.agent();
  if (!outcome.reachedAnything()) {
    return "That " + session->name + " session had already ended.";
  }
  return "Ended the " + session->name + " session in " + session->folder + ".";
}

}  // namespace vistrel
