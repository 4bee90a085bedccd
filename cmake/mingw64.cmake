# Cross build of camtool for 64-bit Windows with Debian's mingw-w64 (the
# posix threads variant). nettle and libsodium come from .deps/mingw, where
# tools/mingw-deps builds them from Debian's source packages; CLI11 and
# nlohmann-json are Debian's headers. Programs run under wine
# (cmake/wine-run). Only wire/ and camtool/ are built: see CMakeLists.txt.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

set(MINGW_DEPS ${CMAKE_CURRENT_LIST_DIR}/../.deps/mingw)
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32 ${MINGW_DEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(SODIUM_LIB ${MINGW_DEPS}/lib/libsodium.a CACHE FILEPATH "libsodium for Windows")
set(SODIUM_INCLUDE ${MINGW_DEPS}/include CACHE PATH "sodium.h for Windows")
set(NETTLE_LIB ${MINGW_DEPS}/lib/libnettle.a CACHE FILEPATH "nettle for Windows")
set(NETTLE_INCLUDE ${MINGW_DEPS}/include CACHE PATH "nettle/md5.h for Windows")
# CLI11 and nlohmann-json: Debian's headers, linked into .deps/mingw/include
# (never /usr/include itself: its C headers are the host's).

# One .exe with nothing beside it: the C++ and threads runtimes linked in.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
# Windows 10 APIs (inet_pton, GetAdaptersAddresses' fields); libsodium is
# linked statically (no dllimport).
set(CMAKE_C_FLAGS_INIT "-D_WIN32_WINNT=0x0A00 -DWINVER=0x0A00 -DSODIUM_STATIC")
set(CMAKE_CXX_FLAGS_INIT "-D_WIN32_WINNT=0x0A00 -DWINVER=0x0A00 -DSODIUM_STATIC")

# Unit tests run under wine, in a prefix inside the build folder.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run)
set(UPGRADE_BUILD_GTEST_FROM_SOURCE ON CACHE BOOL "" FORCE)
