#include "processes/script_label.hpp"

#include <algorithm>
#include <array>
#include <cctype>

#include "base/files.hpp"

namespace vistrel {

namespace {

constexpr std::array<std::string_view, 10> kInterpreters = {
    "node", "bun", "deno", "python", "python3", "ruby", "php", "java", "perl", "uvicorn"};
// "dash" is what /bin/sh runs as on Debian and Ubuntu: without it every `sh -c` child would merge
// into a group named after the shell.
constexpr std::array<std::string_view, 8> kShells = {"zsh",   "bash", "sh",     "fish",
                                                     "login", "tmux", "screen", "dash"};

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// The module or script a script interpreter runs, named from the arguments after the program.
std::string labelForArguments(const std::vector<std::string>& args, const std::string& label) {
  for (size_t i = 1; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "-m" && i + 1 < args.size()) {
      const std::string& module = args[i + 1];
      return module == "http.server" ? "python3 http.server" : module;
    }
    if (startsWith(arg, "-")) continue;

    // A script inside an installed package is named after the package (a scoped package after
    // its scope), or after the command when run through node_modules/.bin.
    constexpr std::string_view kPackages = "/node_modules/";
    if (const size_t at = arg.rfind(kPackages); at != std::string::npos) {
      std::vector<std::string_view> pieces;
      std::string_view rest = std::string_view(arg).substr(at + kPackages.size());
      while (!rest.empty()) {
        const size_t slash = rest.find('/');
        const std::string_view piece = rest.substr(0, slash);
        if (!piece.empty()) pieces.push_back(piece);
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
      }
      if (!pieces.empty()) {
        if (pieces[0] == ".bin" && pieces.size() > 1) return std::string(pieces[1]);
        std::string_view package = pieces[0];
        if (startsWith(package, "@")) package.remove_prefix(1);
        return package.empty() ? label : std::string(package);
      }
    }

    const std::string_view file = lastComponent(arg);
    if (file == "manage.py") return "django";
    const size_t dot = file.rfind('.');
    // A leading dot starts a hidden file's name, not an extension.
    const std::string_view stem =
        dot == std::string_view::npos || dot == 0 ? file : file.substr(0, dot);
    return stem.empty() ? label : std::string(stem);
  }
  return label;  // only options
}

}  // namespace

bool ScriptLabel::isInterpreter(std::string_view lowerName) {
  return startsWith(lowerName, "python") ||
         std::find(kInterpreters.begin(), kInterpreters.end(), lowerName) != kInterpreters.end();
}

bool ScriptLabel::isShell(std::string_view name) {
  return std::find(kShells.begin(), kShells.end(), name) != kShells.end();
}

std::string ScriptLabel::describe(std::string_view path, const std::vector<std::string>& args) {
  const std::string_view base = lastComponent(path);

  // A process that set its own title ("postgres: writer") keeps it.
  if (!args.empty()) {
    const std::string& a0 = args[0];
    if (!a0.empty() && a0.find('/') == std::string::npos && a0 != base &&
        !isInterpreter(lowered(a0))) {
      return a0;
    }
  }

  const std::string lowerBase = lowered(base);
  if (!isInterpreter(lowerBase)) return std::string(base);

  const std::string label = startsWith(lowerBase, "python") ? "python3" : lowerBase;
  if (args.size() < 2) return label;
  return labelForArguments(args, label);
}

}  // namespace vistrel
