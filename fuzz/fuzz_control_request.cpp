// Feeds arbitrary bytes to the control request parser: it must never crash or throw, and whatever
// it accepts must be an object "args" that serializes (valid UTF-8) and parses back the same.
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string_view>

#include "control/control_request.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view line(reinterpret_cast<const char*>(data), size);
  std::optional<vistrel::ControlRequest> request = vistrel::parseControlRequest(line);
  if (!request) return 0;
  if (!request->args.is_object()) __builtin_trap();
  // The handlers dump what they are given into answers; that must not throw on accepted input.
  nlohmann::json again = {{"tool", request->tool}, {"args", request->args}};
  std::string text = again.dump();
  std::optional<vistrel::ControlRequest> back = vistrel::parseControlRequest(text);
  if (!back || back->tool != request->tool || back->args != request->args) __builtin_trap();
  return 0;
}
