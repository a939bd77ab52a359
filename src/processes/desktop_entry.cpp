#include "processes/desktop_entry.hpp"

#include "base/files.hpp"

namespace vistrel {

namespace {

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  const size_t last = text.find_last_not_of(kBlanks);
  return text.substr(first, last - first + 1);
}

// Decodes the escapes a string value may hold: \s \n \t \r \\. An unknown escape or a trailing
// backslash is kept as written.
std::string unescaped(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out.push_back(value[i]);
      continue;
    }
    switch (value[i + 1]) {
      case 's':
        out.push_back(' ');
        break;
      case 'n':
        out.push_back('\n');
        break;
      case 't':
        out.push_back('\t');
        break;
      case 'r':
        out.push_back('\r');
        break;
      case '\\':
        out.push_back('\\');
        break;
      default:
        out.push_back('\\');
        out.push_back(value[i + 1]);
        break;
    }
    ++i;
  }
  return out;
}

}  // namespace

std::optional<DesktopEntry> parseDesktopEntry(std::string_view text) {
  std::optional<DesktopEntry> entry;
  bool inEntryGroup = false;
  bool sawNoDisplay = false;
  while (!text.empty()) {
    const size_t newline = text.find('\n');
    const std::string_view line = trimmed(text.substr(0, newline));
    text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);

    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      // A repeated [Desktop Entry] group is not allowed; only the first one counts.
      inEntryGroup = !entry && line == "[Desktop Entry]";
      if (inEntryGroup) entry.emplace();
      continue;
    }
    if (!inEntryGroup) continue;

    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) continue;
    const std::string_view key = trimmed(line.substr(0, equals));
    const std::string_view value = trimmed(line.substr(equals + 1));
    if (key == "Name" && !entry->name) {
      entry->name = unescaped(value);
    } else if (key == "NoDisplay" && !sawNoDisplay) {
      sawNoDisplay = true;
      entry->noDisplay = value == "true";
    }
  }
  return entry;
}

std::string desktopAppId(std::string_view path) {
  std::string_view file = lastComponent(path);
  constexpr std::string_view kSuffix = ".desktop";
  if (file.size() > kSuffix.size() && file.substr(file.size() - kSuffix.size()) == kSuffix) {
    file.remove_suffix(kSuffix.size());
  }
  return std::string(file);
}

}  // namespace vistrel
