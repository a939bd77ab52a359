#include "app/status_line.hpp"

#include "format/fmt.hpp"

namespace vistrel {

std::string statusLine(const Snapshot& s) {
  std::string line = Fmt::clock(s.time);
  line += "  ";
  line += label(s.mood());
  line += "  CPU " + Fmt::percent(s.cpu.total);
  line += "  Memory " + Fmt::mem(s.memory.used()) + " of " + Fmt::mem(s.memory.total);
  line += "  GPU " + Fmt::percent(s.gpu.utilization);
  line += "  Disk " + Fmt::rate(s.disk.readRate) + " in, " + Fmt::rate(s.disk.writeRate) + " out";
  line += ", " + Fmt::bytes(s.disk.mainFree()) + " free";
  line += "  " + s.network.interface + " " + Fmt::rate(s.network.inRate) + " down, " +
          Fmt::rate(s.network.outRate) + " up";
  // The app weighing most on the machine, when it weighs anything at all.
  if (!s.apps.empty() && s.apps.front().impact >= 1) {
    const AppUsage& top = s.apps.front();
    line += "  Busiest: " + top.name + " (CPU " + Fmt::appMetricValue(Metric::cpu, top.cpu) + ", " +
            Fmt::mem(top.memory) + ")";
  }
  return line;
}

}  // namespace vistrel
