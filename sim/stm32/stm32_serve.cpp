// stm32_serve: the STM32 bootloader simulator as a program, for a virtual
// camera's controller UART. It serves the bootloader on a pseudo-terminal
// whose slave a serial chardev of the emulator (or any tool) opens.
//
//   stm32_serve [--link PATH] [--flash-out FILE] [--load FILE]
//
// --link      makes PATH a symbolic link to the pty slave (else the slave's
//             path is printed on the first line)
// --flash-out after each Go, writes the controller's flash (up to the last
//             byte written) to FILE
// --load      preloads the flash with FILE (an older firmware)
//
// The camera pulses the controller's reset and BOOT0 pins through GPIO
// registers that have no wire to this process. A reset is always followed
// by a pause of more than a second before the sync byte, so a line that
// stays quiet for a second after a session (synchronised, or jumped to the
// application) is taken as a reset: the next sync byte starts a new
// bootloader session. Every event is printed on standard output, one line
// each.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "sim/stm32/stm32_sim.h"

namespace {

std::atomic<bool> g_stop{false};

void on_signal(int) { g_stop = true; }

void write_flash(const Stm32Sim& sim, const std::string& path) {
  std::vector<uint8_t> flash = sim.flash();
  size_t end = 0;
  for (const auto& b : sim.writes()) end = std::max<size_t>(end, b.address - 0x08000000u + b.length);
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f.write(reinterpret_cast<const char*>(flash.data()), static_cast<std::streamsize>(std::min(end, flash.size())));
}

}  // namespace

int main(int argc, char** argv) {
  std::string link, flash_out, load;
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if ((a == "--link" || a == "--flash-out" || a == "--load") && i + 1 < argc) {
      (a == "--link" ? link : a == "--flash-out" ? flash_out : load) = argv[++i];
    } else {
      fprintf(stderr, "usage: stm32_serve [--link PATH] [--flash-out FILE] [--load FILE]\n");
      return 2;
    }
  }
  signal(SIGINT, on_signal);
  signal(SIGTERM, on_signal);
  setvbuf(stdout, nullptr, _IOLBF, 0);

  Stm32Sim sim;
  if (!load.empty()) {
    std::ifstream f(load, std::ios::binary);
    sim.load_flash(0, std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {}));
  }
  if (!link.empty()) {
    unlink(link.c_str());
    if (symlink(sim.device().c_str(), link.c_str()) != 0) {
      perror("symlink");
      return 1;
    }
  }
  printf("%s\n", sim.device().c_str());

  using clock = std::chrono::steady_clock;
  uint64_t seen = 0;
  size_t writes_seen = 0;
  bool announced_go = false;
  auto last_traffic = clock::now();
  while (!g_stop) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    uint64_t rx = sim.bytes_received();
    auto now = clock::now();
    if (rx != seen) {
      if (seen == 0) printf("session: sync\n");
      seen = rx;
      last_traffic = now;
    }
    auto writes = sim.writes();
    if (writes.size() != writes_seen) {
      if (writes_seen == 0 && sim.mass_erases() + sim.pages_erased() > 0)
        printf("erase: %d mass, %d pages\n", sim.mass_erases(), sim.pages_erased());
      writes_seen = writes.size();
    }
    auto go = sim.go_address();
    if (go && !announced_go) {
      announced_go = true;
      size_t bytes = 0;
      for (const auto& b : writes) bytes += b.length;
      if (!flash_out.empty()) write_flash(sim, flash_out);
      printf("go: 0x%08x after %zu blocks, %zu bytes\n", *go, writes.size(), bytes);
    }
    // A quiet line after a session: the camera has reset the controller.
    if (seen != 0 && now - last_traffic > std::chrono::milliseconds(1000) && sim.wait_idle(0)) {
      // Reset before telling: a client that sees the line may sync at once.
      sim.reset();
      printf("session: end (%llu bytes received)\n", static_cast<unsigned long long>(seen));
      seen = 0;
      writes_seen = 0;
      announced_go = false;
    }
  }
  if (!link.empty()) unlink(link.c_str());
  return 0;
}
