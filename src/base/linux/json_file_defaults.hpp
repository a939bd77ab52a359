#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <ctime>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "base/user_defaults.hpp"

namespace vistrel {

// The Linux user defaults: one JSON object in a file (by default configFolder()/defaults.json).
//
// File format: a JSON object, pretty-printed, keys sorted. Binary values are written as
// {"$data": "<base64>"} (RFC 4648 standard alphabet, with padding) and read back as json::binary.
// So that no object of the caller's can be mistaken for binary, every object key that starts with
// "$" gets one more "$" on disk ("$data" is written "$$data") and loses it when read. Strings that
// are not valid UTF-8 are written with U+FFFD in place of the bad bytes; reals that are not finite
// are written as null (JSON has neither); the values in memory keep them until the next load.
//
// Loaded at construction; reloaded when the file changes under us (another instance, such as the
// --mcp process, wrote it), noticed by one stat per get or set. Each set rewrites the whole file
// atomically: a temporary file in the same folder, fsync, rename over the old one (mode 0600; a
// missing folder is created 0700).
//
// Bad input loses nothing: a file that cannot be read, is not JSON or is not an object is moved
// aside to "defaults.json.damaged-YYYYMMDD-HHMMSS" (local time; "-2", "-3"... when taken) with one
// line on stderr, and the store keeps what it had (nothing, at construction). When the folder
// cannot be written the values live in memory only, said once on stderr. Thread-safe.
class JsonFileDefaults final : public UserDefaults {
 public:
  explicit JsonFileDefaults(std::string path);

  std::optional<nlohmann::json> get(std::string_view key) override;
  void set(std::string_view key, nlohmann::json value) override;

  const std::string& path() const { return path_; }
  // False after the last write failed (or a damaged file could not be moved aside): the values
  // are then in memory only.
  bool persisted();

  // The conversions between values and their form on disk (exposed for tests).
  static nlohmann::json encodeForFile(const nlohmann::json& value);
  static nlohmann::json decodeFromFile(const nlohmann::json& value);

 private:
  // What stat said about the file when we last read or wrote it; any change means someone else
  // wrote it.
  struct FileState {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};
    bool operator==(const FileState& other) const;
  };

  static FileState stateOf(const struct stat& st);
  void reloadIfChanged();
  void load();
  bool moveAside();
  bool write();
  void warnUnwritable(const char* what, int error);

  const std::string path_;
  std::mutex mutex_;
  nlohmann::json values_ = nlohmann::json::object();
  FileState known_;
  // A damaged file that could not be moved aside must not be overwritten.
  bool damagedInPlace_ = false;
  bool persisted_ = true;
  bool warnedUnwritable_ = false;
};

}  // namespace vistrel
