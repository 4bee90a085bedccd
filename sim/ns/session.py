"""Camera sandbox: the session of one test run (helper binary, template root)
and the leftovers of runs (namespaces, mounts, processes)."""

from __future__ import annotations

import contextlib
import itertools
import os
import re
import shutil
import signal
import tempfile
from pathlib import Path

from camroot import DEFAULT_UBOOT_ENV
from rigbase import NETNS_PREFIX, ROOTFS, SESSION_PREFIX, RigError, pid_alive, run

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
