#include "alerts/alert_engine.hpp"

#include <algorithm>
#include <chrono>
#include <ctime>

#include "format/fmt.hpp"
#include "format/platform_text.hpp"

namespace vistrel {

namespace {

constexpr double kCooldownBusy = 21'600;     // 6 hours
constexpr double kCooldownDisk = 72'000;     // 20 hours
constexpr double kCooldownNetwork = 21'600;  // 6 hours
constexpr double kCooldownService = 86'400;  // 1 day
constexpr double kCooldownGrowth = 21'600;   // 6 hours
constexpr double kCooldownMachine = 7'200;   // 2 hours: pressure and heat
constexpr double kCooldownSpace = 86'400;    // 1 day
constexpr double kFiredMemory = 86'400;      // the longest cooldown: older raises are forgotten
constexpr double kNetWindow = 3'600;

// The subject of machine-wide alerts about pressure and heat, and of the disk-space alert.
constexpr const char* kMachineSubject = "mac";
constexpr const char* kStartupDiskSubject = "main";

double seconds(Date::duration d) {
  return std::chrono::duration<double>(d).count();
}

}  // namespace

AlertEngine::AlertEngine(const Clock& clock, AlertNotifier* notifier, LocalDayStart dayStart)
    : clock_(clock), notifier_(notifier), dayStart_(std::move(dayStart)) {
  // Today from the start, so that mutes restored at start-up survive the first check.
  day_ = dayStart_(clock_.now());
}

void AlertEngine::requestPermission() {
  if (notifier_) notifier_->requestPermission();
}

double AlertEngine::since(Date start) const {
  return seconds(now_ - start);
}

std::vector<AlertEvent> AlertEngine::check(const Snapshot& snapshot) {
  now_ = clock_.now();
  raised_.clear();

  // A clock set backwards gives no negative bytes; a long gap counts as at most kMaxTick.
  const double dt = lastSample_ ? std::clamp(since(*lastSample_), 0.0, kMaxTick) : 0.0;
  lastSample_ = now_;

  if (const Date today = dayStart_(now_); today != day_) {
    day_ = today;
    diskToday_.clear();
    mutedToday.clear();
  }

  std::vector<const AppUsage*> candidates;
  for (const auto& app : snapshot.apps) {
    if (!app.isSystem) candidates.push_back(&app);
  }
  forgetGoneApps(snapshot);

  for (const AppUsage* app : candidates) {
    checkBusy(*app);
    checkDisk(*app, dt);
    checkNetwork(*app, dt);
  }
  for (const auto& app : snapshot.apps) {
    if (app.isSystem && app.id != "system") checkService(app);
  }
  checkMemoryGrowth(candidates);
  checkPressure(snapshot, candidates);
  checkHeat(snapshot, candidates);
  checkSpace(snapshot);

  if (notify && notifier_) {
    for (const auto& event : raised_) notifier_->post(event);
  }
  return std::move(raised_);
}

void AlertEngine::forgetGoneApps(const Snapshot& snapshot) {
  std::set<std::string_view> present;
  for (const auto& app : snapshot.apps) present.insert(app.id);
  auto gone = [&](const auto& entry) { return !present.contains(entry.first); };
  std::erase_if(busySince_, gone);
  std::erase_if(netHour_, gone);
  std::erase_if(memoryMarks_, gone);
  std::erase_if(lastFired_, [&](const auto& entry) { return since(entry.second) >= kFiredMemory; });
}

void AlertEngine::checkBusy(const AppUsage& app) {
  if (app.cpu < kBusyPercent) {
    busySince_.erase(app.id);
    return;
  }
  const double stretch = since(busySince_.try_emplace(app.id, now_).first->second);
  if (stretch < kBusySeconds) return;
  fire(AlertEvent::Kind::cpu, app.id, &app, true,
       app.name + " has kept a CPU core busy for " + Fmt::duration(stretch),
       "It's using " + Fmt::percent(app.cpu / 100) + " of a core right now.", kCooldownBusy);
}

void AlertEngine::checkDisk(const AppUsage& app, double dt) {
  double& total = diskToday_[app.id];
  total += dt * app.diskWrite;
  if (total <= kDiskBytesPerDay) return;
  fire(AlertEvent::Kind::disk, app.id, &app, true,
       app.name + " has written " + Fmt::bytes(total) + " today",
       "Lots of writing wears the SSD a little and slows other apps.", kCooldownDisk);
}

void AlertEngine::checkNetwork(const AppUsage& app, double dt) {
  const double rate = app.netIn + app.netOut;
  auto it = netHour_.find(app.id);
  if (rate > 0) {
    it = netHour_.try_emplace(app.id).first;
    it->second.push_back({now_, dt * rate});
  }
  if (it == netHour_.end()) return;
  std::erase_if(it->second, [&](const NetChunk& c) { return since(c.date) > kNetWindow; });
  double sum = 0;
  for (const auto& chunk : it->second) sum += chunk.bytes;
  if (sum <= kNetworkBytesPerHour) return;
  fire(AlertEvent::Kind::network, app.id, &app, true,
       app.name + " moved " + Fmt::bytes(sum) + " in the last hour",
       "That's more than most apps use in a day.", kCooldownNetwork);
}

void AlertEngine::checkService(const AppUsage& app) {
  if (app.cpu < kServiceBusyPercent) {
    busySince_.erase(app.id);
    return;
  }
  const double stretch = since(busySince_.try_emplace(app.id, now_).first->second);
  if (stretch < kServiceBusySeconds) return;
  fire(AlertEvent::Kind::cpu, app.id, &app, true,
       // The app's own name is never translated: only the fixed words are the platform's.
       app.name + platformText(", part of macOS, has used ") + Fmt::percent(app.cpu / 100) +
           " CPU for " + Fmt::duration(stretch),
       platformText("macOS services sometimes get stuck after an update. Restarting the Mac "
                    "usually settles it."),
       kCooldownService);
}

void AlertEngine::checkMemoryGrowth(const std::vector<const AppUsage*>& candidates) {
  if (markAt_ && since(*markAt_) < kMarkInterval) return;
  markAt_ = now_;
  const size_t count = std::min(candidates.size(), kMarkedApps);
  for (size_t i = 0; i < count; ++i) {
    const AppUsage& app = *candidates[i];
    auto& marks = memoryMarks_[app.id];
    marks.push_back({now_, app.memory});
    std::erase_if(marks, [&](const MemoryMark& m) { return since(m.date) > kMarkWindow; });
    if (marks.size() < kMarksNeeded) continue;
    const bool rising = std::adjacent_find(marks.begin(), marks.end(),
                                           [](const MemoryMark& a, const MemoryMark& b) {
                                             return b.bytes <= a.bytes;
                                           }) == marks.end();
    if (!rising) continue;
    const uint64_t growth = marks.back().bytes - marks.front().bytes;
    if (growth < kGrowthBytes) continue;
    fire(AlertEvent::Kind::memoryGrowth, app.id, &app, true,
         app.name + " keeps growing: +" + Fmt::mem(growth) + " in an hour",
         "It's now using " + Fmt::mem(app.memory) +
             ". Quitting and reopening it gives the memory back.",
         kCooldownGrowth);
  }
}

void AlertEngine::checkPressure(const Snapshot& snapshot,
                                const std::vector<const AppUsage*>& candidates) {
  if (snapshot.memory.pressure != Pressure::critical) {
    pressureSince_.reset();
    return;
  }
  if (!pressureSince_) pressureSince_ = now_;
  if (since(*pressureSince_) < kPressureSeconds) return;
  // The first of equals wins, so the choice follows snapshot order.
  const AppUsage* top = nullptr;
  for (const AppUsage* app : candidates) {
    if (!top || app->memory > top->memory) top = app;
  }
  std::string detail = top ? top->name + " is using the most: " + Fmt::mem(top->memory) + "."
                           : std::string("Close an app you aren't using.");
  fire(AlertEvent::Kind::pressure, kMachineSubject, top, false, "Memory pressure is critical",
       std::move(detail), kCooldownMachine);
}

void AlertEngine::checkHeat(const Snapshot& snapshot,
                            const std::vector<const AppUsage*>& candidates) {
  const std::optional<double> hottest = snapshot.sensors.hottest();
  if (!hottest || *hottest < kHotCelsius) {
    hotSince_.reset();
    return;
  }
  if (!hotSince_) hotSince_ = now_;
  if (since(*hotSince_) < kHotSeconds) return;
  // The busiest app is the one with the highest impact, the figure the apps list ranks by.
  const AppUsage* busiest = nullptr;
  for (const AppUsage* app : candidates) {
    if (!busiest || app->impact > busiest->impact) busiest = app;
  }
  fire(AlertEvent::Kind::heat, kMachineSubject, busiest, false,
       platformText("Your Mac is running hot: " + Fmt::temperature(*hottest)),
       busiest ? busiest->name + " is the busiest app." : std::string(), kCooldownMachine);
}

void AlertEngine::checkSpace(const Snapshot& snapshot) {
  const uint64_t total = snapshot.disk.mainTotal();
  const uint64_t free = snapshot.disk.mainFree();
  if (total == 0 || free > kLowFreeBytes) return;
  fire(AlertEvent::Kind::space, kStartupDiskSubject, nullptr, false,
       "Only " + Fmt::bytes(free) + " left on your startup disk",
       platformText("macOS needs free space for memory swap and updates."), kCooldownSpace);
}

void AlertEngine::fire(AlertEvent::Kind kind, const std::string& subject, const AppUsage* app,
                       bool appSubject, std::string title, std::string detail, double cooldown) {
  if (!enabled.contains(kind)) return;
  if (appSubject && app && mutedToday.contains(app->id)) return;
  std::string key = std::string(rawValue(kind)) + ":" + subject;
  if (auto it = lastFired_.find(key); it != lastFired_.end() && since(it->second) < cooldown) {
    return;
  }
  lastFired_.insert_or_assign(std::move(key), now_);
  AlertEvent event;
  event.id = makeUUID();
  event.date = std::chrono::floor<std::chrono::microseconds>(now_);
  event.kind = kind;
  if (app) {
    event.app = app->name;
    event.appID = app->id;
  }
  event.title = std::move(title);
  event.detail = std::move(detail);
  raised_.push_back(std::move(event));
}

}  // namespace vistrel
