#!/bin/sh
# What statically linked libnorm adds to a camera program: builds
# bench/norm_file.cpp (a NORM file receiver and sender) and an empty program
# with the camera's cross compiler and -Os, links Debian's armhf libnorm.a
# and libprotokit.a statically, strips them and prints the sizes: once with
# the C++ runtime shared (as the daemon is linked) and once fully static;
# and, when the armhf preset is built, the camera daemon stripped as it is
# and relinked with libnorm. Prints figures only.
#
#   bench/norm_armhf_size.sh [SCRATCH_DIR]     (default /tmp/norm-armhf)
#
# Needs g++-arm-linux-gnueabihf and apt access to libnorm-dev:armhf (armhf
# added with dpkg --add-architecture); the packages are unpacked into
# SCRATCH_DIR, never installed.
set -eu
top=$(cd "$(dirname "$0")/.." && pwd)
scratch=${1:-/tmp/norm-armhf}
root=$scratch/root
lib=$root/usr/lib/arm-linux-gnueabihf
cxx=arm-linux-gnueabihf-g++
strip=arm-linux-gnueabihf-strip

if [ ! -f "$lib/libnorm.a" ]; then
  mkdir -p "$scratch"
  (cd "$scratch" && apt-get download libnorm-dev:armhf >/dev/null)
  for deb in "$scratch"/libnorm-dev_*_armhf.deb; do dpkg-deb -x "$deb" "$root"; done
fi

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
printf 'int main() { return 0; }\n' > "$out/empty.cpp"
flags="-Os -std=c++20 -Wall -Wextra -Werror -D_FILE_OFFSET_BITS=64"

build() {  # name source link-mode libs...
  name=$1 src=$2 mode=$3
  shift 3
  # shellcheck disable=SC2086
  $cxx $flags $mode "$src" -isystem "$root/usr/include" "$@" -o "$out/$name" \
    -Wl,-Map="$out/$name.map" 2>"$out/$name.log" || { cat "$out/$name.log"; exit 1; }
  $strip -o "$out/$name.s" "$out/$name"
  stat -c %s "$out/$name.s"
}

norm="$lib/libnorm.a $lib/libprotokit.a -lpthread"
for mode in shared static; do
  m=""
  [ "$mode" = static ] && m="-static"
  e=$(build "empty-$mode" "$out/empty.cpp" "$m")
  # shellcheck disable=SC2086
  n=$(build "norm-$mode" "$top/bench/norm_file.cpp" "$m" $norm)
  printf 'C++ runtime %-6s  empty %7d B  norm_file %7d B  added by NORM and its glue %7d B (%d KiB)\n' \
    "$mode" "$e" "$n" $((n - e)) $(((n - e) / 1024))
done
printf 'objects linked from libnorm.a/libprotokit.a: '
grep -oE 'lib(norm|protokit)\.a\([^)]+\)' "$out/norm-shared.map" | sort -u | sed 's/.*(\(.*\)\.cpp\.o)/\1/' | tr '\n' ' '
echo
printf 'libxml2 referenced: '
if grep -qi 'xml' "$out/norm-shared.map"; then echo yes; else echo no; fi
printf 'shared libraries needed: '
arm-linux-gnueabihf-readelf -d "$out/norm-shared" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | tr '\n' ' '
echo
arm-linux-gnueabihf-size "$out/norm-shared" | tail -1 | awk '{printf "norm_file (shared runtime): text %d data %d bss %d bytes\n", $1, $2, $3}'
grep -h 'warning' "$out"/norm-static.log | sed 's/^.*warning: /static link warning: /' | sort -u || true

# The camera daemon itself, relinked with libnorm (the receiver's entry
# points kept referenced, as the transfer's glue would), when the armhf
# preset has been built.
arm=$top/build/armhf
deps=$top/.deps/armhf/usr/lib/arm-linux-gnueabihf
if [ -f "$arm/upgrade" ] && [ -f "$arm/CMakeFiles/upgrade.dir/core/main.cpp.o" ]; then
  cat > "$out/glue.cpp" <<'EOF2'
#include <normApi.h>
extern "C" void* norm_glue_refs[];
void* norm_glue_refs[] = {
    (void*)&NormCreateInstance, (void*)&NormCreateSession, (void*)&NormSetMulticastInterface,
    (void*)&NormSetCacheDirectory, (void*)&NormStartReceiver, (void*)&NormGetNextEvent,
    (void*)&NormGetDescriptor, (void*)&NormFileRename, (void*)&NormObjectGetSize,
    (void*)&NormObjectCancel, (void*)&NormObjectGetInfo, (void*)&NormFileGetName,
    (void*)&NormSetRxSocketBuffer, (void*)&NormStopReceiver, (void*)&NormDestroySession,
    (void*)&NormDestroyInstance};
EOF2
  $cxx $flags -c "$out/glue.cpp" -isystem "$root/usr/include" -o "$out/glue.o"
  $cxx -Os "$arm/CMakeFiles/upgrade.dir/core/main.cpp.o" "$out/glue.o" -Wl,--undefined=norm_glue_refs \
    -o "$out/upgrade-norm" "$arm/libupgrade_daemon.a" "$arm/libwire.a" "$deps/libsodium.a" \
    "$deps/libuuid.a" $norm
  $strip -o "$out/upgrade.s" "$arm/upgrade"
  $strip -o "$out/upgrade-norm.s" "$out/upgrade-norm"
  d=$(stat -c %s "$out/upgrade.s")
  dn=$(stat -c %s "$out/upgrade-norm.s")
  printf 'armhf daemon stripped %d B (%d KiB); with libnorm %d B (%d KiB): +%d B\n' \
    "$d" $((d / 1024)) "$dn" $((dn / 1024)) $((dn - d))
else
  echo "(build the armhf preset for the daemon's own figures)"
fi
