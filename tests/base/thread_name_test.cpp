#include "base/thread_name.hpp"

#include <gtest/gtest.h>

#include <string>

namespace vistrel {
namespace {

TEST(ThreadName, PrefixFitsWithoutSplittingACharacter) {
  const std::string long64(64, 'a');
  struct Case {
    std::string name;
    size_t max;
    std::string expected;
  } cases[] = {
      {"org.brackwood.vistrel.sampler", 63, "org.brackwood.vistrel.sampler"},
      {long64, 63, long64.substr(0, 63)},
      {long64.substr(0, 63), 63, long64.substr(0, 63)},
      {"", 63, ""},
      {"abc", 0, ""},
      // "é" is two bytes, "東" three, "🙂" four: a cut inside one drops the whole character.
      {"ab\xc3\xa9", 3, "ab"},
      {"ab\xc3\xa9", 4, "ab\xc3\xa9"},
      {"a\xe6\x9d\xb1", 2, "a"},
      {"a\xe6\x9d\xb1", 3, "a"},
      {"a\xf0\x9f\x99\x82z", 4, "a"},
      {"a\xf0\x9f\x99\x82z", 5, "a\xf0\x9f\x99\x82"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name + " / " + std::to_string(c.max));
    EXPECT_EQ(threadNamePrefix(c.name, c.max), c.expected);
  }
}

}  // namespace
}  // namespace vistrel
