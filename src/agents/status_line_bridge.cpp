// The settings side of the status-line bridge: connecting, disconnecting and the path repair.

#include "agents/status_line_bridge.hpp"

#include <unistd.h>

#include <cstdlib>

#include "agents/executable_path.hpp"
#include "agents/status_payload.hpp"
#include "base/files.hpp"
#include "base/paths.hpp"

namespace vistrel {

namespace {

using Json = nlohmann::ordered_json;

// Settings files are a few kilobytes; anything past this is not one Vistrel should rewrite.
constexpr size_t kMaxSettingsBytes = 16 << 20;
// Settings nest a handful of levels (permissions, hooks); deeper is not a settings file.
constexpr int kMaxSettingsDepth = 256;

std::string lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string folderOf(const std::string& path) {
  auto slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

// The settings file as found: absent, unreadable, not a JSON object, or an object.
struct Settings {
  bool exists = false;
  bool readable = true;
  std::string bytes;
  std::optional<Json> object;
};

Settings loadSettings(const BridgePaths& paths) {
  Settings settings;
  settings.exists = pathExists(paths.settingsFile);
  if (!settings.exists) {
    settings.object = Json::object();
    return settings;
  }
  // One byte over the limit tells a file cut short by the limit from one that fits.
  if (!readFile(paths.settingsFile, settings.bytes, kMaxSettingsBytes + 1)) {
    settings.readable = false;
    return settings;
  }
  if (settings.bytes.size() <= kMaxSettingsBytes) {
    settings.object = parseJsonObject(settings.bytes, kMaxSettingsDepth);
  }
  return settings;
}

// The refusal for a settings file Vistrel must not touch, if any.
std::optional<std::string> refusal(const Settings& settings) {
  if (!settings.readable) return StatusLineBridge::kUnreadableSettings;
  if (!settings.object) return StatusLineBridge::kInvalidSettings;
  return std::nullopt;
}

std::optional<std::string> commandOf(const Json& settings) {
  auto it = settings.find("statusLine");
  if (it == settings.end() || !it->is_object()) return std::nullopt;
  auto command = it->find("command");
  if (command == it->end() || !command->is_string()) return std::nullopt;
  return command->get<std::string>();
}

// A whole copy of the settings file as it is now, under a name no earlier backup holds: two
// connects within one second keep both copies.
bool backUp(const BridgePaths& paths, const Settings& settings, Date now) {
  if (!settings.exists) return true;  // nothing there to lose
  if (!makeFolders(paths.supportFolder)) return false;
  auto seconds = static_cast<int64_t>(secondsSince1970(now));
  std::string stem =
      joinPath(paths.supportFolder, "claude-settings-backup-") + std::to_string(seconds);
  for (int attempt = 1; attempt <= 1000; ++attempt) {
    std::string name = stem + (attempt == 1 ? "" : "-" + std::to_string(attempt)) + ".json";
    if (writeNewFile(name, settings.bytes)) return true;
    if (!pathExists(name)) return false;  // failed for another reason than the name
  }
  return false;
}

// Serialises the settings the way Claude Code writes them (two-space indent), keeping whether
// the file ended with a newline, and replaces the file atomically and durably.
bool writeSettings(const BridgePaths& paths, const Settings& settings, const Json& object) {
  std::string text;
  try {
    text = object.dump(2, ' ', false, Json::error_handler_t::strict);
  } catch (const Json::exception&) {
    return false;
  }
  if (!settings.exists || settings.bytes.ends_with('\n')) text.push_back('\n');
  if (!makeFolders(folderOf(paths.settingsFile))) return false;
  return replaceFile(paths.settingsFile, text, /*durable=*/true, paths.renameStep);
}

}  // namespace

BridgePaths BridgePaths::defaults() {
  BridgePaths paths;
  const char* configDir = std::getenv("CLAUDE_CONFIG_DIR");
  paths.settingsFile = configDir && *configDir ? joinPath(configDir, "settings.json")
                                               : joinPath(homeFolder(), ".claude/settings.json");
  paths.supportFolder = vistrel::supportFolder();
  paths.executable = runningExecutablePath().value_or(StatusLineBridge::kFallbackExecutable);
  return paths;
}

namespace StatusLineBridge {

std::string command(const BridgePaths& paths) {
  std::string_view executable =
      paths.executable.empty() ? std::string_view(kFallbackExecutable) : paths.executable;
  std::string out = "\"";
  for (char c : executable) {
    if (c == '"' || c == '\\' || c == '$' || c == '`') out.push_back('\\');
    out.push_back(c);
  }
  out += "\" --statusline";
  return out;
}

bool isOwnCommand(std::string_view command, std::string_view executable) {
  std::string name = lowered(lastComponent(executable.empty() ? kFallbackExecutable : executable));
  std::string text = lowered(command);
  return !name.empty() && text.find("--statusline") != std::string::npos &&
         text.find(name) != std::string::npos;
}

std::string recordFolder(const BridgePaths& paths) {
  return joinPath(paths.supportFolder, "claude-status");
}

std::string savedStatusLineFile(const BridgePaths& paths) {
  return joinPath(paths.supportFolder, "statusline-previous.json");
}

StatusLineState state(const BridgePaths& paths) {
  Settings settings = loadSettings(paths);
  if (!settings.object) return StatusLineState::notConnected();
  auto current = commandOf(*settings.object);
  if (!current) return StatusLineState::notConnected();
  if (isOwnCommand(*current, paths.executable)) return StatusLineState::connected();
  return StatusLineState::other(*current);
}

std::optional<std::string> connect(const BridgePaths& paths, Date now) {
  if (!makeFolders(paths.supportFolder)) return kNoFolder;
  Settings settings = loadSettings(paths);
  if (auto refused = refusal(settings)) return refused;
  Json& object = *settings.object;
  if (!backUp(paths, settings, now)) return kNoBackup;

  Json ours = {{"type", "command"}, {"command", command(paths)}, {"refreshInterval", 60}};
  auto old = object.find("statusLine");
  if (old != object.end() && old->is_object()) {
    auto oldCommand = commandOf(object);
    if (!oldCommand || !isOwnCommand(*oldCommand, paths.executable)) {
      // The user's own status line, kept whole so that disconnect puts back exactly this.
      std::string saved = old->dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
      if (!replaceFile(savedStatusLineFile(paths), saved, /*durable=*/true)) return kNotWritten;
    }
    if (auto padding = old->find("padding"); padding != old->end()) ours["padding"] = *padding;
  }
  object["statusLine"] = std::move(ours);
  if (!writeSettings(paths, settings, object)) return kNotWritten;
  return std::nullopt;
}

std::optional<std::string> disconnect(const BridgePaths& paths, Date now) {
  Settings settings = loadSettings(paths);
  if (auto refused = refusal(settings)) return refused;
  Json& object = *settings.object;
  auto current = commandOf(object);
  if (current && !isOwnCommand(*current, paths.executable)) return std::nullopt;

  std::optional<Json> saved;
  if (auto text = readFile(savedStatusLineFile(paths), kMaxSettingsBytes)) {
    saved = parseJsonObject(*text, kMaxSettingsDepth);
  }
  bool change = saved.has_value() || object.contains("statusLine");
  if (change) {
    if (!backUp(paths, settings, now)) return kNoBackup;
    if (saved) {
      object["statusLine"] = std::move(*saved);
    } else {
      object.erase("statusLine");
    }
    if (!writeSettings(paths, settings, object)) return kNotWritten;
  }
  ::unlink(savedStatusLineFile(paths).c_str());
  return std::nullopt;
}

void repairPathIfNeeded(const BridgePaths& paths, Date now) {
  Settings settings = loadSettings(paths);
  if (!settings.object) return;
  auto current = commandOf(*settings.object);
  std::string wanted = command(paths);
  if (!current || !isOwnCommand(*current, paths.executable) || *current == wanted) return;
  if (!backUp(paths, settings, now)) return;
  (*settings.object)["statusLine"]["command"] = wanted;
  writeSettings(paths, settings, *settings.object);
}

}  // namespace StatusLineBridge

}  // namespace vistrel
