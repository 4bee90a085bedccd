"""Motor controller start-up check in the camera sandbox: the real daemon,
the rig's stand-in for /customer/arm_upgrade, busybox for the rest."""

import os
import select
import threading

import pytest

import camera as rig

IMAGE = "/customer/X_ARM_V1.2.3_TYPE1.bin"


def unflashed_camera(start_camera, **kw):
    """A camera whose controller has no version record yet."""
    files = {"/customer/arm_version_file": None, IMAGE: b"\x00" * 300}
    files.update(kw.pop("files", {}))
    return start_camera(ready=None, files=files, **kw)


def test_start_up_flashes_controller_records_version_and_reboots(start_camera):
    cam = unflashed_camera(start_camera)
    cam.wait_line("upgradefilepath: " + IMAGE, timeout=5)
    since_start = cam.wait_reboot(timeout=30)
    # 13 s before the programmer runs, 5 s after the watchdog is armed.
    assert 13 <= since_start < 25
    assert cam.calls("arm_upgrade") == ["/dev/ttyS1 " + IMAGE]
    assert cam.read_text("/customer/arm_version_file") == "ARM: [1.2.3_1]"
    assert cam.read_text("/data/arm_version_file") == "ARM: [1.2.3_1]"
    assert cam.read_text("/data/motor_type") == "motor_type=1\n"
    assert cam.exists(IMAGE)


def test_three_failed_runs_leave_no_record_and_the_child_carries_on(start_camera):
    cam = unflashed_camera(start_camera, stand_ins={"arm_upgrade": dict(rc=1)})
    cam.wait_line("##### arm upgrade failed", timeout=25)
    # The child goes on with the start-up (the parent waits for it).
    cam.wait_line("init socket succeed", timeout=10)
    assert cam.calls("arm_upgrade") == ["/dev/ttyS1 " + IMAGE] * 3
    assert not cam.exists("/customer/arm_version_file")
    assert cam.running


# -- the controller field of the factory board test

CLIENT = "c0ffee00c0ffee00c0ffee00c0ffee00"


def board_test(lan, cam, rest):
    assert lan.search(client_id=CLIENT, count=1, timeout=5.0), f"no search reply{cam._tail()}"
    data = (b"BOARD_TES\r\nDevice ID:" + cam.device_id.encode() + b"\r\nClient ID:" +
            CLIENT.encode() + rest)
    got = lan.request(data, *rig.SEARCH_GROUP, timeout=10.0, match=b"BOARD_TEST")
    assert len(got) == 1, f"no board test reply{cam._tail()}"
    return got[0].text


def bootloader(cam, answer):
    """Answers every sync byte on the camera's serial line with `answer`;
    returns the list of bytes received (filled while the thread runs)."""
    seen = []
    stop = threading.Event()

    def run(fd=cam.serial):
        try:
            while not stop.is_set():
                if select.select([fd], [], [], 0.05)[0]:
                    data = os.read(fd, 64)
                    seen.extend(data)
                    if 0x7F in data:
                        os.write(fd, answer)
        except OSError:  # the rig closed the pty at stop
            pass

    t = threading.Thread(target=run, daemon=True)
    t.start()
    return seen, stop


@pytest.mark.parametrize("answer, field", [(b"\x79", "\r\nARM=1"), (b"\x1f", "\r\nARM=0")])
def test_board_test_reports_whether_the_bootloader_answers(start_camera, lan, answer, field):
    cam = start_camera(files={IMAGE: b"\x00"})
    # A recorded controller is left alone at start-up, whatever image lies there.
    assert cam.calls("arm_upgrade") == []
    seen, stop = bootloader(cam, answer)
    try:
        text = board_test(lan, cam, b"\r\nTYPE=K1")
    finally:
        stop.set()
    assert text.endswith("\r\nV2.5.1" + field + "\r\nSTATUS=Test finish")
    assert seen == [0x7F]
    # K1 wiring, seen in the rig's register file: BOOT0 (GPIO13 bit 4) left
    # high, reset (bit 6) high again after the pulse, both pins outputs.
    assert register(cam, 0x20210040) == 0x10
    assert register(cam, 0x20210100) == 0x40
    assert register(cam, 0x20210400) & 0x50 == 0x50


def register(cam, address):
    with open(cam.path("/dev/mem"), "rb") as f:
        f.seek(address)
        return int.from_bytes(f.read(4), "little")
