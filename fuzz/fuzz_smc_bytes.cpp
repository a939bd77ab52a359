// Feeds arbitrary type codes and bytes to the SMC decoder: it must never read past the bytes it is
// given nor return a value that is not finite.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sampling/smc.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  // The first byte picks one of the known types (or an unknown one); the rest are the key's bytes.
  static const char* const kTypes[] = {"flt ", "ui8 ", "ui16", "ui32", "fpe2", "sp78", "si8 "};
  const uint32_t type = vistrel::smcCode(kTypes[data[0] % 7]);
  auto value = vistrel::decodeSMC(type, data + 1, size - 1);
  if (value && !std::isfinite(*value)) __builtin_trap();
  return 0;
}
