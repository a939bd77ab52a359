#include "app/application_module.hpp"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>

#include "agents/executable_path.hpp"

#ifndef VISTREL_APPLICATION_MODULE
#error "the build names the application module's file"
#endif

namespace vistrel {

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

int runApplicationModule() {
  auto executable = runningExecutablePath();
  if (!executable) {
    std::fprintf(stderr,
                 "vistrel: cannot find where this executable is, nor its application "
                 "module beside it\n");
    return 1;
  }
  const char* moduleName = VISTREL_APPLICATION_MODULE;
  std::string tried;
  for (const std::string& path : applicationModuleCandidates(*executable, moduleName)) {
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
    auto entry = reinterpret_cast<Entry>(::dlsym(module, kApplicationEntryName));
    if (!entry) {
      tried += "\n  " + path + ": not a Vistrel application module";
      ::dlclose(module);
      continue;
    }
    const int status = entry(kApplicationModuleInterface);
    if (status == kApplicationModuleMismatch) {
      std::fprintf(stderr, "vistrel: %s belongs to another version of Vistrel\n", path.c_str());
    }
    // Not closed: threads of the module's runtime may still be ending as the process exits.
    return status;
  }
  std::fprintf(stderr, "vistrel: cannot load the application module %s:%s\n", moduleName,
               tried.c_str());
  return 1;
}

}  // namespace vistrel
