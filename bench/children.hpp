#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

namespace vistrel::bench {

// Idle child processes that inflate the process table for a benchmark. Every child started here is
// recorded, and exactly those are ended (and reaped) when the set is destroyed.
class IdleChildren {
 public:
  IdleChildren() = default;
  IdleChildren(const IdleChildren&) = delete;
  IdleChildren& operator=(const IdleChildren&) = delete;
  ~IdleChildren();

  // Starts children until the machine has `total` processes or `limit` children were started.
  void fillTo(size_t total, size_t limit = 1000);
  // Starts one child; false when it could not start.
  bool startOne();
  // Ends and reaps the oldest child.
  void endOldest();
  size_t size() const { return pids_.size(); }

 private:
  std::vector<pid_t> pids_;
};

// The number of processes on the machine now.
size_t countProcesses();

// The resident memory of this process, bytes.
size_t residentBytes();

}  // namespace vistrel::bench
