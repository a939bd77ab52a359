#include "agents/safe_file.hpp"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

namespace vistrel {

namespace {

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

std::string folderOf(const std::string& path) {
  auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// A rename is durable only once the folder holding the new name is on disk too.
void syncFolder(const std::string& folder) {
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

bool replaceFile(const std::string& requested, std::string_view bytes, bool durable,
                 const RenameStep& rename) {
  std::string target = requested;
  struct stat st {};
  if (::lstat(requested.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
    // Settings kept in a dotfiles repository are often linked into place; renaming over the link
    // would silently cut it.
    char* real = ::realpath(requested.c_str(), nullptr);
    if (!real) return false;
    target = real;
    ::free(real);
  }
  bool existed = ::stat(target.c_str(), &st) == 0;
  if (existed && !S_ISREG(st.st_mode)) return false;

  std::string name =
      target.substr(target.rfind('/') == std::string::npos ? 0 : target.rfind('/') + 1);
  std::string temporary = folderOf(target) + "/." + name + ".vistrel-XXXXXX";
  int fd = ::mkstemp(temporary.data());
  if (fd < 0) return false;
  bool ok = ::fchmod(fd, existed ? (st.st_mode & 07777) : 0600) == 0 && writeAll(fd, bytes) &&
            (!durable || ::fsync(fd) == 0);
  ok = ::close(fd) == 0 && ok;
  if (ok) {
    ok = rename ? rename(temporary, target) : ::rename(temporary.c_str(), target.c_str()) == 0;
  }
  if (!ok) {
    ::unlink(temporary.c_str());
    return false;
  }
  if (durable) syncFolder(folderOf(target));
  return true;
}

bool writeNewFile(const std::string& path, std::string_view bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool ok = writeAll(fd, bytes) && ::fsync(fd) == 0;
  ok = ::close(fd) == 0 && ok;
  if (!ok) {
    ::unlink(path.c_str());
    return false;
  }
  syncFolder(folderOf(path));
  return true;
}

}  // namespace vistrel
