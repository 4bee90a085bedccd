"""Fixtures of the virtual camera tests (sim/vm; see its README.md).

    def test_search(start_vm, lan):
        cam = start_vm()
        [reply] = lan.search(count=1, from_ip=cam.ip)

Every virtual camera is installed from the camera archive, as a firmware
team installs a camera: $UPGRADE_ARMHF_PACKAGE, else the archive of
build/armhf, made anew from the armhf build (brought up to date) for each
run. The STM32 simulator is the newest host build of stm32_serve.
"""

import os
import subprocess
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
    package = os.environ.get("UPGRADE_ARMHF_PACKAGE")
    if package is None:
        build = TOP / "build" / "armhf"
        if not (build / "upgrade").is_file():
            pytest.fail(f"no armhf daemon in {build}: build the armhf preset")
        # Brings the build (and its packaging rules) up to date first.
        subprocess.run(["cmake", "--build", build, "--target", "upgrade"], check=True,
                       stdout=subprocess.DEVNULL)
        subprocess.run(["cpack"], cwd=build, check=True, stdout=subprocess.DEVNULL)
        package = vmcam.find_package(build)
    daemon = Path(package)
    if not daemon.is_file():
        pytest.fail(f"no camera archive at {daemon}")
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
