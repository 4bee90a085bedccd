"""Fixtures of the camera sandbox (see README.md).

    def test_search(start_camera, lan):
        cam = start_camera()
        replies = lan.search(count=1)
"""

import os
import signal
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "sim" / "ns"))

import camera as rig  # noqa: E402


# SANDBOX_TSAN=1 (the "race" test of the ThreadSanitizer build): every
# daemon writes its race reports to files under /.rig/console, and a test
# whose cameras left any fails with them.
TSAN_RUN = os.environ.get("SANDBOX_TSAN") == "1"
TSAN_ENV = {"TSAN_OPTIONS": "log_path=/.rig/console/tsan exitcode=66 second_deadlock_stack=1"}


def race_reports(cam):
    """Texts of the ThreadSanitizer reports the camera's daemon wrote."""
    con = cam.path("/.rig/console")
    return [f"{cam.name} {p.name}:\n{p.read_text(errors='replace')}"
            for p in sorted(con.glob("tsan*"))] if con.is_dir() else []


def _find_daemon():
    env = os.environ.get("UPGRADE_BIN")
    if env:
        return Path(env)
    top = Path(__file__).resolve().parents[2]
    found = [p for p in (top / "build").glob("*/upgrade") if p.is_file()]
    return max(found, key=lambda p: p.stat().st_mtime) if found else None


@pytest.hookimpl(tryfirst=True, hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    rep = outcome.get_result()
    setattr(item, "rep_" + rep.when, rep)


def _failed(request):
    return any(getattr(getattr(request.node, f"rep_{w}", None), "failed", False)
               for w in ("setup", "call"))


@pytest.fixture(scope="session")
def upgrade_bin():
    """Path of the daemon under test: $UPGRADE_BIN, else the newest build/*/upgrade."""
    if os.geteuid() != 0:
        pytest.skip("the camera sandbox needs root")
    path = _find_daemon()
    if path is None or not path.is_file():
        pytest.fail("no daemon binary: set UPGRADE_BIN or build the 'upgrade' target")
    return path


@pytest.fixture(scope="session")
def rig_session(upgrade_bin):
    """The run's working directory, helper binaries and camera root template.
    At the end it fails the run if a namespace, mount or process is left."""
    rig.sweep_stale()

    def interrupted(signum, _frame):
        raise KeyboardInterrupt(f"signal {signum}")

    # A run stopped with SIGTERM still tears its cameras down; one killed
    # outright is cleaned up by the next run's sweep.
    signal.signal(signal.SIGTERM, interrupted)
    s = rig.Session(upgrade_bin)
    yield s
    left = s.leftovers()
    for path in s.kept:
        print(f"\n[rig] camera root kept for inspection: {path}")
    s.close()
    assert not any(left.values()), f"the camera sandbox left behind: {left}"


@pytest.fixture
def lan(rig_session):
    """A LAN (network namespace with bridge br0 at 192.168.77.1)."""
    net = rig.Lan(rig_session).start()
    yield net
    net.stop()


@pytest.fixture
def start_camera(rig_session, lan, request):
    """Factory: start_camera(**Camera keywords, ready=..., timeout=...) boots a
    camera on `lan` and returns it. Every camera is torn down after the test;
    the roots of a failed test are kept and their paths printed."""
    made = []

    def start(ready="init socket succeed", timeout=10.0, boot=True, **kw):
        if TSAN_RUN:
            kw["env"] = {**TSAN_ENV, **(kw.get("env") or {})}
        cam = rig.Camera(rig_session, lan, **kw)
        made.append(cam)
        if boot:
            cam.start(ready=ready, timeout=timeout)
        return cam

    yield start
    for cam in made:
        cam.stop()
    reports = [r for cam in made for r in race_reports(cam)]
    keep = _failed(request) or bool(reports)
    for cam in made:
        cam.teardown(keep=keep)
        if keep:
            print(f"\n[rig] {cam.name}: {cam.end_reason()}; root kept at {cam.root}")
    assert not reports, "ThreadSanitizer reports:\n" + "\n".join(reports)


@pytest.fixture
def camera(start_camera):
    """One running camera with the default fixtures."""
    return start_camera()
