// The ground floor's shared pieces: the one reset of the shared record, the
// thread starter and the bounded text copies.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "core/daemon_state.h"
#include "core/text.h"
#include "core/threads.h"

namespace {

TEST(DaemonState, OneResetClearsEverythingTheThreadsShare) {
  daemon_state.upgrade_busy = 1;
  daemon_state.search_switch = 0;
  daemon_state.board_type = 5;
  daemon_state.arm_upgrade_flag = 1;
  daemon_state.production_mode = 1;
  strcpy(daemon_state.arm_upgrade_file_name, "X_ARM_V1.bin");
  set_device_id("0123456789abcdef0123456789abcdef");
  set_client_id("fedcba9876543210fedcba9876543210");
  set_upgrade_client_id("fedcba9876543210fedcba9876543210");
  set_mcast_upgrade_in_progress(1);
  net_info_t ni{};
  strcpy(ni.ipaddr, "10.0.0.2");
  set_net_info(ni);
  net_info_ipv6_t v6{};
  strcpy(v6.ip, "2001:db8::5");
  set_net_info_ipv6(v6);
  set_device_type_code("HKW7");
  mark_ipv4_address_ready();

  reset_daemon_state();

  EXPECT_EQ(daemon_state.upgrade_busy.load(), 0);
  EXPECT_EQ(mcast_search_switch().load(), 1);
  EXPECT_EQ(mcast_batch_switch().load(), 1);
  EXPECT_EQ(daemon_state.board_type.load(), 0);
  EXPECT_EQ(daemon_state.arm_upgrade_flag.load(), 0);
  EXPECT_EQ(daemon_state.production_mode.load(), 0);
  EXPECT_STREQ(daemon_state.arm_upgrade_file_name, "");
  EXPECT_EQ(daemon_state.is_kill_pid, 1);
  EXPECT_EQ(daemon_state.arm_exist, 1);
  char id[kIdLen + 1];
  get_device_id(id);
  EXPECT_STREQ(id, "");
  get_client_id(id);
  EXPECT_STREQ(id, "");
  get_upgrade_client_id(id);
  EXPECT_STREQ(id, "");
  EXPECT_EQ(mcast_upgrade_in_progress(), 0);
  copy_net_info(&ni);
  EXPECT_STREQ(ni.ipaddr, "");
  copy_net_info_ipv6(&v6);
  EXPECT_STREQ(v6.ip, "");
  char code[kTypeCodeLen];
  get_device_type_code(code);
  EXPECT_STREQ(code, "");

  // The address latch is down again: a waiter is released by the next mark.
  std::atomic<bool> released{false};
  std::thread waiter([&] {
    wait_for_ipv4_address();
    released = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(released.load());
  mark_ipv4_address_ready();
  waiter.join();
  EXPECT_TRUE(released.load());
  reset_daemon_state();
}

TEST(DaemonState, KeywordTableHoldsTheNineCharacterKeywords) {
  reset_daemon_state();
  fill_protocol_keywords();
  EXPECT_STREQ(daemon_state.protocol_keywords[KW_SEARCH], "SEARCH * ");
  EXPECT_STREQ(daemon_state.protocol_keywords[KW_CAMERA_UP], "CAMERA_UP");
  EXPECT_STREQ(daemon_state.protocol_keywords[KW_EMPTY], "");
  EXPECT_STREQ(daemon_state.protocol_keywords[KW_STATUS], "STATUS * ");
}

TEST(DaemonState, IdsAreCutToTheirLength) {
  reset_daemon_state();
  set_client_id((std::string(40, 'a')).c_str());
  char id[kIdLen + 1];
  get_client_id(id);
  EXPECT_EQ(std::string(id), std::string(kIdLen, 'a'));
  set_device_type_code(std::string(40, 'D').c_str());
  char code[kTypeCodeLen];
  get_device_type_code(code);
  EXPECT_EQ(std::string(code), std::string(kTypeCodeLen - 1, 'D'));
}

struct seen_thread {
  std::atomic<int> done{0};
  char name[16] = {};
  int detach_state = -1;
};

void* record_thread(void* arg) {
  auto* seen = static_cast<seen_thread*>(arg);
  prctl(PR_GET_NAME, seen->name, 0, 0, 0);
  pthread_attr_t attr;
  pthread_getattr_np(pthread_self(), &attr);
  pthread_attr_getdetachstate(&attr, &seen->detach_state);
  pthread_attr_destroy(&attr);
  seen->done = 1;
  return nullptr;
}

TEST(Threads, StartedDetachedAndNamedBeforeTheirFunctionRuns) {
  seen_thread seen;
  ASSERT_EQ(start_thread("mcast_batUpgrade_func", record_thread, &seen), 0);
  for (int i = 0; i < 200 && seen.done.load() == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(seen.done.load(), 1);
  // The kernel keeps the first 15 characters of a thread name.
  EXPECT_STREQ(seen.name, "mcast_batUpgrad");
  EXPECT_EQ(seen.detach_state, PTHREAD_CREATE_DETACHED);
}

TEST(Text, CopiesStopAtTheBufferAndAtTheSourcesEnd) {
  char buf[8];
  copy_text(buf, sizeof(buf), "abcdefghij", 10);
  EXPECT_STREQ(buf, "abcdefg");
  copy_text(buf, sizeof(buf), "ab\0cd", 5);
  EXPECT_STREQ(buf, "ab");
  copy_text(buf, sizeof(buf), "abcdef", 3);
  EXPECT_STREQ(buf, "abc");
  buf[0] = 'x';
  copy_text(buf, 0, "abc", 3);
  EXPECT_EQ(buf[0], 'x') << "a buffer of no bytes is not touched";

  char out[8] = "ab";
  append_text(out, sizeof(out), "cd");
  EXPECT_STREQ(out, "abcd");
  append_text(out, sizeof(out), "efghij", 2);
  EXPECT_STREQ(out, "abcdef");
  append_text(out, sizeof(out), "xyz");
  EXPECT_STREQ(out, "abcdefx");
  append_text(out, sizeof(out), "more");
  EXPECT_STREQ(out, "abcdefx") << "a full buffer stays as it is";
}

}  // namespace
