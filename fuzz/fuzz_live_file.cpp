// A Claude Code live file of any bytes.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "agents/claude_live_file.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (std::optional<vistrel::ClaudeLiveFile> file = vistrel::parseLiveFile(text)) {
    if (file->pid <= 0 || file->sessionId.empty()) __builtin_trap();
  }
  return 0;
}
