#include "agents/codex_reader.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <unordered_set>

#include "base/files.hpp"
#include "base/paths.hpp"

namespace vistrel {

namespace {

using std::chrono::days;
using std::chrono::hours;

struct FolderCloser {
  DIR* dir;
  ~FolderCloser() {
    if (dir) ::closedir(dir);
  }
};

double secondsBetween(Date from, Date to) {
  return std::chrono::duration<double>(to - from).count();
}

// "sessions/2025/01/31" for a calendar day.
std::string dayFolder(const std::string& root, std::chrono::sys_days day) {
  const std::chrono::year_month_day date(day);
  char path[64];
  std::snprintf(path, sizeof path, "sessions/%04d/%02u/%02u", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
  return joinPath(root, path);
}

std::string withoutTrailingSlash(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return std::string(path);
}

std::string fileStem(const std::string& path) {
  std::string_view name = lastComponent(path);
  if (name.ends_with(".jsonl")) name.remove_suffix(6);
  return std::string(name);
}

}  // namespace

CodexReader::CodexReader(std::string folder, std::function<Date(Date)> startOfDay)
    : folder_(std::move(folder)), startOfDay_(std::move(startOfDay)) {
  if (!startOfDay_) startOfDay_ = localStartOfDay;
}

std::string CodexReader::defaultFolder() {
  const char* home = std::getenv("CODEX_HOME");
  if (home && *home) return home;
  return joinPath(homeFolder(), ".codex");
}

bool CodexReader::installed() const {
  return pathExists(folder_);
}

// Day folders are named by calendar date in the user's zone, which the injected start of day does
// not name. Listing from the UTC date 14 hours ahead of now back to the UTC date 14 hours before
// the earliest day covers that day in every zone (offsets run from -12 to +14 hours); the extra
// folder or two costs a failed open, and what counts as today is decided by the records' times.
std::vector<CodexReader::FoundFile> CodexReader::findRollouts(Date now, Date dayStart) const {
  std::vector<FoundFile> found;
  const auto newest = std::chrono::floor<days>(now + hours(14));
  const auto oldest = std::chrono::floor<days>(dayStart - hours(14)) - days(kDaysBack);
  const std::chrono::sys_days newestDay(newest.time_since_epoch());
  const int64_t count = std::clamp<int64_t>((newest - oldest).count(), 0, kDaysBack + 3);
  for (int64_t back = 0; back <= count; ++back) {
    const std::string folder = dayFolder(folder_, newestDay - days(back));
    FolderCloser closer{::opendir(folder.c_str())};
    if (!closer.dir) continue;
    const int fd = ::dirfd(closer.dir);
    while (const dirent* entry = ::readdir(closer.dir)) {
      std::string_view name(entry->d_name);
      if (!name.ends_with(".jsonl")) continue;
      struct stat st {};
      if (::fstatat(fd, entry->d_name, &st, 0) != 0 || !S_ISREG(st.st_mode)) continue;
      found.push_back({joinPath(folder, name), static_cast<uint64_t>(st.st_size),
                       static_cast<int64_t>(st.st_mtime)});
    }
  }
  return found;
}

void CodexReader::read(CodexRollout& rollout, const FoundFile& file, Date now) {
  const uint64_t before = rollout.tail.offset();
  rollout.tail.read(file.path, [&](std::string_view line) {
    if (std::optional<RolloutLine> record = parseRolloutLine(line, now)) rollout.apply(*record);
  });
  // One read takes at most Tail::kMaxRead bytes: a file with more pending is read again on the
  // next refresh even though it did not change.
  const uint64_t pending = file.size >= before ? file.size - before : file.size;
  if (pending <= Tail::kMaxRead) {
    rollout.seen = std::make_pair(file.size, file.modified);
  } else {
    rollout.seen.reset();
  }
}

CodexRefresh CodexReader::refresh(const std::vector<AgentSession>& processes, Date now) {
  CodexRefresh out;
  try {
    const Date dayStart = startOfDay_(now);
    const std::vector<FoundFile> found = findRollouts(now, dayStart);
    // Untracked files last written before this are left unread: all their records are older
    // than today and than the pairing bound.
    const Date cutoff =
        std::min(dayStart, now - std::chrono::duration_cast<Date::duration>(
                                     std::chrono::duration<double>(kPairingSeconds)));
    std::unordered_set<std::string> present;
    const FoundFile* older = nullptr;  // the newest unread file before the cutoff
    for (const FoundFile& file : found) {
      present.insert(file.path);
      auto it = rollouts_.find(file.path);
      if (it == rollouts_.end()) {
        if (dateFromSeconds(static_cast<double>(file.modified)) < cutoff) {
          if (!older || file.modified > older->modified) older = &file;
          continue;
        }
        it = rollouts_.emplace(file.path, CodexRollout(dayStart)).first;
      } else {
        it->second.startDay(dayStart);
        if (it->second.seen == std::make_pair(file.size, file.modified)) continue;
        // A file shorter than what was read was replaced: its counts start over.
        if (file.size < it->second.tail.offset()) it->second = CodexRollout(dayStart);
      }
      read(it->second, file, now);
    }
    std::erase_if(rollouts_, [&](const auto& entry) { return !present.contains(entry.first); });

    // Without any limits read yet (Codex not used today), the newest older file is read, one per
    // refresh, until one reports them.
    const bool anyPlan = std::any_of(rollouts_.begin(), rollouts_.end(), [](const auto& entry) {
      return entry.second.plan.has_value();
    });
    if (!anyPlan && older) {
      read(rollouts_.emplace(older->path, CodexRollout(dayStart)).first->second, *older, now);
    }

    for (const auto& [path, rollout] : rollouts_) {
      if (rollout.plan && (!out.plan || rollout.plan->updated > out.plan->updated)) {
        out.plan = rollout.plan;
      }
      out.today += rollout.today();
      if (rollout.last && *rollout.last >= dayStart) ++out.sessionsToday;
    }
    out.cards = cards(processes, now, dayStart);
  } catch (...) {
    // Out of memory while reading: this refresh reports what it had, the next one carries on.
  }
  return out;
}

std::vector<AgentCard> CodexReader::cards(const std::vector<AgentSession>& processes, Date now,
                                          Date dayStart) const {
  // Rollouts that a live process may be writing, most recently written first.
  struct Candidate {
    const std::string* path;
    const CodexRollout* rollout;
    std::optional<std::string> folder;
    const AgentSession* process = nullptr;
  };
  std::vector<Candidate> candidates;
  for (const auto& [path, rollout] : rollouts_) {
    if (rollout.last && secondsBetween(*rollout.last, now) < kPairingSeconds) {
      std::optional<std::string> folder;
      if (rollout.folder) folder = withoutTrailingSlash(*rollout.folder);
      candidates.push_back({&path, &rollout, std::move(folder)});
    }
  }
  std::stable_sort(
      candidates.begin(), candidates.end(),
      [](const Candidate& a, const Candidate& b) { return *a.rollout->last > *b.rollout->last; });

  // Processes started last first: the newest process takes the most recent rollout.
  std::vector<const AgentSession*> codex;
  for (const AgentSession& process : processes) {
    if (process.tool == kCodex) codex.push_back(&process);
  }
  std::stable_sort(codex.begin(), codex.end(), [](const AgentSession* a, const AgentSession* b) {
    return a->started.value_or(Date{}) > b->started.value_or(Date{});
  });

  // First a rollout of the process's own folder; then, where either folder is unknown, any.
  std::vector<bool> paired(codex.size(), false);
  for (int pass = 0; pass < 2; ++pass) {
    for (size_t i = 0; i < codex.size(); ++i) {
      if (paired[i]) continue;
      std::optional<std::string> folder;
      if (codex[i]->folder) folder = withoutTrailingSlash(*codex[i]->folder);
      for (Candidate& candidate : candidates) {
        if (candidate.process) continue;
        const bool matches =
            pass == 0 ? folder && candidate.folder == folder : !folder || !candidate.folder;
        if (!matches) continue;
        candidate.process = codex[i];
        paired[i] = true;
        break;
      }
    }
  }

  std::vector<AgentCard> out;
  for (const auto& entry : rollouts_) {
    const auto& path = entry.first;
    const auto& rollout = entry.second;
    const auto candidate =
        std::find_if(candidates.begin(), candidates.end(),
                     [&](const Candidate& c) { return c.rollout == &rollout && c.process; });
    const AgentSession* process = candidate == candidates.end() ? nullptr : candidate->process;
    if (!process && !(rollout.last && *rollout.last >= dayStart)) continue;
    AgentCard card;
    card.id = rollout.sessionId.value_or(fileStem(path));
    card.tool = kCodex;
    card.folder = rollout.folder;
    card.model = rollout.model;
    card.version = rollout.version;
    card.gitBranch = rollout.gitBranch;
    card.started = rollout.first;
    card.lastActivity = rollout.last;
    card.tokens = rollout.today();
    card.prompts = rollout.prompts;
    card.replies = rollout.replies;
    card.toolCalls = rollout.toolCalls;
    card.contextPercent = rollout.contextPercent();
    card.contextSize = rollout.contextWindow;
    card.working = rollout.last && secondsBetween(*rollout.last, now) < kWorkingSeconds;
    if (process) {
      card.live = true;
      card.pid = process->pid;
      card.processCount = process->processCount;
      card.cpu = process->cpu;
      card.memory = process->memory;
    }
    out.push_back(std::move(card));
  }
  std::stable_sort(out.begin(), out.end(), [](const AgentCard& a, const AgentCard& b) {
    return a.lastActivity.value_or(Date::min()) > b.lastActivity.value_or(Date::min());
  });
  return out;
}

}  // namespace vistrel
