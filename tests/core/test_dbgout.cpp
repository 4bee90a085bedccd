// Console line forms, the two trace logs' size rules and the timestamp.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "core/dbgout.h"
#include "fakes/fake_platform.h"

namespace {

class TraceLog : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    set_network_log_open(0);
    set_data_log_open(0);
    set_data_log_path("/data/upgrade.log");
  }
  void TearDown() override {
    set_network_log_open(0);
    set_data_log_open(0);
  }
  long size_of(const std::string& camera_path) {
    struct stat st;
    return stat(cam.path(camera_path).c_str(), &st) == 0 ? st.st_size : -1;
  }
  FakeCamera cam;
};

TEST(ConsoleLines, CarryFileFunctionAndPaddedLine) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  DBG_INFO("hello %d\n", 7);
  int line = __LINE__ - 1;
  DBG_ERR("open /dev/watchdog failed");
  std::string out = testing::internal::GetCapturedStdout();
  std::string err = testing::internal::GetCapturedStderr();
  char expect[128];
  snprintf(expect, sizeof(expect), "DBG_INFO:test_dbgout.cpp TestBody[%04d] hello 7\n", line);
  EXPECT_EQ(out, expect);
  snprintf(expect, sizeof(expect), "DBG_ERR:test_dbgout.cpp TestBody[%04d] open /dev/watchdog failed",
           line + 2);
  EXPECT_EQ(err, expect);  // no line end of its own
}

TEST_F(TraceLog, TimestampKeepsHundredths) {
  cam.platform().now = {1704110400, 987654};  // 2024-01-01 12:00:00.987654 UTC
  EXPECT_STREQ(trace_timestamp(), "2024-01-01 12:00:00.98");
  cam.platform().now.tv_usec = 5000;
  EXPECT_STREQ(trace_timestamp(), "2024-01-01 12:00:00.00");
}

// 1,048,576 bytes is appended to (and the file closed once past the
// limit, so the next line overwrites from the start); 1,048,577 is
// overwritten from its start at once.
TEST_F(TraceLog, NetworkLogThresholds) {
  cam.write("/dev/upgrade_network.log", std::string(kNetworkLogLimit, 'a'));
  testing::internal::CaptureStdout();
  traceout("new\n");
  EXPECT_EQ(size_of("/dev/upgrade_network.log"), kNetworkLogLimit + 4);
  traceout("XY");
  std::string text = cam.read("/dev/upgrade_network.log");
  EXPECT_EQ(text.size(), static_cast<size_t>(kNetworkLogLimit + 4));
  EXPECT_EQ(text.substr(0, 3), "XYa");

  set_network_log_open(0);
  cam.write("/dev/upgrade_network.log", std::string(kNetworkLogLimit + 1, 'a'));
  traceout("hello");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "new\nXYhello");
  text = cam.read("/dev/upgrade_network.log");
  EXPECT_EQ(text.size(), static_cast<size_t>(kNetworkLogLimit + 1));
  EXPECT_EQ(text.substr(0, 6), "helloa");
}

TEST_F(TraceLog, NetworkLogRemovedWhileOpenReportsStatErrAndStartsAnew) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  traceout("first\n");
  remove(cam.path("/dev/upgrade_network.log").c_str());
  traceout("second\n");
  traceout("third\n");
  testing::internal::GetCapturedStdout();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("stat ERR"), std::string::npos);
  EXPECT_EQ(err.find("stat ERR"), err.rfind("stat ERR"));  // once
  EXPECT_EQ(cam.read("/dev/upgrade_network.log"), "third\n");
}

TEST_F(TraceLog, DataLogIsEmptiedOnceItPassesTheLimit) {
  testing::internal::CaptureStdout();
  cam.write("/data/upgrade.log", std::string(kDataLogLimit, 'd'));
  traceout_data("x");  // 10,241 bytes: closed after this write
  EXPECT_EQ(size_of("/data/upgrade.log"), kDataLogLimit + 1);
  traceout_data("fresh");
  EXPECT_EQ(cam.read("/data/upgrade.log"), "fresh");

  // A file already past the limit is emptied on open.
  set_data_log_open(0);
  cam.write("/data/upgrade.log", std::string(kDataLogLimit + 1, 'd'));
  traceout_data("again");
  EXPECT_EQ(cam.read("/data/upgrade.log"), "again");
  testing::internal::GetCapturedStdout();
}

TEST_F(TraceLog, DataLogPathTraceHeaderAndUnopenableLog) {
  cam.platform().now = {1704110400, 120000};
  set_data_log_path("/tmp/other.log");
  testing::internal::CaptureStdout();
  TRACE_DATA("file md5: %s\n", "abc");
  int line = __LINE__ - 1;
  testing::internal::GetCapturedStdout();
  char expect[160];
  snprintf(expect, sizeof(expect),
           "[2024-01-01 12:00:00.12 test_dbgout.cpp +%-4d TestBody] file md5: abc\n", line);
  EXPECT_EQ(cam.read("/tmp/other.log"), expect);

  // A log that cannot be opened still writes the console.
  set_data_log_open(0);
  set_data_log_path("/no/such/dir/upgrade.log");
  testing::internal::CaptureStdout();
  EXPECT_EQ(traceout_data("still here\n"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "still here\n");
}

// The installers' children trace (the controller's version record) while
// other threads of the daemon go on tracing. A child forked while another
// thread was inside traceout or traceout_data must still be able to trace.
TEST_F(TraceLog, ChildrenForkedWhileOtherThreadsTraceCanTrace) {
  testing::internal::CaptureStdout();
  std::atomic<bool> stop{false};
  std::thread busy([&] {
    while (!stop.load()) {
      traceout("parent line\n");
      traceout_data("parent line\n");
    }
  });
  int stuck = 0;
  for (int i = 0; i < 20 && stuck == 0; ++i) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      traceout("child line\n");
      traceout_data("child line\n");
      _exit(0);
    }
    // A child that cannot take a log lock never ends; the bound only
    // decides when to stop waiting for one that is stuck for good.
    int status = -1;
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > give_up) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        ++stuck;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  stop = true;
  busy.join();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(stuck, 0);
}

}  // namespace
