// Feeds arbitrary bytes to the status-line payload parser and the short line: no crash, no
// undefined behaviour, and what comes out must be bounded by what went in. The stored form (the
// payload written back with its time of receipt) must read back as the same record.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "agents/status_payload.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const vistrel::Date received = vistrel::dateFromSeconds(1'738'400'000.0);
  auto payload = vistrel::parseJsonObject(text);
  auto record = vistrel::parseStatusPayload(text, received);
  if (payload.has_value() != record.has_value()) __builtin_trap();
  if (!record) return 0;

  std::string line = vistrel::statusSummary(*record);
  for (char c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) __builtin_trap();  // no control bytes
  }
  // Four parts, each a name or percent drawn from the input plus a few fixed words and separators.
  if (line.size() > size + 80) __builtin_trap();
  if (record->plan && record->plan->updated != record->received) __builtin_trap();
  if (record->plan && record->plan->session && record->plan->session->windowMinutes != 300) {
    __builtin_trap();
  }
  if (record->plan && record->plan->weekly && record->plan->weekly->windowMinutes != 10080) {
    __builtin_trap();
  }

  // Stored as the status-line mode stores it, then read back as the app reads it.
  (*payload)["received"] = vistrel::secondsSince1970(received);
  std::string stored =
      payload->dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  auto again = vistrel::parseStatusPayload(stored, vistrel::Date{});
  if (!again || again->received != received) __builtin_trap();
  if (again->sessionId != record->sessionId || again->model != record->model) __builtin_trap();
  return 0;
}
