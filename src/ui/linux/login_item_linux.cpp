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
    if (!on) {
      if (::unlink(path_.c_str()) != 0 && errno != ENOENT) return failure("removed");
      return std::nullopt;
    }
    const std::string folder = path_.substr(0, path_.rfind('/'));
    if (!makeFolders(folder)) return failure("written");
    // Written beside it and renamed into place, so a desktop never reads half an entry.
    const std::string temporary = path_ + ".tmp";
    {
      std::ofstream out(temporary, std::ios::trunc);
      out << autostartEntry(executable_);
      if (!out.flush()) {
        ::unlink(temporary.c_str());
        return failure("written");
      }
    }
    if (std::rename(temporary.c_str(), path_.c_str()) != 0) {
      ::unlink(temporary.c_str());
      return failure("written");
    }
    return std::nullopt;
  }

 private:
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
