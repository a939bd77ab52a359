#include "app/application.hpp"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "agents/agent_stage.hpp"
#include "alerts/alert_event.hpp"
#include "app/status_line.hpp"
#include "base/paths.hpp"
#include "processes/process_stages.hpp"

namespace vistrel {

namespace {
// Snapshots before an automated start-up run ends: enough for the CPU reader's second reading.
constexpr int kTestQuitTicks = 2;
}  // namespace

ApplicationOptions ApplicationOptions::fromEnvironment() {
  ApplicationOptions options;
  if (std::getenv("VISTREL_TEST_QUIT")) options.quitAfterTicks = kTestQuitTicks;
  options.printStatus = ::isatty(STDOUT_FILENO) == 1;
  // Without a window nothing else would show them: the journal of a user unit, a terminal.
  options.alertLines = true;
  return options;
}

Application::Application(ApplicationOptions options, SamplerParts parts, MainLoop& main,
                         const Clock& clock, std::unique_ptr<UserDefaults> defaults)
    : options_(std::move(options)),
      main_(main),
      defaults_(defaults ? std::move(defaults) : makeUserDefaults()),
      sampler_(Sampler::create(std::move(parts), main, clock)) {
  const std::string folder =
      options_.supportFolder.empty() ? supportFolder() : options_.supportFolder;
  history_ = std::make_unique<HistoryStore>(folder, main_, clock);
  model_ = std::make_unique<Model>(
      Model::Parts{sampler_, history_.get(), defaults_.get(), /*notifier=*/nullptr}, clock);
  model_->hooks.onSample = [this] { sampled(); };
  if (options_.alertLines) {
    model_->hooks.onAlert = [](const AlertEvent& event) {
      std::string line = "vistrel: " + alertLine(event) + "\n";
      std::fwrite(line.data(), 1, line.size(), stderr);
      std::fflush(stderr);
    };
  }
  // A terminal printing every sample is someone watching: sample at the user's interval, as for
  // an open panel, instead of the background's slower one.
  if (options_.printStatus) model_->setPanelVisible(true);

  agents_ = std::make_unique<AgentsMonitor>(main_, clock, options_.agents);
  model_->hooks.refreshAgents = [this](const Snapshot& snapshot, double minimumGap) {
    agents_->refresh(snapshot.agents, minimumGap,
                     [this](AgentsSnapshot agents) { model_->setAgents(std::move(agents)); });
  };
  controlHost_ = std::make_unique<ModelControlHost>(
      *model_, history_.get(),
      [this] {
        std::vector<AgentSession> sessions;
        {
          std::lock_guard lock(sessionsLock_);
          sessions = latestSessions_;
        }
        return agents_->readNow(sessions);
      },
      [sampler = std::weak_ptr<Sampler>(sampler_)]() -> std::optional<Snapshot> {
        if (auto s = sampler.lock()) return s->sampleNow();
        return std::nullopt;
      });
  control_ = std::make_unique<Control>(*controlHost_, clock);
  // The socket is where `--mcp` looks whatever its environment (ControlSocket::path), not in a
  // support folder moved by XDG_DATA_HOME; a test's own folder keeps it there.
  controlServer_ = std::make_unique<ControlServer>(
      main_, *control_,
      options_.supportFolder.empty() ? ControlSocket::path() : folder + "/control.sock");
}

Application::~Application() {
  controlServer_->stop();
  // Stop ticking before the model and the main queue go: a tick under way when a termination
  // signal arrived is waited for, so nothing is posted to a main queue that no longer exists.
  // Hand-offs already queued find no consumer and do nothing.
  sampler_->stop();
  sampler_->setOnSnapshot(nullptr);
  sampler_.reset();
}

int Application::run() {
  if (std::getenv("VISTREL_DEBUG")) {
    history_->size([path = history_->path()](HistorySize size) {
      std::fprintf(stderr, "history: %s, %lld minute rows, oldest %lld, %lld bytes\n", path.c_str(),
                   static_cast<long long>(size.minuteRows),
                   static_cast<long long>(size.oldest.value_or(0)),
                   static_cast<long long>(size.bytes));
    });
  }
  model_->start();
  // Claude Code's status line follows this executable if it moved (an update).
  agents_->repairStatusLinePath();
  // The control socket runs exactly while AI agent access is on.
  model_->observeMcpEnabled([this](bool on) {
    if (on) {
      controlServer_->start();
    } else {
      controlServer_->stop();
    }
  });
  main_.run();
  // Termination: the minute under way goes to the history first, then the socket closes.
  history_->flushNow();
  controlServer_->stop();
  return 0;
}

void Application::requestQuit() {
  main_.quit();
}

void Application::sampled() {
  ++received_;
  controlHost_->snapshotArrived();
  if (model_->latest()) {
    std::lock_guard lock(sessionsLock_);
    latestSessions_ = model_->latest()->agents;
  }
  if (options_.printStatus && model_->latest()) {
    std::string line = statusLine(*model_->latest());
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
  }
  if (options_.quitAfterTicks && received_ >= *options_.quitAfterTicks) requestQuit();
}

void blockTerminationSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGUSR1);  // a second launch asking for the window (app/single_instance)
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
}

int runApplicationMode(MainLoop& loop, const ShellFactory& makeShell, ApplicationOptions options) {
  // Block the termination signals in every thread (threads inherit the mask), and take them on one
  // thread of our own, which turns them into a quit on the main queue: no work in signal handlers.
  blockTerminationSignals();
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGUSR1);

  int status = 0;
  {
    SamplerParts parts;
    auto processes = makeProcessLayer();
    installProcessStages(parts, processes);
    installAgentStage(parts, processes);
    Application app(std::move(options), std::move(parts), loop);
    std::thread waiter([&signals, &app] {
      for (;;) {
        int received = 0;
        if (sigwait(&signals, &received) != 0) continue;
        if (received == SIGUSR1) {
          // Another launch found this application running: bring the window forward, if any.
          app.mainLoop().post([&app] {
            if (app.model().hooks.openWindow) app.model().hooks.openWindow();
          });
          continue;
        }
        app.requestQuit();
        return;
      }
    });
    std::unique_ptr<ApplicationShell> shell;
    if (makeShell) {
      shell = makeShell(app);
    } else {
      std::fprintf(stderr, "vistrel: running without a window; Ctrl-C stops\n");
    }
    status = app.run();
    shell.reset();
    // Wake the waiter if the run ended on its own (VISTREL_TEST_QUIT, Quit in the window).
    pthread_kill(waiter.native_handle(), SIGTERM);
    waiter.join();
  }
  return status;
}

int runApplicationMode() {
  ManualMainQueue main;
  return runApplicationMode(main, {}, ApplicationOptions::fromEnvironment());
}

}  // namespace vistrel
