#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/files.hpp"
#include "base/linux/json_file_defaults.hpp"
#include "base/paths.hpp"

namespace vistrel {

namespace {

using nlohmann::json;

constexpr char kDataKey[] = "$data";
// Larger than any settings file we write; a bigger one is read truncated and so moved aside.
constexpr size_t kMaxFileBytes = 64u << 20;

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64Encode(const json::binary_t& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t n = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    for (int shift = 18; shift >= 0; shift -= 6) out += kBase64[(n >> shift) & 63];
  }
  if (size_t rest = bytes.size() - i; rest > 0) {
    uint32_t n = uint32_t{bytes[i]} << 16;
    if (rest == 2) n |= uint32_t{bytes[i + 1]} << 8;
    out += kBase64[(n >> 18) & 63];
    out += kBase64[(n >> 12) & 63];
    out += rest == 2 ? kBase64[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

// Strict: padded to a multiple of four, standard alphabet, no blanks. nullopt otherwise.
std::optional<std::vector<uint8_t>> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
    ++padding;
  }
  std::vector<uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  uint32_t n = 0;
  for (size_t i = 0; i < text.size() - padding; ++i) {
    const char* at = std::strchr(kBase64, text[i]);
    if (text[i] == '\0' || at == nullptr) return std::nullopt;
    n = (n << 6) | static_cast<uint32_t>(at - kBase64);
    if (i % 4 == 3) {
      out.push_back(static_cast<uint8_t>(n >> 16));
      out.push_back(static_cast<uint8_t>(n >> 8));
      out.push_back(static_cast<uint8_t>(n));
      n = 0;
    }
  }
  if (padding == 2) {
    if (n & 0xF) return std::nullopt;  // bits that no byte carries must be zero
    out.push_back(static_cast<uint8_t>(n >> 4));
  } else if (padding == 1) {
    if (n & 0x3) return std::nullopt;
    out.push_back(static_cast<uint8_t>(n >> 10));
    out.push_back(static_cast<uint8_t>(n >> 2));
  }
  return out;
}

std::string localStamp() {
  std::time_t now = std::time(nullptr);
  std::tm parts{};
  localtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &parts);
  return text;
}

std::string folderOf(const std::string& path) {
  auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool JsonFileDefaults::FileState::operator==(const FileState& o) const {
  if (exists != o.exists) return false;
  if (!exists) return true;
  return device == o.device && inode == o.inode && size == o.size &&
         modified.tv_sec == o.modified.tv_sec && modified.tv_nsec == o.modified.tv_nsec &&
         changed.tv_sec == o.changed.tv_sec && changed.tv_nsec == o.changed.tv_nsec;
}

JsonFileDefaults::FileState JsonFileDefaults::stateOf(const struct stat& st) {
  FileState state;
  state.exists = true;
  state.device = st.st_dev;
  state.inode = st.st_ino;
  state.size = st.st_size;
  state.modified = st.st_mtim;
  state.changed = st.st_ctim;
  return state;
}

JsonFileDefaults::JsonFileDefaults(std::string path) : path_(std::move(path)) {
  std::lock_guard lock(mutex_);
  load();
}

json JsonFileDefaults::encodeForFile(const json& value) {
  if (value.is_binary()) return json{{kDataKey, base64Encode(value.get_binary())}};
  if (value.is_array()) {
    json out = json::array();
    for (const auto& item : value) out.push_back(encodeForFile(item));
    return out;
  }
  if (value.is_object()) {
    json out = json::object();
    for (const auto& [key, item] : value.items()) {
      out[key.starts_with('$') ? "$" + key : key] = encodeForFile(item);
    }
    return out;
  }
  return value;
}

json JsonFileDefaults::decodeFromFile(const json& value) {
  if (value.is_array()) {
    json out = json::array();
    for (const auto& item : value) out.push_back(decodeFromFile(item));
    return out;
  }
  if (!value.is_object()) return value;
  if (value.size() == 1 && value.contains(kDataKey) && value[kDataKey].is_string()) {
    if (auto bytes = base64Decode(value[kDataKey].get_ref<const std::string&>())) {
      return json::binary(std::move(*bytes));
    }
  }
  json out = json::object();
  for (const auto& [key, item] : value.items()) {
    out[key.starts_with("$$") ? key.substr(1) : key] = decodeFromFile(item);
  }
  return out;
}

std::optional<json> JsonFileDefaults::get(std::string_view key) {
  std::lock_guard lock(mutex_);
  reloadIfChanged();
  auto it = values_.find(std::string(key));
  if (it == values_.end()) return std::nullopt;
  return *it;
}

void JsonFileDefaults::set(std::string_view key, json value) {
  std::lock_guard lock(mutex_);
  // Start from what another instance may have written since, so its keys survive our write.
  reloadIfChanged();
  if (value.is_null() || value.is_discarded()) {
    values_.erase(std::string(key));
  } else {
    values_[std::string(key)] = std::move(value);
  }
  persisted_ = write();
}

bool JsonFileDefaults::persisted() {
  std::lock_guard lock(mutex_);
  return persisted_;
}

void JsonFileDefaults::reloadIfChanged() {
  struct stat st {};
  FileState now = ::stat(path_.c_str(), &st) == 0 ? stateOf(st) : FileState{};
  if (!(now == known_)) load();
}

void JsonFileDefaults::load() {
  int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat exists {};
  if (fd < 0 && ::stat(path_.c_str(), &exists) != 0) {
    // No file (not yet written, removed to start afresh, or its folder is missing): no settings.
    values_ = json::object();
    known_ = FileState{};
    damagedInPlace_ = false;
    return;
  }
  std::string text;
  bool readable = false;
  struct stat st {};
  if (fd >= 0) {
    // Read from the descriptor we stat, so the recorded state matches the bytes parsed.
    readable = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    char buffer[16384];
    while (readable && text.size() < kMaxFileBytes) {
      ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) readable = false;
      if (n <= 0) break;
      text.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
  }
  if (readable) {
    json parsed = json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_object()) {
      values_ = decodeFromFile(parsed);
      known_ = stateOf(st);
      damagedInPlace_ = false;
      return;
    }
  }
  // Damaged: keep its bytes under another name and carry on with what we have.
  if (moveAside()) {
    known_ = FileState{};
    damagedInPlace_ = false;
  } else {
    struct stat now {};
    known_ = ::stat(path_.c_str(), &now) == 0 ? stateOf(now) : FileState{};
    damagedInPlace_ = true;
  }
}

bool JsonFileDefaults::moveAside() {
  const std::string base = path_ + ".damaged-" + localStamp();
  for (int attempt = 1; attempt < 1000; ++attempt) {
    std::string target = attempt == 1 ? base : base + "-" + std::to_string(attempt);
    // link() refuses to replace an existing name, so an earlier damaged copy is never lost. A
    // folder cannot be linked, nor can anything on a file system without links: rename those.
    if (::link(path_.c_str(), target.c_str()) == 0) {
      ::unlink(path_.c_str());
    } else if (errno == EEXIST || pathExists(target)) {
      continue;
    } else if (::rename(path_.c_str(), target.c_str()) != 0) {
      warnUnwritable("cannot move the damaged file aside", errno);
      return false;
    }
    std::fprintf(stderr, "vistrel: settings file %s was damaged; moved it to %s\n", path_.c_str(),
                 target.c_str());
    return true;
  }
  warnUnwritable("no free name to move the damaged file to", 0);
  return false;
}

bool JsonFileDefaults::write() {
  if (damagedInPlace_) {
    if (!moveAside()) return false;
    damagedInPlace_ = false;
  }
  const std::string folder = folderOf(path_);
  if (!makeFolders(folder)) {
    warnUnwritable("cannot create the folder", errno);
    return false;
  }
  const std::string text =
      encodeForFile(values_).dump(2, ' ', false, json::error_handler_t::replace) + "\n";
  std::string temporary = path_ + ".tmp-XXXXXX";
  int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
  if (fd < 0) {
    warnUnwritable("cannot create a temporary file", errno);
    return false;
  }
  struct stat st {};
  bool ok =
      ::fchmod(fd, 0600) == 0 && writeAll(fd, text) && ::fsync(fd) == 0 && ::fstat(fd, &st) == 0;
  int error = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (ok && ::rename(temporary.c_str(), path_.c_str()) != 0) {
    ok = false;
    error = errno;
  }
  if (!ok) {
    ::unlink(temporary.c_str());
    warnUnwritable("cannot write", error);
    return false;
  }
  // The rename itself is durable only once the folder is synced.
  if (int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  // A rename keeps the inode, size and modification time; only the change time moves.
  struct stat after {};
  known_ = ::stat(path_.c_str(), &after) == 0 && after.st_ino == st.st_ino ? stateOf(after)
                                                                           : FileState{};
  return true;
}

void JsonFileDefaults::warnUnwritable(const char* what, int error) {
  if (warnedUnwritable_) return;
  warnedUnwritable_ = true;
  std::fprintf(stderr, "vistrel: settings file %s: %s%s%s; keeping settings in memory only\n",
               path_.c_str(), what, error ? ": " : "", error ? std::strerror(error) : "");
}

std::unique_ptr<UserDefaults> makeUserDefaults() {
  return std::make_unique<JsonFileDefaults>(joinPath(configFolder(), "defaults.json"));
}

}  // namespace vistrel
