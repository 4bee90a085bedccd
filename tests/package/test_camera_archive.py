"""The camera archive as a firmware team gets it: a root overlay holding only
the stripped armhf daemon, its init script, the annotated site switches and
the docs; and the init script's promise, run by busybox in a chroot with a
stand-in daemon (the real one never runs here): it starts the daemon once,
starts it again whenever it ends, passes the configured word, and stops it."""

import os
import re
import shutil
import signal
import subprocess
import tarfile
import time
from pathlib import Path

import pytest
from conftest import TOP

EXPECTED = {
    "bin/upgrade": 0o755,
    "etc/init.d/S90upgrade": 0o755,
    "customer/upgrade.conf": 0o644,
    "usr/share/doc/upgrade/README": 0o644,
    "usr/share/doc/upgrade/LICENSE": 0o644,
}


def test_archive_is_a_root_overlay_of_the_daemon_its_init_script_example_and_docs(
        camera_archive, tmp_path):
    with tarfile.open(camera_archive) as tar:
        members = tar.getmembers()
        files = {m.name.removeprefix("./"): m for m in members if not m.isdir()}
        assert {n: m.mode for n, m in files.items()} == EXPECTED
        assert all(m.uid == 0 and m.gid == 0 for m in members)
        assert all(m.isdir() or m.isfile() for m in members)
        daemon = tar.extractfile(files["bin/upgrade"]).read()
    (tmp_path / "upgrade").write_bytes(daemon)
    elf = subprocess.run(["readelf", "-h", "-S", tmp_path / "upgrade"], capture_output=True,
                         text=True, check=True).stdout
    assert re.search(r"Class:\s+ELF32", elf) and re.search(r"Machine:\s+ARM", elf)
    assert ".symtab" not in elf and ".debug" not in elf, "the daemon is not stripped"


def test_example_site_file_sets_each_switch_the_daemon_reads_to_its_default():
    source = (TOP / "core/site_conf.cpp").read_text()
    keys = set(re.findall(r'\{"(\w+)", &site_conf_t::', source))
    header = (TOP / "core/site_conf.h").read_text()
    defaults = dict(re.findall(r"int (\w+) = (\d+);", header))
    example = (TOP / "packaging/camera/upgrade.conf").read_text()
    lines = [ln for ln in example.splitlines() if ln.strip() and not ln.startswith("#")]
    assert dict(ln.split("=", 1) for ln in lines) == {k: defaults[k] for k in keys}


# -- the init script with busybox and a stand-in daemon

STAND_IN = """#!/bin/sh
# Stand-in for the daemon: notes each start and its words, then waits.
echo "$$ $*" >> /var/run/stand-in.log
exec sleep 100000
"""
APPLETS = "sh sleep cat kill mkdir dirname rm usleep echo"


def wait_for(predicate, what, timeout=30.0):
    """Waits for an event (a file's content); the bound only ends a hang."""
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            raise AssertionError(f"no {what} within {timeout} s")
        time.sleep(0.05)


class Camera:
    def __init__(self, root):
        self.root = root

    def init(self, action):
        return subprocess.run(["chroot", self.root, "/bin/sh", "/etc/init.d/S90upgrade", action],
                              capture_output=True, text=True, stdin=subprocess.DEVNULL,
                              timeout=60)

    def starts(self):
        log = self.root / "var/run/stand-in.log"
        return log.read_text().splitlines() if log.exists() else []

    def console(self):
        return (self.root / "dev/console").read_text()

    def daemon_pid(self):
        return int((self.root / "var/run/upgrade.pid").read_text())

    def processes(self):
        """Host processes running inside this root."""
        mine = []
        for p in Path("/proc").iterdir():
            if p.name.isdigit():
                try:
                    if os.readlink(p / "root") == str(self.root):
                        mine.append(int(p.name))
                except OSError:
                    pass
        return mine


@pytest.fixture
def camera(camera_archive, as_root, tmp_path):
    busybox = shutil.which("busybox")
    if busybox is None:
        pytest.fail("no busybox (tools/setup-deps installs busybox-static)")
    root = (tmp_path / "root").resolve()
    root.mkdir()
    subprocess.run(["tar", "-xzf", camera_archive, "-C", root], check=True)
    # The real daemon must never start here: replaced before anything runs.
    (root / "bin/upgrade").write_text(STAND_IN)
    shutil.copy2(busybox, root / "bin/busybox")
    for applet in APPLETS.split():
        (root / "bin" / applet).symlink_to("busybox")
    for d in ("dev", "var/run", "etc/default"):
        (root / d).mkdir(parents=True, exist_ok=True)
    (root / "dev/console").write_text("")
    (root / "dev/null").write_text("")
    cam = Camera(root)
    yield cam
    cam.init("stop")
    for pid in cam.processes():
        os.kill(pid, signal.SIGKILL)


def test_init_script_starts_the_daemon_once_and_again_whenever_it_ends(camera):
    (camera.root / "etc/default/upgrade").write_text("UPGRADE_ARGS=DEBUG\n")
    started = camera.init("start")
    assert started.returncode == 0, started.stderr
    wait_for(lambda: len(camera.starts()) == 1, "daemon start")
    assert camera.starts()[0].split()[1:] == ["DEBUG"]
    again = camera.init("start")
    assert again.returncode == 0 and "already running" in again.stdout
    status = camera.init("status")
    assert status.returncode == 0 and "running" in status.stdout

    # Killed, or ending by itself: started again each time.
    first = camera.daemon_pid()
    os.kill(first, signal.SIGKILL)
    wait_for(lambda: len(camera.starts()) == 2, "restart after a kill")
    wait_for(lambda: camera.daemon_pid() != first, "the new daemon's pid")
    assert "ended with status 137" in camera.console()
    os.kill(camera.daemon_pid(), signal.SIGTERM)
    wait_for(lambda: len(camera.starts()) == 3, "restart after an exit")
    assert int(camera.starts()[0].split()[0]) == first

    stopped = camera.init("stop")
    assert stopped.returncode == 0 and "stopped" in stopped.stdout
    assert camera.processes() == [], "the keeper or the daemon outlived stop"
    status = camera.init("status")
    assert status.returncode == 3 and "stopped" in status.stdout
    assert len(camera.starts()) == 3


def test_init_script_restart_leaves_one_daemon_and_refuses_unknown_actions(camera):
    assert camera.init("start").returncode == 0
    wait_for(lambda: len(camera.starts()) == 1, "daemon start")
    restarted = camera.init("restart")
    assert restarted.returncode == 0, restarted.stdout + restarted.stderr
    wait_for(lambda: len(camera.starts()) == 2, "daemon start after restart")
    # The keeper and one daemon (busybox sleep): nothing from the first start.
    assert len(camera.processes()) == 2
    assert camera.starts()[1].split()[1:] == []
    usage = camera.init("reload")
    assert usage.returncode == 2 and "usage" in usage.stderr
