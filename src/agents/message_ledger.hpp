#pragma once

// Token usage counted per API response. Claude Code writes one response over several lines that
// share its message id and request id; a streamed reply's earlier lines carry partial output, and
// a resumed session's transcript repeats earlier responses. The ledger counts each response once,
// at the largest usage any of its lines reports: a line adds only its increase over what was
// counted for the same response before.

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "agents/agent_records.hpp"

namespace vistrel {

// A 64-bit key for one API response (never 0). A collision between two of a few million responses
// has a chance of about one in a million millions.
uint64_t messageKey(std::string_view messageId, std::string_view requestId);

// Saturating sums, field by field: the readers' counters never stop the process on a file's
// nonsense figures.
void addSaturating(TokenTotals& into, const TokenTotals& add);
int64_t addSaturating(int64_t a, int64_t b);

class MessageLedger {
 public:
  struct Added {
    TokenTotals tokens;  // each counter's increase over the largest counted before (0 or more)
    bool first = false;  // the first line of this response
  };

  // Counts one line of the response `key` reporting `usage` (counters not negative).
  Added count(uint64_t key, const TokenTotals& usage);

  size_t size() const { return used_; }
  void clear();

 private:
  struct Slot {
    uint64_t key = 0;  // 0: empty
    TokenTotals counted;
  };
  void grow();

  // Open addressing with linear probing: one allocation for all entries, none per response.
  std::vector<Slot> slots_;
  size_t used_ = 0;
};

}  // namespace vistrel
