// The application's settings on macOS are CFPreferences values. The tests run with
// CFFIXED_USER_HOME in the build folder (set by CTest) and in a domain of their own, so that they
// never touch the person's preferences.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "base/macos/preferences_defaults.hpp"

namespace vistrel {
namespace {

using nlohmann::json;

class PreferencesDefaultsTest : public testing::Test {
 protected:
  void SetUp() override {
    const char* fixedHome = ::getenv("CFFIXED_USER_HOME");
    if (fixedHome == nullptr || *fixedHome == '\0') {
      GTEST_SKIP() << "CFFIXED_USER_HOME is not set: refusing to write the person's preferences";
    }
  }
  void TearDown() override {
    // Nothing stays behind, even in the test home.
    for (const std::string& key : written_) store_->set(key, nullptr);
  }
  void set(const std::string& key, json value) {
    written_.push_back(key);
    store_->set(key, std::move(value));
  }

  const std::string domain_ = "org.brackwood.vistrel.tests." + std::to_string(::getpid());
  std::unique_ptr<UserDefaults> store_ = makePreferencesDefaults(domain_);
  std::vector<std::string> written_;
};

TEST_F(PreferencesDefaultsTest, RoundTripsThroughANewStoreAsPropertyListsAllow) {
  struct Case {
    const char* key;
    json value;
    json back;  // what a property list gives back
  } cases[] = {
      {"yes", true, true},
      {"no", false, false},
      {"zero", 0, 0},
      {"smallest", std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::min()},
      {"largest", std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::max()},
      // CFNumber has no unsigned 64-bit type: above INT64_MAX the value comes back as a real.
      {"largest unsigned", std::numeric_limits<uint64_t>::max(), 18446744073709551616.0},
      {"real", 0.1, 0.1},
      {"integral real", 3.0, 3.0},
      {"unicode", "Grüße, 東京 🙂", "Grüße, 東京 🙂"},
      {"embedded nul", std::string("a\0b", 3), std::string("a\0b", 3)},
      {"not UTF-8", "a\xff", "a\xef\xbf\xbd"},
      {"data", json::binary({0, 0xff, 1}), json::binary({0, 0xff, 1})},
      {"list with null", json::array({1, nullptr, "two"}), json::array({1, "two"})},
      {"object",
       {{"inner", {{"list", {1, 2}}, {"flag", true}}}},
       {{"inner", {{"list", {1, 2}}, {"flag", true}}}}},
  };
  for (const Case& c : cases) set(c.key, c.value);
  // Another store of the same domain (as another process would) reads what was written.
  const std::unique_ptr<UserDefaults> other = makePreferencesDefaults(domain_);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    const std::optional<json> got = other->get(c.key);
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(got->dump(), c.back.dump());
  }
}

TEST_F(PreferencesDefaultsTest, NullRemovesAndMissingKeysAreAbsent) {
  set("interval", 2);
  EXPECT_EQ(store_->get("interval"), json(2));
  set("interval", nullptr);
  EXPECT_EQ(store_->get("interval"), std::nullopt);
  EXPECT_EQ(store_->get("never written"), std::nullopt);
  // The application's own domain is not the test's.
  EXPECT_EQ(makePreferencesDefaults(domain_ + ".other")->get("interval"), std::nullopt);
}

}  // namespace
}  // namespace vistrel
