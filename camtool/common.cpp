#include "camtool/common.h"

#include <random>

namespace camtool {

std::string random_id() {
  static std::mt19937_64 gen{std::random_device{}()};
  static const char kHex[] = "0123456789abcdef";
  std::string id;
  for (int i = 0; i < 32; ++i) id += kHex[gen() & 15u];
  return id;
}

// interrupted() and install_interrupt_handler() ask the system: os_*.cpp.

}  // namespace camtool
