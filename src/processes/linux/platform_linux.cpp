#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>

#include "base/files.hpp"
#include "base/subprocess.hpp"
#include "processes/linux/linux_process_source.hpp"
#include "processes/process_source.hpp"

namespace vistrel {

// Debian, Fedora, Arch and their kin give people accounts from 1000 up (UID_MIN of login.defs);
// below are system accounts.
uint32_t firstUserId() {
  return 1000;
}

DesktopEntryFinder::DesktopEntryFinder(std::vector<std::string> folders, const Clock& clock)
    : folders_(std::move(folders)), clock_(clock) {}

std::optional<std::string> DesktopEntryFinder::find(const std::string& appId) {
  double now = clock_.uptime();
  auto cached = cache_.find(appId);
  if (cached != cache_.end() &&
      (cached->second.path || now - cached->second.checkedAt < kDesktopMissSeconds)) {
    return cached->second.path;
  }
  std::optional<std::string> found;
  const std::string names[] = {appId + ".desktop", appId + "_" + appId + ".desktop"};
  for (const auto& name : names) {
    for (const auto& folder : folders_) {
      std::string candidate = joinPath(folder, name);
      struct stat st {};
      if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
        found = std::move(candidate);
        break;
      }
    }
    if (found) break;
  }
  cache_[appId] = {found, now};
  return found;
}

std::string runPs() {
  // In the C locale: under a comma-decimal locale procps prints %cpu as "12,5".
  auto result = runSubprocess("ps", {"-A", "-o", "pid=,ppid=,uid=,%cpu=,rss=,comm="}, std::nullopt,
                              64 << 20, {"LC_ALL=C"});
  return result.started ? std::move(result.output) : std::string();
}

std::vector<std::string> defaultDesktopFolders() {
  std::vector<std::string> folders;
  auto env = [](const char* name) -> std::string {
    const char* value = ::getenv(name);
    return value ? value : "";
  };
  std::string home = env("HOME");
  std::string dataHome = env("XDG_DATA_HOME");
  if (dataHome.empty() && !home.empty()) dataHome = joinPath(home, ".local/share");
  if (!dataHome.empty()) folders.push_back(joinPath(dataHome, "applications"));
  std::string dataDirs = env("XDG_DATA_DIRS");
  if (dataDirs.empty()) dataDirs = "/usr/local/share:/usr/share";
  std::string_view rest = dataDirs;
  while (!rest.empty()) {
    auto colon = rest.find(':');
    std::string_view dir = rest.substr(0, colon);
    rest.remove_prefix(colon == std::string_view::npos ? rest.size() : colon + 1);
    if (!dir.empty()) folders.push_back(joinPath(dir, "applications"));
  }
  if (!home.empty())
    folders.push_back(joinPath(home, ".local/share/flatpak/exports/share/applications"));
  folders.push_back("/var/lib/flatpak/exports/share/applications");
  folders.push_back("/var/lib/snapd/desktop/applications");
  // XDG_DATA_DIRS often lists the Flatpak exports already: search each folder once.
  std::vector<std::string> unique;
  for (auto& folder : folders) {
    if (std::find(unique.begin(), unique.end(), folder) == unique.end()) {
      unique.push_back(std::move(folder));
    }
  }
  return unique;
}

}  // namespace vistrel
