// STM32 system-memory bootloader client over a UART (USART bootloader
// protocol: 0x7F sync, ACK 0x79, each command sent as code + complement).
//
// The controller is put into its bootloader by driving BOOT0 high and
// pulsing its reset line through SoC GPIOs (register mapping, memmap.h);
// which pins are used depends on the board type.
//
// Device paths are camera paths (cam_path): "/dev/ttyS1" on the camera.
#pragma once

#include <termios.h>

#include <cstdint>

enum cam_type {
  CAM_TYPE_K1 = 1,
  CAM_TYPE_K2_K3 = 2,
  CAM_TYPE_K4 = 3,
  CAM_TYPE_K5 = 4,
  CAM_TYPE_RQ500 = 5,
  CAM_TYPE_RQ500T = 6,
  CAM_TYPE_RQ500S = 7,
  CAM_TYPE_R300I = 8,
};

inline constexpr uint8_t kStm32Sync = 0x7F;
inline constexpr uint8_t kStm32Ack = 0x79;
inline constexpr uint8_t kStm32Nack = 0x1F;
inline constexpr uint32_t kStm32FlashStart = 0x08000000;
inline constexpr int kStm32BlockSize = 256;
// Every transfer waits at most this long for the descriptor.
inline constexpr int kSelectTimeoutSec = 3;

// Maps the GPIO blocks of daemon_state.board_type and selects GPIO function and output
// direction for the reset and BOOT0 pins. 0, or -1 when a mapping fails.
int gpioinit();
// 1: BOOT0 high (bootloader on next reset); 0: BOOT0 low. Others: nothing.
void set_stm32_mode(int mode);
// Reset line high, low, 200 ms, high, then 1 s for the bootloader to start.
void reset_stm32();
// Opens and configures the serial port (8 data bits, even parity, 1 stop
// bit, raw). The descriptor, or -1.
int uartinit(const char* device, speed_t speed);
// One write()/read() after select() reported the descriptor ready within
// 3 s. The byte count of that single call, or -1.
int write_select(int fd, const void* buf, int count);
int read_select(int fd, void* buf, int count);

// 0 when the bootloader answered ACK to the sync byte, else -1.
int check_arm_status(int type, const char* device);
// Erase all, write `source_file` from the flash start in 256-byte blocks,
// then Go. 0 on success, else -1. `verbose` == 2 logs every block.
int arm_upgrade(const char* device, const char* source_file, int verbose);
