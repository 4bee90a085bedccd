// OEM fixed-serial record "/data/fix_camera_serial.dat": the serial number
// the factory sets and the video application shows.
//
// Layout (72 bytes, little-endian):
//   0  char[4]  magic "FSER"
//   4  uint32   layout version (1)
//   8  char[64] serial number, NUL-padded (at most 63 characters)
// Created with an empty serial when absent; read and written under flock.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr const char* kOemSerialPath = "/data/fix_camera_serial.dat";
inline constexpr size_t kOemSerialRecordSize = 72;
inline constexpr size_t kOemSerialLen = 64;
inline constexpr uint32_t kOemSerialVersion = 1;

// Fills out (size bytes) with the stored serial ("" when the record is new
// or not of this layout). 0, or -1 when the file cannot be opened.
int oem_serial_read(char* out, size_t size);
// Stores serial (cut to 63 characters). 0 or -1.
int oem_serial_write(const char* serial);
