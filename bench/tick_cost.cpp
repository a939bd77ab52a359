// The sampler's own CPU time per tick with every reader, the process table and app grouping, as
// the debug timing line reports it, on a process table inflated to about 450 processes. Ticks run
// at the real 2-second period (a tight loop understates the cost: caches go cold between ticks),
// in the foreground and in the background. In the same run, procps `top -b -d 2` refreshes the same
// table; its CPU time per refresh is the peer figure.
//
// Then per-process network: with about 2,000 TCP sockets open (1,000 loopback connections of this
// process, a hundred of them moving a little data between ticks), process-table ticks with and
// without the network reading alternate; the difference of their medians is the network's cost.
//
//   bench_tick_cost [ticks per phase, default 30] [period in seconds, default 2]

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "base/main_queue.hpp"
#include "base/subprocess.hpp"
#include "children.hpp"
#include "machine.hpp"
#include "processes/process_stages.hpp"
#include "sampling/sampler.hpp"

namespace {

using namespace vistrel;

double childrenCpuMs() {
  rusage r{};
  getrusage(RUSAGE_CHILDREN, &r);
  auto ms = [](const timeval& t) { return t.tv_sec * 1000.0 + t.tv_usec / 1000.0; };
  return ms(r.ru_utime) + ms(r.ru_stime);
}

// CPU milliseconds of one `top -b -n count -d period` run (waited for).
double topCpuMs(int count, double period) {
  double before = childrenCpuMs();
  char delay[32];
  std::snprintf(delay, sizeof delay, "%g", period);
  auto r = runSubprocess("top", {"-b", "-d", delay, "-n", std::to_string(count), "-w", "512"},
                         std::nullopt, 1);
  if (!r.started) return -1;
  return childrenCpuMs() - before;
}

struct Stats {
  double min, median, max;
};
Stats summarise(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return {v.front(), v[v.size() / 2], v.back()};
}

std::vector<double> runTicks(Sampler& sampler, ManualMainQueue& main, int ticks, double period) {
  std::vector<double> costs;
  for (int i = 0; i < ticks; ++i) {
    std::this_thread::sleep_for(std::chrono::duration<double>(period));
    sampler.tickNow();
    costs.push_back(sampler.lastTickCost().selfMs);
    main.drain();
  }
  return costs;
}

double selfCpuMs() {
  rusage r{};
  getrusage(RUSAGE_SELF, &r);
  auto ms = [](const timeval& t) { return t.tv_sec * 1000.0 + t.tv_usec / 1000.0; };
  return ms(r.ru_utime) + ms(r.ru_stime);
}

// Loopback TCP connections of this process; both ends stay open until destroyed.
class Connections {
 public:
  explicit Connections(int count) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
      limit.rlim_cur = limit.rlim_max;
      setrlimit(RLIMIT_NOFILE, &limit);
    }
    // Close-on-exec set apart from the call: the benchmark also builds on macOS, which has neither
    // SOCK_CLOEXEC nor accept4.
    auto closeOnExec = [](int fd) {
      if (fd >= 0) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
      return fd;
    };
    int listener = closeOnExec(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener, 128) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      if (listener >= 0) ::close(listener);
      return;
    }
    for (int i = 0; i < count; ++i) {
      int client = closeOnExec(::socket(AF_INET, SOCK_STREAM, 0));
      if (client < 0) break;
      if (::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(client);
        break;
      }
      int server = closeOnExec(::accept(listener, nullptr, nullptr));
      if (server < 0) {
        ::close(client);
        break;
      }
      pairs_.push_back({client, server});
    }
    ::close(listener);
  }
  ~Connections() {
    for (auto [a, b] : pairs_) {
      ::close(a);
      ::close(b);
    }
  }
  size_t sockets() const { return pairs_.size() * 2; }
  // A little traffic on the first `active` connections, read at once by the other end.
  void chatter(size_t active) {
    char data[512] = {};
    for (size_t i = 0; i < active && i < pairs_.size(); ++i) {
      if (::send(pairs_[i].first, data, sizeof data, 0) > 0) {
        ::recv(pairs_[i].second, data, sizeof data, 0);
      }
    }
  }

 private:
  std::vector<std::pair<int, int>> pairs_;
};

}  // namespace

int main(int argc, char** argv) {
  int ticks = argc > 1 ? std::max(30, std::atoi(argv[1])) : 30;
  double period = argc > 2 ? std::atof(argv[2]) : 2.0;
  if (period <= 0) period = 2.0;

  // The machine-wide readers alone (no process table): the floor of every tick.
  Stats machineOnly{};
  {
    ManualMainQueue main;
    auto readersOnly = Sampler::create(SamplerParts{}, main);
    readersOnly->tickNow();
    machineOnly = summarise(runTicks(*readersOnly, main, 60, 0.05));
  }

  bench::IdleChildren children;
  children.fillTo(450);
  size_t processes = bench::countProcesses();

  ManualMainQueue main;
  SamplerParts parts;
  installProcessStages(parts, makeProcessLayer());
  auto sampler = Sampler::create(std::move(parts), main);
  sampler->tickNow();  // first sight of every process: identities, primed counters
  main.drain();
  size_t apps = sampler->lastSnapshot() ? sampler->lastSnapshot()->apps.size() : 0;

  // top refreshes the same table alongside the foreground phase; its start-up is measured apart
  // so that the per-refresh figure is the steady cost.
  double topStartup = topCpuMs(1, period);
  double topTotal = 0;
  std::thread top([&] { topTotal = topCpuMs(ticks + 1, period); });
  auto foreground = summarise(runTicks(*sampler, main, ticks, period));
  top.join();
  sampler->setBackground(true);
  auto background = summarise(runTicks(*sampler, main, ticks, period));

  std::printf("machine: %s\n", bench::describeMachine().c_str());
  std::printf("processes: %zu\n", processes);
  std::printf("apps: %zu\n", apps);
  std::printf("ticks per phase: %d\n", ticks);
  std::printf("period: %.1f s\n", period);
  std::printf("tick machine-only median: %.3f ms\n", machineOnly.median);
  std::printf("tick fg min: %.3f ms\n", foreground.min);
  std::printf("tick fg median: %.3f ms\n", foreground.median);
  std::printf("tick fg max: %.3f ms\n", foreground.max);
  std::printf("tick bg median: %.3f ms\n", background.median);
  std::printf("tick bg max: %.3f ms\n", background.max);
  if (topStartup >= 0 && topTotal > topStartup) {
    double perRefresh = (topTotal - topStartup) / ticks;
    std::printf("top refresh: %.3f ms\n", perRefresh);
    std::printf("ratio vs top: %.2f\n", foreground.median / perRefresh);
  } else {
    std::printf("top refresh: unavailable\n");
  }

  // Per-process network: ticks without and with the network reading, alternating.
  {
    Connections connections(1000);
    auto layer = makeProcessLayer();
    layer->sampler.sample(true, 9.5, false);  // first sight of every process and socket
    std::vector<double> without, with;
    for (int i = 0; i < ticks; ++i) {
      for (bool network : {false, true}) {
        std::this_thread::sleep_for(std::chrono::duration<double>(period / 2));
        connections.chatter(100);
        double before = selfCpuMs();
        layer->sampler.sample(network, 9.5, false);
        (network ? with : without).push_back(selfCpuMs() - before);
      }
    }
    auto plain = summarise(without);
    auto net = summarise(with);
    std::printf("network sockets: %zu\n", connections.sockets());
    std::printf("process tick without network median: %.3f ms\n", plain.median);
    std::printf("process tick with network median: %.3f ms\n", net.median);
    std::printf("process tick with network max: %.3f ms\n", net.max);
    std::printf("network tick extra: %.3f ms\n", net.median - plain.median);
  }
  return 0;
}
