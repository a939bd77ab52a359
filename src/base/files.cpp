#include "base/files.hpp"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>

namespace vistrel {

Date modifiedDate(const struct stat& info) {
  return Date(std::chrono::duration_cast<Date::duration>(
      std::chrono::nanoseconds(modifiedNanoseconds(info))));
}

bool readFile(const std::string& path, std::string& out, size_t maxBytes) {
  out.clear();
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  // /proc and sysfs files report size 0, so read in chunks until end of file.
  size_t chunk = 4096;
  bool ok = true;
  while (out.size() < maxBytes) {
    size_t old = out.size();
    size_t want = std::min(chunk, maxBytes - old);
    out.resize(old + want);
    ssize_t n = ::read(fd, out.data() + old, want);
    if (n < 0) {
      if (errno == EINTR) {
        out.resize(old);
        continue;
      }
      ok = false;
      out.clear();
      break;
    }
    out.resize(old + static_cast<size_t>(n));
    if (n == 0) break;
    if (chunk < 65536) chunk *= 2;
  }
  ::close(fd);
  return ok;
}

std::optional<std::string> readFile(const std::string& path, size_t maxBytes) {
  std::string out;
  if (!readFile(path, out, maxBytes)) return std::nullopt;
  return out;
}

std::optional<std::string> readLine(const std::string& path) {
  std::string text;
  if (!readFile(path, text, 4096)) return std::nullopt;
  auto end = text.find('\n');
  if (end != std::string::npos) text.resize(end);
  auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return std::string();
  auto last = text.find_last_not_of(" \t\r");
  return text.substr(first, last - first + 1);
}

std::optional<uint64_t> readNumber(const std::string& path) {
  auto line = readLine(path);
  if (!line || line->empty()) return std::nullopt;
  uint64_t value = 0;
  auto [ptr, ec] = std::from_chars(line->data(), line->data() + line->size(), value);
  if (ec != std::errc() || ptr != line->data() + line->size()) return std::nullopt;
  return value;
}

std::vector<std::string> listFolder(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(path.c_str());
  if (!dir) return names;
  while (dirent* entry = ::readdir(dir)) {
    std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    names.emplace_back(name);
  }
  ::closedir(dir);
  return names;
}

bool pathExists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

std::optional<std::string> readLink(const std::string& path) {
  char buffer[4096];
  ssize_t n = ::readlink(path.c_str(), buffer, sizeof buffer);
  if (n < 0 || static_cast<size_t>(n) >= sizeof buffer) return std::nullopt;
  return std::string(buffer, static_cast<size_t>(n));
}

std::string joinPath(std::string_view a, std::string_view b) {
  std::string out(a);
  while (!out.empty() && out.back() == '/' && out.size() > 1) out.pop_back();
  while (!b.empty() && b.front() == '/') b.remove_prefix(1);
  if (out.empty()) return std::string(b);
  if (out.back() != '/') out.push_back('/');
  out.append(b);
  return out;
}

std::string_view lastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  if (path == "/") return {};
  auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool makeFolders(const std::string& path) {
  if (path.empty()) return false;
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  auto slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0 && !makeFolders(path.substr(0, slash))) return false;
  if (::mkdir(path.c_str(), 0700) == 0) return true;
  return errno == EEXIST && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace vistrel
