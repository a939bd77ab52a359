#include "agents/message_ledger.hpp"

#include <algorithm>
#include <functional>
#include <limits>

namespace vistrel {

namespace {

uint64_t mix(uint64_t x) {  // splitmix64's finaliser: spreads any key over the table
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

}  // namespace

uint64_t messageKey(std::string_view messageId, std::string_view requestId) {
  const uint64_t a = std::hash<std::string_view>{}(messageId);
  const uint64_t b = std::hash<std::string_view>{}(requestId);
  const uint64_t key = mix(a ^ mix(b + 0x9e3779b97f4a7c15ULL));
  return key == 0 ? 1 : key;
}

int64_t addSaturating(int64_t a, int64_t b) {
  int64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) {
    return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
  }
  return sum;
}

void addSaturating(TokenTotals& into, const TokenTotals& add) {
  into.input = addSaturating(into.input, add.input);
  into.output = addSaturating(into.output, add.output);
  into.cacheWrite = addSaturating(into.cacheWrite, add.cacheWrite);
  into.cacheRead = addSaturating(into.cacheRead, add.cacheRead);
}

MessageLedger::Added MessageLedger::count(uint64_t key, const TokenTotals& usage) {
  if (key == 0) key = 1;
  if ((used_ + 1) * 4 > slots_.size() * 3) grow();
  const size_t mask = slots_.size() - 1;
  size_t at = mix(key) & mask;
  while (slots_[at].key != 0 && slots_[at].key != key) at = (at + 1) & mask;
  Slot& slot = slots_[at];
  Added added;
  if (slot.key == 0) {
    slot.key = key;
    ++used_;
    added.first = true;
  }
  auto raise = [](int64_t& counted, int64_t seen) {
    const int64_t increase = seen > counted ? seen - counted : 0;
    counted = std::max(counted, seen);
    return increase;
  };
  added.tokens.input = raise(slot.counted.input, usage.input);
  added.tokens.output = raise(slot.counted.output, usage.output);
  added.tokens.cacheWrite = raise(slot.counted.cacheWrite, usage.cacheWrite);
  added.tokens.cacheRead = raise(slot.counted.cacheRead, usage.cacheRead);
  return added;
}

void MessageLedger::clear() {
  std::vector<Slot>().swap(slots_);
  used_ = 0;
}

void MessageLedger::grow() {
  std::vector<Slot> old;
  old.swap(slots_);
  slots_.assign(std::max<size_t>(64, old.size() * 2), Slot{});
  const size_t mask = slots_.size() - 1;
  for (const Slot& slot : old) {
    if (slot.key == 0) continue;
    size_t at = mix(slot.key) & mask;
    while (slots_[at].key != 0) at = (at + 1) & mask;
    slots_[at] = slot;
  }
}

}  // namespace vistrel
