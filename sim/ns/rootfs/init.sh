#!/bin/sh
# Init of a sandboxed camera: PID 1 of the camera's PID namespace, run by
# launch.sh inside the chroot. It waits for the rig's go-ahead, mounts what the
# camera's programs expect, starts the camera's stand-in processes and then the
# daemon, and stays its parent.
#
# /dev is a tmpfs the rig mounted before the launch (so that the test can read
# it during and after the run); /proc and /sys belong to this camera only.
export PATH=/bin:/sbin:/usr/bin:/usr/sbin
export HOME=/
cd /

# The rig writes "go" on our standard input once it has checked the
# namespaces from outside and put eth0 in place. Nothing is touched before.
read -r go
[ "$go" = go ] || { echo "init: no go-ahead from the rig" >&2; exit 95; }
exec </dev/null

mount -t proc proc /proc || { echo "init: cannot mount /proc" >&2; exit 96; }
mount -t sysfs sysfs /sys 2>/dev/null
hostname "$(/bin/busybox cat /.rig/hostname 2>/dev/null || echo camera)"

# busybox "reboot", "halt" and "poweroff" without -f signal PID 1; a camera's
# init then restarts the board. Do the same through reboot(2), so that the rig
# sees every kind of restart as the end of the namespace.
trap 'echo TERM > /.rig/init_signal; exec /.rig/bin/rig-reboot' TERM
trap 'echo USR1 > /.rig/init_signal; exec /.rig/bin/rig-reboot halt' USR1
trap 'echo USR2 > /.rig/init_signal; exec /.rig/bin/rig-reboot poweroff' USR2

for name in $(/bin/busybox cat /.rig/apps.list 2>/dev/null); do
    "/.rig/apps/$name" >/dev/null 2>&1 &
done
/.rig/bin/rig-udprec 1259 /.rig/calls/control.log >/dev/null 2>>/.rig/console/rig.log &

if [ -f /.rig/dhcp ]; then
    udhcpc -f -i eth0 -s /usr/share/udhcpc/default.script \
        >>/.rig/console/udhcpc.log 2>&1 &
fi

# The daemon, once; again each time the rig left /.rig/respawn before it
# ended (a daemon killed on purpose and started anew, /dev and all else as
# it was). The console of an ended run is kept as stdout.runN / stderr.runN.
run=0
while :; do
    /bin/sh /.rig/start-daemon &
    daemon=$!
    echo "$daemon" > /.rig/daemon.pid
    wait "$daemon"
    echo "$?" > /.rig/daemon.exit
    [ -f /.rig/respawn ] || break
    /bin/busybox rm -f /.rig/respawn
    run=$((run + 1))
    for f in stdout stderr; do /bin/busybox mv "/.rig/console/$f" "/.rig/console/$f.run$run"; done
done
