"""Camera sandbox: constants and small host helpers every part of the rig uses
(commands, namespaces, processes, polling)."""

from __future__ import annotations

import ctypes
import os
import re
import subprocess
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

_libc = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNET = 0x40000000


class RigError(RuntimeError):
    """The rig itself could not do what was asked."""


class HostFiles:
    """Camera files written and read from the host through self.path(), the
    host path of a camera path (each kind of camera supplies it)."""

    def write(self, camera_path, content, mode=None):
        """Writes (str or bytes) a camera file; None removes it."""
        p = self.path(camera_path)
        if content is None:
            p.unlink(missing_ok=True)
            return
        p.parent.mkdir(parents=True, exist_ok=True)
        p.write_bytes(content.encode() if isinstance(content, str) else content)
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


# Every wait of the rig is stretched by $RIG_TIME_SCALE (a daemon built with
# a sanitizer answers several times slower).
TIME_SCALE = float(os.environ.get("RIG_TIME_SCALE") or 1)


def wait_until(cond, timeout, interval=0.02):
    """Polls cond() until it returns a true value or the timeout runs out."""
    deadline = time.monotonic() + timeout * TIME_SCALE
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


def shell_quote(s):
    return "'" + str(s).replace("'", "'\\''") + "'"
