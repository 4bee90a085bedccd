"""Fixtures of the virtual camera tests (sim/vm; see its README.md).

    def test_search(start_vm, lan):
        cam = start_vm()
        [reply] = lan.search(count=1, from_ip=cam.ip)

The daemon is the armhf build ($UPGRADE_ARMHF_BIN, else build/armhf/upgrade);
the STM32 simulator is the newest host build of stm32_serve.
"""

import os
import sys
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP / "sim" / "vm"), str(TOP / "tests" / "system")]

import vmcam  # noqa: E402
from rigfixtures import (  # noqa: E402,F401  (fixtures and the hook, for pytest)
    camera_factory, lan, pytest_runtest_makereport, run_session)


@pytest.fixture(scope="session")
def rig_session():
    if os.geteuid() != 0:
        pytest.skip("the virtual camera needs root (taps, namespaces)")
    daemon = Path(os.environ.get("UPGRADE_ARMHF_BIN", TOP / "build" / "armhf" / "upgrade"))
    if not daemon.is_file():
        pytest.fail(f"no armhf daemon at {daemon}: build the armhf preset")
    if vmcam.find_program("stm32_serve") is None:
        pytest.fail("no stm32_serve: build a host preset")
    vmcam.build_image()
    yield from run_session(daemon, "virtual camera lab")


@pytest.fixture
def start_vm(rig_session, lan, request):
    """Factory: start_vm(ready=..., timeout=..., boot=True, **VirtualCamera
    keywords) boots a virtual camera on `lan`. A failed test keeps its files."""
    yield from camera_factory(request, lambda **kw: vmcam.VirtualCamera(rig_session, lan, **kw),
                              vmcam.READY, 180.0)
