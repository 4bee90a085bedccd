// Controller programming speed on a line paced like the real one
// (115200 baud, 8E1: 11 bits per byte):
//   - arm_upgrade of a 64 KiB image,
//   - stm32flash -w (no verification) of the same image,
//   - the line-rate limit: bytes arm_upgrade put on the wire (both
//     directions) x 11 bits / 115200.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>

#include "bench_camera.h"
#include "core/daemon_state.h"
#include "mcu/stm32flashloader.h"
#include "sim/stm32/stm32_sim.h"

namespace {

constexpr size_t kImageSize = 64 * 1024;

double g_arm_upgrade_s = 0;
double g_stm32flash_s = 0;
uint64_t g_wire_bytes = 0;

Stm32Sim::Options paced() {
  Stm32Sim::Options opt;
  opt.paced = true;
  return opt;
}

std::string image_bytes() {
  std::string s(kImageSize, '\0');
  std::mt19937 gen(11);
  for (auto& c : s) c = static_cast<char>(gen());
  return s;
}

void BM_ArmUpgrade64K(benchmark::State& state) {
  BenchCamera cam;  // no real waits in the reset sequence, no GPIO (board type 0)
  cam.write("/customer/motor.bin", image_bytes());
  Stm32Sim sim(paced());
  std::filesystem::create_directories(cam.path("/dev"));
  std::filesystem::create_symlink(sim.device(), cam.path("/dev/ttyS1"));
  daemon_state.board_type = 0;
  fflush(stdout);
  int saved = dup(1);  // the per-step console lines are not part of the figure
  int devnull = open("/dev/null", O_WRONLY);
  dup2(devnull, 1);
  close(devnull);
  for (auto _ : state) {
    sim.reset();
    auto t0 = std::chrono::steady_clock::now();
    int rc = arm_upgrade("/dev/ttyS1", "/customer/motor.bin", 0);
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (rc != 0) state.SkipWithError("arm_upgrade failed");
    state.SetIterationTime(s);
    g_arm_upgrade_s = s;
    g_wire_bytes = sim.bytes_received() + sim.bytes_sent();
  }
  fflush(stdout);
  dup2(saved, 1);
  close(saved);
  state.counters["wire_bytes"] = static_cast<double>(g_wire_bytes);
}

void BM_Stm32flashWrite64K(benchmark::State& state) {
  if (access("/usr/bin/stm32flash", X_OK) != 0) {
    state.SkipWithError("stm32flash not installed");
    for (auto _ : state) {
    }
    return;
  }
  char dir[] = "/tmp/armbench.XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    state.SkipWithError("mkdtemp failed");
    for (auto _ : state) {
    }
    return;
  }
  std::string file = std::string(dir) + "/motor.bin";
  FILE* f = fopen(file.c_str(), "wb");
  std::string img = image_bytes();
  fwrite(img.data(), 1, img.size(), f);
  fclose(f);
  Stm32Sim sim(paced());
  std::string cmd = "/usr/bin/stm32flash -m 8n1 -b 115200 -w " + file + " " + sim.device() + " >/dev/null 2>&1";
  for (auto _ : state) {
    sim.reset();
    auto t0 = std::chrono::steady_clock::now();
    int rc = system(cmd.c_str());
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (rc != 0) state.SkipWithError("stm32flash failed");
    state.SetIterationTime(s);
    g_stm32flash_s = s;
    state.counters["wire_bytes"] = static_cast<double>(sim.bytes_received() + sim.bytes_sent());
  }
  std::filesystem::remove_all(dir);
}

BENCHMARK(BM_ArmUpgrade64K)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Stm32flashWrite64K)->UseManualTime()->Iterations(2)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  double line_s = static_cast<double>(g_wire_bytes) * 11.0 / 115200.0;
  printf("\n64 KiB controller image, 115200 baud 8E1 (11 bits per byte):\n");
  printf("  arm_upgrade            %8.3f s\n", g_arm_upgrade_s);
  printf("  stm32flash -w          %8.3f s\n", g_stm32flash_s);
  printf("  line-rate limit        %8.3f s  (%llu bytes on the wire)\n", line_s,
         static_cast<unsigned long long>(g_wire_bytes));
  if (line_s > 0 && g_stm32flash_s > 0) {
    printf("  arm_upgrade / line     %8.3f\n", g_arm_upgrade_s / line_s);
    printf("  stm32flash / line      %8.3f\n", g_stm32flash_s / line_s);
    printf("  arm_upgrade / stm32flash %6.3f\n", g_arm_upgrade_s / g_stm32flash_s);
  }
  return 0;
}
