// Whole-flash write of a 16 MiB image onto the fake flash: the incremental
// erase-and-write (compare each block, rewrite only what differs) beside a
// plain erase-everything-then-write, for an unchanged image, one with 10 %
// of its erase blocks changed, and one that differs everywhere.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "bench_camera.h"
#include "install/mtd_debug.h"
#include "sim/flash/flash_model.h"

namespace {

constexpr uint32_t kEraseBlock = 0x10000;
// boot, kernel, rootfs, data: 16 MiB.
const std::vector<uint32_t> kParts = {0x80000, 0x300000, 0xA00000, 0x280000};
constexpr uint32_t kFlashSize = 0x1000000;

enum Change { kUnchanged = 0, kTenPercent = 1, kAll = 2 };

std::vector<uint8_t> pattern(size_t n, uint32_t seed) {
  std::vector<uint8_t> b(n);
  uint32_t x = seed * 2654435761u + 1;
  for (size_t i = 0; i < n; ++i) {
    x = x * 1103515245u + 12345u;
    b[i] = static_cast<uint8_t>(x >> 16);
  }
  return b;
}

struct Rig {
  BenchCamera cam;
  MemoryFlash flash;
  std::vector<uint8_t> old_content;

  explicit Rig(Change change) {
    flash.add_chain(kParts, kEraseBlock);
    const std::vector<uint8_t> image = pattern(kFlashSize, 7);
    old_content = image;
    if (change == kAll) {
      old_content = pattern(kFlashSize, 8);
    } else if (change == kTenPercent) {
      for (uint32_t b = 0; b < kFlashSize / kEraseBlock; b += 10) {
        old_content[static_cast<size_t>(b) * kEraseBlock + 123] ^= 0x5A;
      }
    }
    cam.write("/dev/fw.img", std::string(image.begin(), image.end()));
  }
  void restore_old_flash() {
    flash.reset_counters();
    uint32_t at = 0;
    for (size_t i = 0; i < kParts.size(); ++i) {
      std::copy(old_content.begin() + at, old_content.begin() + at + kParts[i],
                flash.data(static_cast<int>(i)).begin());
      at += kParts[i];
    }
  }
  void report(benchmark::State& state) {
    state.counters["erases"] = static_cast<double>(flash.erases());
    state.counters["MiB_programmed"] = static_cast<double>(flash.bytes_programmed()) / (1 << 20);
    state.counters["MiB_read"] = static_cast<double>(flash.bytes_read()) / (1 << 20);
    // Time the same work would take on a typical SPI NOR chip (64 KiB
    // block erase 150 ms, page programming about 0.35 MiB/s, reads 20 MiB/s);
    // a model from datasheet figures, not a measurement.
    state.counters["est_nor_s"] = flash.erases() * 0.150 +
                                  static_cast<double>(flash.bytes_programmed()) / (1 << 20) / 0.35 +
                                  static_cast<double>(flash.bytes_read()) / (1 << 20) / 20.0;
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFlashSize));
  }
};

std::string file_offset_text(uint32_t at) {
  char buf[16];
  snprintf(buf, sizeof(buf), "0x%X", at);
  return buf;
}

std::string length_text(uint32_t size) {
  char buf[16];
  snprintf(buf, sizeof(buf), "0x%08x", size);
  return buf;
}

// What the whole-flash watcher does per partition.
void BM_IncrementalEraseWrite(benchmark::State& state) {
  Rig rig(static_cast<Change>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    rig.restore_old_flash();
    state.ResumeTiming();
    uint32_t write_addr = 0;
    uint32_t at = 0;
    for (size_t i = 0; i < kParts.size(); ++i) {
      const std::string dev = "/dev/mtd" + std::to_string(i);
      orn_mtd2(&write_addr, "erase_write", dev.c_str(), "0", length_text(kParts[i]).c_str(),
               "/dev/fw.img", file_offset_text(at).c_str());
      at += kParts[i];
    }
    benchmark::DoNotOptimize(write_addr);
  }
  rig.report(state);
}

// Erase every block, then write the image (no comparison).
void BM_PlainEraseThenWrite(benchmark::State& state) {
  Rig rig(static_cast<Change>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    rig.restore_old_flash();
    state.ResumeTiming();
    uint32_t at = 0;
    for (size_t i = 0; i < kParts.size(); ++i) {
      const std::string dev = "/dev/mtd" + std::to_string(i);
      const std::string len = length_text(kParts[i]);
      orn_mtd("erase", dev.c_str(), "0", len.c_str(), " ", "0");
      orn_mtd("write", dev.c_str(), "0", len.c_str(), "/dev/fw.img", file_offset_text(at).c_str());
      at += kParts[i];
    }
  }
  rig.report(state);
}

void changes(benchmark::internal::Benchmark* b) {
  b->ArgName("changed(0=none,1=10%,2=all)")->Arg(kUnchanged)->Arg(kTenPercent)->Arg(kAll);
  b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_IncrementalEraseWrite)->Apply(changes);
BENCHMARK(BM_PlainEraseThenWrite)->Apply(changes);

}  // namespace

BENCHMARK_MAIN();
