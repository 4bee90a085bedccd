"""Camera sandbox: runs the unmodified host build of `upgrade` as on a camera.

Each camera is a root directory (busybox applets, fw_setenv, the daemon, the
stand-ins and the fixture files) entered through launch.sh in fresh PID,
mount, network and UTS namespaces. Cameras hang off a LAN: a network
namespace with a bridge, from which the test talks to them over multicast,
UDP and TCP. Everything runs as root; see README.md for the API.

The rig is split over rigbase.py (constants, host helpers), camroot.py (fixture
files of a camera root), session.py (session, leftovers), lan.py (the LAN),
transfer.py (the tool's side of a multicast upgrade), power.py (boots a
camera again after its reboot) and this file (the camera); every public name is importable from here.
"""

from __future__ import annotations

import contextlib
import dataclasses
import os
import re
import shutil
import signal
import socket
import stat
import subprocess
import threading
import time
from pathlib import Path

from camroot import (  # noqa: F401  (re-exported)
    DEFAULT_FILES, DEFAULT_FW_ENV_CONFIG, DEFAULT_MTD, DEFAULT_PID_LIST, DEFAULT_UBOOT_ENV,
    CameraFiles, del_list_text, mtd_text, pid_list_text)
from lan import Lan, Listener, Reply, search_datagram  # noqa: F401  (re-exported)
from power import PowerOn  # noqa: F401  (re-exported)
from rigbase import (  # noqa: F401  (re-exported)
    BATCH_GROUP, CAMERA_PATH, CLONE_NEWNET, CONTROL_PORT, HERE, LAUNCH, NETNS_PREFIX, NS_KINDS,
    ROOTFS, SEARCH_GROUP, SESSION_PREFIX, TCP_PORT, TOOL_PATH, RigError, in_netns, ns_link,
    outside_namespaces, parent_of, pid_alive, run, shell_quote, wait_until, TIME_SCALE)
from session import (  # noqa: F401  (re-exported)
    Session, leftovers, shared_libraries, sweep_stale)
from tracking import TRACKING_PORT, TrackingService  # noqa: F401  (re-exported)
from transfer import (  # noqa: F401  (re-exported)
    STATUS_GROUP, Transfer, confirmation, packet, packets, wait_ready, zip_package)


# --------------------------------------------------------------------------
# the camera


def _fresh_uptime():
    """unshare options for a time namespace whose boot-time clock starts near
    0, so that the camera's uptime (sysinfo, /proc/uptime) counts from this
    boot, as on a camera; none where the kernel has no time namespaces."""
    if not os.path.exists("/proc/self/ns/time"):
        return []
    return ["--time", "--boottime", str(-int(time.clock_gettime(time.CLOCK_BOOTTIME)))]


@dataclasses.dataclass
class Proc:
    host_pid: int
    pid: int  # as the camera sees it
    comm: str
    argv: list


class Camera(CameraFiles):
    """One sandboxed camera. Create through Camera(...) and start(), or with
    the start_camera fixture. Every keyword has a camera-like default:

    word        the daemon's command-line word (None: no word)
    ip, mac     eth0's address (default: next free on the LAN) and MAC
    dhcp        True: no static address; udhcpc (LAN's server) configures eth0
    gateway     default route (LAN's address; None for none)
    net_conf    /data/net.conf text (default built from ip/mac/dhcp)
    pid_list    names for /customer/pid_list; a dummy process runs per name
    del_list    paths for /customer/del_list (None: file absent)
    mtd         /proc/mtd: text, or list of (size, erasesize, name)
    fw_env_config  /etc/fw_env.config text; fw_env: dict set with fw_setenv
    files       {camera path: str | bytes | None} written (None: removed)
                on top of the defaults (model "K1.T", version "V2.5.1",
                arm_version_file, resolv.conf)
    dev_size    size of the /dev tmpfs ("64m")
    dev_files   {"/dev/...": bytes} written into the fresh /dev at each boot
    flash       {N: size} or True (sizes from mtd): /dev/mtdN files (0xFF)
    usb         {name: bytes}: a tmpfs mounted at /mnt/usb holding these files
    env         extra environment variables for the daemon
    stand_ins   {name: dict(rc=, out=, delay=)} answers of himm/arm_upgrade
    apps        extra dummy process names (besides pid_list and ntp_client)
    serial      True: /dev/ttyS1 is a pty whose master is camera.serial
    """

    def __init__(self, session, lan, name=None, *, word=None, ip=None, mac=None, dhcp=False,
                 gateway=True, net_conf=None, pid_list=None, del_list=(), mtd=None,
                 fw_env_config=DEFAULT_FW_ENV_CONFIG, fw_env=None, files=None, dev_size="64m",
                 dev_files=None, flash=None, usb=None, env=None, stand_ins=None, apps=(),
                 serial=True, hostname="camera"):
        self.session = session
        self.lan = lan
        n = session.next_id()
        self.name = name or f"cam{n}"
        self.root = session.workdir / f"{self.name}-{n}"
        self.word = word
        self.dhcp = dhcp
        self.if_index = lan.new_if_index()
        self.ip = None if dhcp else (ip or lan.new_host_address())
        self.mac = mac or f"02:00:00:77:00:{self.if_index:02x}"
        self.gateway = (lan.ip if gateway is True else gateway) or None
        self.env = dict(env or {})
        self.dev_size = dev_size
        self.dev_files = dict(dev_files or {})
        self.flash = flash
        self.usb = usb
        self.serial_wanted = serial
        self.serial = None  # pty master fd while the camera runs
        self._serial_slave = None
        self.pid_list = list(DEFAULT_PID_LIST if pid_list is None else pid_list)
        self.mtd = DEFAULT_MTD if mtd is None else mtd
        self.proc = None
        self.init_pid = None
        self.started_at = None
        self.ended_at = None
        self.boots = 0
        self._mounts = []
        self._sockets = []
        self._stopped = False
        self._host_if = None
        self._watcher = None
        self._ended = threading.Event()
        self._build(net_conf, del_list, fw_env_config, fw_env, files, stand_ins, apps, hostname)
        lan.cameras.append(self)


    # -- console

    def stdout(self):
        return self.read_text("/.rig/console/stdout") or ""

    def stderr(self):
        return self.read_text("/.rig/console/stderr") or ""

    def lines(self, stream="stdout"):
        """Console lines of the daemon: stream is "stdout", "stderr" or "both"."""
        if stream == "both":
            return self.stdout().splitlines() + self.stderr().splitlines()
        return (self.stdout() if stream == "stdout" else self.stderr()).splitlines()

    def wait_line(self, pattern, timeout=5.0, stream="both"):
        """Waits for a console line containing `pattern` (str) or matching it
        (compiled regex); returns the line. Fails early if the camera ends."""

        def find():
            for line in self.lines(stream):
                if (pattern.search(line) if hasattr(pattern, "search") else pattern in line):
                    return line
            return None

        deadline = time.monotonic() + timeout * TIME_SCALE
        while True:
            line = find()
            if line is not None:
                return line
            if self._ended.is_set():
                line = find()
                if line is not None:
                    return line
                raise AssertionError(f"{self.name} ended ({self.end_reason()}) before "
                                     f"printing {pattern!r}{self._tail()}")
            if time.monotonic() >= deadline:
                raise AssertionError(f"{self.name}: no line {pattern!r} within "
                                     f"{timeout}s{self._tail()}")
            time.sleep(0.02)

    def _tail(self, n=15):
        out = self.lines("stdout")[-n:]
        err = self.lines("stderr")[-n:]
        rig = (self.read_text("/.rig/console/init.log") or "").splitlines()[-n:]
        text = "\n  stdout: " + "\n  stdout: ".join(out) if out else ""
        text += "\n  stderr: " + "\n  stderr: ".join(err) if err else ""
        text += "\n  init:   " + "\n  init:   ".join(rig) if rig else ""
        return f"\n  (root {self.root}){text}"

    # -- life cycle

    def start(self, ready="init socket succeed", timeout=10.0):
        """Boots the camera: fresh /dev, namespaces, network, daemon. With
        `ready` (a console text) it returns once the daemon printed it."""
        if self.running:
            raise RigError(f"{self.name} is already running")
        if self.proc is not None:
            self.stop()  # the previous boot's /dev and veth
        self.boots += 1
        self._rotate_console()
        for f in ("daemon.pid", "daemon.exit", "init_signal"):
            self.write(f"/.rig/{f}", None)
        self._mount_dev()
        self._write_start_script()
        self._ended.clear()
        self._stopped = False
        self.ended_at = None
        init_log = open(self.path("/.rig/console/init.log"), "ab")
        try:
            self.proc = subprocess.Popen(
                ["unshare", "--mount", "--net", "--pid", "--uts", *_fresh_uptime(), "--fork",
                 "--propagation", "private", "/bin/sh", str(LAUNCH), str(self.root),
                 *outside_namespaces()],
                stdin=subprocess.PIPE, stdout=init_log, stderr=subprocess.STDOUT,
                start_new_session=True, env={"PATH": TOOL_PATH})
        finally:
            init_log.close()
        self._watcher = threading.Thread(target=self._watch, args=(self.proc,), daemon=True,
                                         name=f"{self.name}-watch")
        self._watcher.start()
        try:
            self.init_pid = self._find_init()
            self._check_namespaces()
            self._wire_network()
            self.started_at = time.monotonic()
            self.proc.stdin.write(b"go\n")
            self.proc.stdin.close()
        except BaseException:
            self.stop()
            raise
        if not wait_until(lambda: self.exists("/.rig/daemon.pid") or self._ended.is_set(), 5):
            raise RigError(f"{self.name}: the init did not start the daemon{self._tail()}")
        if ready:
            self.wait_line(ready, timeout)
        return self

    def _rotate_console(self):
        con = self.path("/.rig/console")
        if self.boots > 1:
            for f in ("stdout", "stderr"):
                if (con / f).exists():
                    os.replace(con / f, con / f"{f}.boot{self.boots - 1}")

    def _write_start_script(self):
        env = {"PATH": CAMERA_PATH, "HOME": "/", **self.env}
        assigns = " ".join(f"{k}={shell_quote(v)}" for k, v in env.items())
        word = "" if self.word is None else " " + shell_quote(self.word)
        self.write("/.rig/start-daemon",
                   "# written by the rig at each boot\n"
                   f"exec env -i {assigns} /bin/upgrade{word} </dev/null "
                   ">/.rig/console/stdout 2>/.rig/console/stderr\n")

    def _find_init(self):
        children = f"/proc/{self.proc.pid}/task/{self.proc.pid}/children"

        def child():
            try:
                text = Path(children).read_text().split()
            except OSError:  # a kernel without the children file
                text = [e for e in os.listdir("/proc")
                        if e.isdigit() and parent_of(e) == self.proc.pid]
            return int(text[0]) if text else None

        pid = wait_until(lambda: child() or self._ended.is_set(), 5, 0.002)
        if not pid or pid is True:
            raise RigError(f"{self.name}: no namespace init appeared{self._tail()}")
        return pid

    def _check_namespaces(self):
        outside = set(outside_namespaces())
        for kind in NS_KINDS:
            link = ns_link(self.init_pid, kind)
            if link is None or link in outside:
                raise RigError(f"{self.name}: the camera's {kind} namespace is not new")

    def _wire_network(self):
        # A new name per boot: the kernel removes the previous boot's veth
        # asynchronously once that network namespace is gone.
        lan, host_if = self.lan, f"vc{self.if_index}b{self.boots}"
        self._host_if = host_if
        run(["ip", "-n", lan.name, "link", "add", host_if, "type", "veth", "peer", "name",
             "eth0", "netns", str(self.init_pid)])
        run(["ip", "-n", lan.name, "link", "set", host_if, "master", "br0", "up"])
        cmds = ["link set lo up", f"link set eth0 address {self.mac}"]
        if not self.dhcp:
            cmds.append(f"addr add {self.ip}/24 brd + dev eth0")
        cmds.append("link set eth0 up")
        if self.gateway and not self.dhcp:
            cmds.append(f"route add default via {self.gateway} dev eth0")
        elif not self.dhcp:
            # Without a default route multicast needs a route of its own.
            cmds.append("route add 224.0.0.0/4 dev eth0")
        run(["nsenter", f"--net=/proc/{self.init_pid}/ns/net", "ip", "-batch", "-"],
            input="\n".join(cmds) + "\n")

    def _mount(self, argv, target):
        run(["mount", *argv, target])
        self._mounts.append(str(target))

    def _mount_dev(self):
        dev = self.path("/dev")
        self._mount(["-t", "tmpfs", "-o", f"size={self.dev_size},mode=755", "rigdev"], dev)
        for node, major, minor in (("null", 1, 3), ("zero", 1, 5), ("random", 1, 8),
                                   ("urandom", 1, 9), ("tty", 5, 0)):
            os.mknod(dev / node, 0o666 | stat.S_IFCHR, os.makedev(major, minor))
            os.chmod(dev / node, 0o666)
        with open(dev / "mem", "wb") as f:
            f.truncate(1 << 32)
        if self.flash:
            # Flash survives a reboot: images kept at the last stop come back.
            kept = self.path("/.rig/flash")
            sizes = ({i: size for i, (size, _e, _n) in enumerate(self.mtd)}
                     if self.flash is True else dict(self.flash))
            for i, size in sizes.items():
                if (kept / f"mtd{i}").exists():
                    shutil.copy2(kept / f"mtd{i}", dev / f"mtd{i}")
                else:
                    with open(dev / f"mtd{i}", "wb") as f:
                        f.write(b"\xff" * size)
        for p, content in self.dev_files.items():
            self.write(p, content)
        if self.serial_wanted:
            self.serial, self._serial_slave = os.openpty()
            (dev / "ttyS1").write_bytes(b"")
            self._mount(["--bind", os.ttyname(self._serial_slave)], dev / "ttyS1")
        if self.usb is not None:
            usb = self.path("/mnt/usb")
            self._mount(["-t", "tmpfs", "-o", "size=256m", "usbdisk"], usb)
            for name, content in self.usb.items():
                self.write(f"/mnt/usb/{name}", content)

    def _keep_flash(self):
        if not self.flash or not self._mounts:
            return
        kept = self.path("/.rig/flash")
        kept.mkdir(exist_ok=True)
        for img in self.path("/dev").glob("mtd[0-9]*"):
            if re.fullmatch(r"mtd\d+", img.name) and img.is_file():
                shutil.copy2(img, kept / img.name)

    def _unmount_all(self):
        with contextlib.suppress(OSError):
            self._keep_flash()
        for s in self._sockets:
            with contextlib.suppress(OSError):
                s.close()
        self._sockets.clear()
        for target in reversed(self._mounts):
            if run(["umount", target], check=False).returncode != 0:
                run(["umount", "-l", target], check=False)
        self._mounts.clear()
        for fd in (self.serial, self._serial_slave):
            if fd is not None:
                with contextlib.suppress(OSError):
                    os.close(fd)
        self.serial = self._serial_slave = None

    def _watch(self, proc):
        proc.wait()
        if proc is self.proc:
            self.ended_at = time.monotonic()
            self._ended.set()
            if self.rebooted:
                since = self.ended_at - (self.started_at or self.ended_at)
                print(f"[rig] {self.name} rebooted {since:.2f} s after start")

    @property
    def running(self):
        return self.proc is not None and not self._ended.is_set()

    @property
    def returncode(self):
        """unshare's status: -1 (SIGHUP) for a reboot, 0 when the daemon ended,
        97 when the launcher refused, ..."""
        return None if self.proc is None else self.proc.returncode

    @property
    def rebooted(self):
        """The camera ended through reboot(2) (or busybox reboot)."""
        return self._ended.is_set() and self.proc.returncode in (-signal.SIGHUP, 128 + signal.SIGHUP)

    @property
    def daemon_exit(self):
        """The daemon's exit status (shell form: 128+N for signal N), or None."""
        text = self.read_text("/.rig/daemon.exit")
        return int(text) if text and text.strip().isdigit() else None

    @property
    def daemon_pid(self):
        """The daemon's process ID inside the camera."""
        text = self.read_text("/.rig/daemon.pid")
        return int(text) if text and text.strip().isdigit() else None

    def end_reason(self):
        if not self._ended.is_set():
            return "running"
        rc = self.proc.returncode
        if self.rebooted:
            via = self.read_text("/.rig/init_signal")
            return "rebooted" + (f" (busybox, init signal {via.strip()})" if via else "")
        if rc in (-signal.SIGINT, 128 + signal.SIGINT):
            return "powered off"
        if rc == 97:
            return "launcher refused"
        if self._stopped:
            return "stopped by the rig"
        if self.daemon_exit is not None:
            return f"daemon exited with {self.daemon_exit}"
        return f"ended with {rc}"

    def wait_end(self, timeout=10.0):
        if not self._ended.wait(timeout):
            raise AssertionError(f"{self.name} still running after {timeout}s{self._tail()}")
        return self.end_reason()

    def wait_reboot(self, timeout=15.0):
        """Waits for the camera to reboot; returns the seconds from the daemon's
        start to the reboot."""
        if not self._ended.wait(timeout):
            raise AssertionError(f"{self.name} did not reboot within {timeout}s{self._tail()}")
        if not self.rebooted:
            raise AssertionError(f"{self.name} ended without a reboot: {self.end_reason()}"
                                 f"{self._tail()}")
        return self.ended_at - self.started_at

    def processes(self):
        """Processes of the camera's PID namespace."""
        if not self.running:
            return []
        ns = ns_link(self.init_pid, "pid")
        procs = []
        for entry in os.listdir("/proc"):
            if not entry.isdigit() or ns_link(entry, "pid") != ns:
                continue
            try:
                status = Path(f"/proc/{entry}/status").read_text()
                argv = Path(f"/proc/{entry}/cmdline").read_bytes().split(b"\0")
                comm = Path(f"/proc/{entry}/comm").read_text().strip()
            except OSError:
                continue
            nspid = re.search(r"^NSpid:\s+(.*)$", status, re.M).group(1).split()[-1]
            procs.append(Proc(int(entry), int(nspid), comm,
                              [a.decode(errors="replace") for a in argv if a]))
        return sorted(procs, key=lambda p: p.pid)

    def exec(self, command, timeout=30, check=False):
        """Runs a shell command inside the running camera (all its namespaces,
        its root); returns the CompletedProcess."""
        if not self.running:
            raise RigError(f"{self.name} is not running")
        time_ns = ["--time"] if ns_link(self.init_pid, "time") != ns_link("self", "time") else []
        return run(["nsenter", f"--target={self.init_pid}", "--mount", "--uts", "--net",
                    "--pid", *time_ns, "--root", "--wd", "env", "-i", f"PATH={CAMERA_PATH}",
                    "/bin/sh", "-c", command], check=check, timeout=timeout)

    def socket(self, kind=socket.SOCK_DGRAM, family=socket.AF_INET):
        """A socket of the test process inside the camera's network namespace
        (e.g. to talk to the daemon over its loopback). Closed at stop."""
        if not self.running:
            raise RigError(f"{self.name} is not running")
        s = in_netns(f"/proc/{self.init_pid}/ns/net", lambda: socket.socket(family, kind))
        self._sockets.append(s)
        return s

    def daemon_host_pid(self):
        """The daemon's process ID on the host (for its /proc entry)."""
        ns_pid = self.daemon_pid
        for p in self.processes():
            if p.pid == ns_pid:
                return p.host_pid
        raise RigError(f"{self.name}: no daemon process{self._tail()}")

    def freeze_daemon(self):
        """Stops the daemon (SIGSTOP) and kills its forked copies (installer
        children): what the camera holds is then what a killed daemon
        leaves. The programs they ran (shell commands, unzip, the controller
        programmer) run on as orphans, as after a real kill. kill_daemon()
        ends the daemon."""
        daemon = self.daemon_host_pid()
        os.kill(daemon, signal.SIGSTOP)
        pending, copies = [daemon], []
        while pending:
            pid = pending.pop()
            for task in Path(f"/proc/{pid}/task").glob("*"):
                with contextlib.suppress(OSError):
                    pending += [int(c) for c in (task / "children").read_text().split()]
            with contextlib.suppress(OSError):
                if pid != daemon and Path(f"/proc/{pid}/comm").read_text().strip() == "upgrade":
                    copies.append(pid)
        for pid in copies:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)

    def kill_daemon(self, ready="init socket succeed", timeout=10.0):
        """SIGKILLs the daemon; the camera's init starts it again at once with
        /dev, flash and every file as they were (the console of the killed
        run is kept as stdout.runN). Returns once the new run printed
        `ready`."""
        old = self.daemon_pid
        self.write("/.rig/respawn", "")
        os.kill(self.daemon_host_pid(), signal.SIGKILL)
        if not wait_until(lambda: self.daemon_pid not in (None, old) or self._ended.is_set(),
                          timeout):
            raise RigError(f"{self.name}: the daemon was not started again{self._tail()}")
        if ready:
            self.wait_line(ready, timeout)

    def resources(self):
        """The daemon's open descriptors, threads and resident memory (KiB),
        read from its /proc entry on the host."""
        proc = Path(f"/proc/{self.daemon_host_pid()}")
        status = (proc / "status").read_text()
        field = lambda k: int(re.search(rf"^{k}:\s+(\d+)", status, re.M).group(1))  # noqa: E731
        return {"fds": len(os.listdir(proc / "fd")), "threads": field("Threads"),
                "rss_kib": field("VmRSS")}

    def reboot(self, how="reboot(2)"):
        """Reboots the camera from inside: "reboot(2)" as the daemon does, or
        "busybox" (busybox reboot, which signals init)."""
        cmd = "/.rig/bin/rig-reboot" if how == "reboot(2)" else "/bin/busybox reboot"
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.exec(cmd + " >/dev/null 2>&1 &", timeout=5)

    def stop(self):
        """Ends the camera (its whole PID namespace) and unmounts its /dev."""
        p = self.proc
        if p is not None and p.poll() is None:
            self._stopped = True
            init = self.init_pid
            if init and parent_of(init) == p.pid:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(init, signal.SIGKILL)
            try:
                p.wait(5)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait(5)
        if self._watcher is not None:
            self._watcher.join(5)
        if self._host_if and self.lan.up:
            run(["ip", "-n", self.lan.name, "link", "del", self._host_if], check=False)
        self._host_if = None
        if p is not None and p.stdin and not p.stdin.closed:
            with contextlib.suppress(OSError):
                p.stdin.close()
        self._unmount_all()

    def restart(self, **kw):
        """Stops (if needed) and boots again with the same root: /dev is fresh,
        /data, /customer and the boot environment are kept."""
        self.stop()
        return self.start(**kw)

    def snapshot_dev(self):
        """Copies /dev's small regular files under /.rig/dev-at-stop for
        inspection (done when a failed test keeps the root)."""
        dest = self.path("/.rig/dev-at-stop")
        src = self.path("/dev")
        mounted = set(self._mounts)
        for entry in os.scandir(src):
            st = os.lstat(entry.path)
            if (entry.path in mounted or not stat.S_ISREG(st.st_mode)
                    or st.st_size >= (4 << 20)):
                continue
            dest.mkdir(exist_ok=True)
            with contextlib.suppress(OSError):
                shutil.copy2(entry.path, dest / entry.name)

    def teardown(self, keep=False):
        if keep:
            with contextlib.suppress(OSError):
                self.snapshot_dev()
        self.stop()
        if self in self.lan.cameras:
            self.lan.cameras.remove(self)
        if keep:
            self.session.kept.append(self.root)
        else:
            shutil.rmtree(self.root, ignore_errors=True)

    @property
    def device_id(self):
        """The camera's 32-character identity (/data/uuid_file)."""
        data = self.read("/data/uuid_file")
        return None if data is None else data.decode(errors="replace")

    def wait_dhcp(self, timeout=10.0):
        """Waits for the DHCP client's lease; returns (and sets) the address."""
        self.wait_file("/dev/dhcp_ok", timeout)
        for line in reversed(self.calls("udhcpc")):
            f = line.split()
            if f and f[0] in ("bound", "renew") and len(f) > 1:
                self.ip = f[1]
                return self.ip
        raise AssertionError(f"{self.name}: /dev/dhcp_ok but no lease logged")

    def __repr__(self):
        return f"<Camera {self.name} {self.ip or 'dhcp'} {self.end_reason()} root={self.root}>"
