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

#include "core/upgrade.h"
#include "fakes/fake_flash.h"
#include "fakes/fake_platform.h"

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

inline void copy_field(char* out, size_t len, const std::string& text) {
  size_t n = text.size() < len - 1 ? text.size() : len - 1;
  text.copy(out, n);
  out[n] = '\0';
}

inline std::string hex8(uint32_t v) {
  char buf[16];
  snprintf(buf, sizeof(buf), "%08x", static_cast<unsigned>(v));
  return buf;
}

// The value fw_setenv receives from a quoted word (no quote inside).
inline std::string shell_word(const std::string& text) {
  bool quoted = text.size() >= 2 && text.front() == '\'' && text.back() == '\'';
  return quoted ? text.substr(1, text.size() - 2) : text;
}

class InstallTest : public ::testing::Test {
 protected:
  void SetUp() override { reset_daemon_state(); }

  // Partitions (size, quoted name) into daemon_state and a fake flash
  // (the fixture's unless another chip is given).
  void partitions(const std::vector<std::pair<uint32_t, std::string>>& parts, uint32_t erasesize,
                  uint8_t type = kNor, FakeFlash* chip = nullptr) {
    std::vector<uint32_t> sizes;
    daemon_state.mtd_num = static_cast<int>(parts.size());
    for (size_t i = 0; i < parts.size(); ++i) {
      mtd_entry& e = daemon_state.mtd[i];
      copy_field(e.dev, sizeof(e.dev), "mtd" + std::to_string(i) + ":");
      copy_field(e.size, sizeof(e.size), hex8(parts[i].first));
      copy_field(e.erasesize, sizeof(e.erasesize), hex8(erasesize));
      copy_field(e.name, sizeof(e.name), "\"" + parts[i].second + "\"");
      sizes.push_back(parts[i].first);
    }
    (chip != nullptr ? *chip : flash).add_chain(sizes, erasesize, type);
  }

  // Boot-environment flags as fw_setenv would leave them; commands issued
  // after a power cut never ran.
  void track_env(FakePlatform* platform = nullptr, FakeFlash* chip = nullptr) {
    {
      std::lock_guard<std::mutex> lock(env_mu);
      env.clear();
    }
    FakeFlash& f = chip != nullptr ? *chip : flash;
    (platform != nullptr ? *platform : cam.platform()).on_command([this, &f](const std::string& cmd) {
      if (f.power_lost()) return;
      for (const std::string p : {"/dev/fw_setenv ", "/bin/fw_setenv "}) {
        if (cmd.rfind(p, 0) != 0) continue;
        std::string rest = cmd.substr(p.size());
        size_t sp = rest.find(' ');
        if (sp == std::string::npos) continue;
        std::lock_guard<std::mutex> lock(env_mu);
        env[rest.substr(0, sp)] = shell_word(rest.substr(sp + 1));
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
  FakeFlash flash;
  std::mutex env_mu;
  std::map<std::string, std::string> env;
};
