"""Multicast upgrade in the camera sandbox: a tool on the LAN announces a
file, streams it to one or many cameras and reads their acknowledgements;
the real daemon stores it in /dev, checks it with busybox md5sum and installs
it with busybox unzip, the programmer stand-in, or the file-backed flash."""

import os

import pytest

import camera as rig
from camera import Transfer

FINISH = "/customer/upgrade_finish_flag"
ARM_RECORD = "/customer/arm_version_file"
DESC = "/etc/flash.desc"
# A small flash, so that a whole-flash image fits in a short stream.
SMALL_MTD = [(0x20000, 0x10000, "boot"), (0x40000, 0x10000, "kernel"),
             (0x40000, 0x10000, "rootfs"), (0x40000, 0x10000, "homefs")]
OFFSETS = [sum(s for s, _e, _n in SMALL_MTD[:i]) for i in range(len(SMALL_MTD) + 1)]


def ready_camera(start_camera, lan, **kw):
    kw.setdefault("pid_list", [])
    cam = start_camera(**kw)
    rig.wait_ready(lan, [cam])
    return cam


def flash_camera(start_camera, lan, **kw):
    """A camera with SMALL_MTD as NOR flash files (see UPGRADE_FLASH_SIM)."""
    desc = "".join(f"mtd{i} nor {size:#x} {erase:#x}\n"
                   for i, (size, erase, _n) in enumerate(SMALL_MTD))
    files = {DESC: desc, **kw.pop("files", {})}
    return ready_camera(start_camera, lan, mtd=SMALL_MTD, flash=True, files=files,
                        env={"UPGRADE_FLASH_SIM": DESC}, **kw)


def upgrade(lan, cam, data, name, mode, codes, **kw):
    """Announces data to cam, streams it once accepted, and checks the
    acknowledgements."""
    with Transfer(lan, [cam], data, name=name, mode=mode, **kw) as t:
        t.announce()
        if t.ack(cam) == "0":
            t.stream()
        assert t.acks(cam, len(codes)) == codes


# -- mode 1, and the report after the reboot


def test_package_unpacked_over_root_then_reported_once_back(start_camera, lan):
    cam = ready_camera(start_camera, lan, pid_list=None, files={FINISH: ""})
    pkg = rig.zip_package({"customer/app.conf": b"level=2\n", "usr/share/app/notes.txt": b"v2.6"})
    upgrade(lan, cam, pkg, "app_V2.6.zip", 1, ["0", "5", "7"])
    # The camera's programs were stopped before '0': the main one
    # interrupted, the others killed.
    assert ("main_app", 2) in cam.signals()
    cam.wait_reboot(timeout=30)
    assert cam.read("/customer/app.conf") == b"level=2\n"
    assert cam.read("/usr/share/app/notes.txt") == b"v2.6"
    assert not cam.exists(FINISH), "an installation makes the next start report"

    with lan.listen(*rig.STATUS_GROUP) as rx:
        cam.restart()
        got = rx.collect(timeout=15, count=1, match=b"STATUS * ", from_ip=cam.ip)
        assert got, f"no report{cam._tail()}"
        assert got[0].text == (f"STATUS * \r\nDevice ID:{cam.device_id}\r\nMAC={cam.mac.upper()}"
                               "\r\nVERSION:V2.5.1\r\nDEVICE_MODEL:K1.T\r\nStatus=1")
        rx.send(rig.confirmation("f" * 32))
        rx.send(rig.confirmation(cam.device_id))
        cam.wait_line("Report status finish!", timeout=10)
    cam.wait_file(FINISH)
    cam.restart()
    cam.wait_line(f"found {FINISH}", timeout=10)


# -- modes 2 and 3: the controller programmer


@pytest.mark.parametrize("rc, word, code, record", [
    (0, None, "7", "ARM: [2.0.4_1]"),
    (1, "DEBUG_ARM", "8", "ARM: [1.0.0]"),
])
def test_controller_image_programmed_or_failure_reported(start_camera, lan, rc, word, code,
                                                         record):
    cam = ready_camera(start_camera, lan, word=word, stand_ins={"arm_upgrade": dict(rc=rc)})
    name = "PTZ_ARM_V2.0.4_TYPE1.bin"
    image = os.urandom(20000)
    upgrade(lan, cam, image, name, 2, ["0", "5", code])
    cam.wait_reboot(timeout=30)
    assert cam.calls("arm_upgrade") == [f"/dev/ttyS1 /dev/{name}" + (" DEBUG" if word else "")]
    assert cam.read(f"/customer/{name}") == image
    assert cam.read_text(ARM_RECORD) == record


UBOOT = b"U-BOOT.." * (SMALL_MTD[0][0] // 8)
KERNEL = b"KERNEL.." * (SMALL_MTD[1][0] // 8)
ARM = "dev/PTZ_ARM_V3.1.0_TYPE1.bin"


@pytest.mark.parametrize("files, rc, codes, lines", [
    ({"dev/u-boot.bin": UBOOT, "dev/uImage.bin": KERNEL, ARM: b"\x01" * 999}, 0,
     ["0", "5", "7"], ["arm upgrade succeed", "upgrade app+arm succeed"]),
    ({ARM: b"\x01" * 999}, 1, ["0", "5", "8"],
     ["upgrade u-boot failed or not found u-boot file",
      "upgrade uImage failed or not found uImage file", "arm upgrade failed"]),
    ({}, 0, ["0", "5", "2"], ["upgrade file failed"]),
], ids=["all-pieces", "controller-only-fails", "no-controller-image"])
def test_application_package_with_controller(start_camera, lan, files, rc, codes, lines):
    cam = flash_camera(start_camera, lan, stand_ins={"arm_upgrade": dict(rc=rc, delay=1)})
    pkg = rig.zip_package({"customer/app.conf": b"app=3\n", **files})
    upgrade(lan, cam, pkg, "app_arm.zip", 3, codes)
    if codes[-1] == "7":
        # '7' waits for the programmer's end (the child, which carries on,
        # says so), not for a child that never exits.
        assert "arm upgrade succeed" in cam.stdout()
    cam.wait_reboot(timeout=30)
    for line in lines:
        assert line in cam.stdout() + cam.stderr(), line
    assert cam.read("/customer/app.conf") == b"app=3\n"
    if "dev/u-boot.bin" in files:
        assert cam.read("/dev/mtd0") == UBOOT
        assert cam.read("/dev/mtd1") == KERNEL
    programmed = [f"/dev/ttyS1 /{ARM}"] if ARM in files else []
    assert cam.calls("arm_upgrade") == programmed
    assert cam.read_text(ARM_RECORD) == ("ARM: [3.1.0_1]" if rc == 0 and files else "ARM: [1.0.0]")


# -- modes 4 and 5: the file-backed flash


@pytest.mark.parametrize("mode, name, first, end", [(4, "full.img", 0, 3),
                                                    (5 + 3, "homefs.bin", 3, 4)])
def test_flash_image_written_where_it_belongs(start_camera, lan, mode, name, first, end):
    # Bad blocks on the way are the writer's unit tests' and the virtual
    # camera's part.
    cam = flash_camera(start_camera, lan, del_list=["/data/old.cfg"],
                       files={"/config_path/video.conf": "fps=25\n", "/data/old.cfg": "x"})
    image = os.urandom(OFFSETS[end] - OFFSETS[first])
    upgrade(lan, cam, image, name, mode, ["0", "5", "7"])
    cam.wait_reboot(timeout=30)
    for i, (size, _e, _n) in enumerate(SMALL_MTD):
        at = OFFSETS[i] - OFFSETS[first]
        want = image[at:at + size] if first <= i < end else b"\xff" * size
        assert cam.read(f"/dev/mtd{i}") == want, f"mtd{i}"
    if mode == 4:
        env = cam.fw_printenv()
        assert (env.get("net_upgrade_flag"), env.get("dfu_upgrade_flag")) == ("2", "0")
        assert cam.read("/data/upgrade_copy_conf/video.conf") == b"fps=25\n"
        assert "ALL_MTD upgrade succeed" in cam.stdout()
    else:  # one partition, after the delete list
        assert not cam.exists("/data/old.cfg")
        assert 'current upgrade: mtd3:"homefs"' in cam.stdout()


# -- acknowledgements and the transfer on one debugging camera


def test_every_refusal_and_a_guarded_transfer(start_camera, lan):
    cam = ready_camera(start_camera, lan, word="DEBUG", dev_files={"/dev/adir/keep": b""})
    data = os.urandom(200000)
    with Transfer(lan, [cam], data, name="fw.img", size=999999999) as t:
        t.announce()
        assert t.ack(cam) == "1"  # more than /dev holds
        first = t.session
    # Answered under the previous requester's ID: /dev/adir is a directory.
    with Transfer(lan, [cam], data, name="adir", previous=first) as t:
        t.announce()
        assert t.ack(cam) == "6"
        t.stream()
    assert cam.exists("/dev/adir/keep")

    with Transfer(lan, [cam], data, name="fw.img") as t:
        t.announce()
        assert t.ack(cam) == "0"
        # While it runs, searches are still answered (another tool's
        # announcement and other sessions' packets: the unit tests).
        assert lan.search(count=1, from_ip=cam.ip)
        t.stream()
        assert t.ack(cam) == "5"
    assert cam.read("/dev/fw.img") == data

    with Transfer(lan, [cam], data, name="fw.img") as t:
        t.announce()
        assert t.ack(cam) == "0"
        t.stream(skip={7})
        assert t.ack(cam) == "6"
    cam.wait_line("destfile md5 verify failed")
    assert cam.running, "a debugging camera stays up after a wrong md5"


@pytest.mark.parametrize("name, md5, codes", [("fw.zip", "0" * 32, ["0", "6"]),
                                               ("fw;reboot.zip", None, ["6"])])
def test_wrong_md5_or_refused_name_reboots_without_installing(start_camera, lan, name, md5,
                                                              codes):
    cam = ready_camera(start_camera, lan)
    upgrade(lan, cam, rig.zip_package({"customer/app.conf": b"never\n"}), name, 1, codes, md5=md5)
    cam.wait_reboot(timeout=30)
    assert not cam.exists("/customer/app.conf")


# -- names from the network


# Names that could leave /dev or name something that is not a new file there.
ESCAPING = ["../customer/evil", "x/y.zip", "a\tb", "..", "", "$(touch /tmp/pwned)", "null",
            "fw_setenv", "mtd_upgrade"]
# Names refused only for what a shell would make of them.
SHELL_ONLY = ["a;reboot", "a b.zip", "$(touch pwned)", "`reboot`", "a|b", "a&b", "a<b", "a>b",
              "'q'", '"q"', "a\\b", "a?"]


def test_hostile_names_refused_and_nothing_written_outside_dev(start_camera, lan):
    cam = ready_camera(start_camera, lan, word="DEBUG")
    for name in ESCAPING:
        with Transfer(lan, [cam], b"payload", name=name) as t:
            t.announce()
            assert t.ack(cam) == "6", name
            t.stream()
    # A debugging camera goes on after a name refused only for shell
    # characters: the file is stored under its very name and no shell acts
    # on it (every path is quoted).
    previous = ""
    for name in SHELL_ONLY:
        with Transfer(lan, [cam], b"payload", name=name, previous=previous) as t:
            t.announce()
            assert [t.ack(cam), t.ack(cam)] == ["6", "0"], name
            t.stream()
            assert t.ack(cam) == "5", name
            previous = t.session
        assert cam.read("/dev/" + name) == b"payload", name
    # Datagrams are handled in order: once a good transfer is verified, every
    # packet sent under a refused name has been seen (and dropped).
    upgrade(lan, cam, b"good", "good.bin", 1, ["0", "5"])
    assert cam.stderr().count("upgrade filename error!") == len(ESCAPING) + len(SHELL_ONLY)
    for path in ("/customer/evil", "/tmp/pwned", "/pwned", "/dev/pwned", "/dev/x/y.zip"):
        assert not cam.exists(path), path
    assert cam.read("/dev/fw_setenv") != b"payload"
