// Shared set-up for the installer tests: a fake camera, a fake flash and a
// partition table that matches it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/daemon_state.h"
#include "fakes/fake_platform.h"
#include "sim/flash/flash_model.h"

using Bytes = std::vector<uint8_t>;
using testing::HasSubstr;

// Deterministic, non-erased-looking content.
inline Bytes pattern(size_t n, unsigned seed) {
  Bytes b(n);
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    b[i] = static_cast<uint8_t>(x >> 16);
  }
  return b;
}

inline std::string as_text(const Bytes& b) { return std::string(b.begin(), b.end()); }

// What `run` prints on standard output, then on standard error.
template <typename F>
std::string printed(F&& run) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  run();
  std::string out = testing::internal::GetCapturedStdout();
  return out + testing::internal::GetCapturedStderr();
}

class InstallTest : public ::testing::Test {
 protected:
  void SetUp() override { reset_daemon_state(); }

  // Partitions (size, name) into daemon_state and a fake flash (the
  // fixture's unless another chip is given).
  void partitions(const std::vector<std::pair<uint32_t, std::string>>& parts, uint32_t erasesize,
                  uint8_t type = kNor, MemoryFlash* chip = nullptr) {
    std::vector<uint32_t> sizes;
    daemon_state.mtd_num = static_cast<int>(parts.size());
    for (size_t i = 0; i < parts.size(); ++i) {
      mtd_entry& e = daemon_state.mtd[i];
      snprintf(e.dev, sizeof(e.dev), "mtd%hhu:", static_cast<unsigned char>(i));
      snprintf(e.size, sizeof(e.size), "%08x", parts[i].first);
      snprintf(e.erasesize, sizeof(e.erasesize), "%08x", erasesize);
      snprintf(e.name, sizeof(e.name), "\"%s\"", parts[i].second.c_str());
      sizes.push_back(parts[i].first);
    }
    (chip != nullptr ? *chip : flash).add_chain(sizes, erasesize, type);
  }

  // Boot-environment flags as fw_setenv would leave them (quotes around the
  // value removed); commands issued after a power cut never ran.
  void track_env(FakePlatform* platform = nullptr, MemoryFlash* chip = nullptr) {
    {
      std::lock_guard<std::mutex> lock(env_mu);
      env.clear();
    }
    MemoryFlash& f = chip != nullptr ? *chip : flash;
    (platform != nullptr ? *platform : cam.platform()).on_command([this, &f](const std::string& cmd) {
      if (f.power_lost()) return;
      for (const std::string p : {"/dev/fw_setenv ", "/bin/fw_setenv "}) {
        size_t sp = cmd.find(' ', p.size());
        if (cmd.rfind(p, 0) != 0 || sp == std::string::npos) continue;
        std::string value = cmd.substr(sp + 1);
        if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'')
          value = value.substr(1, value.size() - 2);
        std::lock_guard<std::mutex> lock(env_mu);
        env[cmd.substr(p.size(), sp - p.size())] = value;
      }
    });
  }
  std::string flag(const std::string& name) {
    std::lock_guard<std::mutex> lock(env_mu);
    auto it = env.find(name);
    return it == env.end() ? "" : it->second;
  }

  bool ran(const std::string& cmd) { return cam.platform().ran(cmd); }

  FakeCamera cam;
  MemoryFlash flash;
  std::mutex env_mu;
  std::map<std::string, std::string> env;
};
