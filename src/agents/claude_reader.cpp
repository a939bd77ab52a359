#include "agents/claude_reader.hpp"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "base/files.hpp"
#include "base/paths.hpp"

namespace vistrel {

namespace {

constexpr std::string_view kTranscript = ".jsonl";

bool endsWith(std::string_view text, std::string_view end) {
  return text.size() > end.size() && text.substr(text.size() - end.size()) == end;
}

// A folder listing that closes itself.
class Folder {
 public:
  explicit Folder(const std::string& path) : dir_(::opendir(path.c_str())) {}
  ~Folder() {
    if (dir_) ::closedir(dir_);
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  explicit operator bool() const { return dir_ != nullptr; }
  int fd() const { return ::dirfd(dir_); }
  // The next entry's name, "." and ".." left out; nullptr at the end.
  const dirent* next() {
    while (const dirent* entry = ::readdir(dir_)) {
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") return entry;
    }
    return nullptr;
  }

 private:
  DIR* dir_;
};

bool isFolder(const Folder& folder, const dirent& entry) {
  if (entry.d_type == DT_DIR) return true;
  if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) return false;
  struct stat info {};
  return ::fstatat(folder.fd(), entry.d_name, &info, 0) == 0 && S_ISDIR(info.st_mode);
}

void sortLargestFirst(std::vector<std::pair<std::string, int64_t>>& list) {
  std::sort(list.begin(), list.end(), [](const auto& a, const auto& b) {
    return a.second != b.second ? a.second > b.second : a.first < b.first;
  });
}

}  // namespace

ClaudeReader::ClaudeReader(std::vector<std::string> folders, std::function<Date(Date)> startOfDay,
                           std::function<bool(int32_t)> alive)
    : folders_(std::move(folders)), startOfDay_(std::move(startOfDay)), alive_(std::move(alive)) {}

std::vector<std::string> ClaudeReader::defaultFolders() {
  std::vector<std::string> out;
  const char* configured = std::getenv("CLAUDE_CONFIG_DIR");
  if (configured && *configured) out.emplace_back(configured);
  const std::string home = homeFolder();
  out.push_back(joinPath(home, ".config/claude"));
  out.push_back(joinPath(home, ".claude"));
  return out;
}

bool ClaudeReader::installed() const {
  return std::any_of(folders_.begin(), folders_.end(),
                     [](const std::string& folder) { return pathExists(folder); });
}

std::vector<std::string> ClaudeReader::existingFolders() const {
  std::vector<std::string> out;
  for (const std::string& folder : folders_) {
    char resolved[PATH_MAX];
    if (::realpath(folder.c_str(), resolved) == nullptr) continue;  // missing: nothing to read
    if (std::find(out.begin(), out.end(), resolved) == out.end()) out.emplace_back(resolved);
  }
  return out;
}

std::vector<ClaudeLiveFile> ClaudeReader::liveFiles() {
  std::vector<ClaudeLiveFile> out;
  std::string text;
  for (const std::string& folder : existingFolders()) {
    const std::string sessions = joinPath(folder, "sessions");
    for (const std::string& name : listFolder(sessions)) {
      if (!endsWith(name, ".json")) continue;
      // A live file is a few hundred bytes; anything far larger is not one.
      if (!vistrel::readFile(joinPath(sessions, name), text, 64 << 10)) continue;
      std::optional<ClaudeLiveFile> file = parseLiveFile(text);
      if (file && alive_(file->pid)) out.push_back(std::move(*file));
    }
  }
  return out;
}

ClaudeTranscript& ClaudeReader::session(std::string_view id) {
  auto at = sessions_.find(id);
  if (at == sessions_.end()) at = sessions_.emplace(std::string(id), ClaudeTranscript{}).first;
  return at->second;
}

void ClaudeReader::readFile(const std::string& path, const struct stat& info,
                            ClaudeTranscript& transcript, bool subagent) {
  auto [at, inserted] = files_.try_emplace(path);
  File& file = at->second;
  if (inserted) {
    file.session = &transcript;
    file.subagent = subagent;
    if (subagent) ++transcript.subagents;
  }
  const int64_t size = info.st_size;
  const int64_t modified = modifiedNanoseconds(info);
  if (file.size == size && file.modifiedNs == modified) return;  // unchanged since read whole
  uint64_t from = file.tail.offset();
  if (static_cast<uint64_t>(size) < from) from = 0;
  // A read stops at the per-call cap: the file must then be read again even if it is unchanged.
  const bool capped = static_cast<uint64_t>(size) - from > Tail::kMaxRead;
  file.tail.read(path, [&](std::string_view text) {
    if (std::optional<TranscriptLine> line = parser_.parse(text)) {
      file.session->add(*line, file.subagent, today_, shared_);
    }
  });
  file.size = capped ? -1 : size;
  file.modifiedNs = modified;
}

void ClaudeReader::readSubagents(const std::string& sessionFolder, ClaudeTranscript& transcript) {
  const std::string path = joinPath(sessionFolder, "subagents");
  Folder folder(path);
  if (!folder) return;
  while (const dirent* entry = folder.next()) {
    if (!endsWith(entry->d_name, kTranscript)) continue;
    struct stat info {};
    if (::fstatat(folder.fd(), entry->d_name, &info, 0) != 0 || !S_ISREG(info.st_mode)) continue;
    readFile(joinPath(path, entry->d_name), info, transcript, true);
  }
}

std::optional<std::string> ClaudeReader::parentOf(const std::string& path) {
  if (auto known = parents_.find(path); known != parents_.end()) return known->second;
  // The first record names the session; it is a few kilobytes at most.
  std::string head;
  if (!vistrel::readFile(path, head, 256 << 10)) return std::nullopt;
  const size_t newline = head.find('\n');
  if (newline == std::string::npos) return std::nullopt;  // not written yet: asked again later
  std::optional<TranscriptLine> first = parser_.parse(std::string_view(head).substr(0, newline));
  // A first record that names no session leaves the file a session of its own, as its name says.
  std::string parent = first && first->sessionId && !first->sessionId->empty()
                           ? std::string(*first->sessionId)
                           : std::string(lastComponent(path));
  if (parent.ends_with(kTranscript)) parent.resize(parent.size() - kTranscript.size());
  return parents_.emplace(path, std::move(parent)).first->second;
}

void ClaudeReader::readProject(const std::string& path, const std::vector<std::string_view>& live) {
  Folder folder(path);
  if (!folder) return;
  while (const dirent* entry = folder.next()) {
    const std::string_view name = entry->d_name;
    if (!endsWith(name, kTranscript)) continue;
    struct stat info {};
    if (::fstatat(folder.fd(), entry->d_name, &info, 0) != 0 || !S_ISREG(info.st_mode)) continue;
    const std::string transcriptPath = joinPath(path, name);
    // Older versions of Claude Code kept subagent transcripts beside the sessions' own, named
    // "agent-<id>.jsonl": they count under the session that ran them, as the newer layout's do.
    const bool oldSubagent = name.starts_with("agent-");
    std::optional<std::string> parent;
    if (oldSubagent) {
      // Months of old files are skipped on their time alone, before their first line is read.
      if (modifiedDate(info) < today_ && !parents_.contains(transcriptPath)) continue;
      parent = parentOf(transcriptPath);
      if (!parent) continue;
    }
    const std::string_view stem = name.substr(0, name.size() - kTranscript.size());
    const std::string_view id = parent ? std::string_view(*parent) : stem;
    const bool running = std::find(live.begin(), live.end(), id) != live.end();
    // Months of old transcripts are skipped on their time alone, without being opened.
    if (!running && modifiedDate(info) < today_) continue;
    ClaudeTranscript& transcript = session(id);
    readFile(transcriptPath, info, transcript, /*subagent=*/id != stem);
    if (oldSubagent) continue;
    // Subagent transcripts sit in a folder named by the session id, beside the transcript.
    readSubagents(transcriptPath.substr(0, transcriptPath.size() - kTranscript.size()), transcript);
  }
}

ClaudeRefresh ClaudeReader::refresh(const std::vector<ClaudeLiveFile>& live,
                                    const StatusRecords& status,
                                    const std::vector<AgentSession>& processes, Date now) {
  const Date today = startOfDay_(now);
  if (today != today_) {
    for (auto& [id, transcript] : sessions_) transcript.startDay();
    today_ = today;
  }
  std::vector<std::string_view> liveIds;
  liveIds.reserve(live.size());
  for (const ClaudeLiveFile& file : live) liveIds.push_back(file.sessionId);

  for (const std::string& root : existingFolders()) {
    const std::string projects = joinPath(root, "projects");
    if (Folder folder(projects); folder) {
      while (const dirent* entry = folder.next()) {
        if (isFolder(folder, *entry)) readProject(joinPath(projects, entry->d_name), liveIds);
      }
    }
  }

  ClaudeRefresh out;
  // Live sessions first, in the order given, then today's others by id; the stable sort below
  // keeps that order among equal times.
  std::vector<std::string_view> carded;
  for (const ClaudeLiveFile& file : live) {
    if (std::find(carded.begin(), carded.end(), file.sessionId) != carded.end()) continue;
    carded.push_back(file.sessionId);
    auto at = sessions_.find(file.sessionId);
    out.cards.push_back(card(file.sessionId, at == sessions_.end() ? nullptr : &at->second, &file,
                             status, processes));
  }
  std::map<std::string, int64_t> byModel, byProject;
  for (const auto& [id, transcript] : sessions_) {
    const bool active = transcript.last && *transcript.last >= today_;
    if (active) ++out.sessionsToday;
    const bool isLive = std::find(carded.begin(), carded.end(), id) != carded.end();
    if (active && !isLive) out.cards.push_back(card(id, &transcript, nullptr, status, processes));
    addSaturating(out.today, transcript.todayShared);
    for (const auto& [model, tokens] : transcript.todayByModel) {
      byModel[model] = addSaturating(byModel[model], tokens);
    }
    const TokenTotals& t = transcript.todayShared;
    const int64_t fresh = addSaturating(addSaturating(t.input, t.output), t.cacheWrite);
    if (fresh == 0) continue;
    AgentCard place;  // the project rule of the cards: the folder's last component
    const std::string& sessionId = id;  // clang before 16 cannot capture a structured binding
    auto liveFile = std::find_if(live.begin(), live.end(),
                                 [&](const ClaudeLiveFile& f) { return f.sessionId == sessionId; });
    if (liveFile != live.end() && !liveFile->cwd.empty()) {
      place.folder = liveFile->cwd;
    } else {
      place.folder = transcript.cwd;
    }
    const std::string project = place.project();
    byProject[project] = addSaturating(byProject[project], fresh);
  }
  for (auto& [name, tokens] : byModel) {
    if (tokens > 0) out.byModel.emplace_back(name, tokens);
  }
  for (auto& [name, tokens] : byProject) out.byProject.emplace_back(name, tokens);
  sortLargestFirst(out.byModel);
  sortLargestFirst(out.byProject);
  std::stable_sort(out.cards.begin(), out.cards.end(), [](const AgentCard& a, const AgentCard& b) {
    return a.lastActivity.value_or(Date::min()) > b.lastActivity.value_or(Date::min());
  });
  return out;
}

AgentCard ClaudeReader::card(const std::string& id, const ClaudeTranscript* transcript,
                             const ClaudeLiveFile* live, const StatusRecords& status,
                             const std::vector<AgentSession>& processes) const {
  AgentCard card;
  card.id = id;
  card.tool = kClaudeCode;
  if (live) {
    card.live = true;
    card.pid = live->pid;
    card.name = live->name;
    card.working = live->status == "busy";
    card.version = live->version;
    if (!live->cwd.empty()) card.folder = live->cwd;
    for (const AgentSession& process : processes) {
      if (process.tool != kClaudeCode || process.pid != live->pid) continue;
      card.processCount = process.processCount;
      card.cpu = process.cpu;
      card.memory = process.memory;
      break;
    }
  }
  if (transcript) {
    if (!card.folder) card.folder = transcript->cwd;
    if (!card.version) card.version = transcript->version;
    card.model = transcript->model;
    card.gitBranch = transcript->gitBranch;
    card.started = transcript->first;
    card.lastActivity = transcript->last;
    card.tokens = transcript->todayOwn;
    card.prompts = transcript->prompts;
    card.replies = transcript->replies;
    card.toolCalls = transcript->toolCalls;
    card.subagents = transcript->subagents;
  }
  if (!card.started && live) card.started = live->started;
  if (auto at = status.find(id); at != status.end()) {
    const StatusRecord& record = at->second;
    if (!card.model) card.model = record.model;
    if (!card.name) card.name = record.sessionName;
    card.contextPercent = record.contextPercent;
    card.contextSize = record.contextSize;
    card.cost = record.cost;
    card.linesAdded = record.linesAdded;
    card.linesRemoved = record.linesRemoved;
    card.apiSeconds = record.apiSeconds;
  }
  return card;
}

}  // namespace vistrel
