#pragma once

// Quit tools that record what they are asked instead of reaching any process, for the tests of
// everything that carries out a confirmed quit.

#include <cstdint>
#include <set>
#include <utility>
#include <vector>

#include "control/quit_request.hpp"

namespace vistrel::testing {

// Records every signal; `fails` lists pids for which sending fails (the process is gone).
class RecordingSignals : public SignalSender {
 public:
  bool send(int32_t pid, int signal) override {
    sent.emplace_back(pid, signal);
    return !fails.count(pid);
  }
  std::vector<std::pair<int32_t, int>> sent;
  std::set<int32_t> fails;
};

// Records every request to quit running applications and answers `answer` (how many were asked).
class RecordingQuitter : public AppQuitter {
 public:
  using Call = std::pair<std::vector<int32_t>, bool>;  // the pids, and whether forced
  int quit(const std::vector<int32_t>& pids, bool force) override {
    calls.emplace_back(pids, force);
    return answer;
  }
  std::vector<Call> calls;
  int answer = 1;
};

}  // namespace vistrel::testing
