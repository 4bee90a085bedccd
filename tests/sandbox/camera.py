"""Camera sandbox: runs the unmodified host build of `upgrade` as on a camera.

Each camera is a root directory (busybox applets, fw_setenv, the daemon, the
stand-ins and the fixture files) entered through launch.sh in fresh PID,
mount, network and UTS namespaces. Cameras hang off a LAN: a network
namespace with a bridge, from which the test talks to them over multicast,
UDP and TCP. Everything runs as root; see README.md for the API.
"""

from __future__ import annotations

import contextlib
import ctypes
import dataclasses
import itertools
import os
import re
import select
import shutil
import signal
import socket
import stat
import subprocess
import tempfile
import threading
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOTFS = HERE / "rootfs"
LAUNCH = HERE / "launch.sh"

SEARCH_GROUP = ("239.255.255.251", 8005)
BATCH_GROUP = ("239.255.255.252", 8006)
CONTROL_PORT = 1259
TCP_PORT = 5555

NS_KINDS = ("pid", "mnt", "net", "uts")
SESSION_PREFIX = "upgrade-rig-"
NETNS_PREFIX = "riglan"
TOOL_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
CAMERA_PATH = "/bin:/sbin:/usr/bin:/usr/sbin"

# Sixteen MiB of flash as the camera's kernel lists it.
DEFAULT_MTD = [
    (0x080000, 0x10000, "boot"),
    (0x300000, 0x10000, "kernel"),
    (0x900000, 0x10000, "rootfs"),
    (0x200000, 0x10000, "customer"),
    (0x180000, 0x10000, "data"),
]
# fw_setenv keeps the boot environment in a plain file. libubootenv treats
# every path that starts with "/dev/mtd" as a kernel MTD device (ioctls), so
# the file must not be named like one.
DEFAULT_FW_ENV_CONFIG = "/boot/ubootenv 0x0 0x10000 0x10000\n"
DEFAULT_UBOOT_ENV = "baudrate=115200\nbootcmd=bootm 0x82000000\nbootdelay=1\n"
DEFAULT_PID_LIST = ["main_app", "onvif_server"]
DEFAULT_FILES = {
    "/customer/device_model_file": "K1.T",
    "/customer/version_file": "V2.5.1",
    "/customer/arm_version_file": "ARM: [1.0.0]",
    "/etc/resolv.conf": "nameserver 8.8.8.8\n",
}

_libc = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNET = 0x40000000


class RigError(RuntimeError):
    """The rig itself could not do what was asked."""


# --------------------------------------------------------------------------
# small helpers


def run(argv, check=True, **kw):
    """Runs a host command, returns the CompletedProcess (text output)."""
    kw.setdefault("capture_output", True)
    kw.setdefault("text", True)
    env = dict(os.environ, PATH=TOOL_PATH + ":" + os.environ.get("PATH", ""))
    p = subprocess.run([str(a) for a in argv], env=env, **kw)
    if check and p.returncode != 0:
        raise RigError(f"{' '.join(map(str, argv))} failed ({p.returncode}): "
                       f"{(p.stderr or '').strip()}")
    return p


def ns_link(pid, kind):
    try:
        return os.readlink(f"/proc/{pid}/ns/{kind}")
    except OSError:
        return None


def outside_namespaces():
    """Namespace links of the rig's own process and of the host's PID 1."""
    links = set()
    for who in ("self", "1"):
        for kind in NS_KINDS:
            link = ns_link(who, kind)
            if link:
                links.add(link)
    return sorted(links)


def parent_of(pid):
    try:
        status = Path(f"/proc/{pid}/status").read_text()
    except OSError:
        return None
    m = re.search(r"^PPid:\s+(\d+)", status, re.M)
    return int(m.group(1)) if m else None


def pid_alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        return True
    return True


def wait_until(cond, timeout, interval=0.02):
    """Polls cond() until it returns a true value or the timeout runs out."""
    deadline = time.monotonic() + timeout
    while True:
        value = cond()
        if value or time.monotonic() >= deadline:
            return value
        time.sleep(interval)


def in_netns(ns_path, fn):
    """Calls fn() on a thread that has entered the network namespace ns_path.

    Sockets made there stay in that namespace and may be used from any thread.
    """
    box = {}

    def body():
        fd = os.open(ns_path, os.O_RDONLY)
        try:
            if _libc.setns(fd, CLONE_NEWNET) != 0:
                e = ctypes.get_errno()
                raise OSError(e, f"setns {ns_path}: {os.strerror(e)}")
            box["value"] = fn()
        except BaseException as exc:  # handed to the caller
            box["error"] = exc
        finally:
            os.close(fd)

    t = threading.Thread(target=body, name="netns")
    t.start()
    t.join()
    if "error" in box:
        raise box["error"]
    return box.get("value")


def search_datagram(client_id="0123456789abcdef0123456789abcdef", extra=b""):
    """A "SEARCH * " request whose bytes 28..59 hold the 32-character client ID."""
    cid = client_id.encode() if isinstance(client_id, str) else client_id
    assert len(cid) == 32, "a client ID has 32 characters"
    head = b"SEARCH * \r\nSEQ=1\r\nClient ID:"
    assert len(head) == 28
    return head + cid + extra


def mtd_text(table):
    """/proc/mtd text for a list of (size, erasesize, name)."""
    lines = ["dev:    size   erasesize  name"]
    for i, (size, erase, name) in enumerate(table):
        lines.append(f'mtd{i}: {size:08x} {erase:08x} "{name}"')
    return "\n".join(lines) + "\n"


def pid_list_text(names):
    return "".join(f'"{n}"\n' for n in names)


def del_list_text(paths):
    return "".join(f'"{p}"\n' for p in paths)


def shell_quote(s):
    return "'" + str(s).replace("'", "'\\''") + "'"


def shared_libraries(binary):
    """Absolute paths of the shared libraries (and loader) a binary needs."""
    out = run(["ldd", binary], check=False).stdout
    libs = []
    for line in out.splitlines():
        m = re.search(r"(/\S+)\s+\(0x", line)
        if m:
            libs.append(m.group(1))
    return libs


# --------------------------------------------------------------------------
# session: helper binaries, camera root template, leftovers


class Session:
    """State shared by every camera of one test run.

    Holds the working directory (/tmp/upgrade-rig-<pid>-*), the helper binary
    compiled from rootfs/rig_helper.c and a template root that each camera
    copies.
    """

    def __init__(self, upgrade_bin, workdir=None):
        self.upgrade_bin = Path(upgrade_bin).resolve()
        if not self.upgrade_bin.is_file():
            raise RigError(f"no daemon binary at {self.upgrade_bin}")
        self.owner = os.getpid()
        self.workdir = Path(workdir or tempfile.mkdtemp(prefix=f"{SESSION_PREFIX}{self.owner}-"))
        self.workdir.mkdir(parents=True, exist_ok=True)
        self._counter = itertools.count(1)
        self._template = None
        self.kept = []

    def next_id(self):
        return next(self._counter)

    @property
    def helper(self):
        path = self.workdir / "rig-helper"
        if not path.exists():
            run(["gcc", "-static", "-O2", "-Wall", "-o", path, ROOTFS / "rig_helper.c"])
        return path

    @property
    def template(self):
        if self._template is None:
            self._template = self._build_template(self.workdir / "template")
        return self._template

    def _build_template(self, t):
        if t.exists():
            shutil.rmtree(t)
        for d in ("bin", "sbin", "usr/bin", "usr/sbin", "usr/share/udhcpc", "lib64",
                  "lib/x86_64-linux-gnu", "etc", "proc", "sys", "dev", "tmp", "mnt/usb",
                  "customer", "data", "boot", ".rig/bin", ".rig/apps", ".rig/calls",
                  ".rig/console", ".rig/stand-in", "root", "var/run"):
            (t / d).mkdir(parents=True, exist_ok=True)
        busybox = Path("/bin/busybox")
        shutil.copy2(busybox, t / "bin/busybox")
        for rel in run([busybox, "--list-full"]).stdout.split():
            dest = t / rel
            if rel in ("bin/busybox", "bin/cat") or dest.exists():
                continue
            dest.parent.mkdir(parents=True, exist_ok=True)
            os.symlink("/bin/busybox", dest)
        install = [(ROOTFS / "cat", "bin/cat"),
                   (ROOTFS / "init.sh", ".rig/init"),
                   (ROOTFS / "default.script", "usr/share/udhcpc/default.script"),
                   (ROOTFS / "stand-in", ".rig/bin/stand-in"),
                   (self.helper, ".rig/bin/rig-helper"),
                   (Path("/usr/bin/fw_setenv"), "bin/fw_setenv"),
                   (Path("/usr/bin/fw_printenv"), "bin/fw_printenv"),
                   (self.upgrade_bin, "bin/upgrade")]
        for src, rel in install:
            shutil.copy2(src, t / rel)
            os.chmod(t / rel, 0o755)
        for name in ("rig-reboot", "rig-udprec"):
            os.link(t / ".rig/bin/rig-helper", t / ".rig/bin" / name)
        for binary in ("/usr/bin/fw_setenv", self.upgrade_bin):
            for lib in shared_libraries(binary):
                dest = t / lib.lstrip("/")
                if not dest.exists():
                    dest.parent.mkdir(parents=True, exist_ok=True)
                    shutil.copy2(os.path.realpath(lib), dest)
        (t / "etc/passwd").write_text("root:x:0:0:root:/root:/bin/sh\n")
        (t / "etc/group").write_text("root:x:0:\n")
        (t / "etc/u-boot-initial-env").write_text(DEFAULT_UBOOT_ENV)
        return t

    def leftovers(self, owner=None):
        """What this session (or the run with process ID owner) left behind."""
        return leftovers(owner or self.owner)

    def close(self, remove=True):
        if remove and not self.kept:
            shutil.rmtree(self.workdir, ignore_errors=True)


def _owner_of(text):
    m = re.search(rf"{SESSION_PREFIX}(\d+)-", text)
    return int(m.group(1)) if m else None


def _rig_mounts():
    mounts = []
    with open("/proc/self/mountinfo") as f:
        for line in f:
            target = line.split()[4].replace("\\040", " ")
            if SESSION_PREFIX in target:
                mounts.append(target)
    return mounts


def _rig_netns():
    out = run(["ip", "netns", "list"], check=False).stdout
    return [line.split()[0] for line in out.splitlines()
            if line.startswith(NETNS_PREFIX)]


def _rig_processes():
    """(pid, owner, cmdline) of processes the rig started: launchers and DHCP
    servers (the run's directory is in their command line) and every process
    of a camera (its root directory is in the run's directory)."""
    procs = []
    me = os.getpid()
    for entry in os.listdir("/proc"):
        if not entry.isdigit() or int(entry) == me:
            continue
        try:
            raw = Path(f"/proc/{entry}/cmdline").read_bytes()
            root = os.readlink(f"/proc/{entry}/root")
        except OSError:
            continue
        cmd = raw.replace(b"\0", b" ").decode(errors="replace")
        owner = _owner_of(cmd)
        if owner is None:
            owner = _owner_of(root + "/")
        if owner is not None:
            procs.append((int(entry), owner, cmd.strip()))
    return procs


def leftovers(owner):
    """Mounts, LAN namespaces and processes still there from run `owner`."""
    netns = [n for n in _rig_netns() if n.startswith(f"{NETNS_PREFIX}{owner}-")]
    mounts = [m for m in _rig_mounts() if _owner_of(m) == owner]
    procs = [p for p in _rig_processes() if p[1] == owner]
    return {"netns": netns, "mounts": mounts, "processes": procs}


def sweep_stale():
    """Removes what runs that no longer exist (killed test runs) left behind."""
    for pid, owner, _cmd in _rig_processes():
        if not pid_alive(owner):
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
    for target in sorted(_rig_mounts(), key=len, reverse=True):
        owner = _owner_of(target)
        if owner and not pid_alive(owner):
            run(["umount", "-l", target], check=False)
    for name in _rig_netns():
        m = re.match(rf"{NETNS_PREFIX}(\d+)-", name)
        if m and not pid_alive(int(m.group(1))):
            run(["ip", "netns", "delete", name], check=False)


# --------------------------------------------------------------------------
# the LAN


@dataclasses.dataclass
class Reply:
    data: bytes
    src: tuple
    at: float  # monotonic time of arrival

    @property
    def text(self):
        return self.data.decode(errors="replace")

    def fields(self):
        """The reply's "\\r\\n"-separated fields after the keyword, as a dict
        (Key:value and KEY=value both accepted)."""
        out = {}
        for part in self.text.split("\r\n")[1:]:
            m = re.match(r"([^:=]+)[:=](.*)", part, re.S)
            if m:
                out[m.group(1)] = m.group(2)
        return out


class Listener:
    """A socket in the LAN namespace that has joined a multicast group."""

    def __init__(self, lan, group, port):
        self.lan, self.group, self.port = lan, group, port
        self.sock = lan.socket(socket.SOCK_DGRAM)
        s = self.sock
        s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        s.bind((group, port))
        mreq = socket.inet_aton(group) + socket.inet_aton(lan.ip)
        s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, mreq)
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(lan.ip))
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 1)
        self.replies = []

    def send(self, data):
        """Sends one datagram to the group from the group's port."""
        self.sock.sendto(data, (self.group, self.port))

    def collect(self, timeout=1.0, count=None, match=None, from_ip=None):
        """Receives datagrams until the timeout, or until `count` of them have
        been collected. `match` (bytes prefix or callable on a Reply) and
        `from_ip` (sender address) filter. Returns the replies collected by
        this call. Every listener on a group hears every camera's replies,
        also late answers to earlier requests: filter what a test expects."""
        got = []
        deadline = time.monotonic() + timeout
        while count is None or len(got) < count:
            left = deadline - time.monotonic()
            if left <= 0:
                break
            ready, _, _ = select.select([self.sock], [], [], left)
            if not ready:
                continue
            data, src = self.sock.recvfrom(65536)
            r = Reply(data, src, time.monotonic())
            if from_ip is not None and src[0] != from_ip:
                continue
            if match is not None:
                ok = match(r) if callable(match) else data.startswith(match)
                if not ok:
                    continue
            got.append(r)
            self.replies.append(r)
        return got

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


class Lan:
    """A network namespace with a bridge br0 (the tool's side, x.x.x.1/24)."""

    def __init__(self, session, subnet="192.168.77"):
        self.session = session
        self.name = f"{NETNS_PREFIX}{session.owner}-{session.next_id()}"
        self.subnet = subnet
        self.ip = f"{subnet}.1"
        self.ns_path = f"/run/netns/{self.name}"
        self.cameras = []
        self._sockets = []
        self._dhcpd = None
        self._next_host = itertools.count(10)
        self._next_if = itertools.count(1)
        self.up = False

    def start(self):
        run(["ip", "netns", "add", self.name])
        self.up = True
        cmds = [
            "link set lo up",
            "link add br0 type bridge",
            "link set br0 type bridge mcast_snooping 0",
            f"addr add {self.ip}/24 brd + dev br0",
            "link set br0 up",
            "route add 224.0.0.0/4 dev br0",
        ]
        run(["ip", "-n", self.name, "-batch", "-"], input="\n".join(cmds) + "\n")
        return self

    def stop(self):
        for cam in list(self.cameras):
            cam.stop()
        for s in self._sockets:
            with contextlib.suppress(OSError):
                s.close()
        self._sockets.clear()
        self.stop_dhcp_server()
        if self.up:
            run(["ip", "netns", "delete", self.name], check=False)
            self.up = False

    def new_host_address(self):
        return f"{self.subnet}.{next(self._next_host)}"

    def new_if_index(self):
        return next(self._next_if)

    # -- sockets in the LAN

    def socket(self, kind=socket.SOCK_DGRAM, family=socket.AF_INET):
        s = in_netns(self.ns_path, lambda: socket.socket(family, kind))
        self._sockets.append(s)
        return s

    def listen(self, group=SEARCH_GROUP[0], port=SEARCH_GROUP[1]):
        """A Listener joined to the group; use as a context manager."""
        return Listener(self, group, port)

    def send(self, data, group=SEARCH_GROUP[0], port=SEARCH_GROUP[1]):
        with self.listen(group, port) as lst:
            lst.send(data)

    def request(self, data, group=SEARCH_GROUP[0], port=SEARCH_GROUP[1], timeout=1.5,
                count=None, match=None, resend=None, from_ip=None):
        """Sends data to the group and collects what arrives on it until the
        timeout (or `count` replies). With `resend` (seconds) the datagram is
        sent again at that interval while too few replies have come; only for
        idempotent requests. When resending, `count` counts distinct senders:
        a camera that answers every resend still counts once."""
        with self.listen(group, port) as lst:
            got = []
            deadline = time.monotonic() + timeout

            def enough():
                if count is None:
                    return False
                heard = len({r.src for r in got}) if resend else len(got)
                return heard >= count

            while True:
                lst.send(data)
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                need = None if count is None or resend else count - len(got)
                window = min(left, resend) if resend else left
                end = time.monotonic() + window
                while not enough() and time.monotonic() < end:
                    got += lst.collect(end - time.monotonic(), 1 if resend else need, match,
                                       from_ip)
                    if not resend:
                        break
                if enough():
                    break
                if not resend or time.monotonic() >= deadline:
                    break
            return got

    def search(self, client_id="0123456789abcdef0123456789abcdef", timeout=2.0, count=None,
               resend=0.5, from_ip=None):
        """Sends "SEARCH * " to 239.255.255.251:8005 and returns the replies
        ("REPLY OK " datagrams), resending until `count` of them came (from
        `from_ip` only, when given)."""
        return self.request(search_datagram(client_id), *SEARCH_GROUP, timeout=timeout,
                            count=count, match=b"REPLY OK ", resend=resend, from_ip=from_ip)

    def connect(self, ip, port=TCP_PORT, timeout=5.0):
        """A TCP connection from the LAN to ip:port, retried until the timeout."""
        deadline = time.monotonic() + timeout
        while True:
            s = self.socket(socket.SOCK_STREAM)
            s.settimeout(max(0.1, min(1.0, deadline - time.monotonic())))
            try:
                s.connect((ip, port))
                s.settimeout(None)
                return s
            except OSError:
                s.close()
                if time.monotonic() >= deadline:
                    raise
                time.sleep(0.05)

    def exec(self, argv, **kw):
        """Runs a host command inside the LAN namespace."""
        return run(["ip", "netns", "exec", self.name, *argv], **kw)

    # -- DHCP

    def start_dhcp_server(self, first=100, last=150, lease=3600):
        """busybox udhcpd on br0, handing out subnet.first..subnet.last."""
        d = self.session.workdir / f"{self.name}-udhcpd"
        d.mkdir(exist_ok=True)
        (d / "leases").write_bytes(b"")
        conf = d / "udhcpd.conf"
        conf.write_text(
            f"start {self.subnet}.{first}\nend {self.subnet}.{last}\ninterface br0\n"
            f"lease_file {d}/leases\npidfile {d}/udhcpd.pid\n"
            f"opt subnet 255.255.255.0\nopt router {self.ip}\nopt dns {self.ip}\n"
            f"opt lease {lease}\n")
        server = ["/usr/sbin/udhcpd"] if os.path.exists("/usr/sbin/udhcpd") else \
            ["/bin/busybox", "udhcpd"]
        self._dhcpd = subprocess.Popen(
            ["ip", "netns", "exec", self.name, *server, "-f", "-a", "100", str(conf)],
            stdin=subprocess.DEVNULL, stdout=open(d / "udhcpd.log", "wb"),
            stderr=subprocess.STDOUT, start_new_session=True,
            env={"PATH": TOOL_PATH})
        return self._dhcpd

    def stop_dhcp_server(self):
        p, self._dhcpd = self._dhcpd, None
        if p and p.poll() is None:
            p.kill()
            p.wait(5)


# --------------------------------------------------------------------------
# the camera


@dataclasses.dataclass
class Proc:
    host_pid: int
    pid: int  # as the camera sees it
    comm: str
    argv: list


class Camera:
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

    # -- root

    def path(self, camera_path):
        """Host path of a camera path ("/data/net.conf")."""
        return self.root / str(camera_path).lstrip("/")

    def _build(self, net_conf, del_list, fw_env_config, fw_env, files, stand_ins, apps, hostname):
        run(["cp", "-a", self.session.template, self.root])
        rig = self.path("/.rig")
        (rig / "hostname").write_text(hostname + "\n")
        if self.dhcp:
            (rig / "dhcp").write_text("")
        if net_conf is None:
            if self.dhcp:
                net_conf = f"dhcp=1\nmacaddr={self.mac}\n"
            else:
                net_conf = (f"dhcp=0\nipaddr={self.ip}\nnetmask=255.255.255.0\n"
                            f"gateway={self.gateway or ''}\nfdns=8.8.8.8\nmacaddr={self.mac}\n")
        layout = dict(DEFAULT_FILES)
        layout["/data/net.conf"] = net_conf
        layout["/customer/pid_list"] = pid_list_text(self.pid_list)
        layout["/customer/del_list"] = None if del_list is None else del_list_text(del_list)
        layout["/etc/fw_env.config"] = fw_env_config
        layout.update(files or {})
        for p, content in layout.items():
            self.write(p, content)
        self.set_mtd(self.mtd)
        self.set_stand_in("himm")
        self.set_stand_in("arm_upgrade", path="/customer/arm_upgrade")
        for name, answer in (stand_ins or {}).items():
            self.set_stand_in(name, **answer)
        names = list(dict.fromkeys(["ntp_client", *self.pid_list, *apps]))
        for a in names:
            if "/" in a or not a.strip():
                continue
            os.link(self.path("/.rig/bin/rig-helper"), rig / "apps" / a)
        (rig / "apps.list").write_text("".join(a + "\n" for a in names if "/" not in a and a.strip()))
        self._ensure_fw_env_file(fw_env_config)
        if fw_env:
            self.fw_setenv(**fw_env)

    def _ensure_fw_env_file(self, config):
        """Creates the file-backed environment the config names, if it is a
        plain file outside /dev (files in /dev are made at boot)."""
        if not config:
            return
        for line in config.splitlines():
            f = line.split()
            if len(f) >= 3 and not f[0].startswith("#"):
                if f[0].startswith("/dev/"):
                    continue
                p = self.path(f[0])
                size = int(f[1], 0) + int(f[2], 0)
                if not p.exists():
                    p.parent.mkdir(parents=True, exist_ok=True)
                    with open(p, "wb") as fh:
                        fh.write(b"\xff" * size)

    def write(self, camera_path, content, mode=None):
        """Writes (str or bytes) a camera file; None removes it."""
        p = self.path(camera_path)
        if (str(camera_path).startswith("/dev/")
                and str(self.path("/dev")) not in self._mounts):
            raise RigError(f"{camera_path}: /dev is made fresh at each boot; "
                           "pass dev_files= or write it while the camera runs")
        if content is None:
            with contextlib.suppress(FileNotFoundError):
                p.unlink()
            return
        p.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(content, str):
            content = content.encode()
        p.write_bytes(content)
        if mode is not None:
            os.chmod(p, mode)

    def read(self, camera_path):
        """Bytes of a camera file (None when absent)."""
        try:
            return self.path(camera_path).read_bytes()
        except FileNotFoundError:
            return None

    def read_text(self, camera_path):
        data = self.read(camera_path)
        return None if data is None else data.decode(errors="replace")

    def exists(self, camera_path):
        return os.path.lexists(self.path(camera_path))

    def wait_file(self, camera_path, timeout=5.0, content=None):
        """Waits until a camera file exists (and, if given, contains `content`);
        returns its bytes."""
        want = content.encode() if isinstance(content, str) else content

        def ready():
            data = self.read(camera_path)
            if data is None or (want is not None and want not in data):
                return None
            return (data,)

        found = wait_until(ready, timeout)
        if not found:
            raise AssertionError(f"{self.name}: {camera_path} did not appear"
                                 f"{'' if want is None else ' with ' + repr(want)}"
                                 f" within {timeout}s{self._tail()}")
        return found[0]

    # -- fixture setters

    def set_mtd(self, table_or_text):
        """The partition list the daemon reads as /proc/mtd."""
        text = table_or_text if isinstance(table_or_text, str) else mtd_text(table_or_text)
        if not isinstance(table_or_text, str):
            self.mtd = table_or_text
        self.write("/.rig/proc_mtd", text)

    def set_pid_list(self, names):
        self.write("/customer/pid_list", pid_list_text(names))

    def set_del_list(self, paths):
        self.write("/customer/del_list", del_list_text(paths))

    def set_net_conf(self, text):
        self.write("/data/net.conf", text)

    def set_stand_in(self, name, rc=0, out=None, delay=None, path=None):
        """Installs (with path) or re-programs a stand-in: its exit status,
        printed output and delay in seconds."""
        if path:
            shutil.copy2(self.path("/.rig/bin/stand-in"), self.path(path))
            os.chmod(self.path(path), 0o755)
        elif not any(self.exists(f"{d}/{name}") for d in ("/bin", "/usr/bin", "/customer")):
            shutil.copy2(self.path("/.rig/bin/stand-in"), self.path(f"/bin/{name}"))
        d = f"/.rig/stand-in/{name}"
        self.write(d + ".rc", f"{rc}\n")
        self.write(d + ".out", out)
        self.write(d + ".delay", None if delay is None else f"{delay}\n")

    def calls(self, name):
        """Argument lines of each call of a stand-in (himm, arm_upgrade...)."""
        text = self.read_text(f"/.rig/calls/{name}.log")
        return [] if text is None else text.splitlines()

    def control_datagrams(self):
        """Datagrams the daemon sent to 127.0.0.1:1259, in order (bytes)."""
        text = self.read_text("/.rig/calls/control.log") or ""
        return [bytes.fromhex(line.split()[1]) for line in text.splitlines()
                if len(line.split()) == 2]

    def wait_control(self, count=1, timeout=5.0):
        got = wait_until(lambda: len(self.control_datagrams()) >= count, timeout)
        if not got:
            raise AssertionError(f"{self.name}: fewer than {count} control datagrams within "
                                 f"{timeout}s: {self.control_datagrams()!r}")
        return self.control_datagrams()

    def signals(self):
        """(process name, signal number) for each caught signal of a dummy app."""
        text = self.read_text("/.rig/calls/signals.log") or ""
        return [(a, int(b)) for a, b in (line.split() for line in text.splitlines())]

    def fw_printenv(self):
        """The boot environment as a dict, read with the camera's fw_printenv."""
        p = run(["chroot", self.root, "/bin/fw_printenv"], check=False)
        env = {}
        for line in p.stdout.splitlines():
            k, sep, v = line.partition("=")
            if sep:
                env[k] = v
        return env

    def fw_setenv(self, **values):
        for k, v in values.items():
            run(["chroot", self.root, "/bin/fw_setenv", k, str(v)])

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

        deadline = time.monotonic() + timeout
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
                ["unshare", "--mount", "--net", "--pid", "--uts", "--fork",
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
        return run(["nsenter", f"--target={self.init_pid}", "--mount", "--uts", "--net",
                    "--pid", "--root", "--wd", "env", "-i", f"PATH={CAMERA_PATH}",
                    "/bin/sh", "-c", command], check=check, timeout=timeout)

    def socket(self, kind=socket.SOCK_DGRAM, family=socket.AF_INET):
        """A socket of the test process inside the camera's network namespace
        (e.g. to talk to the daemon over its loopback). Closed at stop."""
        if not self.running:
            raise RigError(f"{self.name} is not running")
        s = in_netns(f"/proc/{self.init_pid}/ns/net", lambda: socket.socket(family, kind))
        self._sockets.append(s)
        return s

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
