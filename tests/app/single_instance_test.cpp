#include "app/single_instance.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "alerts/alert_event.hpp"
#include "app/application_module.hpp"
#include "app/model.hpp"

namespace vistrel {
namespace {

class InstanceLock : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vistrel-lock-XXXXXX";
    folder_ = ::mkdtemp(tmpl);
  }
  void TearDown() override { std::system(("rm -rf '" + folder_ + "'").c_str()); }
  std::string folder_;
};

TEST_F(InstanceLock, SecondClaimSeesTheFirstHolderUntilItLetsGo) {
  // A missing folder is made, private to the user.
  const std::string path = folder_ + "/support/Vistrel/vistrel.lock";
  InstanceClaim first = claimInstance(path);
  ASSERT_EQ(first.outcome, InstanceClaim::Outcome::ours) << first.problem;
  struct stat info {};
  ASSERT_EQ(::stat((folder_ + "/support/Vistrel").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);

  InstanceClaim second = claimInstance(path, 0.2);
  EXPECT_EQ(second.outcome, InstanceClaim::Outcome::taken);
  EXPECT_EQ(second.holder, ::getpid());
  EXPECT_EQ(second.fd, -1);

  ::close(first.fd);  // the holder ends
  InstanceClaim third = claimInstance(path);
  EXPECT_EQ(third.outcome, InstanceClaim::Outcome::ours);
  ::close(third.fd);
}

TEST_F(InstanceLock, UnusableLockFilesAreReportedNotFatal) {
  // A file where the folder should be, and a lock path that is a folder.
  std::ofstream(folder_ + "/file") << "x";
  ::mkdir((folder_ + "/dir.lock").c_str(), 0700);
  for (const std::string& path : {folder_ + "/file/vistrel.lock", folder_ + "/dir.lock"}) {
    SCOPED_TRACE(path);
    InstanceClaim claim = claimInstance(path);
    EXPECT_EQ(claim.outcome, InstanceClaim::Outcome::unavailable);
    EXPECT_NE(claim.problem.find(path.substr(0, path.rfind('/'))), std::string::npos)
        << claim.problem;
  }
}

TEST_F(InstanceLock, HolderThatHasNotWrittenItsPidYetIsWaitedFor) {
  const std::string path = folder_ + "/vistrel.lock";
  InstanceClaim first = claimInstance(path);
  ASSERT_EQ(first.outcome, InstanceClaim::Outcome::ours);
  ASSERT_EQ(::ftruncate(first.fd, 0), 0);  // as if caught between locking and writing
  std::thread writer([fd = first.fd] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(::pwrite(fd, "4242\n", 5, 0), 5);
  });
  InstanceClaim second = claimInstance(path, 2);
  writer.join();
  EXPECT_EQ(second.outcome, InstanceClaim::Outcome::taken);
  EXPECT_EQ(second.holder, 4242);
  // A holder that never writes one: reported as unknown, after the wait.
  ASSERT_EQ(::ftruncate(first.fd, 0), 0);
  EXPECT_EQ(claimInstance(path, 0.05).holder, 0);
  ::close(first.fd);
}

TEST_F(InstanceLock, ConcurrentStartsLeaveExactlyOneHolder) {
  const std::string path = folder_ + "/race/vistrel.lock";
  constexpr int kStarts = 8;
  int go[2];
  ASSERT_EQ(::pipe(go), 0);
  std::vector<pid_t> children;
  for (int i = 0; i < kStarts; ++i) {
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(go[1]);
      char byte;
      (void)!::read(go[0], &byte, 1);  // all start together when the pipe closes
      InstanceClaim claim = claimInstance(path, 1);
      // Hold it long enough for every other start to try.
      if (claim.outcome == InstanceClaim::Outcome::ours) ::usleep(500'000);
      ::_exit(static_cast<int>(claim.outcome));
    }
    children.push_back(pid);
  }
  ::close(go[0]);
  ::close(go[1]);
  int ours = 0, taken = 0;
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    auto outcome = static_cast<InstanceClaim::Outcome>(WEXITSTATUS(status));
    ours += outcome == InstanceClaim::Outcome::ours;
    taken += outcome == InstanceClaim::Outcome::taken;
  }
  EXPECT_EQ(ours, 1);
  EXPECT_EQ(taken, kStarts - 1);
}

TEST(LaunchKinds, ArgumentsAndTheirWordRoundTrip) {
  struct Case {
    std::vector<std::string_view> args;
    LaunchKind kind;
  } cases[] = {
      {{}, LaunchKind::interactive},
      {{"--login"}, LaunchKind::login},
      {{"-psn_0_123", "--background"}, LaunchKind::background},
      {{"--log"}, LaunchKind::interactive},
      {{"login"}, LaunchKind::interactive},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(launchKind(c.args), c.kind);
    EXPECT_EQ(launchKindFromWord(launchWord(c.kind)), c.kind);
  }
  EXPECT_EQ(launchKindFromWord("nonsense"), LaunchKind::interactive);
  EXPECT_EQ(instanceLockPath("/home/a/.local/share/Vistrel/control.sock"),
            "/home/a/.local/share/Vistrel/vistrel.lock");
}

TEST(HeadlessVariable, OnlyEmptyOrZeroLeavesTheWindow) {
  struct Case {
    const char* value;
    bool headless;
  } cases[] = {{nullptr, false}, {"", false}, {"0", false}, {"1", true}, {"yes", true}};
  for (const auto& c : cases) EXPECT_EQ(headlessForced(c.value), c.headless) << c.value;
}

TEST(AlertLines, OneLineEachWhateverTheTextsHold) {
  AlertEvent e;
  e.kind = AlertEvent::Kind::cpu;
  e.title = "evil\nname has kept a CPU core busy";
  e.detail = "It's using 100% of a core right now.";
  EXPECT_EQ(alertLine(e),
            "alert cpu: evil name has kept a CPU core busy — It's using 100% of a core right now.");
  e.kind = AlertEvent::Kind::space;
  e.title = "Only 9 GB left on your startup disk";
  e.detail = "";
  EXPECT_EQ(alertLine(e), "alert space: Only 9 GB left on your startup disk");
}

}  // namespace
}  // namespace vistrel
