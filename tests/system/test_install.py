"""Flash installation in the camera sandbox: the whole-flash watcher and the
USB-disk upgrade run in the real daemon, with the real dd, cmp, cat and
fw_setenv, on a flash made of regular files (/dev/mtdN, described to the
daemon through UPGRADE_FLASH_SIM)."""

import os

import pytest

import camera as rig

ERASE = 0x10000
SIZES = [size for size, _e, _n in rig.DEFAULT_MTD]
OFFSETS = [sum(SIZES[:i]) for i in range(len(SIZES))]
DESC = "/etc/flash.desc"
STATUS_HEAD = bytes([0x81, 0x0A, 0x11, 0x5B])


def flash_description(kinds=None, badblocks=None):
    """Description lines for the default partition table (NOR unless told)."""
    kinds = kinds or {}
    badblocks = badblocks or {}
    lines = []
    for i, (size, erase, _name) in enumerate(rig.DEFAULT_MTD):
        line = f"mtd{i} {kinds.get(i, 'nor')} {size:#x} {erase:#x}"
        if i in badblocks:
            line += " badblocks=" + ",".join(str(b) for b in badblocks[i])
        lines.append(line)
    return "\n".join(lines) + "\n"


def flash_camera(start_camera, dev_files, usb=None, desc=None, **kw):
    return start_camera(
        flash=True,
        pid_list=[],
        files={DESC: desc or flash_description()},
        env={"UPGRADE_FLASH_SIM": DESC},
        dev_files=dev_files,
        usb=usb,
        **kw)


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


def test_watcher_leaves_unchanged_partitions_unwritten(start_camera):
    image = os.urandom(OFFSETS[2])
    same = {f"/dev/mtd{i}": image[OFFSETS[i]:OFFSETS[i] + SIZES[i]] for i in range(2)}
    cam = flash_camera(start_camera, {"/dev/fw.img": image, "/dev/mtd_upgrade": b"", **same})
    before = [os.stat(cam.path(f"/dev/mtd{i}")).st_mtime_ns for i in range(2)]
    cam.wait_reboot(timeout=30)
    assert [os.stat(cam.path(f"/dev/mtd{i}")).st_mtime_ns for i in range(2)] == before
    assert cam.fw_printenv().get("net_upgrade_flag") == "2"


def test_watcher_nand_bad_block_shifts_image_and_keeps_flag_one(start_camera):
    image = os.urandom(OFFSETS[2])  # boot and kernel
    desc = flash_description(kinds={1: "nand"}, badblocks={1: [2]})
    cam = flash_camera(start_camera, {"/dev/fw.img": image, "/dev/onvif_upgrade_flag": b""},
                       desc=desc)
    cam.wait_reboot(timeout=30)
    kernel = part(cam, 1)
    src = image[OFFSETS[1]:OFFSETS[2]]
    assert kernel[:2 * ERASE] == src[:2 * ERASE]
    assert kernel[2 * ERASE:3 * ERASE] == b"\xff" * ERASE, "the bad block is left alone"
    assert kernel[3 * ERASE:] == src[2 * ERASE:-ERASE], "the image continues one block later"
    # One block of the image found no room: the run never counts up to the
    # image size, so the boot loader is told the installation is incomplete.
    assert cam.fw_printenv().get("net_upgrade_flag") == "1"


def test_watcher_refuses_shell_names_and_reboots_untouched(start_camera):
    image = os.urandom(OFFSETS[2])
    cam = flash_camera(start_camera, {"/dev/a;b.img": image, "/dev/mtd_upgrade": b""})
    cam.wait_reboot(timeout=30)
    assert "upgrade filename error!" in cam.stdout()
    assert all(erased(cam, i) for i in range(len(SIZES)))
    assert "net_upgrade_flag" not in cam.fw_printenv()


# -- USB disk


def test_usb_disk_writes_boot_loader_only(start_camera):
    image = os.urandom(OFFSETS[3])
    cam = flash_camera(start_camera, {"/dev/u_disk_upgrade_flag": b""},
                       usb={"fw_K1.img": image})
    cam.wait_reboot(timeout=30)
    assert cam.control_datagrams() == [status(3)]
    assert part(cam, 0) == image[:SIZES[0]]
    assert all(erased(cam, i) for i in range(1, len(SIZES))), "the loop ends at partition 1"
    env = cam.fw_printenv()
    assert env.get("net_upgrade_flag") == "2"
    assert env.get("mode_type") == "K1"
    # The comparison's scratch copies of the (then erased) boot partition.
    assert cam.read("/dev/mtd0.bin") == b"\xff" * SIZES[0]
    assert cam.read("/dev/mtd0_ext.bin") == b"\xff" * 393216
    assert not cam.exists("/dev/u-boot.bin")
    assert not cam.exists("/dev/u_disk_upgrade_flag")
    assert "exit mtdbug" in cam.stdout()
    assert "ALL_MTD upgrade succeed" in cam.read_text("/data/upgrade.log")


def test_usb_disk_equal_boot_loader_is_not_rewritten(start_camera):
    image = os.urandom(OFFSETS[2])
    cam = flash_camera(start_camera,
                       {"/dev/u_disk_upgrade_flag": b"", "/dev/mtd0": image[:SIZES[0]]},
                       usb={"fw_K1.img": image})
    mtime = os.stat(cam.path("/dev/mtd0")).st_mtime_ns
    cam.wait_reboot(timeout=30)
    assert os.stat(cam.path("/dev/mtd0")).st_mtime_ns == mtime, "mtd0 was written"
    env = cam.fw_printenv()
    assert env.get("net_upgrade_flag") == "1"
    assert env.get("mode_type") == "K1"
    assert not cam.exists("/dev/mtd0.bin")
    assert "/dev/u-boot.bin the same as mtd0, continue" in cam.stdout()


@pytest.mark.parametrize("name, line", [
    ("fw_K2.img", "device_model no match!"),
    ("x;reboot_K1.img", "upgrade filename error!"),  # the model matches: the name alone refuses
])
def test_usb_disk_refusals_report_two_and_keep_running(start_camera, name, line):
    cam = flash_camera(start_camera, {"/dev/u_disk_upgrade_flag": b""},
                       usb={name: os.urandom(SIZES[0])})
    cam.wait_line(line, timeout=10)
    assert rig.wait_until(lambda: not cam.exists("/dev/u_disk_upgrade_flag"), 5)
    assert cam.wait_control(1) == [status(2)]
    assert cam.running
    assert all(erased(cam, i) for i in range(len(SIZES)))


def test_usb_without_disk_reports_one_then_two(start_camera):
    cam = flash_camera(start_camera, {"/dev/u_disk_upgrade_flag": b""})
    cam.wait_line("not found upgrade file!", timeout=10)
    assert cam.wait_control(2) == [status(1), status(2)]
    assert cam.running
