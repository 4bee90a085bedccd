#!/bin/sh
# Enters a camera root as the init of a sandboxed camera.
#
#   unshare --mount --net --pid --uts --fork --propagation private \
#       launch.sh ROOT OUTSIDE_NS...
#
# OUTSIDE_NS are the namespace links of the world outside the sandbox, as
# readlink prints them ("pid:[4026531836]", "mnt:[...]", ...): the rig passes
# its own and those of the host's PID 1. The camera's programs reboot the
# machine, arm the watchdog and kill processes by name, so nothing is started
# unless this process is PID 1 of a fresh PID namespace and its mount, network
# and UTS namespaces differ from every one given. Refusal exits with 97.
set -u

refuse() {
    echo "launch.sh: refusing to start the camera: $*" >&2
    exit 97
}

[ $# -ge 2 ] || refuse "usage: launch.sh ROOT OUTSIDE_NS..."
root=$1
shift

[ "$$" = 1 ] || refuse "not PID 1 of a new PID namespace (pid $$)"
for kind in pid mnt net uts; do
    mine=$(readlink "/proc/self/ns/$kind") || refuse "cannot read /proc/self/ns/$kind"
    [ -n "$mine" ] || refuse "cannot read /proc/self/ns/$kind"
    for outside in "$@"; do
        [ "$mine" != "$outside" ] || refuse "the $kind namespace is not new ($mine)"
    done
done
[ -x "$root/.rig/init" ] || refuse "$root is not a camera root"

exec chroot "$root" /.rig/init
