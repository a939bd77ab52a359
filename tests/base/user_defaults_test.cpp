#include "base/user_defaults.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "base/files.hpp"
#include "base/paths.hpp"
#if defined(__linux__)
#include "base/linux/json_file_defaults.hpp"
#endif

namespace vistrel {
namespace {

using nlohmann::json;

class TempFolder {
 public:
  TempFolder() {
    char tmpl[] = "/tmp/vistrel-defaults-XXXXXX";
    path = ::mkdtemp(tmpl);
  }
  ~TempFolder() {
    std::system(("chmod -R u+w '" + path + "' 2>/dev/null; rm -rf '" + path + "'").c_str());
  }
  std::string file(const std::string& name) const { return joinPath(path, name); }
  void write(const std::string& name, const std::string& bytes) const {
    FILE* f = std::fopen(file(name).c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
  }
  std::string path;
};

json bytes(std::vector<uint8_t> b) {
  return json::binary(std::move(b));
}

// Equal in value and in kind at every level: 3 and 3.0 are different settings, as are a binary
// value and an object.
void expectSame(const json& expected, const std::optional<json>& actual, const std::string& key) {
  ASSERT_TRUE(actual.has_value()) << key;
  EXPECT_EQ(expected, *actual) << key;
  EXPECT_EQ(expected.dump(), actual->dump()) << key;
}

struct Sample {
  const char* key;
  json value;
};

std::vector<Sample> samples() {
  return {
      {"yes", true},
      {"no", false},
      {"zero", 0},
      {"negative", -17},
      {"smallest", std::numeric_limits<int64_t>::min()},
      {"largest", std::numeric_limits<int64_t>::max()},
      {"largest unsigned", std::numeric_limits<uint64_t>::max()},
      {"real", 0.1},
      {"integral real", 3.0},
      {"tiny real", -1.5e-300},
      {"empty string", ""},
      {"unicode", "Grüße, 東京 🙂 \u200b"},
      {"embedded nul", std::string("a\0b", 3)},
      {"quotes and escapes", "\"\\/\n\t"},
      {"empty data", bytes({})},
      {"data with zeros", bytes({0, 0, 1, 0})},
      {"non-UTF-8 data", bytes({0xff, 0xfe, 0x80, 0xc3, 0x28, 0x00, 0x7f})},
      {"list", json::array({1, "two", 3.5, false, json::array({"nested"})})},
      {"object",
       {{"inner", {{"deeper", json::array({1, 2})}, {"flag", true}}}, {"blob", bytes({9, 0, 9})}}},
      {"data in list", json::array({bytes({1}), bytes({2, 3})})},
      {"looks like data", {{"$data", "AAEC"}}},
      {"dollar keys", {{"$", 1}, {"$$x", 2}, {"$data", json::array()}, {"a$", 3}}},
      {"empty list", json::array()},
      {"empty object", json::object()},
  };
}

using Factory = std::function<std::unique_ptr<UserDefaults>(const TempFolder&)>;

struct Kind {
  const char* name;
  Factory make;
};

std::vector<Kind> kinds() {
  std::vector<Kind> out{{"Memory", [](const TempFolder&) -> std::unique_ptr<UserDefaults> {
                           return std::make_unique<MemoryUserDefaults>();
                         }}};
#if defined(__linux__)
  out.push_back({"JsonFile", [](const TempFolder& dir) -> std::unique_ptr<UserDefaults> {
                   return std::make_unique<JsonFileDefaults>(dir.file("defaults.json"));
                 }});
#endif
  return out;
}

class EveryStore : public testing::TestWithParam<Kind> {
 protected:
  TempFolder dir;
  std::unique_ptr<UserDefaults> store = GetParam().make(dir);
};

TEST_P(EveryStore, RoundTripsEveryKindOfValue) {
  for (const auto& [key, value] : samples()) store->set(key, value);
  for (const auto& [key, value] : samples()) expectSame(value, store->get(key), key);
  EXPECT_FALSE(store->get("never set").has_value());
}

TEST_P(EveryStore, OverwritesAndRemoves) {
  store->set("k", 1);
  store->set("k", "now a string");
  expectSame("now a string", store->get("k"), "k");
  store->remove("k");
  EXPECT_FALSE(store->get("k").has_value());
  store->remove("k");  // removing what is absent is harmless
  store->set("other", true);
  store->set("other", nullptr);  // null removes too
  EXPECT_FALSE(store->get("other").has_value());
}

TEST_P(EveryStore, TypedHelpers) {
  store->set("bool", true);
  store->set("int", 42);
  store->set("real", 2.5);
  store->set("text", "hello");
  store->set("mixed", json::array({"a", 1, "b", nullptr, json::array({"c"}), "d"}));
  store->setData("blob", {0, 255, 7});
  struct Case {
    const char* key;
    std::optional<bool> boolean;
    std::optional<int64_t> integer;
    std::optional<double> number;
    std::optional<std::string> string;
  } cases[] = {
      {"bool", true, std::nullopt, std::nullopt, std::nullopt},
      {"int", std::nullopt, 42, 42.0, std::nullopt},
      {"real", std::nullopt, std::nullopt, 2.5, std::nullopt},
      {"text", std::nullopt, std::nullopt, std::nullopt, "hello"},
      {"mixed", std::nullopt, std::nullopt, std::nullopt, std::nullopt},
      {"blob", std::nullopt, std::nullopt, std::nullopt, std::nullopt},
      {"absent", std::nullopt, std::nullopt, std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(store->boolean(c.key), c.boolean) << c.key;
    EXPECT_EQ(store->integer(c.key), c.integer) << c.key;
    EXPECT_EQ(store->number(c.key), c.number) << c.key;
    EXPECT_EQ(store->string(c.key), c.string) << c.key;
    EXPECT_EQ(store->data(c.key).has_value(), std::string(c.key) == "blob") << c.key;
    EXPECT_EQ(store->strings(c.key).has_value(), std::string(c.key) == "mixed") << c.key;
  }
  EXPECT_EQ(store->strings("mixed"), (std::vector<std::string>{"a", "b", "d"}));
  EXPECT_EQ(store->data("blob"), (std::vector<uint8_t>{0, 255, 7}));
}

TEST_P(EveryStore, ConcurrentWritersLoseNothing) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 25; ++i) {
        std::string key = "t" + std::to_string(t) + "-" + std::to_string(i);
        store->set(key, i);
        EXPECT_EQ(store->integer(key), i);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 25; ++i) {
      EXPECT_EQ(store->integer("t" + std::to_string(t) + "-" + std::to_string(i)), i);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(UserDefaults, EveryStore, testing::ValuesIn(kinds()),
                         [](const auto& info) { return std::string(info.param.name); });

#if defined(__linux__)

json readJson(const std::string& path) {
  auto text = readFile(path);
  if (!text) return json(json::value_t::discarded);
  return json::parse(*text, nullptr, false);
}

std::string stampNow(int offsetSeconds = 0) {
  std::time_t now = std::time(nullptr) + offsetSeconds;
  std::tm parts{};
  localtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &parts);
  return text;
}

std::vector<std::string> sortedNames(const std::string& folder) {
  auto names = listFolder(folder);
  std::sort(names.begin(), names.end());
  return names;
}

size_t lines(const std::string& text) {
  return std::count(text.begin(), text.end(), '\n');
}

TEST(JsonFileDefaults, PersistsAcrossInstancesAndKeepsTheFileValidAfterEverySet) {
  TempFolder dir;
  const std::string folder = dir.file("new/vistrel");  // created by the first write
  const std::string path = joinPath(folder, "defaults.json");
  JsonFileDefaults store(path);
  EXPECT_FALSE(pathExists(folder));  // nothing written until something is set
  json expected = json::object();
  for (const auto& [key, value] : samples()) {
    store.set(key, value);
    expected[key] = value;
    json onDisk = readJson(path);
    ASSERT_TRUE(onDisk.is_object()) << "after setting " << key;
    EXPECT_EQ(JsonFileDefaults::decodeFromFile(onDisk).dump(), expected.dump()) << key;
    EXPECT_EQ(listFolder(folder), std::vector<std::string>{"defaults.json"}) << key;
  }
  struct stat st {};
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(::stat(folder.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_TRUE(store.persisted());

  JsonFileDefaults again(path);
  for (const auto& [key, value] : samples()) expectSame(value, again.get(key), key);
  store.remove("yes");
  EXPECT_FALSE(JsonFileDefaults(path).get("yes").has_value());
}

TEST(JsonFileDefaults, BinaryIsWrittenAsBase64AndObjectsCannotPassForIt) {
  TempFolder dir;
  const std::string path = dir.file("defaults.json");
  JsonFileDefaults store(path);
  // The test vectors of RFC 4648.
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [plain, encoded] : vectors) {
    store.setData("v", std::vector<uint8_t>(plain.begin(), plain.end()));
    EXPECT_EQ(readJson(path)["v"], (json{{"$data", encoded}})) << plain;
  }
  store.set("o", {{"$data", "Zm9v"}, {"$$", 1}});
  EXPECT_EQ(readJson(path)["o"], (json{{"$$data", "Zm9v"}, {"$$$", 1}}));

  // A file written by hand or by another version: what is not valid base64 stays an object.
  dir.write("defaults.json", R"({"good": {"$data": "AP8A"}, "odd": {"$data": "A"},
    "notes": {"$data": "Zm9v", "more": 1}, "deep": [{"$data": "Zg=="}], "$$k": 5})");
  JsonFileDefaults handWritten(path);
  expectSame(bytes({0, 255, 0}), handWritten.get("good"), "good");
  expectSame(json{{"$data", "A"}}, handWritten.get("odd"), "odd");
  expectSame(json{{"$data", "Zm9v"}, {"more", 1}}, handWritten.get("notes"), "notes");
  expectSame(json::array({bytes({'f'})}), handWritten.get("deep"), "deep");
  expectSame(5, handWritten.get("$k"), "$k");
}

TEST(JsonFileDefaults, DamagedFilesAreMovedAsideIntact) {
  const std::string contents[] = {"not json at all", "{\"a\": 1,", "[1, 2, 3]", "",
                                  "\"a string\"",    "42",         "{} {}",     "\xff\xfe{}"};
  for (const auto& bad : contents) {
    TempFolder dir;
    dir.write("defaults.json", bad);
    const std::string before = stampNow();
    testing::internal::CaptureStderr();
    JsonFileDefaults store(dir.file("defaults.json"));
    const std::string said = testing::internal::GetCapturedStderr();
    const std::string after = stampNow();
    EXPECT_EQ(lines(said), 1u) << said;
    EXPECT_FALSE(store.get("a").has_value());

    auto names = sortedNames(dir.path);
    ASSERT_EQ(names.size(), 1u) << bad;
    const std::string prefix = "defaults.json.damaged-";
    ASSERT_EQ(names[0].rfind(prefix, 0), 0u) << names[0];
    const std::string stamp = names[0].substr(prefix.size());
    EXPECT_EQ(stamp.size(), before.size()) << stamp;
    EXPECT_TRUE(stamp >= before && stamp <= after) << stamp;
    EXPECT_EQ(readFile(dir.file(names[0])), bad);

    store.set("a", 1);  // a fresh file beside the damaged one
    EXPECT_EQ(readJson(dir.file("defaults.json")), (json{{"a", 1}}));
    EXPECT_EQ(readFile(dir.file(names[0])), bad);
  }
}

TEST(JsonFileDefaults, TakenNamesForDamagedFilesAreNotReplaced) {
  TempFolder dir;
  // Every name the next few seconds could produce is taken already.
  for (int s = 0; s < 5; ++s)
    dir.write("defaults.json.damaged-" + stampNow(s), "older " + std::to_string(s));
  dir.write("defaults.json", "{broken");
  testing::internal::CaptureStderr();
  JsonFileDefaults store(dir.file("defaults.json"));
  testing::internal::GetCapturedStderr();
  auto names = sortedNames(dir.path);
  ASSERT_EQ(names.size(), 6u);
  int moved = 0;
  for (const auto& name : names) {
    std::string text = readFile(dir.file(name)).value_or("?");
    if (text == "{broken") {
      ++moved;
      EXPECT_EQ(name.substr(name.size() - 2), "-2") << name;
    } else {
      EXPECT_EQ(text.rfind("older ", 0), 0u) << name;
    }
  }
  EXPECT_EQ(moved, 1);
}

TEST(JsonFileDefaults, UnwritableFolderKeepsValuesInMemory) {
  TempFolder dir;
  std::string path;
  if (::geteuid() == 0) {
    // Permissions do not stop root; a regular file where a folder must be does.
    dir.write("plain-file", "x");
    path = dir.file("plain-file/vistrel/defaults.json");
  } else {
    ASSERT_EQ(::mkdir(dir.file("locked").c_str(), 0500), 0);
    path = dir.file("locked/defaults.json");
  }
  testing::internal::CaptureStderr();
  JsonFileDefaults store(path);
  for (const auto& [key, value] : samples()) store.set(key, value);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(lines(said), 1u) << said;  // said once, not once per set
  EXPECT_FALSE(store.persisted());
  for (const auto& [key, value] : samples()) expectSame(value, store.get(key), key);
  EXPECT_FALSE(pathExists(path));
}

TEST(JsonFileDefaults, DamagedFileThatCannotBeMovedIsNeverOverwritten) {
  if (::geteuid() == 0) GTEST_SKIP() << "root can write into any folder";
  TempFolder dir;
  ASSERT_EQ(::mkdir(dir.file("locked").c_str(), 0700), 0);
  const std::string path = dir.file("locked/defaults.json");
  dir.write("locked/defaults.json", "garbage");
  ASSERT_EQ(::chmod(dir.file("locked").c_str(), 0500), 0);
  testing::internal::CaptureStderr();
  JsonFileDefaults store(path);
  store.set("a", 1);
  testing::internal::GetCapturedStderr();
  EXPECT_EQ(store.integer("a"), 1);
  EXPECT_FALSE(store.persisted());
  EXPECT_EQ(readFile(path), "garbage");
}

TEST(JsonFileDefaults, PicksUpWhatOtherInstancesWrote) {
  TempFolder dir;
  const std::string path = dir.file("defaults.json");
  JsonFileDefaults app(path);
  JsonFileDefaults mcp(path);
  app.set("interval", 2);
  EXPECT_EQ(mcp.integer("interval"), 2);
  mcp.set("token", "abc");  // must keep the app's key in the file
  EXPECT_EQ(app.string("token"), "abc");
  EXPECT_EQ(JsonFileDefaults(path).integer("interval"), 2);

  // Another program replacing the file, then editing it in place with a different length.
  dir.write("replacement", R"({"interval": 5})");
  ASSERT_EQ(::rename(dir.file("replacement").c_str(), path.c_str()), 0);
  EXPECT_EQ(app.integer("interval"), 5);
  EXPECT_FALSE(app.get("token").has_value());
  dir.write("defaults.json", R"({"interval": 60, "x": true})");
  EXPECT_EQ(app.integer("interval"), 60);
  EXPECT_EQ(mcp.boolean("x"), true);

  // Deleting the file resets the settings.
  ASSERT_EQ(::unlink(path.c_str()), 0);
  EXPECT_FALSE(app.get("interval").has_value());
}

TEST(JsonFileDefaults, NonUtf8StringsAreStoredRepaired) {
  TempFolder dir;
  const std::string path = dir.file("defaults.json");
  JsonFileDefaults store(path);
  store.set("bad", std::string("a\xff") + "b");
  ASSERT_TRUE(readJson(path).is_object());
  EXPECT_EQ(JsonFileDefaults(path).string("bad"),
            "a\xef\xbf\xbd"
            "b");
}

TEST(JsonFileDefaults, FactoryUsesTheConfigFolder) {
  TempFolder dir;
  const char* old = std::getenv("XDG_CONFIG_HOME");
  const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
  ::setenv("XDG_CONFIG_HOME", dir.path.c_str(), 1);
  makeUserDefaults()->set("k", "v");
  EXPECT_EQ(readJson(dir.file("vistrel/defaults.json")), (json{{"k", "v"}}));
  EXPECT_EQ(makeUserDefaults()->string("k"), "v");
  saved ? ::setenv("XDG_CONFIG_HOME", saved->c_str(), 1) : ::unsetenv("XDG_CONFIG_HOME");
}

#endif  // __linux__

}  // namespace
}  // namespace vistrel
