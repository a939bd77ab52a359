// Builds without an update feed, and Linux, where the package manager updates Vistrel.

#include "app/updater.hpp"

namespace vistrel {

std::unique_ptr<Updater> makeUpdater() {
  return nullptr;
}

}  // namespace vistrel
