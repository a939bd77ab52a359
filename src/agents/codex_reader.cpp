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

struct FolderCloser {
  DIR* dir;
  ~FolderCloser() {
    if (dir) ::closedir(dir);
  }
};

double secondsBetween(Date from, Date to) {
  return std::chrono::duration<double>(to - from).count();
}

constexpr std::string_view kPlain = ".jsonl";
constexpr std::string_view kCompressed = ".jsonl.zst";

bool allDigits(std::string_view name, size_t length) {
  return name.size() == length &&
         std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::string withoutTrailingSlash(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return std::string(path);
}

std::string fileStem(const std::string& path) {
  std::string_view name = lastComponent(path);
  if (name.ends_with(kCompressed)) {
    name.remove_suffix(kCompressed.size());
  } else if (name.ends_with(kPlain)) {
    name.remove_suffix(kPlain.size());
  }
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

const std::vector<std::string>& CodexReader::listing(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    listings_.erase(path);
    static const std::vector<std::string> kNone;
    return kNone;
  }
  const int64_t modified = static_cast<int64_t>(st.st_mtime);
  Listing& cached = listings_[path];
  // Times are compared in whole seconds: a folder listed within a second or so of its last change
  // may have changed again unseen, and such a listing is not trusted.
  const int64_t now = static_cast<int64_t>(::time(nullptr));
  if (cached.listedAt != 0 && cached.modified == modified && cached.listedAt > modified + 1) {
    return cached.names;
  }
  cached.names = listFolder(path);
  cached.modified = modified;
  cached.listedAt = now;
  return cached.names;
}

std::vector<CodexReader::FoundFile> CodexReader::findRollouts() {
  std::vector<FoundFile> found;
  std::unordered_set<std::string> visited;
  const std::string sessions = joinPath(folder_, "sessions");
  for (const std::string& year : listing(sessions)) {
    if (!allDigits(year, 4)) continue;
    const std::string yearPath = joinPath(sessions, year);
    for (const std::string& month : listing(yearPath)) {
      if (!allDigits(month, 2)) continue;
      const std::string monthPath = joinPath(yearPath, month);
      for (const std::string& day : listing(monthPath)) {
        if (!allDigits(day, 2)) continue;
        const std::string dayPath = joinPath(monthPath, day);
        visited.insert(dayPath);
        FolderCloser closer{::opendir(dayPath.c_str())};  // for fstatat relative to it
        if (!closer.dir) continue;
        const int fd = ::dirfd(closer.dir);
        for (const std::string& name : listing(dayPath)) {
          if (!name.ends_with(kPlain) && !name.ends_with(kCompressed)) continue;
          struct stat st {};
          if (::fstatat(fd, name.c_str(), &st, 0) != 0 || !S_ISREG(st.st_mode)) continue;
          found.push_back({joinPath(dayPath, name), static_cast<uint64_t>(st.st_size),
                           static_cast<int64_t>(st.st_mtime)});
        }
      }
      visited.insert(monthPath);
    }
    visited.insert(yearPath);
  }
  visited.insert(sessions);
  std::erase_if(listings_, [&](const auto& entry) { return !visited.contains(entry.first); });
  return found;
}

void CodexReader::read(CodexRollout& rollout, const FoundFile& file, Date now) {
  const uint64_t before = rollout.offset();
  rollout.read(file.path, [&](std::string_view line) {
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
    const std::vector<FoundFile> found = findRollouts();
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
        it->second.compressed = file.path.ends_with(kCompressed);
      } else {
        it->second.startDay(dayStart);
        if (it->second.seen == std::make_pair(file.size, file.modified)) continue;
        // A file shorter than what was read was replaced: its counts start over.
        if (file.size < it->second.offset()) {
          const bool compressed = it->second.compressed;
          it->second = CodexRollout(dayStart);
          it->second.compressed = compressed;
        }
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
      CodexRollout& rollout = rollouts_.emplace(older->path, CodexRollout(dayStart)).first->second;
      rollout.compressed = older->path.ends_with(kCompressed);
      read(rollout, *older, now);
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

  // First a rollout of the process's own folder; then any recent one: Codex started with --cd, or
  // as the server of an editor extension or the desktop app, writes for a folder of its own.
  std::vector<bool> paired(codex.size(), false);
  for (int pass = 0; pass < 2; ++pass) {
    for (size_t i = 0; i < codex.size(); ++i) {
      if (paired[i]) continue;
      std::optional<std::string> folder;
      if (codex[i]->folder) folder = withoutTrailingSlash(*codex[i]->folder);
      for (Candidate& candidate : candidates) {
        if (candidate.process) continue;
        const bool matches = pass == 1 || (folder && candidate.folder == folder);
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
