#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vistrel {

// The application's settings store: the platform's user defaults on macOS (the preferences of the
// domain "org.brackwood.vistrel"), a JSON file in the XDG config folder on Linux, memory in tests.
// Values are property-list shaped and carried as JSON: booleans, integers, reals, strings, arrays,
// objects (dictionaries with string keys) and binary data (json::binary). Thread-safe.
class UserDefaults {
 public:
  virtual ~UserDefaults() = default;
  // nullopt when the key is absent.
  virtual std::optional<nlohmann::json> get(std::string_view key) = 0;
  // Stores the value; a null value removes the key.
  virtual void set(std::string_view key, nlohmann::json value) = 0;
  void remove(std::string_view key) { set(key, nullptr); }

  // Typed reads: nullopt when absent or of another type (an integer reads as a number too).
  std::optional<bool> boolean(std::string_view key);
  std::optional<int64_t> integer(std::string_view key);
  std::optional<double> number(std::string_view key);
  std::optional<std::string> string(std::string_view key);
  std::optional<std::vector<std::string>> strings(std::string_view key);  // non-strings skipped
  std::optional<std::vector<uint8_t>> data(std::string_view key);
  void setData(std::string_view key, const std::vector<uint8_t>& bytes);
};

// Kept in memory only: tests, and the fallback when the platform's store cannot be used.
class MemoryUserDefaults final : public UserDefaults {
 public:
  std::optional<nlohmann::json> get(std::string_view key) override;
  void set(std::string_view key, nlohmann::json value) override;

 private:
  std::mutex mutex_;
  std::map<std::string, nlohmann::json, std::less<>> values_;
};

// The platform's store for this user.
std::unique_ptr<UserDefaults> makeUserDefaults();

}  // namespace vistrel
