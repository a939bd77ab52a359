#include "sampling/smc.hpp"

#include <bit>
#include <cmath>
#include <cstring>
#include <string>

namespace vistrel {

namespace {

constexpr int kMaxFans = 7;  // more than this is a misread count, not a machine

uint32_t bigEndian(const uint8_t* b, size_t n) {
  uint32_t v = 0;
  for (size_t i = 0; i < n; ++i) v = (v << 8) | b[i];
  return v;
}

}  // namespace

uint32_t smcCode(std::string_view fourChars) {
  uint32_t code = 0;
  for (size_t i = 0; i < 4; ++i) {
    const unsigned char c = i < fourChars.size() ? static_cast<unsigned char>(fourChars[i]) : ' ';
    code = (code << 8) | c;
  }
  return code;
}

std::optional<double> decodeSMC(uint32_t type, const uint8_t* bytes, size_t size) {
  if (bytes == nullptr) return std::nullopt;
  double value = 0;
  if (type == smcCode("flt ")) {
    if (size < 4) return std::nullopt;
    const uint32_t bits = static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
                          static_cast<uint32_t>(bytes[2]) << 16 |
                          static_cast<uint32_t>(bytes[3]) << 24;
    value = static_cast<double>(std::bit_cast<float>(bits));
  } else if (type == smcCode("ui8 ")) {
    if (size < 1) return std::nullopt;
    value = bytes[0];
  } else if (type == smcCode("ui16")) {
    if (size < 2) return std::nullopt;
    value = bigEndian(bytes, 2);
  } else if (type == smcCode("ui32")) {
    if (size < 4) return std::nullopt;
    value = bigEndian(bytes, 4);
  } else if (type == smcCode("fpe2")) {
    if (size < 2) return std::nullopt;
    value = bigEndian(bytes, 2) / 4.0;
  } else if (type == smcCode("sp78")) {
    if (size < 2) return std::nullopt;
    value = static_cast<int16_t>(static_cast<uint16_t>(bigEndian(bytes, 2))) / 256.0;
  } else {
    return std::nullopt;
  }
  if (!std::isfinite(value)) return std::nullopt;
  return value;
}

SMC::SMC(std::unique_ptr<SMCConnection> connection) : connection_(std::move(connection)) {
  available_ = connection_ && connection_->open();
}

std::optional<double> SMC::numberLocked(uint32_t key) {
  if (!available_ || failed_.count(key)) return std::nullopt;
  auto cached = infoCache_.find(key);
  if (cached == infoCache_.end()) {
    auto info = connection_->keyInfo(key);
    if (!info || info->dataSize == 0 || info->dataSize > 32) {
      failed_.insert(key);
      return std::nullopt;
    }
    cached = infoCache_.emplace(key, *info).first;
  }
  auto bytes = connection_->readBytes(key, cached->second);
  if (!bytes) {
    failed_.insert(key);
    return std::nullopt;
  }
  return decodeSMC(cached->second.dataType, bytes->data(), bytes->size());
}

std::optional<double> SMC::number(std::string_view key) {
  std::lock_guard guard(lock_);
  return numberLocked(smcCode(key));
}

std::vector<Fan> SMC::fans() {
  std::lock_guard guard(lock_);
  std::vector<Fan> fans;
  auto count = numberLocked(smcCode("FNum"));
  if (!count || *count < 1 || *count > kMaxFans) return fans;
  const int n = static_cast<int>(*count);
  for (int i = 0; i < n; ++i) {
    const std::string prefix = "F" + std::to_string(i);
    Fan fan;
    fan.rpm = numberLocked(smcCode(prefix + "Ac")).value_or(0);
    fan.min = numberLocked(smcCode(prefix + "Mn")).value_or(0);
    fan.max = numberLocked(smcCode(prefix + "Mx")).value_or(0);
    fans.push_back(fan);
  }
  return fans;
}

std::optional<double> SMC::systemPower() {
  std::lock_guard guard(lock_);
  return numberLocked(smcCode("PSTR"));
}

}  // namespace vistrel
