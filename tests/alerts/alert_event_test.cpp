#include "alerts/alert_event.hpp"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "alerts/alert_test_support.hpp"
#include "format/platform_text.hpp"

namespace vistrel::testing {
namespace {

using Kind = AlertEvent::Kind;
using nlohmann::json;

std::vector<uint8_t> bytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

AlertEvent sample(bool withApp) {
  AlertEvent e;
  e.id = makeUUID();
  e.date = dateFromSeconds(kNoon + 0.123456);
  e.kind = withApp ? Kind::memoryGrowth : Kind::space;
  if (withApp) {
    e.app = "Editor";
    e.appID = "com.example.editor";
  }
  e.title = "Title";
  e.detail = "Detail.";
  return e;
}

TEST(AlertEventTest, KindsRoundTripAndHeatSpeaksThePlatformsWords) {
  std::set<std::string_view> raws;
  for (Kind k : kAllAlertKinds) {
    raws.insert(rawValue(k));
    EXPECT_EQ(alertKindFromRaw(rawValue(k)), k);
  }
  EXPECT_EQ(raws.size(), kAllAlertKinds.size());
  EXPECT_EQ(alertKindFromRaw("CPU"), std::nullopt);
  EXPECT_EQ(alertKindFromRaw(""), std::nullopt);
  EXPECT_EQ(platformTextFor(macSettingText(Kind::heat), true),
            "The computer stays above 95° for 2 minutes");
  EXPECT_EQ(settingText(Kind::heat), platformText("The Mac stays above 95° for 2 minutes"));
  EXPECT_EQ(metric(Kind::space), Metric::disk);
  EXPECT_EQ(title(Kind::memoryGrowth), "Growing memory");
}

TEST(AlertEventTest, UUIDsAreVersionFourAndDistinct) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    const std::string id = makeUUID();
    ASSERT_EQ(id.size(), 36u);
    EXPECT_EQ(id[14], '4');
    EXPECT_NE(std::string("89AB").find(id[19]), std::string::npos);
    seen.insert(id);
  }
  EXPECT_EQ(seen.size(), 200u);
}

TEST(AlertEventTest, JSONKeepsFieldOrderAndLeavesOutAbsentApps) {
  const AlertEvent withApp = sample(true);
  const AlertEvent machine = sample(false);
  const auto a = toJSON(withApp);
  std::vector<std::string> keys;
  for (const auto& [key, value] : a.items()) keys.push_back(key);
  EXPECT_EQ(keys,
            (std::vector<std::string>{"id", "date", "kind", "app", "appID", "title", "detail"}));
  EXPECT_EQ(a["kind"], "memoryGrowth");
  EXPECT_DOUBLE_EQ(a["date"].get<double>(), kNoon + 0.123456);
  const auto m = toJSON(machine);
  EXPECT_FALSE(m.contains("app"));
  EXPECT_FALSE(m.contains("appID"));

  // Encoded and decoded, a list is equal to itself, dates to the microsecond included.
  const std::vector<AlertEvent> list = {withApp, machine};
  EXPECT_EQ(decodeAlerts(encodeAlerts(list)), list);
  EXPECT_EQ(decodeAlerts(encodeAlerts({})), std::vector<AlertEvent>{});
}

TEST(AlertEventTest, LowerCaseIdsAreReadAndNormalised) {
  const AlertEvent e = sample(false);
  json item = toJSON(e);
  std::string lower = e.id;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  ASSERT_NE(lower, e.id);
  item["id"] = lower;
  auto decoded = alertEventFromJSON(item);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(*decoded, e);
}

TEST(AlertEventTest, ListsOfAnotherShapeAreDroppedWhole) {
  const json good = toJSON(sample(true));
  auto without = [&](const char* key) {
    json j = good;
    j.erase(key);
    return j;
  };
  auto with = [&](const char* key, json value) {
    json j = good;
    j[key] = std::move(value);
    return j;
  };
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"not JSON", "[{\"id\": "},
      {"not a list", good.dump()},
      {"empty text", ""},
      {"one bad element among good ones", json::array({good, without("detail")}).dump()},
      {"no title", json::array({without("title")}).dump()},
      {"date as text", json::array({with("date", "2023-11-14T12:00:00Z")}).dump()},
      {"id not a UUID", json::array({with("id", "42")}).dump()},
      {"unknown kind", json::array({with("kind", "battery")}).dump()},
      {"app of the wrong type", json::array({with("app", 7)}).dump()},
      {"a date beyond reach", json::array({with("date", 1e300)}).dump()},
  };
  for (const auto& [name, text] : cases) {
    SCOPED_TRACE(name);
    EXPECT_EQ(decodeAlerts(bytesOf(text)), std::nullopt);
  }
  // Keys it does not know are ignored, so a newer field does not drop the list.
  EXPECT_TRUE(decodeAlerts(bytesOf(json::array({with("sound", true)}).dump())));
}

TEST(AlertEventTest, TextThatIsNotUTF8StillEncodes) {
  AlertEvent e = sample(true);
  e.app = "Bad\xff";
  e.title = "Bad\xff has written 6.0 GB today";
  auto decoded = decodeAlerts(encodeAlerts({e}));
  ASSERT_TRUE(decoded);
  ASSERT_EQ(decoded->size(), 1u);
  EXPECT_EQ((*decoded)[0].app, "Bad\xEF\xBF\xBD");
  EXPECT_EQ((*decoded)[0].title, "Bad\xEF\xBF\xBD has written 6.0 GB today");
}

}  // namespace
}  // namespace vistrel::testing
