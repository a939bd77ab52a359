#include "app/application_module.hpp"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "agents/executable_path.hpp"
#include "app/single_instance.hpp"
#include "control/control_socket.hpp"

#ifndef VISTREL_APPLICATION_MODULE
#error "the build names the application module's file"
#endif
// The window module's file name; empty when the build has no user interface (no Qt).
#ifndef VISTREL_WINDOW_MODULE
#error "the build names the window module's file (empty without one)"
#endif

namespace vistrel {

namespace {

// macOS always has its window server; elsewhere a display must be named.
#ifdef __APPLE__
constexpr bool kAlwaysDisplay = true;
#else
constexpr bool kAlwaysDisplay = false;
#endif

struct Loaded {
  void* handle = nullptr;
  int (*entry)(int) = nullptr;
  std::string path;
};

// Loads the first usable candidate of `moduleName` that exports `entryName`; on failure `tried`
// lists every place and why each failed.
// `kind` names the module in messages ("application", "window").
std::optional<Loaded> loadModule(const std::string& executable, const char* moduleName,
                                 const char* entryName, const char* kind, std::string& tried) {
  for (const std::string& path : applicationModuleCandidates(executable, moduleName)) {
    if (::access(path.c_str(), F_OK) != 0) {
      tried += "\n  " + path + ": not there";
      continue;
    }
    // Local: nothing of the module's joins the global scope, so its symbols never meet the
    // executable's own copies of the same code.
    void* module = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) {
      const char* why = ::dlerror();
      tried += "\n  " + path + ": " + (why ? why : "cannot be loaded");
      continue;
    }
    using Entry = int (*)(int);
    auto entry = reinterpret_cast<Entry>(::dlsym(module, entryName));
    if (!entry) {
      tried += "\n  " + path + ": not a Vistrel " + kind + " module";
      ::dlclose(module);
      continue;
    }
    return Loaded{module, entry, path};
  }
  return std::nullopt;
}

int runLoaded(const Loaded& module) {
  const int status = module.entry(kApplicationModuleInterface);
  if (status == kApplicationModuleMismatch) {
    std::fprintf(stderr, "vistrel: %s belongs to another version of Vistrel\n",
                 module.path.c_str());
  }
  // Not closed: threads of the module's runtime may still be ending as the process exits.
  return status;
}

// The most telling line of a list of failures: the first place where a module was there but would
// not load (a missing library names itself), else the first place tried.
std::string mainReason(const std::string& tried) {
  std::string first;
  size_t at = 0;
  while ((at = tried.find("\n  ", at)) != std::string::npos) {
    size_t end = tried.find('\n', at + 1);
    std::string line = tried.substr(at + 3, end == std::string::npos ? end : end - at - 3);
    if (first.empty()) first = line;
    if (!line.ends_with(": not there")) return line;
    at = at + 1;
  }
  return first;
}

}  // namespace

std::optional<std::string> linuxDisplayProblem(
    const std::function<const char*(const char*)>& env,
    const std::function<bool(const std::string&)>& exists) {
  auto set = [&](const char* name) {
    const char* v = env(name);
    return v && *v ? std::optional<std::string>(v) : std::nullopt;
  };
  // The toolkit's own platforms that draw without a display server (screenshots, benchmarks).
  if (auto platform = set("QT_QPA_PLATFORM")) {
    for (const char* own : {"offscreen", "minimal", "vnc", "linuxfb", "eglfs"}) {
      if (platform->starts_with(own)) return std::nullopt;
    }
  }
  if (auto wayland = set("WAYLAND_DISPLAY")) {
    // A relative name lives in the runtime folder; an absolute one is the socket itself.
    if (wayland->front() == '/') {
      if (exists(*wayland)) return std::nullopt;
    } else if (auto runtime = set("XDG_RUNTIME_DIR");
               runtime && exists(*runtime + "/" + *wayland)) {
      return std::nullopt;
    }
    if (!set("DISPLAY")) return "WAYLAND_DISPLAY names " + *wayland + ", which is not there";
  }
  auto display = set("DISPLAY");
  if (!display) return std::string("no display (neither DISPLAY nor WAYLAND_DISPLAY is set)");
  // ":N" or ":N.S" is a local server with a socket of a known name; any other form (a host, a
  // path) is left for the toolkit to reach.
  if (display->front() == ':') {
    std::string number = display->substr(1, display->find('.') - 1);
    if (number.empty() || number.find_first_not_of("0123456789") != std::string::npos) {
      return "DISPLAY is " + *display + ", which names no display";
    }
    if (!exists("/tmp/.X11-unix/X" + number)) {
      return "DISPLAY is " + *display + ", but that display is not running";
    }
  }
  return std::nullopt;
}

std::vector<std::string> applicationModuleCandidates(std::string_view executable,
                                                     std::string_view moduleName) {
  std::vector<std::string> out;
  const size_t slash = executable.rfind('/');
  if (slash == std::string_view::npos || moduleName.empty()) return out;
  const std::string folder(executable.substr(0, slash + 1));  // keeps the slash; "/" at the root
  out.push_back(folder + std::string(moduleName));
  constexpr std::string_view kBundleBinaries = "/Contents/MacOS/";
  if (std::string_view(folder).ends_with(kBundleBinaries)) {
    out.push_back(folder + "../Frameworks/" + std::string(moduleName));
  }
  out.push_back(folder + "../lib/vistrel/" + std::string(moduleName));
  return out;
}

bool headlessForced(const char* value) {
  return value && *value && std::string_view(value) != "0";
}

int runApplicationModule(LaunchKind kind) {
  // One application per user: the lock sits beside the control socket, which every launch (and
  // every `--mcp`) finds in the same place whatever its environment.
  if (!becomeTheInstance(kind, instanceLockPath(ControlSocket::path()))) return 0;
  if (kind != LaunchKind::interactive) {
    ::setenv(kLaunchVariable, std::string(launchWord(kind)).c_str(), 1);
  } else {
    // Not inherited from a login-launched parent (an update's relaunch): this launch shows the
    // window.
    ::unsetenv(kLaunchVariable);
  }
  auto executable = runningExecutablePath();
  if (!executable) {
    std::fprintf(stderr,
                 "vistrel: cannot find where this executable is, nor its application "
                 "module beside it\n");
    return 1;
  }
  const char* windowModule = VISTREL_WINDOW_MODULE;
  std::optional<std::string> noWindow;
  // VISTREL_HEADLESS (any value but empty or 0): the service unit runs the monitor without a window
  // even where a session has a display.
  if (*windowModule == '\0') {
    noWindow = "this build has no window";
  } else if (headlessForced(std::getenv("VISTREL_HEADLESS"))) {
    noWindow = "VISTREL_HEADLESS is set (no window wanted)";
  } else if (!kAlwaysDisplay) {
    noWindow =
        linuxDisplayProblem([](const char* name) { return std::getenv(name); },
                            [](const std::string& p) { return ::access(p.c_str(), F_OK) == 0; });
  }
  if (!noWindow) {
    std::string tried;
    if (auto window = loadModule(*executable, windowModule, kWindowEntryName, "window", tried)) {
      return runLoaded(*window);
    }
    noWindow = "cannot load the window: " + mainReason(tried);
  }
  std::fprintf(stderr, "vistrel: %s\n", noWindow->c_str());

  const char* moduleName = VISTREL_APPLICATION_MODULE;
  std::string tried;
  if (auto module =
          loadModule(*executable, moduleName, kApplicationEntryName, "application", tried)) {
    return runLoaded(*module);
  }
  std::fprintf(stderr, "vistrel: cannot load the application module %s:%s\n", moduleName,
               tried.c_str());
  return 1;
}

}  // namespace vistrel
