#include "mcu/stm32flashloader.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/platform.h"
#include "mcu/memmap.h"


namespace {

// Register blocks, mapped with this size and never unmapped.
constexpr uint32_t kBlockSize = 0x10000;
constexpr uint32_t kHi3516aPinmux = 0x200F0000;
constexpr uint32_t kHi3516aGpio9 = 0x201D0000;
constexpr uint32_t kHi3516aGpio13 = 0x20210000;
constexpr uint32_t kHi3519aPinmux = 0x12040000;
constexpr uint32_t kHi3519aPinmux2 = 0x12030000;
constexpr uint32_t kHi3519aGpio5 = 0x12145000;
constexpr uint32_t kHi3519aGpio7 = 0x12147000;
constexpr uint32_t kHi3519aGpioReset = 0x12150000;
// GPIO direction register; a data write at (bit mask * 4) touches only the
// bits in the mask.
constexpr uint32_t kGpioDir = 0x400;

void* g_hi3516a_pinmux = nullptr;
void* g_hi3516a_gpio9 = nullptr;
void* g_hi3516a_gpio13 = nullptr;
void* g_hi3519a_pinmux = nullptr;
void* g_hi3519a_pinmux2 = nullptr;
void* g_hi3519a_gpio5 = nullptr;
void* g_hi3519a_gpio7 = nullptr;
void* g_hi3519a_gpio_reset = nullptr;

uint8_t g_revbuf[1];
char g_source_name[32];
uint8_t g_block[kStm32BlockSize];

void reg_write(void* base, uint32_t offset, uint32_t value) {
  *reinterpret_cast<volatile uint32_t*>(static_cast<char*>(base) + offset) = value;
}

void dir_set(void* base, uint8_t bits) {
  auto* dir = reinterpret_cast<volatile uint8_t*>(static_cast<char*>(base) + kGpioDir);
  *dir = static_cast<uint8_t>(*dir | bits);
}

// One GPIO output: the data address that holds its bit and the bit value.
struct gpio_line {
  void* base;
  uint32_t offset;
  uint32_t value;
};

bool reset_line(gpio_line* line) {
  switch (daemon_state.board_type.load()) {
    case CAM_TYPE_K1: *line = {g_hi3516a_gpio13, 0x100, 0x40}; break;
    case CAM_TYPE_K4: *line = {g_hi3516a_gpio9, 0x10, 0x04}; break;
    case CAM_TYPE_RQ500: *line = {g_hi3519a_gpio_reset, 0x08, 0x02}; break;
    case CAM_TYPE_RQ500T: *line = {g_hi3519a_gpio7, 0x200, 0x80}; break;
    case CAM_TYPE_RQ500S:
    case CAM_TYPE_R300I: *line = {g_hi3519a_gpio5, 0x100, 0x40}; break;
    default: return false;
  }
  return line->base != nullptr;
}

// BOOT0 is not wired for type 8.
bool boot0_line(gpio_line* line) {
  switch (daemon_state.board_type.load()) {
    case CAM_TYPE_K1:
    case CAM_TYPE_K4: *line = {g_hi3516a_gpio13, 0x40, 0x10}; break;
    case CAM_TYPE_RQ500:
    case CAM_TYPE_RQ500T: *line = {g_hi3519a_gpio5, 0x40, 0x10}; break;
    case CAM_TYPE_RQ500S: *line = {g_hi3519a_gpio5, 0x200, 0x80}; break;
    default: return false;
  }
  return line->base != nullptr;
}

void* map_block(uint32_t phys) { return memmap(phys, kBlockSize); }

// What gpioinit does for one board type: the register blocks to map (in this
// order, each with the line printed when it cannot be mapped), then the
// pin-mux writes and the direction bits to set. Lists end at a null slot.
struct block_need {
  void** slot;
  uint32_t phys;
  const char* fail;
};
struct pinmux_write {
  void** block;
  uint32_t offset;
  uint32_t value;
};
struct dir_bits {
  void** block;
  uint8_t bits;
};
struct board_pins {
  block_need blocks[4];
  pinmux_write pinmux[3];
  dir_bits dirs[2];
};

constexpr const char* kFailPinmux16 = "memmap hi3516a gpio0 reg baseaddr fail\n";
constexpr const char* kFailGpio16 = "memmap hi3516a gpio13 reg baseaddr fail\n";
constexpr const char* kFailPinmux19 = "memmap hi3519a pinmux reg baseaddr fail\n";
constexpr const char* kFailGpio5 = "memmap hi3519a gpio5 reg baseaddr fail\n";
constexpr const char* kFailGpio7 = "memmap hi3519a gpio7 reg baseaddr fail\n";

constexpr board_pins kPinsK1 = {
    {{&g_hi3516a_pinmux, kHi3516aPinmux, kFailPinmux16},
     {&g_hi3516a_gpio13, kHi3516aGpio13, kFailGpio16}},
    {{&g_hi3516a_pinmux, 0x1E4, 0}, {&g_hi3516a_pinmux, 0x1DC, 0}},
    {{&g_hi3516a_gpio13, 0x40}, {&g_hi3516a_gpio13, 0x10}}};
constexpr board_pins kPinsK4 = {
    {{&g_hi3516a_pinmux, kHi3516aPinmux, kFailPinmux16},
     {&g_hi3516a_gpio9, kHi3516aGpio9, kFailGpio16},
     {&g_hi3516a_gpio13, kHi3516aGpio13, kFailGpio16}},
    {{&g_hi3516a_pinmux, 0x078, 0}, {&g_hi3516a_pinmux, 0x1DC, 0}},
    {{&g_hi3516a_gpio9, 0x04}, {&g_hi3516a_gpio13, 0x10}}};
constexpr board_pins kPinsRq500 = {
    {{&g_hi3519a_pinmux, kHi3519aPinmux, kFailPinmux19},
     {&g_hi3519a_gpio5, kHi3519aGpio5, kFailGpio5},
     {&g_hi3519a_gpio_reset, kHi3519aGpioReset, kFailGpio7}},
    {{&g_hi3519a_pinmux, 0x098, 0}, {&g_hi3519a_pinmux, 0x1D8, 1}},
    {{&g_hi3519a_gpio5, 0x10}, {&g_hi3519a_gpio_reset, 0x02}}};
constexpr board_pins kPinsRq500t = {
    {{&g_hi3519a_pinmux2, kHi3519aPinmux2, kFailPinmux19},
     {&g_hi3519a_pinmux, kHi3519aPinmux, kFailPinmux19},
     {&g_hi3519a_gpio5, kHi3519aGpio5, kFailGpio5},
     {&g_hi3519a_gpio7, kHi3519aGpio7, kFailGpio7}},
    {{&g_hi3519a_pinmux2, 0x00C, 0xF0},
     {&g_hi3519a_pinmux, 0x098, 0},
     {&g_hi3519a_pinmux, 0x0F0, 0}},
    {{&g_hi3519a_gpio5, 0x10}, {&g_hi3519a_gpio7, 0x80}}};
// Types 7 and 8.
constexpr board_pins kPinsRq500s = {
    {{&g_hi3519a_pinmux, kHi3519aPinmux, kFailPinmux19},
     {&g_hi3519a_gpio5, kHi3519aGpio5, kFailGpio5}},
    {{&g_hi3519a_pinmux, 0x0A0, 0}, {&g_hi3519a_pinmux, 0x0A4, 0}},
    {{&g_hi3519a_gpio5, 0x40}, {&g_hi3519a_gpio5, 0x80}}};

const board_pins* pins_of(int type) {
  switch (type) {
    case CAM_TYPE_K1: return &kPinsK1;
    case CAM_TYPE_K4: return &kPinsK4;
    case CAM_TYPE_RQ500: return &kPinsRq500;
    case CAM_TYPE_RQ500T: return &kPinsRq500t;
    case CAM_TYPE_RQ500S:
    case CAM_TYPE_R300I: return &kPinsRq500s;
    default: return nullptr;
  }
}

}  // namespace

int gpioinit() {
  // Only the blocks of the current board type are valid from here on.
  g_hi3516a_pinmux = g_hi3516a_gpio9 = g_hi3516a_gpio13 = nullptr;
  g_hi3519a_pinmux = g_hi3519a_pinmux2 = g_hi3519a_gpio5 = nullptr;
  g_hi3519a_gpio7 = g_hi3519a_gpio_reset = nullptr;
  const board_pins* pins = pins_of(daemon_state.board_type.load());
  if (pins == nullptr) return 0;
  for (const block_need& need : pins->blocks) {
    if (need.slot == nullptr) break;
    *need.slot = map_block(need.phys);
    if (*need.slot == nullptr) {
      DBG_ERR("%s", need.fail);
      return -1;
    }
  }
  for (const pinmux_write& w : pins->pinmux) {
    if (w.block != nullptr) reg_write(*w.block, w.offset, w.value);
  }
  for (const dir_bits& d : pins->dirs) {
    if (d.block != nullptr) dir_set(*d.block, d.bits);
  }
  return 0;
}

void set_stm32_mode(int mode) {
  gpio_line boot0;
  if (!boot0_line(&boot0)) return;
  if (mode == 1) {
    reg_write(boot0.base, boot0.offset, boot0.value);
  } else if (mode == 0) {
    reg_write(boot0.base, boot0.offset, 0);
  }
}

void reset_stm32() {
  gpio_line reset;
  if (!reset_line(&reset)) return;
  reg_write(reset.base, reset.offset, reset.value);
  reg_write(reset.base, reset.offset, 0);
  sys().sleep_us(200000);
  reg_write(reset.base, reset.offset, reset.value);
  sys().sleep_us(1000000);
}

int uartinit(const char* device, speed_t speed) {
  int fd = open(cam_path(device).c_str(), O_RDWR | O_NOCTTY | O_SYNC | O_CLOEXEC);
  if (fd < 0) {
    perror("open serial 0\n");
    return -1;
  }
  struct termios options;
  memset(&options, 0, sizeof(options));
  tcgetattr(fd, &options);
  cfsetispeed(&options, speed);
  cfsetospeed(&options, speed);
  if (tcsetattr(fd, TCSANOW, &options) != 0) {
    perror("tcsetattr error");
    close(fd);
    return -1;
  }
  options.c_cflag &= ~CSIZE;
  options.c_cflag |= CS8;
  options.c_cflag &= ~CSTOPB;
  options.c_cflag |= PARENB;  // even parity; PARODD is left as it was read
  options.c_cflag |= CREAD | CLOCAL;
  options.c_cflag &= ~CRTSCTS;
  options.c_lflag &= ~(ICANON | ECHO | ECHOE | ISIG);
  options.c_oflag &= ~(OPOST | ONLCR | OCRNL);
  options.c_iflag &= ~(INLCR | ICRNL | IXON | IXOFF | IXANY);
  options.c_cc[VTIME] = 255;
  options.c_cc[VMIN] = 1;
  if (tcsetattr(fd, TCSANOW, &options) != 0) {
    perror("serial error");
    close(fd);
    return -1;
  }
  tcflush(fd, TCIOFLUSH);
  return fd;
}

namespace {

// select() for one direction with the transfer limit; > 0 when ready.
int wait_ready(int fd, bool for_write) {
  if (fd < 0 || fd >= FD_SETSIZE) return -1;
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  struct timeval tv;
  tv.tv_sec = kSelectTimeoutSec;
  tv.tv_usec = 0;
  return select(fd + 1, for_write ? nullptr : &set, for_write ? &set : nullptr, nullptr, &tv);
}

}  // namespace

int write_select(int fd, const void* buf, int count) {
  if (wait_ready(fd, true) <= 0) {
    DBG_ERR("timeout\n");
    return -1;
  }
  ssize_t n = write(fd, buf, static_cast<size_t>(count));
  if (n < 0) {
    DBG_ERR("write failed!\n");
    return -1;
  }
  return static_cast<int>(n);
}

int read_select(int fd, void* buf, int count) {
  if (wait_ready(fd, false) <= 0) {
    DBG_ERR("timeout\n");
    return -1;
  }
  ssize_t n = read(fd, buf, static_cast<size_t>(count));
  if (n < 0) {
    DBG_ERR("read failed!\n");
    return -1;
  }
  return static_cast<int>(n);
}

// The bootloader exchanges below stay inline in their functions so that
// every console line names the routine and line that failed.

// Sends a command code and its complement.
#define STM32_SEND_CMD(code)                                          \
  do {                                                                \
    uint8_t cmd_[2] = {(code), static_cast<uint8_t>(~(code))};        \
    int ret_ = write_select(fd, cmd_, 2);                             \
    if (ret_ != 2) {                                                  \
      DBG_ERR("write connectcode return %d, break;\n", ret_);         \
      return -1;                                                      \
    }                                                                 \
  } while (0)

// Sends `len` bytes in one write.
#define STM32_SEND(buf, len)                                          \
  do {                                                                \
    int ret_ = write_select(fd, (buf), (len));                        \
    if (ret_ != (len)) {                                              \
      DBG_ERR("write return %d, break;\n", ret_);                     \
      return -1;                                                      \
    }                                                                 \
  } while (0)

// Reads the one-byte answer into g_revbuf.
#define STM32_READ_ANSWER()                                           \
  do {                                                                \
    int ret_ = read_select(fd, g_revbuf, 1);                          \
    if (ret_ != 1) {                                                  \
      DBG_ERR("read return %d, break;\n", ret_);                      \
      return -1;                                                      \
    }                                                                 \
  } while (0)

#define STM32_REQUIRE_ACK()                                           \
  do {                                                                \
    if (g_revbuf[0] != kStm32Ack) {                                   \
      DBG_ERR("not 0x79!\n");                                         \
      return -1;                                                      \
    }                                                                 \
  } while (0)

// Sync byte, its answer, and the "connected" line.
#define STM32_CONNECT()                                                      \
  do {                                                                       \
    DBG_INFO("connecting stm32\n");                                          \
    uint8_t sync_ = kStm32Sync;                                              \
    int ret_ = write_select(fd, &sync_, 1);                                  \
    if (ret_ != 1) {                                                         \
      DBG_ERR("write connectcode return %d, break;\n", ret_);                \
      return -1;                                                             \
    }                                                                        \
    STM32_READ_ANSWER();                                                     \
    DBG_INFO("revbuf: 0x%x, stm32 connected!\n", g_revbuf[0]);               \
    STM32_REQUIRE_ACK();                                                     \
  } while (0)

// Four address bytes, most significant first, one write each, then their XOR.
#define STM32_SEND_ADDRESS(address)                                   \
  do {                                                                \
    uint8_t bytes_[5];                                                \
    bytes_[0] = static_cast<uint8_t>((address) >> 24);                \
    bytes_[1] = static_cast<uint8_t>((address) >> 16);                \
    bytes_[2] = static_cast<uint8_t>((address) >> 8);                 \
    bytes_[3] = static_cast<uint8_t>(address);                        \
    bytes_[4] = bytes_[0] ^ bytes_[1] ^ bytes_[2] ^ bytes_[3];        \
    for (int i_ = 0; i_ < 5; ++i_) STM32_SEND(&bytes_[i_], 1);        \
  } while (0)

int check_arm_status(int type, const char* device) {
  daemon_state.board_type = type;
  DBG_INFO("m_type: %d\n", type);
  int fd = uartinit(device, B115200);
  if (fd < 0) {
    DBG_ERR("uartinit fail!\n");
    return -1;
  }
  DBG_INFO("uartinit finish!\n");
  gpioinit();
  DBG_INFO("gpioinit finish!\n");
  DBG_INFO("set stm32 mode UPGRADE\n");
  set_stm32_mode(1);
  DBG_INFO("reset stm32 \n");
  reset_stm32();
  sys().sleep_us(200000);
  // The port stays open and BOOT0 high: the controller waits in its
  // bootloader until the next reset.
  STM32_CONNECT();
  return 0;
}

int arm_upgrade(const char* device, const char* source_file, int verbose) {
  if (device == nullptr) {
    DBG_INFO("need a uart dev!\n");
    sys().exit_process(-1);
  }
  DBG_INFO("uartport:%s\n", device);
  int fd = uartinit(device, B115200);
  if (fd < 0) {
    DBG_ERR("uartinit fail!\n");
    return -1;
  }
  if (source_file == nullptr) {
    DBG_ERR("need source file!\n");
    sys().exit_process(-1);
  }
  strncpy(g_source_name, source_file, sizeof(g_source_name) - 1);
  g_source_name[sizeof(g_source_name) - 1] = '\0';
  std::string real_path = cam_path(source_file);
  struct stat st;
  if (stat(real_path.c_str(), &st) != 0) {
    perror("stat fail:");
    DBG_ERR("stat %s fail!\n", source_file);
    return -1;
  }
  int file_fd = open(real_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file_fd < 0) {
    perror("open fail:");
    DBG_ERR("open %s fail!\n", source_file);
    return -1;
  }

  gpioinit();
  DBG_INFO("set stm32 mode UPGRADE\n");
  set_stm32_mode(1);
  DBG_INFO("reset stm32 \n");
  reset_stm32();
  STM32_CONNECT();

  DBG_INFO("erase all\n");
  STM32_SEND_CMD(0x43);
  STM32_READ_ANSWER();
  DBG_INFO("revbuf: 0x%x\n", g_revbuf[0]);
  STM32_REQUIRE_ACK();
  {
    uint8_t global_erase[2] = {0xFF, 0x00};
    int ret = write_select(fd, global_erase, 2);
    if (ret != 2) {
      DBG_ERR("write connectcode return %d, break;\n", ret);
      return -1;
    }
  }
  STM32_READ_ANSWER();
  DBG_INFO("revbuf: 0x%x\n", g_revbuf[0]);
  STM32_REQUIRE_ACK();

  DBG_INFO("upgradeing...\n");
  uint32_t address = kStm32FlashStart;
  for (;;) {
    int n = read_select(file_fd, g_block, kStm32BlockSize);
    if (n < 0) {
      DBG_ERR("read return %d, break;\n", n);
      return -1;
    }
    if (n == 0) break;
    if (verbose == 2) DBG_INFO("read %d bytes from %s;\n", n, g_source_name);

    STM32_SEND_CMD(0x31);
    STM32_READ_ANSWER();
    if (verbose == 2) DBG_INFO("revbuf: 0x%x\n", g_revbuf[0]);
    STM32_REQUIRE_ACK();

    if (verbose == 2) DBG_INFO("startaddress: 0x%x\n", address);
    STM32_SEND_ADDRESS(address);
    STM32_READ_ANSWER();
    STM32_REQUIRE_ACK();

    uint8_t count_byte = static_cast<uint8_t>(n - 1);
    uint8_t checksum = count_byte;
    for (int i = 0; i < n; ++i) checksum ^= g_block[i];
    STM32_SEND(&count_byte, 1);
    STM32_SEND(g_block, n);
    if (verbose == 2) DBG_INFO("write xorvalue 0x%x;\n", checksum);
    STM32_SEND(&checksum, 1);
    STM32_READ_ANSWER();
    if (verbose == 2) DBG_INFO("revbuf: 0x%x\n\n", g_revbuf[0]);
    STM32_REQUIRE_ACK();

    address += static_cast<uint32_t>(n);
  }

  DBG_INFO("read file return 0\n");
  STM32_SEND_CMD(0x21);
  STM32_READ_ANSWER();
  DBG_INFO("revbuf: 0x%x\n", g_revbuf[0]);
  STM32_REQUIRE_ACK();
  DBG_INFO("startaddress: 0x%x\n", kStm32FlashStart);
  STM32_SEND_ADDRESS(kStm32FlashStart);
  STM32_READ_ANSWER();
  DBG_INFO("revbuf: 0x%x\n", g_revbuf[0]);
  STM32_REQUIRE_ACK();
  // Neither the port nor the file is closed, and BOOT0 stays high: Go has
  // started the new firmware already.
  return 0;
}
