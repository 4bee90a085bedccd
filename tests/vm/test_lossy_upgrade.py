"""A virtual camera on a bad site: camtool offers the NORM transfer, the
armhf daemon takes it, and a mode-1 package arrives whole through 1 % loss on
the camera's LAN port; the camera installs it, reboots and comes back with
the package's version. Skipped while camtool has no --transfer."""

import json
import os
import random
import subprocess
from pathlib import Path

import pytest

import camera as rig
import vmcam

VERSION = "V2.6.0"


def camtool_with_transfer():
    """camtool ($CAMTOOL_BIN, else the newest host build) and why it cannot
    offer the NORM transfer (None when it can)."""
    found = os.environ.get("CAMTOOL_BIN") or vmcam.find_program("camtool")
    if not found:
        return None, "no camtool: build it (a host preset)"
    helptext = subprocess.run([found, "upgrade", "--help"], capture_output=True,
                              text=True).stdout
    return Path(found), None if "--transfer" in helptext else f"{found} has no --transfer"


CAMTOOL, MISSING = camtool_with_transfer()
# Decided before the lab starts: a camtool without the transfer costs no boot.
pytestmark = pytest.mark.skipif(MISSING is not None, reason=MISSING or "")


def upgrade(lan, camtool, cam, package, *flags):
    """One camtool upgrade of cam (the emulated camera takes about 1 MB/s and
    installs a small package in seconds); its JSON object, the packets the
    loss switch dropped and camtool's error text."""
    p = lan.exec([camtool, "upgrade", package, "--mode", 1, "--to", cam.device_id, "--json",
                  "--rate", 8, "--answer-wait", 120, "--install-wait", 120, "--back-wait", 600,
                  *flags],
                 check=False, timeout=1200)
    results = [json.loads(line) for line in p.stdout.splitlines() if line.startswith("{")]
    assert len(results) == 1, p.stdout + p.stderr
    return results[0], lan.lost_packets(), p.stderr


def test_mode_1_package_over_norm_through_1_percent_loss(start_vm, lan, tmp_path):
    cam = start_vm()
    assert lan.search(count=1, from_ip=cam.ip, timeout=30.0), f"{cam.name} does not answer"
    package = tmp_path / f"site_{VERSION}.zip"
    package.write_bytes(rig.zip_package({
        "customer/version_file": VERSION,
        "customer/payload.bin": random.Random(23).randbytes(512 * 1024)}))

    lan.set_loss(1)
    result, lost, err = upgrade(lan, CAMTOOL, cam, package, "--transfer", "auto")
    lan.set_loss(0)

    story = f"{result}\n{lost} packets lost\n{err}"
    assert result["transfer"] == "norm", story
    assert result["ok"] and result["acks"][-1].endswith("57"), story
    assert result["version_after"] == VERSION, story
    assert cam.read_text("/customer/version_file").strip() == VERSION
    assert cam.boots == 2 and cam.ends[0][1] == "watchdog reset", cam.ends
