"""Fixture pieces shared by the namespace camera tests (this folder) and the
virtual camera tests (tests/vm): the run's session with its leftover check,
the LAN, and the camera factory that keeps the files of a failed test."""

import signal
import sys
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "sim" / "ns"))

import camera as rig  # noqa: E402


@pytest.hookimpl(tryfirst=True, hookwrapper=True)
def pytest_runtest_makereport(item, call):
    rep = (yield).get_result()
    setattr(item, "rep_" + rep.when, rep)


def failed(request):
    return any(getattr(getattr(request.node, f"rep_{w}", None), "failed", False)
               for w in ("setup", "call"))


def run_session(daemon, what):
    """Generator for a session fixture: sweeps what a killed run left, yields
    the rig.Session and at the end fails the run if a namespace, mount or
    process is left."""
    rig.sweep_stale()

    def interrupted(signum, _frame):
        raise KeyboardInterrupt(f"signal {signum}")

    # A run stopped with SIGTERM still tears its cameras down; one killed
    # outright is cleaned up by the next run's sweep.
    signal.signal(signal.SIGTERM, interrupted)
    s = rig.Session(daemon)
    yield s
    left = s.leftovers()
    for path in s.kept:
        print(f"\n[rig] {what} kept for inspection: {path}")
    s.close()
    assert not any(left.values()), f"the {what} left behind: {left}"


@pytest.fixture
def lan(rig_session):
    """A LAN (network namespace with bridge br0 at 192.168.77.1)."""
    net = rig.Lan(rig_session).start()
    yield net
    net.stop()


def camera_factory(request, make, ready, timeout, reports=lambda cam: []):
    """Generator for a factory fixture: start(ready=, timeout=, boot=True,
    **kw) makes a camera with make(**kw) and boots it. After the test every
    camera is stopped and torn down; the files of a failed test, or of one
    whose cameras gave reports(cam) (texts), are kept and it fails."""
    made = []

    def start(ready=ready, timeout=timeout, boot=True, **kw):
        cam = make(**kw)
        made.append(cam)
        if boot:
            cam.start(ready=ready, timeout=timeout)
        return cam

    yield start
    for cam in made:
        cam.stop()
    found = [r for cam in made for r in reports(cam)]
    keep = failed(request) or bool(found)
    for cam in made:
        cam.teardown(keep=keep)
        if keep:
            print(f"\n[rig] {cam.name}: {cam.end_reason()}")
    assert not found, "\n".join(found)
