# Cross build for the camera: 32-bit ARM, hard float, glibc.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# libuuid for armhf: Debian's multiarch uuid-dev:armhf, either installed
# (/usr/lib/arm-linux-gnueabihf) or unpacked by tools/setup-deps into
# .deps/armhf when the multiarch install is not possible.
set(ARMHF_DEPS ${CMAKE_CURRENT_LIST_DIR}/../.deps/armhf)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf ${ARMHF_DEPS})
set(CMAKE_LIBRARY_PATH ${ARMHF_DEPS}/usr/lib/arm-linux-gnueabihf /usr/lib/arm-linux-gnueabihf)
set(CMAKE_INCLUDE_PATH ${ARMHF_DEPS}/usr/include)
# libsodium as tools/setup-deps builds it (sodium/), before the binary package.
if(EXISTS ${ARMHF_DEPS}/sodium/lib/libsodium.a)
  set(SODIUM_LIB ${ARMHF_DEPS}/sodium/lib/libsodium.a CACHE FILEPATH "libsodium for armhf")
  set(SODIUM_INCLUDE ${ARMHF_DEPS}/sodium/include CACHE PATH "sodium.h for armhf")
endif()

# Every function and table in a section of its own, and the link keeps only
# those reached: the camera carries no unused code of its own or of the
# static libraries built that way.
set(CMAKE_C_FLAGS_INIT "-ffunction-sections -fdata-sections")
set(CMAKE_CXX_FLAGS_INIT "-ffunction-sections -fdata-sections")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--gc-sections")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Unit tests run under user-mode emulation.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/arm-linux-gnueabihf)
set(UPGRADE_BUILD_GTEST_FROM_SOURCE ON CACHE BOOL "" FORCE)
