// Feeds arbitrary bytes to the /proc/self/mountinfo parser: it must neither crash nor read out of
// bounds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sampling/proc_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const vistrel::MountEntry& entry : vistrel::parseMountinfo(text)) {
    (void)vistrel::isRealFilesystem(entry.fsType, entry.mountPoint);
  }
  // Decoding never lengthens the text.
  if (vistrel::decodeOctalEscapes(text).size() > size) __builtin_trap();
  if (vistrel::decodeDeviceLabel(text).size() > size) __builtin_trap();
  return 0;
}
