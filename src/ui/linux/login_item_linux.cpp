// Opening at login on Linux: an XDG autostart entry, which desktops run when the user logs in.

#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "base/files.hpp"
#include "base/paths.hpp"
#include "ui/login_item.hpp"

namespace vistrel::ui {

namespace {

class AutostartEntry final : public LoginItem {
 public:
  explicit AutostartEntry(std::string executable) : executable_(std::move(executable)) {
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    path_ = autostartPath(xdg ? xdg : "", homeFolder());
  }

  bool enabled() override { return pathExists(path_); }

  std::optional<std::string> setEnabled(bool on) override {
    const std::string wanted = autostartEntry(executable_);
    // An entry that is not exactly ours (the person edited it, say to add an argument) is kept
    // as "vistrel.desktop.bak" before it is replaced or removed.
    if (auto existing = readFile(path_); existing && *existing != wanted) {
      if (!writeAtomically(path_ + ".bak", *existing)) return failure("backed up");
    }
    if (!on) {
      if (::unlink(path_.c_str()) != 0 && errno != ENOENT) return failure("removed");
      return std::nullopt;
    }
    const std::string folder = path_.substr(0, path_.rfind('/'));
    if (!makeFolders(folder)) return failure("written");
    if (!writeAtomically(path_, wanted)) return failure("written");
    return std::nullopt;
  }

 private:
  // Written beside `path` and renamed into place, so a desktop never reads half an entry.
  static bool writeAtomically(const std::string& path, const std::string& text) {
    const std::string temporary = path + ".tmp";
    {
      std::ofstream out(temporary, std::ios::trunc);
      out << text;
      if (!out.flush()) {
        const int error = errno;
        ::unlink(temporary.c_str());
        errno = error;
        return false;
      }
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
      const int error = errno;
      ::unlink(temporary.c_str());
      errno = error;
      return false;
    }
    return true;
  }

  std::string failure(const char* verb) const {
    return "The autostart entry " + path_ + " could not be " + verb + ": " + std::strerror(errno) +
           ".";
  }

  std::string executable_;
  std::string path_;
};

}  // namespace

std::unique_ptr<LoginItem> makeLoginItem(const std::string& executable) {
  return std::make_unique<AutostartEntry>(executable);
}

}  // namespace vistrel::ui
