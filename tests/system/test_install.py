"""Flash installation in the camera sandbox: the whole-flash watcher and the
USB-disk upgrade run in the real daemon, with the real dd, cmp, cat and
fw_setenv, on a flash made of regular files (/dev/mtdN, described to the
daemon through UPGRADE_FLASH_SIM). Bad blocks, unchanged blocks and refused
names are the unit tests' part (on the fake flash) and the virtual camera's
(on NAND)."""

import os

import pytest

import camera as rig

SIZES = [size for size, _e, _n in rig.DEFAULT_MTD]
OFFSETS = [sum(SIZES[:i]) for i in range(len(SIZES))]
DESC = "/etc/flash.desc"
STATUS_HEAD = bytes([0x81, 0x0A, 0x11, 0x5B])


def flash_camera(start_camera, dev_files, usb=None):
    """A camera whose default partitions are NOR flash files."""
    desc = "".join(f"mtd{i} nor {size:#x} {erase:#x}\n"
                   for i, (size, erase, _name) in enumerate(rig.DEFAULT_MTD))
    return start_camera(flash=True, pid_list=[], files={DESC: desc},
                        env={"UPGRADE_FLASH_SIM": DESC}, dev_files=dev_files, usb=usb)


def part(cam, i):
    return cam.read(f"/dev/mtd{i}")


def erased(cam, i):
    return part(cam, i) == b"\xff" * SIZES[i]


def status(code):
    return STATUS_HEAD + bytes([code, 0xFF])


# -- whole-flash watcher


def test_watcher_writes_covered_partitions_and_sets_flags(start_camera):
    covered = 3  # boot, kernel and rootfs
    image = os.urandom(OFFSETS[covered])
    cam = flash_camera(start_camera, {"/dev/fw.img": image, "/dev/mtd_upgrade": b""})
    cam.wait_reboot(timeout=30)
    for i in range(covered):
        assert part(cam, i) == image[OFFSETS[i]:OFFSETS[i] + SIZES[i]], f"mtd{i}"
    for i in range(covered, len(SIZES)):
        assert erased(cam, i), f"mtd{i} must not be touched"
    env = cam.fw_printenv()
    assert env.get("net_upgrade_flag") == "2"
    assert env.get("dfu_upgrade_flag") == "0"
    out = cam.stdout()
    assert "exit mtdbug" in out
    assert "mtd_file_offset: 0x380000" in out
    assert "ALL_MTD upgrade succeed" in cam.read_text("/data/upgrade.log")


# -- USB disk


@pytest.mark.parametrize("same", [False, True], ids=["new-boot-loader", "same-boot-loader"])
def test_usb_disk_writes_a_changed_boot_loader_only(start_camera, same):
    image = os.urandom(OFFSETS[3])
    dev_files = {"/dev/u_disk_upgrade_flag": b""}
    if same:
        dev_files["/dev/mtd0"] = image[:SIZES[0]]
    cam = flash_camera(start_camera, dev_files, usb={"fw_K1.img": image})
    mtime = os.stat(cam.path("/dev/mtd0")).st_mtime_ns
    cam.wait_reboot(timeout=30)
    assert cam.control_datagrams() == [status(3)]
    assert part(cam, 0) == image[:SIZES[0]]
    assert all(erased(cam, i) for i in range(1, len(SIZES))), "the loop ends at partition 1"
    env = cam.fw_printenv()
    assert env.get("mode_type") == "K1"
    assert not cam.exists("/dev/u-boot.bin") and not cam.exists("/dev/u_disk_upgrade_flag")
    if same:
        # cmp found the copies equal: nothing written, the run left at flag 1.
        assert os.stat(cam.path("/dev/mtd0")).st_mtime_ns == mtime, "mtd0 was written"
        assert env.get("net_upgrade_flag") == "1"
        assert not cam.exists("/dev/mtd0.bin")
        assert "/dev/u-boot.bin the same as mtd0, continue" in cam.stdout()
    else:
        assert env.get("net_upgrade_flag") == "2"
        # The comparison's scratch copies of the (then erased) boot partition.
        assert cam.read("/dev/mtd0.bin") == b"\xff" * SIZES[0]
        assert cam.read("/dev/mtd0_ext.bin") == b"\xff" * 393216
        assert "exit mtdbug" in cam.stdout()
        assert "ALL_MTD upgrade succeed" in cam.read_text("/data/upgrade.log")
