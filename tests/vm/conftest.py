"""Fixtures of the virtual camera tests (sim/vm; see its README.md).

    def test_search(start_vm, lan):
        cam = start_vm()
        [reply] = lan.search(count=1, from_ip=cam.ip)

The daemon is the armhf build ($UPGRADE_ARMHF_BIN, else build/armhf/upgrade);
the STM32 simulator is the newest host build of stm32_serve.
"""

import os
import signal
import sys
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "sim" / "vm"))
sys.path.insert(0, str(TOP / "sim" / "ns"))

import camera as rig  # noqa: E402
import vmcam  # noqa: E402


@pytest.hookimpl(tryfirst=True, hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    rep = outcome.get_result()
    setattr(item, "rep_" + rep.when, rep)


@pytest.fixture(scope="session")
def vm_session():
    if os.geteuid() != 0:
        pytest.skip("the virtual camera needs root (taps, namespaces)")
    daemon = Path(os.environ.get("UPGRADE_ARMHF_BIN", TOP / "build" / "armhf" / "upgrade"))
    if not daemon.is_file():
        pytest.fail(f"no armhf daemon at {daemon}: build the armhf preset")
    if vmcam.find_program("stm32_serve") is None:
        pytest.fail("no stm32_serve: build a host preset")
    vmcam.build_image()
    rig.sweep_stale()

    def interrupted(signum, _frame):
        raise KeyboardInterrupt(f"signal {signum}")

    signal.signal(signal.SIGTERM, interrupted)
    s = rig.Session(daemon)
    yield s
    left = s.leftovers()
    for path in s.kept:
        print(f"\n[vm] camera kept for inspection: {path}")
    s.close()
    assert not any(left.values()), f"the virtual camera lab left behind: {left}"


@pytest.fixture
def lan(vm_session):
    net = rig.Lan(vm_session).start()
    yield net
    net.stop()


@pytest.fixture
def start_vm(vm_session, lan, request):
    """Factory: start_vm(ready=..., timeout=..., boot=True, **VirtualCamera
    keywords) boots a virtual camera on `lan`. A failed test keeps its files."""
    made = []

    def start(ready=vmcam.READY, timeout=180.0, boot=True, **kw):
        cam = vmcam.VirtualCamera(vm_session, lan, **kw)
        made.append(cam)
        if boot:
            cam.start(ready=ready, timeout=timeout)
        return cam

    yield start
    failed = any(getattr(getattr(request.node, f"rep_{w}", None), "failed", False)
                 for w in ("setup", "call"))
    for cam in made:
        cam.teardown(keep=failed)
