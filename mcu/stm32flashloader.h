// STM32 system-memory bootloader client over a UART.
#pragma once

// 0 when the bootloader answered ACK to the sync byte, else -1.
int check_arm_status(int type, const char* device);
