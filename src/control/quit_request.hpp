#pragma once

// A pending question whether to quit an app or to end a coding-agent session. Nothing is ever quit
// without the person's confirmation in the application's window: a request is filed, shown as a
// confirmation dialog, and carried out (`performQuit`) only once they confirm, as a normal or a
// forced quit. The control requests can file a request but never carry one out.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "sampling/records.hpp"

namespace vistrel {

struct QuitRequest {
  // The app as it was when the request was filed.
  struct AppTarget {
    AppUsage app;
    bool operator==(const AppTarget&) const = default;
  };
  // A coding-agent session: the agent's name ("Claude Code", "Codex") and the session's folder.
  struct AgentTarget {
    std::string name;
    std::string folder;
    bool operator==(const AgentTarget&) const = default;
  };
  using Target = std::variant<AppTarget, AgentTarget>;

  std::string id;  // a UUID, new for each request
  Target target;

  static QuitRequest forApp(AppUsage app);
  static QuitRequest forAgent(std::string name, std::string folder);

  // The app, or null for a session.
  const AppUsage* app() const {
    const auto* t = std::get_if<AppTarget>(&target);
    return t ? &t->app : nullptr;
  }
  const AgentTarget* agent() const { return std::get_if<AgentTarget>(&target); }

  // "Quit Xcode?" or "End this Claude Code session?".
  std::string title() const;
  // The dialog's sentence: "Xcode will be asked to quit, like choosing Quit from its menu." or
  // "This ends the session in ~/code/x and everything it started.".
  std::string message() const;
  // The line beside the force-quit choice (apps only).
  static std::string forceQuitNote();

  bool operator==(const QuitRequest&) const = default;
};

// --- Which apps may be asked to quit ---

// What `quitRefusal` needs of the running process, injected so tests never depend on the host.
struct QuitContext {
  int32_t ownPid = 0;   // this application's process
  uint32_t ownUid = 0;  // the user it runs as
  // Whether a file exists (for the macOS bundle rule).
  std::function<bool(const std::string&)> pathExists;

  // This process, its user and the real file system.
  static QuitContext current();
};

// True when `path` exists, begins with "/System/" and does not begin with "/System/Applications/":
// the operating system's own bundles (the apps under /System/Applications are ordinary apps the
// person may quit). A cryptex path is judged as the folder it stands for (`withoutCryptexPrefix`),
// so Safari, run from its cryptex since macOS 13, is an ordinary app.
bool isMacOSBundle(const std::optional<std::string>& path,
                   const std::function<bool(const std::string&)>& pathExists);

// Why an app may not be quit, the first rule that holds, in this order.
enum class QuitRefusal {
  none,         // it may be asked to quit
  system,       // part of the operating system (`isSystem`)
  macOSBundle,  // its bundle is one of the operating system's
  noProcesses,  // nothing to quit
  itself,       // one of its processes is this application
  anotherUser,  // a process belongs to another user, or its owner is unknown
};

// `processes` are the newest snapshot's: each of the app's pids must be found there and owned by
// `context.ownUid`. An app only partly owned by the current user counts as another user's, and
// so does one whose processes are no longer in the snapshot (their owner cannot be told).
QuitRefusal quitRefusal(const AppUsage& app, const std::vector<ProcessSample>& processes,
                        const QuitContext& context);
inline bool canQuit(const AppUsage& app, const std::vector<ProcessSample>& processes,
                    const QuitContext& context) {
  return quitRefusal(app, processes, context) == QuitRefusal::none;
}

// --- Carrying out a confirmed request ---

// Sends one signal to one process. The real sender calls kill(2); tests record instead, so no test
// ever signals a real process.
class SignalSender {
 public:
  virtual ~SignalSender() = default;
  // False when the signal could not be sent (the process is gone or belongs to someone else).
  virtual bool send(int32_t pid, int signal) = 0;
};

// kill(2), refusing pid 1 and below (0 and -1 would reach whole process groups or every process)
// and this process itself.
std::unique_ptr<SignalSender> makeSignalSender();

// The platform's way of asking running applications to quit, like choosing Quit from their menu.
class AppQuitter {
 public:
  virtual ~AppQuitter() = default;
  // Asks the running applications among `pids` (an app's processes, main process first) to quit,
  // at once when `force`. Returns how many were asked.
  virtual int quit(const std::vector<int32_t>& pids, bool force) = 0;
};

// macOS: the workspace's running applications whose process is among the pids get `terminate`
// (`forceTerminate` when forcing). Linux: the app's main process gets SIGTERM (SIGKILL when
// forcing) through `signals`, which must outlive the quitter.
std::unique_ptr<AppQuitter> makeAppQuitter(SignalSender& signals);

// What carrying out a request reached.
struct QuitOutcome {
  int applications = 0;  // running applications asked to quit
  int processes = 0;     // processes signalled
  bool reachedAnything() const { return applications > 0 || processes > 0; }
  bool operator==(const QuitOutcome&) const = default;
};

// The processes of an agent session: the roots are the snapshot's agent sessions of that agent in
// that folder, then every process descended from them (by parent pid), each once, roots first.
std::vector<int32_t> agentTree(const Snapshot& latest, const std::string& name,
                               const std::string& folder);

// Carries out a request the person has confirmed, against the newest snapshot:
// - App: the app's processes still in the snapshot go to `apps.quit`; every process whose parent
//   is one of them receives SIGTERM (SIGKILL when `force`). An app without a bundle path (a
//   script, a server, a command-line tool) has no application to ask: its processes receive the
//   signal themselves, and their children too, each once.
// - Session: every process of `agentTree` receives SIGTERM (SIGKILL when `force`).
// A target that has already exited is simply not found. This application's own pid is never
// signalled. Only the model calls this, for the request the person confirmed.
QuitOutcome performQuit(const QuitRequest& request, bool force, const Snapshot& latest,
                        AppQuitter& apps, SignalSender& signals, int32_t ownPid);

// The toast shown after carrying out a request: "Asked Xcode to quit.", "Force quit Xcode.",
// "Ended the Claude Code session in ~/code/x.", or that it had already quit or ended.
std::string quitToast(const QuitRequest& request, bool force, const QuitOutcome& outcome);

}  // namespace vistrel
