// The controller's bootloader answers, byte by byte, to the board test's
// check and to a programming run of a small image, on a pseudo-terminal
// standing in for /dev/ttyS1. First byte: the board type (low nibble), the
// check or the programming (bit 4); second byte: the image length in
// 8-byte steps; the rest is what the bootloader answers. One NACK follows
// the answers, so a run never waits for an answer that will not come.
#include <dirent.h>
#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <thread>

#include "harness.h"
#include "mcu/stm32flashloader.h"

namespace {

std::set<int> open_fds() {
  std::set<int> fds;
  for (const auto& e : std::filesystem::directory_iterator("/proc/self/fd"))
    fds.insert(std::stoi(e.path().filename()));
  return fds;
}

// The bootloader: once the sync byte comes, it answers with `answers` and
// then listens until the line is closed.
void bootloader(int master, std::string answers) {
  char c;
  while (read(master, &c, 1) == 1 && c != static_cast<char>(kStm32Sync)) {
  }
  answers += static_cast<char>(kStm32Nack);
  if (write(master, answers.data(), answers.size()) < 0) return;
  char sink[512];
  while (read(master, sink, sizeof(sink)) > 0) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  FuzzCamera& c = reset_camera();
  const std::set<int> before = open_fds();
  int master = -1, slave = -1;
  if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return 0;
  const std::string tty = ttyname(slave);  // kept open until the run ends
  std::filesystem::remove(c.cam.path("/dev/ttyS1"));
  std::filesystem::create_symlink(tty, c.cam.path("/dev/ttyS1"));
  c.cam.write("/dev/arm.bin", std::string(8u * data[1], '\x5A'));
  // At most 12 answers per 256-byte block and a few more: a longer answer
  // text is never read.
  std::string answers(reinterpret_cast<const char*>(data + 2), std::min<size_t>(size - 2, 512));
  std::thread loader(bootloader, master, answers);

  if (data[0] & 0x10)
    arm_upgrade("/dev/ttyS1", "/dev/arm.bin", 2);
  else
    check_arm_status(data[0] & 0x0F, "/dev/ttyS1");

  // The routines leave the port and the image open, as on the camera; once
  // every descriptor of the line is closed, the bootloader's read ends.
  for (int fd : open_fds())
    if (before.count(fd) == 0 && fd != master) close(fd);
  loader.join();
  close(master);
  return 0;
}
