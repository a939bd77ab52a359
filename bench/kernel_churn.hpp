#pragma once

#include <cstddef>

namespace vistrel::bench {

// The process layer over a synthetic /proc tree in which kernel workers and processes whose
// identity cannot be read come and go every tick, read by the platform's real process source.
// Neither kind is ever kept by the process sampler, so only the source's own bookkeeping decides
// whether their descriptors are let go. Empty figures where the platform has no such source.
struct ChurnFigures {
  bool ran = false;
  size_t descriptorsAfterWarmup = 0, descriptorsAtEnd = 0, descriptorsMax = 0;
  size_t rssAfterWarmup = 0, rssAtEnd = 0;  // bytes
  int hiddenAtEnd = 0;
};
ChurnFigures soakKernelChurn(int ticks);

}  // namespace vistrel::bench
