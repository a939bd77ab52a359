#include "agents/status_line_mode.hpp"

#include <errno.h>
#include <unistd.h>

#include <string>

#include "agents/status_line_bridge.hpp"

namespace vistrel {

namespace {

// Real payloads are a few kilobytes; the rest of a larger input is read and dropped, so that the
// writer never blocks on a full pipe.
constexpr size_t kMaxInput = 16 << 20;

std::string readStandardInput() {
  std::string input;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (input.size() < kMaxInput) input.append(buffer, static_cast<size_t>(n));
  }
  return input;
}

void writeStandardOutput(std::string_view text) {
  while (!text.empty()) {
    ssize_t n = ::write(STDOUT_FILENO, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text.remove_prefix(static_cast<size_t>(n));
  }
}

}  // namespace

int runStatusLineMode() {
  std::string input = readStandardInput();
  std::string output;
  StatusLineBridge::runStatusLine(BridgePaths::defaults(), input, output,
                                  std::chrono::system_clock::now());
  writeStandardOutput(output);
  return 0;
}

}  // namespace vistrel
