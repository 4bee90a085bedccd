"""Fixtures of the camera sandbox (see sim/ns/README.md).

    def test_search(start_camera, lan):
        cam = start_camera()
        replies = lan.search(count=1)
"""

import os
from pathlib import Path

import pytest

from rigfixtures import (  # noqa: F401  (fixtures and the hook, for pytest)
    camera_factory, lan, pytest_runtest_makereport, rig, run_session)

# SANDBOX_TSAN=1 (the "race" test of the ThreadSanitizer build): every
# daemon writes its race reports to files under /.rig/console, and a test
# whose cameras left any fails with them.
TSAN_RUN = os.environ.get("SANDBOX_TSAN") == "1"
TSAN_ENV = {"TSAN_OPTIONS": "log_path=/.rig/console/tsan exitcode=66 second_deadlock_stack=1"}


def race_reports(cam):
    """Texts of the ThreadSanitizer reports the camera's daemon wrote."""
    con = cam.path("/.rig/console")
    return [f"ThreadSanitizer, {cam.name} {p.name}:\n{p.read_text(errors='replace')}"
            for p in sorted(con.glob("tsan*"))] if con.is_dir() else []


@pytest.fixture(scope="session")
def upgrade_bin():
    """Path of the daemon under test: $UPGRADE_BIN, else the newest build/*/upgrade."""
    if os.geteuid() != 0:
        pytest.skip("the camera sandbox needs root")
    env = os.environ.get("UPGRADE_BIN")
    found = [Path(env)] if env else sorted(
        (rig.HERE.parents[1] / "build").glob("*/upgrade"), key=lambda p: p.stat().st_mtime)
    if not found or not found[-1].is_file():
        pytest.fail("no daemon binary: set UPGRADE_BIN or build the 'upgrade' target")
    return found[-1]


@pytest.fixture(scope="session")
def rig_session(upgrade_bin):
    """The run's working directory, helper binaries and camera root template."""
    yield from run_session(upgrade_bin, "camera sandbox")


@pytest.fixture
def start_camera(rig_session, lan, request):
    """Factory: start_camera(**Camera keywords, ready=..., timeout=...) boots a
    camera on `lan` and returns it. Every camera is torn down after the test;
    the roots of a failed test are kept and their paths printed."""
    def make(**kw):
        if TSAN_RUN:
            kw["env"] = {**TSAN_ENV, **(kw.get("env") or {})}
        return rig.Camera(rig_session, lan, **kw)

    yield from camera_factory(request, make, "init socket succeed", 10.0, race_reports)


@pytest.fixture
def camera(start_camera):
    """One running camera with the default fixtures."""
    return start_camera()
