// Parsers of the /proc files the Linux process source reads. Every parser takes the text as read
// and works on views of it: the per-tick ones (stat, statm, io) allocate nothing but the command
// name.

#include <charconv>
#include <limits>

#include "processes/process_parsers.hpp"

namespace vistrel {

namespace {

constexpr uint64_t kMax64 = std::numeric_limits<uint64_t>::max();

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

template <typename T>
bool parseWhole(std::string_view s, T& value) {
  if (s.empty()) return false;
  auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  return ec == std::errc() && ptr == s.data() + s.size();
}

// The next blank-separated field of `rest`, consumed; empty at the end.
std::string_view nextField(std::string_view& rest) {
  size_t i = 0;
  while (i < rest.size() && isBlank(rest[i])) ++i;
  size_t j = i;
  while (j < rest.size() && !isBlank(rest[j])) ++j;
  std::string_view field = rest.substr(i, j - i);
  rest.remove_prefix(j);
  return field;
}

// The next line of `rest` without its newline, consumed.
std::string_view nextLine(std::string_view& rest) {
  auto end = rest.find('\n');
  std::string_view line = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  return line;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  return s;
}

// "key: value" lines of status, io and fdinfo. False when the line has no colon.
bool splitKey(std::string_view line, std::string_view& key, std::string_view& value) {
  auto colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  key = line.substr(0, colon);
  value = trim(line.substr(colon + 1));
  return true;
}

}  // namespace

std::optional<ProcStat> parseProcPidStat(std::string_view text) {
  // "<pid> (<comm>) <state> <ppid> ...": the kernel does not escape the name, so only the last ')'
  // reliably ends it.
  size_t i = 0;
  while (i < text.size() && isDigit(text[i])) ++i;
  if (i == 0 || text.substr(i, 2) != " (") return std::nullopt;
  auto close = text.rfind(')');
  if (close == std::string_view::npos || close < i + 1) return std::nullopt;

  ProcStat stat;
  stat.comm.assign(text.substr(i + 2, close - (i + 2)));
  std::string_view rest = text.substr(close + 1);
  // Fields after the name, counted from 0 = state (field 3 of proc(5)).
  constexpr int kPpid = 1, kFlags = 6, kUtime = 11, kStime = 12, kStarttime = 19;
  for (int field = 0; field <= kStarttime; ++field) {
    std::string_view value = nextField(rest);
    if (value.empty()) return std::nullopt;  // cut short
    bool ok = true;
    switch (field) {
      case 0:
        if (value.size() != 1) return std::nullopt;
        stat.state = value.front();
        break;
      case kPpid:
        ok = parseWhole(value, stat.ppid);
        break;
      case kFlags:
        ok = parseWhole(value, stat.flags);
        break;
      case kUtime:
        ok = parseWhole(value, stat.utime);
        break;
      case kStime:
        ok = parseWhole(value, stat.stime);
        break;
      case kStarttime:
        ok = parseWhole(value, stat.starttime);
        break;
      default:
        break;
    }
    if (!ok) return std::nullopt;
  }
  return stat;
}

std::optional<uint64_t> parseStatmAnonPages(std::string_view text) {
  // "size resident shared text lib data dt", in pages.
  std::string_view rest = text;
  uint64_t size = 0, resident = 0, shared = 0;
  if (!parseWhole(nextField(rest), size) || !parseWhole(nextField(rest), resident) ||
      !parseWhole(nextField(rest), shared)) {
    return std::nullopt;
  }
  // The counters are sampled separately, so shared may momentarily exceed resident.
  return resident > shared ? resident - shared : 0;
}

std::optional<uint32_t> parseStatusUid(std::string_view text) {
  // The Name line escapes newlines, so "Uid:" always starts a real line.
  std::string_view rest = text;
  while (!rest.empty()) {
    std::string_view line = nextLine(rest), key, value;
    if (!splitKey(line, key, value) || key != "Uid") continue;
    uint32_t uid = 0;
    if (!parseWhole(nextField(value), uid)) return std::nullopt;
    return uid;
  }
  return std::nullopt;
}

std::optional<ProcIo> parseProcIo(std::string_view text) {
  ProcIo io;
  bool haveRead = false, haveWrite = false;
  std::string_view rest = text;
  while (!rest.empty()) {
    std::string_view line = nextLine(rest), key, value;
    if (!splitKey(line, key, value)) continue;
    if (key == "read_bytes") {
      if (!parseWhole(value, io.readBytes)) return std::nullopt;
      haveRead = true;
    } else if (key == "write_bytes") {
      if (!parseWhole(value, io.writeBytes)) return std::nullopt;
      haveWrite = true;
    }
  }
  if (!haveRead || !haveWrite) return std::nullopt;
  return io;
}

std::optional<DrmClient> parseDrmFdinfo(std::string_view text) {
  // "drm-client-id: 7" and "drm-engine-<name>: <n> ns". "drm-engine-capacity-<name>" counts
  // engines, not time.
  DrmClient client;
  bool haveClient = false;
  std::string_view rest = text;
  while (!rest.empty()) {
    std::string_view line = nextLine(rest), key, value;
    if (!splitKey(line, key, value)) continue;
    if (key == "drm-client-id") {
      if (!parseWhole(value, client.clientId)) return std::nullopt;
      haveClient = true;
      continue;
    }
    constexpr std::string_view kEngine = "drm-engine-";
    if (key.substr(0, kEngine.size()) != kEngine || key.size() == kEngine.size()) continue;
    if (key.substr(kEngine.size(), 9) == "capacity-") continue;
    std::string_view number = nextField(value);
    if (trim(value) != "ns") continue;
    uint64_t ns = 0;
    if (!parseWhole(number, ns)) continue;
    client.engineNs = client.engineNs > kMax64 - ns ? kMax64 : client.engineNs + ns;
  }
  if (!haveClient) return std::nullopt;
  return client;
}

std::vector<std::string> parseCmdline(std::string_view text) {
  std::vector<std::string> args;
  // Zero bytes separate the arguments and usually end the last one too. Programs that rewrite
  // their title may leave a single string without any.
  if (!text.empty() && text.back() == '\0') text.remove_suffix(1);
  if (text.empty()) return args;
  size_t start = 0;
  while (true) {
    auto end = text.find('\0', start);
    args.push_back(repairUtf8(text.substr(start, end - start)));
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  return args;
}

// --- cgroup: the desktop app a process was started as ---

namespace {

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

bool isAlnum(char c) {
  return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

int hexValue(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Unit names escape bytes outside their alphabet as "\xNN"; launchers escape the dashes of app ids
// that way so that the literal dashes keep separating the parts of the name.
std::string unescapeUnit(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 3 < s.size() && s[i + 1] == 'x' && hexValue(s[i + 2]) >= 0 &&
        hexValue(s[i + 3]) >= 0) {
      out.push_back(static_cast<char>(hexValue(s[i + 2]) * 16 + hexValue(s[i + 3])));
      i += 3;
    } else {
      out.push_back(s[i]);
    }
  }
  return out;
}

// The id names a file "<id>.desktop" in an applications folder, so it must be a plain file name.
bool isValidAppId(std::string_view id) {
  if (id.empty() || id.size() > 255 || id.front() == '.' || id.front() == '-') return false;
  for (char c : id) {
    if (!isAlnum(c) && c != '.' && c != '-' && c != '_') return false;
  }
  return id.find("..") == std::string_view::npos;
}

// Who started the app, as launchers write it before the id: "app-gnome-<id>-<n>.scope".
bool isLauncher(std::string_view s) {
  constexpr std::string_view kLaunchers[] = {
      "gnome",  "kde",    "flatpak", "dbus",     "systemd", "xfce",     "lxqt", "cinnamon", "mate",
      "budgie", "cosmic", "sway",    "pantheon", "deepin",  "hyprland", "niri", "wayfire"};
  for (auto launcher : kLaunchers) {
    if (s == launcher) return true;
  }
  return false;
}

// A random instance tail "-1234" or "-3f2a...": alphanumeric with at least one digit, so that an id
// part such as "-firefox" is never taken for one.
bool isInstanceTail(std::string_view s) {
  bool digit = false;
  for (char c : s) {
    if (!isAlnum(c)) return false;
    digit = digit || isDigit(c);
  }
  return digit;
}

std::optional<std::string> finishAppId(std::string_view escaped) {
  std::string id = unescapeUnit(escaped);
  // A D-Bus activation names the bus connection first: ":1.42-org.gnome.Nautilus".
  if (!id.empty() && id.front() == ':') {
    auto dash = id.find('-');
    id.erase(0, dash == std::string::npos ? id.size() : dash + 1);
  }
  if (!isValidAppId(id)) return std::nullopt;
  return id;
}

std::optional<std::string> appIdOfUnit(std::string_view unit) {
  const bool scope = endsWith(unit, ".scope");
  std::string_view stem = unit.substr(0, unit.rfind('.'));
  if (startsWith(stem, "snap.")) {
    // "snap.<name>.<app>-<uuid>.scope": the snap's name; its services are system daemons.
    stem.remove_prefix(5);
    auto dot = stem.find('.');
    if (!scope || dot == std::string_view::npos) return std::nullopt;
    return finishAppId(stem.substr(0, dot));
  }
  if (!scope && startsWith(stem, "dbus-:")) {
    // "dbus-:1.2-<id>@<n>.service": a D-Bus activated app.
    stem.remove_prefix(5);
    return finishAppId(stem.substr(0, stem.find('@')));
  }
  if (!startsWith(stem, "app-")) return std::nullopt;
  std::string_view body = stem.substr(4);
  if (scope) {
    auto dash = body.rfind('-');
    if (dash != std::string_view::npos && dash > 0 && isInstanceTail(body.substr(dash + 1))) {
      body = body.substr(0, dash);
    }
  } else {
    body = body.substr(0, body.find('@'));
  }
  auto dash = body.find('-');
  if (dash != std::string_view::npos && dash + 1 < body.size() &&
      isLauncher(body.substr(0, dash))) {
    body.remove_prefix(dash + 1);
  }
  return finishAppId(body);
}

// The app of one cgroup path: the innermost systemd unit decides (a terminal's tab scope inside
// the terminal's slice is no app of its own, and not the terminal's either).
std::optional<std::string> appIdOfPath(std::string_view path) {
  while (!path.empty()) {
    auto slash = path.rfind('/');
    std::string_view component = path.substr(slash == std::string_view::npos ? 0 : slash + 1);
    if (endsWith(component, ".scope") || endsWith(component, ".service")) {
      return appIdOfUnit(component);
    }
    if (slash == std::string_view::npos) break;
    path = path.substr(0, slash);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> parseCgroupAppId(std::string_view text) {
  // "<hierarchy>:<controllers>:<path>" lines: the unified line "0::/..." and, on hybrid systems,
  // the "name=systemd" one carry the unit; other controllers' paths say nothing about apps.
  std::string_view rest = text;
  while (!rest.empty()) {
    std::string_view line = nextLine(rest);
    auto first = line.find(':');
    if (first == std::string_view::npos) continue;
    auto second = line.find(':', first + 1);
    if (second == std::string_view::npos) continue;
    std::string_view hierarchy = line.substr(0, first);
    std::string_view controllers = line.substr(first + 1, second - first - 1);
    bool unified = hierarchy == "0" && controllers.empty();
    if (!unified && controllers != "name=systemd") continue;
    if (auto id = appIdOfPath(trim(line.substr(second + 1)))) return id;
  }
  return std::nullopt;
}

}  // namespace vistrel
