#pragma once

// The System Management Controller's keys: decoding their raw bytes, and the fan and power figures
// built on them. The connection itself (the AppleSMC user client) is the platform's; everything
// above the raw bytes is portable and tested from captured replies.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "sampling/records.hpp"
#include "sampling/stages.hpp"

namespace vistrel {

// A four-character key or type ("FNum", "flt ") as the 32-bit big-endian code the controller uses.
// Shorter strings are padded with spaces; longer ones are cut at four characters.
uint32_t smcCode(std::string_view fourChars);

// Decodes a key's bytes by its type code:
//   "flt "  32-bit float, little-endian (the controller of Apple silicon stores it so)
//   "ui8 "  unsigned byte
//   "ui16"  big-endian unsigned 16-bit
//   "ui32"  big-endian unsigned 32-bit
//   "fpe2"  big-endian unsigned 16-bit with two fraction bits (raw / 4)
//   "sp78"  big-endian signed 16-bit with eight fraction bits (raw / 256)
// nullopt for any other type, too few bytes, or a value that is not finite.
std::optional<double> decodeSMC(uint32_t type, const uint8_t* bytes, size_t size);

// What the controller says about one key.
struct SMCKeyInfo {
  uint32_t dataSize = 0;
  uint32_t dataType = 0;
};

// The platform's side: one request to the controller per call. Each returns nullopt on any
// failure (no such key, the call refused, no connection).
class SMCConnection {
 public:
  virtual ~SMCConnection() = default;
  virtual bool open() = 0;  // false: no controller (every read then fails)
  virtual std::optional<SMCKeyInfo> keyInfo(uint32_t key) = 0;
  virtual std::optional<std::vector<uint8_t>> readBytes(uint32_t key, const SMCKeyInfo& info) = 0;
};

// Fans and whole-machine power from the controller. Each key's description is asked once and
// cached; a key the controller refused is never asked again, because every refusal writes a line
// to the kernel log and a monitor that asks every two seconds would flood it.
class SMC final : public SMCSource {
 public:
  explicit SMC(std::unique_ptr<SMCConnection> connection);

  bool available() const { return available_; }
  std::optional<double> number(std::string_view key);
  std::vector<Fan> fans() override;
  std::optional<double> systemPower() override;  // "PSTR", watts

 private:
  std::optional<double> numberLocked(uint32_t key);

  std::unique_ptr<SMCConnection> connection_;
  bool available_ = false;
  std::mutex lock_;  // serialises every call to the controller
  std::unordered_map<uint32_t, SMCKeyInfo> infoCache_;
  std::unordered_set<uint32_t> failed_;
};

// The platform's controller connection (AppleSMC on macOS); defined under macos/.
std::unique_ptr<SMCConnection> makeSMCConnection();

}  // namespace vistrel
