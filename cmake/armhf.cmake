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
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Unit tests run under user-mode emulation.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;/usr/arm-linux-gnueabihf)
set(UPGRADE_BUILD_GTEST_FROM_SOURCE ON CACHE BOOL "" FORCE)
