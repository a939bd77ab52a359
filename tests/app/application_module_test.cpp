#include "app/application_module.hpp"

#include <gtest/gtest.h>

namespace vistrel {
namespace {

TEST(ApplicationModule, CandidatesFollowTheExecutable) {
  const std::string m = "libvistrel-application.so";
  struct Case {
    std::string executable;
    std::vector<std::string> expected;
  } cases[] = {
      // A build folder or a plain install: beside it first, then a prefix's lib folder.
      {"/work/build/src/vistrel", {"/work/build/src/" + m, "/work/build/src/../lib/vistrel/" + m}},
      {"/usr/bin/vistrel", {"/usr/bin/" + m, "/usr/bin/../lib/vistrel/" + m}},
      // Inside a bundle the Frameworks folder comes before the prefix guess.
      {"/Applications/Vistrel.app/Contents/MacOS/Vistrel",
       {"/Applications/Vistrel.app/Contents/MacOS/" + m,
        "/Applications/Vistrel.app/Contents/MacOS/../Frameworks/" + m,
        "/Applications/Vistrel.app/Contents/MacOS/../lib/vistrel/" + m}},
      // At the root the folder is "/", not "".
      {"/vistrel", {"/" + m, "/../lib/vistrel/" + m}},
      // Without a folder there is nothing to look beside.
      {"vistrel", {}},
      {"", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.executable);
    EXPECT_EQ(applicationModuleCandidates(c.executable, m), c.expected);
  }
  EXPECT_TRUE(applicationModuleCandidates("/usr/bin/vistrel", "").empty());
}

}  // namespace
}  // namespace vistrel
