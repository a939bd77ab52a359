// The one exported symbol of the application module; see app/application_module.hpp for the
// contract with the executable.

#include <cstdio>
#include <exception>

#include "app/application.hpp"
#include "app/application_module.hpp"

extern "C" __attribute__((visibility("default"))) int vistrel_application_main(
    int interfaceVersion) {
  if (interfaceVersion != vistrel::kApplicationModuleInterface) {
    return vistrel::kApplicationModuleMismatch;
  }
  // No exception may cross into the executable, whose C++ runtime may not be this one.
  try {
    return vistrel::runApplicationMode();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vistrel: the application stopped on an unexpected error: %s\n",
                 error.what());
  } catch (...) {
    std::fprintf(stderr, "vistrel: the application stopped on an unexpected error\n");
  }
  return 1;
}
