"""The armhf daemon on a virtual camera: real MTD ioctls on NAND with bad
blocks, the boot environment through fw_setenv, softdog, reboot and the
controller's bootloader on a real UART. Each test boots the camera as often
as the story needs; the flash is kept across those boots. The USB-disk
upgrade runs on the namespace camera (the same writer as the watcher's)."""

import random
import subprocess

import camera as rig
import lanupgrade
import vmcam

BLOCK = vmcam.BLOCK
BOOT, ENV, KERNEL = 0, 1, 2
KERNEL_FIRST_BLOCK = 10  # boot 8 blocks, env 2


def noise(n, seed):
    return random.Random(seed).randbytes(n)


def image(boot, env, kernel):
    """A whole-flash image covering boot, env and kernel."""
    assert len(boot) == 8 * BLOCK and len(env) == 2 * BLOCK and len(kernel) == 32 * BLOCK
    return boot + env + kernel


def search_from(lan, cam, timeout=30.0):
    got = lan.search(count=1, from_ip=cam.ip, timeout=timeout)
    assert got, f"{cam.name} does not answer a search"
    return got[0].fields()


def test_watcher_writes_changed_blocks_around_a_bad_block_then_watchdog_reboot(start_vm, lan):
    bad = KERNEL_FIRST_BLOCK + 3
    cam = start_vm(bad_blocks=[bad])
    device_id = search_from(lan, cam)["Device ID"]
    erases_before = cam.flash.erase_count()
    # Boot loader changed; environment and the kernel's second half equal to
    # the blank flash, so those blocks must be left unerased.
    kernel = noise(16 * BLOCK, 2) + b"\xff" * (16 * BLOCK)
    img = image(noise(8 * BLOCK, 1), b"\xff" * (2 * BLOCK), kernel)
    cam.put(img, "/dev/fw.img")
    cam.exec("touch /dev/mtd_upgrade", check=True)

    assert cam.wait_boot(2, timeout=600) == "watchdog reset"
    assert "real wdt timeout:1 s" in "\n".join(cam.lines(boot=1))
    assert search_from(lan, cam)["Device ID"] == device_id

    assert cam.flash.partition(BOOT) == img[:8 * BLOCK]
    # The bad block is skipped without using image data: the kernel goes on
    # in the next good block and its last block does not fit.
    assert cam.flash.bad_blocks() == [bad]
    assert cam.flash.partition(KERNEL, skip_bad=True) == kernel[:31 * BLOCK]
    changed = 8 + 16
    erased = cam.flash.erase_count() - erases_before
    # fw_setenv erases the environment block for each of its three writes.
    assert changed <= erased <= changed + 6, erased
    # The skipped block is not counted as written, so the progress never
    # reaches the image size: the installation stays marked unfinished.
    env = cam.fw_printenv()
    assert (env.get("net_upgrade_flag"), env.get("dfu_upgrade_flag")) == ("1", "0")


def test_start_up_programs_the_controller_and_board_test_finds_it(start_vm, lan):
    firmware = noise(3000, 6)
    cam = start_vm(ready=None, files={"/customer/arm_version_file": None,
                                      "/customer/X_ARM_V1.2.3_TYPE1.bin": firmware})
    # Boot 1 programs the controller through stm32flash and reboots.
    assert cam.wait_boot(2, timeout=600) == "watchdog reset"
    assert cam.stm32_flash() == firmware
    assert cam.read_text("/customer/arm_version_file") == "ARM: [1.2.3_1]"
    assert cam.read_text("/data/motor_type").strip() == "motor_type=1"

    client = "c0ffee00c0ffee00c0ffee00c0ffee00"
    search_from(lan, cam)
    request = (b"BOARD_TES\r\nDevice ID:" + cam.device_id.encode() + b"\r\nClient ID:" +
               client.encode() + b"\r\nTYPE=K1")
    [reply] = lan.request(request, *rig.SEARCH_GROUP, timeout=30.0, match=b"BOARD_TEST",
                          count=1)
    assert reply.text.endswith("\r\nARM=1\r\nSTATUS=Test finish"), reply.text


def test_multicast_partition_then_whole_flash_upgrade_from_the_lan(start_vm, lan):
    cam = start_vm()
    device_id = search_from(lan, cam)["Device ID"]

    # Mode 5 + 2: the kernel partition alone, from a file shorter than it.
    piece = noise(3 * BLOCK + 100, 7)
    assert lanupgrade.run_upgrade(lan, cam, piece, "uImage.bin", 5 + KERNEL) == "057"
    assert cam.wait_boot(2, timeout=600) == "watchdog reset"
    # Written in 64 KiB pieces from a file that ends 100 bytes into the
    # last one: that piece cannot be read whole and stays erased.
    kernel = cam.flash.partition(KERNEL)
    assert kernel[:3 * BLOCK] == piece[:3 * BLOCK]
    assert kernel[3 * BLOCK:] == b"\xff" * (29 * BLOCK)

    # Mode 4: boot, env and kernel from one image.
    img = image(noise(8 * BLOCK, 8), b"\xff" * (2 * BLOCK), noise(32 * BLOCK, 9))
    assert lanupgrade.run_upgrade(lan, cam, img, "all.img", 4) == "057"
    assert cam.wait_boot(3, timeout=600) == "watchdog reset"
    assert cam.flash.partition(BOOT) == img[:8 * BLOCK]
    assert cam.flash.partition(KERNEL) == img[10 * BLOCK:]
    assert cam.fw_printenv().get("net_upgrade_flag") == "2"
    assert search_from(lan, cam)["Device ID"] == device_id


def test_keyed_camera_writes_only_a_signed_whole_flash_image(start_vm, lan, tmp_path):
    pub, sec = tmp_path / "site.pub", tmp_path / "site.key"
    subprocess.run(["minisign", "-G", "-W", "-p", pub, "-s", sec], check=True, capture_output=True)
    cam = start_vm(files={"/customer/keys/site.pub": pub.read_text()})
    search_from(lan, cam)
    img = image(noise(8 * BLOCK, 11), b"\xff" * (2 * BLOCK), noise(32 * BLOCK, 12))
    (tmp_path / "fw.img").write_bytes(img)
    erases_before = cam.flash.erase_count()
    boot_before = cam.flash.partition(BOOT)

    # No signature beside the image: the watcher reboots without writing.
    cam.put(img, "/dev/fw.img")
    cam.exec("touch /dev/mtd_upgrade", check=True)
    assert cam.wait_boot(2, timeout=600) == "watchdog reset"
    assert "signature check failed" in "\n".join(cam.lines(boot=1))
    assert cam.flash.erase_count() == erases_before
    assert cam.flash.partition(BOOT) == boot_before

    # Signed by the release signer: written.
    subprocess.run(["minisign", "-S", "-W", "-s", sec, "-m", tmp_path / "fw.img"], check=True,
                   capture_output=True)
    search_from(lan, cam)
    cam.put(img, "/dev/fw.img")
    cam.put((tmp_path / "fw.img.minisig").read_bytes(), "/dev/fw.img.minisig")
    cam.exec("touch /dev/mtd_upgrade", check=True)
    assert cam.wait_boot(3, timeout=600) == "watchdog reset"
    assert cam.flash.partition(BOOT) == img[:8 * BLOCK]
    assert cam.flash.partition(KERNEL) == img[10 * BLOCK:]
