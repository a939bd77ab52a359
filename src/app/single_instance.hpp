#pragma once

// One application per user account. The first application process takes an exclusive lock on a
// file beside the control socket and holds it for its whole life (the kernel drops it when the
// process ends, however it ends, so a crash never leaves a stale claim). A later launch finds the
// lock taken, asks the running application to bring its window forward (SIGUSR1 to the pid the
// holder wrote into the file) unless it is a login or background launch, and exits.
//
// The lock comes before anything else of the application: before the history is opened, before
// the control socket is touched, before the toolkit is loaded. Two launches at the same moment
// (two `--mcp` processes that both found no socket) therefore leave exactly one application.

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

namespace vistrel {

// How the application was started, from its arguments: "--login" (the autostart entry: stay in
// the tray without a window), "--background" (started for an AI agent by `--mcp`: likewise), or
// neither (a launcher, a terminal: show the window).
enum class LaunchKind { interactive, login, background };
LaunchKind launchKind(const std::vector<std::string_view>& arguments);

// The launch kind travels from the executable to the application module in this environment
// variable ("login" or "background"; unset for an interactive launch).
inline constexpr char kLaunchVariable[] = "VISTREL_LAUNCH";
std::string_view launchWord(LaunchKind kind);
LaunchKind launchKindFromWord(std::string_view word);

// SIGUSR1 asks the running application to show its window. The executable blocks it before
// taking the lock (`blockShowRequests`), so that a request arriving while the application is still
// starting waits for the application's signal thread instead of ending the process.
void blockShowRequests();

struct InstanceClaim {
  enum class Outcome {
    ours,         // this process holds the lock until it ends
    taken,        // another process holds it
    unavailable,  // the lock file cannot be made or locked: run without the guarantee
  };
  Outcome outcome = Outcome::unavailable;
  int fd = -1;          // ours: the locked file, open (close-on-exec) for the process's life
  pid_t holder = 0;     // taken: the running application's pid, 0 when it never wrote one
  std::string problem;  // unavailable: why, in a sentence
};

// Takes the lock on `path` (its folder is created 0700 when missing) without waiting. When it is
// ours, the file's content becomes this process's pid. When another holds it, waits up to
// `pidWaitSeconds` for the holder to write its pid (it writes it right after locking).
InstanceClaim claimInstance(const std::string& path, double pidWaitSeconds = 2);

// "vistrel.lock" in the folder of the control socket at `socketPath`.
std::string instanceLockPath(std::string_view socketPath);

// What the executable does before loading the application: claims the instance and, when another
// application runs, asks it to show its window (interactive launches only) and says so in one
// line on standard error. True when this process should go on to run the application; false when
// it should exit (with status 0: the application the person asked for is running).
bool becomeTheInstance(LaunchKind kind, const std::string& lockPath);

}  // namespace vistrel
