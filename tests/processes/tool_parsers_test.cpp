// The parsers of the macOS process tools' output, the kernel's argument buffer, the GPU clients'
// creator text and the app-bundle rule, fed captured and deliberately broken input.

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/files.hpp"
#include "processes/app_bundles.hpp"
#include "processes/process_parsers.hpp"

namespace vistrel {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(ParsePS, Table) {
  struct Case {
    const char* name;
    std::string text;
    std::vector<PsRow> expected;
  };
  const std::vector<Case> cases = {
      {"padded columns",
       "    1     0     0   0.0  13616 /sbin/launchd\n"
       "  412     1   501  12.5   2048 /usr/libexec/trustd\n",
       {{1, 0, 0, 0.0, 13616 * 1024ull, "/sbin/launchd"},
        {412, 1, 501, 12.5, 2048 * 1024ull, "/usr/libexec/trustd"}}},
      {"command with spaces keeps every word",
       "  733     1   501   3.1  90000 /Applications/Google Chrome.app/Contents/MacOS/Google "
       "Chrome  \n",
       {{733, 1, 501, 3.1, 90000 * 1024ull,
         "/Applications/Google Chrome.app/Contents/MacOS/Google Chrome"}}},
      {"too few fields", "  88     1   501   0.0   512\n", {}},
      {"five fields and trailing spaces", "  88     1   501   0.0   512    \n", {}},
      {"bad pid", "abc 1 501 0.0 512 /bin/x\n", {}},
      {"bad cpu", "88 1 501 0,5 512 /bin/x\n", {}},
      {"negative uid", "88 1 -2 0.0 512 /bin/x\n", {}},
      {"rss too large to hold in bytes", "88 1 0 0.0 18446744073709551615 /bin/x\n", {}},
      {"pid beyond 32 bits", "4294967297 1 0 0.0 1 /bin/x\n", {}},
      {"a later line for a pid replaces the earlier one in place",
       "5 1 0 1.0 1 /bin/old\n6 1 0 0.0 2 /bin/other\n5 1 0 2.0 3 /bin/new\n",
       {{5, 1, 0, 2.0, 3 * 1024ull, "/bin/new"}, {6, 1, 0, 0.0, 2 * 1024ull, "/bin/other"}}},
      {"good lines survive bad ones and blank lines",
       "\n\nnonsense\n7 1 0 0.5 4 /bin/sh\r\n\n",
       {{7, 1, 0, 0.5, 4 * 1024ull, "/bin/sh"}}},
      {"empty output", "", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(parsePS(c.text), c.expected);
  }
}

TEST(ParseNettop, Table) {
  using Map = std::unordered_map<int32_t, ProcessNetBytes>;
  const std::string header = ",bytes_in,bytes_out,\n";
  struct Case {
    const char* name;
    std::string text;
    Map expected;
  };
  const std::vector<Case> cases = {
      {"header only", header, {}},
      {"nothing", "", {}},
      {"first line is always the header", "launchd.1,10,20,\n", {}},
      {"plain lines",
       header + "launchd.1,10,20,\nmDNSResponder.388,5000,7000,\n",
       {{1, {10, 20}}, {388, {5000, 7000}}}},
      {"name with several dots",
       header + "com.apple.WebKit.Networking.812,123,456,\n",
       {{812, {123, 456}}}},
      {"line without a pid", header + "kernel_task,1,2,\nsshd.90,3,4,\n", {{90, {3, 4}}}},
      {"non-numeric tail", header + "Safari.app,1,2,\nfoo.12a,1,2,\n", {}},
      {"negative tail", header + "foo.-5,1,2,\n", {}},
      {"fewer than three fields", header + "foo.12,1\nbar.13\n", {}},
      {"empty byte field", header + "foo.12,,2,\n", {}},
      {"bad byte counts", header + "foo.12,x,2,\nbar.13,1,-2,\n", {}},
      {"last line for a pid wins, no summing",
       header + "a.7,1,1,\na.7,100,200,\n",
       {{7, {100, 200}}}},
      {"carriage returns and blank lines",
       ",bytes_in,bytes_out,\r\n\r\n\nb.8,4,5\r\n",
       {{8, {4, 5}}}},
      {"a time column first, as through a pipe",
       "time,,bytes_in,bytes_out,\n09:00:01.5,a.7,1,2,\n09:00:01.5,b.8,3,4,\n",
       {{7, {1, 2}}, {8, {3, 4}}}},
      {"columns found by name in any order",
       "bytes_out,time,,bytes_in,\n20,09:00,a.7,10,\n",
       {{7, {10, 20}}}},
      {"a comma inside the name moves the later columns",
       "time,,bytes_in,bytes_out,\nt,weird,name.55,7,8,\n",
       {{55, {7, 8}}}},
      {"a header without both byte columns starts nothing",
       "time,,bytes_in,packets,\nt,a.7,1,2,\n",
       {}},
      {"a header with no untitled column starts nothing",
       "time,name,bytes_in,bytes_out\nt,a.7,1,2\n",
       {}},
      {"byte columns before the name, and a line too short for the name",
       "bytes_in,bytes_out,,\n1,2,a.7,\n3,4\n",
       {{7, {1, 2}}}},
      {"a repeated header re-reads the columns",
       ",bytes_in,bytes_out,\na.7,1,2,\ntime,,bytes_in,bytes_out,\nt,b.8,3,4,\n",
       {{7, {1, 2}}, {8, {3, 4}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(parseNettop(c.text), c.expected);
  }
}

// A real capture through a pipe (see fixtures/macos/nettop/README.md): truncated names with
// spaces, parentheses and dots.
TEST(ParseNettop, PipedCapture) {
  const std::optional<std::string> text =
      readFile(std::string(VISTREL_FIXTURES) + "/macos/nettop/piped.csv");
  ASSERT_TRUE(text.has_value());
  const std::unordered_map<int32_t, ProcessNetBytes> expected = {
      {1, {0, 0}},
      {643, {1365955260, 169462654}},
      {1579, {485213, 201259}},
      {4142, {1336510272, 7263736}},
      {26260, {0, 0}},
      {8578, {35690, 56971}},
  };
  EXPECT_EQ(parseNettop(*text), expected);
}

// A KERN_PROCARGS2 buffer as the kernel lays it out: argc in native order, then the bytes given.
std::vector<uint8_t> procArgs(int32_t argc, std::string_view rest) {
  std::vector<uint8_t> buffer(sizeof argc + rest.size());
  std::memcpy(buffer.data(), &argc, sizeof argc);
  std::memcpy(buffer.data() + sizeof argc, rest.data(), rest.size());
  return buffer;
}

TEST(ParseProcArgs2, Table) {
  using namespace std::string_view_literals;
  using Args = std::vector<std::string>;
  struct Case {
    const char* name;
    std::vector<uint8_t> buffer;
    Args expected;
  };
  const std::vector<Case> cases = {
      {"path, padding, arguments, environment",
       procArgs(3, "/usr/bin/python3\0\0\0\0\0python3\0-m\0http.server\0PATH=/bin\0"sv),
       {"python3", "-m", "http.server"}},
      {"empty argument in the middle", procArgs(3, "/bin/x\0\0a\0\0b\0"sv), {"a", "", "b"}},
      {"argc larger than the strings present", procArgs(9, "/bin/x\0\0a\0b\0"sv), {"a", "b"}},
      {"cut short in the path", procArgs(2, "/usr/bi"sv), {}},
      {"cut short in the padding", procArgs(2, "/usr/bin/x\0\0\0"sv), {}},
      {"cut short in an argument", procArgs(2, "/bin/x\0\0first\0sec"sv), {"first"}},
      {"invalid UTF-8 repaired",
       procArgs(1, "/bin/x\0ab\xff\xc3\0"sv),
       {"ab" + kReplacement + kReplacement}},
      {"argc zero", procArgs(0, "/bin/x\0a\0"sv), {}},
      {"argc negative", procArgs(-1, "/bin/x\0a\0"sv), {}},
      {"only argc", procArgs(1, ""sv), {}},
      {"shorter than argc", {1, 0, 0}, {}},
      {"empty", {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(parseProcArgs2(c.buffer.data(), c.buffer.size()), c.expected);
  }
  EXPECT_TRUE(parseProcArgs2(nullptr, 64).empty());
}

TEST(RepairUtf8, EachBadByteBecomesOneReplacement) {
  const std::string r = kReplacement;
  struct Case {
    const char* name;
    std::string in;
    std::string out;
  };
  const std::vector<Case> cases = {
      {"ascii", "plain/path", "plain/path"},
      {"two, three and four byte forms", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80",
       "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
      {"lone continuation byte", "a\x80z", "a" + r + "z"},
      {"overlong slash", "\xC0\xAF", r + r},
      {"overlong three-byte form", "\xE0\x80\xAF", r + r + r},
      {"surrogate", "\xED\xA0\x80", r + r + r},
      {"above U+10FFFF", "\xF4\x90\x80\x80", r + r + r + r},
      {"lead byte that never starts a sequence", "\xF5x", r + "x"},
      {"truncated at the end", "ok\xE2\x82", "ok" + r + r},
      {"truncated before ascii",
       "\xE2\x82"
       "A",
       r + r + "A"},
      {"embedded zero kept", std::string("a\0b", 3), std::string("a\0b", 3)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(repairUtf8(c.in), c.out);
  }
}

TEST(ParseUserClientCreator, Table) {
  struct Case {
    std::string text;
    std::optional<int32_t> pid;
  };
  const std::vector<Case> cases = {
      {"pid 123, Safari", 123},
      {"pid  77,x", 77},
      {"pid 5", 5},
      {"pid 123, name, with, commas", 123},
      {"pid abc", std::nullopt},
      {"pid 12x, Safari", std::nullopt},
      {"pid -5, Safari", std::nullopt},
      {"pid 007, Safari", 7},
      {"pid 99999999999, Big", std::nullopt},
      {"pid , Safari", std::nullopt},
      {", Safari", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(parseUserClientCreator(c.text), c.pid);
  }
}

TEST(OutermostApp, Table) {
  struct Case {
    std::string path;
    std::optional<std::string> app;
  };
  const std::vector<Case> cases = {
      {"/Applications/Xcode.app/Contents/Developer/Applications/Simulator.app/Contents/MacOS/"
       "Simulator",
       "/Applications/Xcode.app"},
      {"/Applications/Safari.app/Contents/MacOS/Safari", "/Applications/Safari.app"},
      {"/System/Library/CoreServices/Finder.app/Contents/MacOS/Finder",
       "/System/Library/CoreServices/Finder.app"},
      {"/System/Library/PrivateFrameworks/SkyLight.framework/Versions/A/Resources/"
       "WindowServer.app/Contents/MacOS/x",
       std::nullopt},
      {"/System/Library/Frameworks/WebKit.framework/Versions/A/XPCServices/"
       "com.apple.WebKit.WebContent.xpc/Contents/MacOS/com.apple.WebKit.WebContent",
       std::nullopt},
      {"/System/Applications/Mail.app/Contents/MacOS/Mail", "/System/Applications/Mail.app"},
      {"/usr/bin/python3", std::nullopt},
      {"/Applications/Mail.app", std::nullopt},  // the bundle itself, not something inside it
      {"/Users/me/My.apps/tool", std::nullopt},
      {"/Users/me/Thing.APP/Contents/MacOS/x", std::nullopt},
      {"", std::nullopt},
      // Safari from its cryptex (macOS 13 and later) is an ordinary app, under its real path.
      {"/System/Volumes/Preboot/Cryptexes/App/System/Applications/Safari.app/Contents/MacOS/Safari",
       "/System/Volumes/Preboot/Cryptexes/App/System/Applications/Safari.app"},
      {"/System/Cryptexes/App/System/Applications/Safari.app/Contents/MacOS/Safari",
       "/System/Cryptexes/App/System/Applications/Safari.app"},
      // The system cryptex stands for /System/: its frameworks' bundles are not apps.
      {"/System/Volumes/Preboot/Cryptexes/OS/System/Library/Frameworks/WebKit.framework/Versions/A/"
       "XPCServices/com.apple.WebKit.Networking.xpc/Contents/MacOS/com.apple.WebKit.Networking",
       std::nullopt},
      {"/System/Volumes/Preboot/Cryptexes/OS/System/Library/CoreServices/X.app/Contents/MacOS/X",
       "/System/Volumes/Preboot/Cryptexes/OS/System/Library/CoreServices/X.app"},
      // Python runs from an app bundle inside its framework; its scripts keep their own labels.
      {"/opt/homebrew/Cellar/python@3.12/3.12.4/Frameworks/Python.framework/Versions/3.12/"
       "Resources/Python.app/Contents/MacOS/Python",
       std::nullopt},
      {"/Library/Frameworks/Python.framework/Versions/3.12/Resources/Python.app/Contents/MacOS/"
       "Python",
       std::nullopt},
      {"/Library/Developer/CommandLineTools/Library/Frameworks/Python3.framework/Versions/3.9/"
       "Resources/Python.app/Contents/MacOS/Python",
       std::nullopt},
      // A helper app inside a framework inside an app still belongs to the outer app.
      {"/Applications/Google Chrome.app/Contents/Frameworks/Google Chrome Framework.framework/"
       "Versions/120.0/Helpers/Google Chrome Helper (Renderer).app/Contents/MacOS/x",
       "/Applications/Google Chrome.app"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(outermostApp(c.path), c.app);
  }
}

TEST(OutermostApp, DisplayNamesLoseOnlyATrailingDotApp) {
  struct Case {
    const char* name;
    const char* shown;
  } cases[] = {
      {"Safari.app", "Safari"},   {"Safari", "Safari"},
      {"My.apps", "My.apps"},     {"Web.app Helper", "Web.app Helper"},
      {"A.app.app", "A.app"},     {".app", ""},
      {"Thing.APP", "Thing.APP"}, {"", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(withoutAppSuffix(c.name), c.shown) << c.name;
}

TEST(OutermostApp, CryptexPathsReadAsTheFoldersTheyStandFor) {
  struct Case {
    const char* path;
    const char* reads;
  } cases[] = {
      {"/System/Volumes/Preboot/Cryptexes/App/System/Applications/Safari.app",
       "/System/Applications/Safari.app"},
      {"/System/Cryptexes/App/System/Applications/Safari.app", "/System/Applications/Safari.app"},
      {"/System/Volumes/Preboot/Cryptexes/OS/System/Library/Frameworks/WebKit.framework",
       "/System/Library/Frameworks/WebKit.framework"},
      {"/System/Cryptexes/OS/System/Library/x", "/System/Library/x"},
      {"/System/Applications/Mail.app", "/System/Applications/Mail.app"},
      {"/System/Volumes/Preboot/Cryptexes/Other/System/x",
       "/System/Volumes/Preboot/Cryptexes/Other/System/x"},
      {"/System/Volumes/Preboot/Cryptexes/App", "/System/Volumes/Preboot/Cryptexes/App"},
      {"/System/Cryptexes", "/System/Cryptexes"},
      {"/System/Volumes/Preboot/Cryptexes/AppX/System/y",
       "/System/Volumes/Preboot/Cryptexes/AppX/System/y"},
      {"", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(withoutCryptexPrefix(c.path), c.reads) << c.path;
}

}  // namespace
}  // namespace vistrel
