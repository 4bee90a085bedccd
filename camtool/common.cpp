#include "camtool/common.h"

#include <csignal>
#include <random>

namespace camtool {

namespace {
volatile std::sig_atomic_t g_interrupted = 0;
void on_signal(int) { g_interrupted = 1; }
}  // namespace

std::string random_id() {
  static std::mt19937_64 gen{std::random_device{}()};
  static const char kHex[] = "0123456789abcdef";
  std::string id;
  for (int i = 0; i < 32; ++i) id += kHex[gen() & 15u];
  return id;
}

bool interrupted() { return g_interrupted != 0; }

void install_interrupt_handler() {
  struct sigaction sa = {};
  sa.sa_handler = on_signal;  // no SA_RESTART: a waiting poll returns at once
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

}  // namespace camtool
