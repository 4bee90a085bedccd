// A camera for the benchmarks, without the unit tests' fakes: a temporary
// camera root and a platform that runs no shell command and does not wait,
// so that a figure measures the code and not the pauses the hardware needs.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "core/platform.h"

class BenchCamera : public Platform {
 public:
  BenchCamera() {
    char dir[] = "/tmp/bench_camera_XXXXXX";
    root_ = mkdtemp(dir) != nullptr ? dir : "/tmp";
    previous_root_ = camera_root();
    set_camera_root(root_);
    previous_ = set_platform(this);
  }
  ~BenchCamera() override {
    set_platform(previous_);
    set_camera_root(previous_root_);
    if (root_ != "/tmp") std::filesystem::remove_all(root_);
  }
  BenchCamera(const BenchCamera&) = delete;
  BenchCamera& operator=(const BenchCamera&) = delete;

  int shell(const std::string&) override { return 0; }
  int shell_status(const std::string&) override { return 0; }
  int shell_read(const std::string&, char*, size_t) override { return 0; }
  void sleep_us(uint64_t) override {}
  void sync() override {}

  // Absolute camera path -> path under the temporary root.
  std::string path(const std::string& camera_path) const { return root_ + camera_path; }
  // Writes a camera file (parents created).
  void write(const std::string& camera_path, const std::string& content) const {
    const std::filesystem::path p = path(camera_path);
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << content;
  }

 private:
  std::string root_;
  std::string previous_root_;
  Platform* previous_ = nullptr;
};
