#pragma once

#include <memory>

namespace vistrel {

// The application's own updater. Only the macOS bundle has one, and only when the build named an
// update feed and its public key (VISTREL_UPDATE_FEED, VISTREL_UPDATE_PUBLIC_KEY): the feed, the
// key and the daily schedule are then written into the bundle's Info.plist, where the platform's
// updater framework reads them. On Linux the package manager updates Vistrel.
//
// Used from the main thread only, once the application's event loop exists.
class Updater {
 public:
  virtual ~Updater() = default;

  // Starts the schedule: a check in the background once a day, installing with the framework's
  // own dialogs. Calling it again does nothing.
  virtual void start() = 0;

  // "Check for Updates…": a check the person asked for, which always reports its outcome.
  virtual void checkNow() = 0;

  // Whether "Check for Updates…" can run now (false while a check or an update is under way), for
  // enabling the menu item.
  virtual bool canCheckNow() const = 0;
};

// The updater of this build, or nullptr when it has none: then there is no "Check for Updates…"
// menu item and nothing is ever checked.
std::unique_ptr<Updater> makeUpdater();

}  // namespace vistrel
