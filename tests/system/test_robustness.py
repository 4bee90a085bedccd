"""What a camera on a site LAN must survive: its daemon killed at every stage
of an upgrade and started again, and a flood of junk and cut-off commands on
every port it serves."""

import os
import random
import socket
import struct

import pytest

import camera as rig
from camera import Transfer
from transfer import CLIENT, announcement, query
from test_mcast_upgrade import OFFSETS, SMALL_MTD, flash_camera
from test_partner import PORT as PARTNER_PORT, PARAM_PORT, REQUEST_GROUP, header, net_set, text32

PKG = rig.zip_package({"customer/app.conf": b"level=2\n"})
UBOOT = b"U-BOOT.." * (SMALL_MTD[0][0] // 8)
IMAGE = os.urandom(OFFSETS[3])  # boot, kernel, rootfs
ROOTFS = os.urandom(SMALL_MTD[2][0])

# stage, word, mode, file name, data, when to kill (an acknowledgement code
# or a console line), the acknowledgements of a whole run.
STAGES = [
    ("announced", None, 1, "app.zip", PKG, "0", ["0", "5", "7"]),
    ("receiving", None, 4, "full.img", IMAGE, "file trans begin", ["0", "5", "7"]),
    ("verified", "DEBUG", 1, "app.zip", PKG, "5", ["0", "5"]),
    ("install-package", None, 1, "app.zip", PKG, "start unzip destfile", ["0", "5", "7"]),
    ("install-controller", None, 2, "PTZ_ARM_V2.0.4_TYPE1.bin", b"\x01" * 3000,
     "start upgrade arm", ["0", "5", "7"]),
    ("install-app-controller", None, 3, "app_arm.zip",
     rig.zip_package({"dev/u-boot.bin": UBOOT, "dev/PTZ_ARM_V3.1.0_TYPE1.bin": b"\x02" * 999}),
     "start upgrade u-boot", ["0", "5", "7"]),
    ("install-whole-flash", None, 4, "full.img", IMAGE, "mtd1 write_addr", ["0", "5", "7"]),
    ("install-partition", None, 5 + 2, "rootfs.bin", ROOTFS, 'write "rootfs"...',
     ["0", "5", "7"]),
]


def kill_after(cam, t, when):
    """Waits for the stage (an acknowledgement or a console line), then kills
    the daemon and everything it started and lets the camera's init start it
    again. Returns the boot environment as the killed daemon left it."""
    if len(when) == 1:
        assert t.ack(cam) == when
    else:
        cam.wait_line(when, timeout=30)
    cam.freeze_daemon()
    env = cam.fw_printenv()
    cam.kill_daemon()
    return env


def holds_image(cam):
    return [cam.read(f"/dev/mtd{i}") for i in range(3)] == [
        IMAGE[OFFSETS[i]:OFFSETS[i + 1]] for i in range(3)]


def never_complete_early(cam, env):
    """The boot loader is told "complete" (flag 2) only for a whole image."""
    if env.get("net_upgrade_flag") == "2":
        assert holds_image(cam), "net_upgrade_flag 2 over an incomplete image"


def answers_and_is_idle(lan, cam):
    """Searches are answered and the firmware query too: no upgrade is taken
    to be in progress (a busy camera ignores the query)."""
    assert lan.search(count=1, from_ip=cam.ip, timeout=120), f"no search reply{cam._tail()}"
    rig.wait_ready(lan, [cam])


@pytest.mark.parametrize("stage, word, mode, name, data, when, codes", STAGES,
                         ids=[s[0] for s in STAGES])
def test_daemon_killed_at_each_upgrade_stage_then_started_again(start_camera, lan, stage, word,
                                                                 mode, name, data, when, codes):
    cam = flash_camera(start_camera, lan, word=word, pid_list=[],
                       stand_ins={"arm_upgrade": dict(rc=0, delay=2)})
    with Transfer(lan, [cam], data, name=name, mode=mode) as t:
        t.announce()
        if when != "0":
            assert t.ack(cam) == "0"
            t.stream()
        env = kill_after(cam, t, when)
    never_complete_early(cam, env)
    answers_and_is_idle(lan, cam)
    assert not cam.rebooted

    # The technician tries again: the whole run goes through as on a fresh
    # camera, over whatever the killed run left in /dev.
    with Transfer(lan, [cam], data, name=name, mode=mode) as t:
        t.announce()
        assert t.ack(cam) == "0"
        t.stream()
        assert t.acks(cam, len(codes)) == codes
    if word == "DEBUG":
        assert cam.read(f"/dev/{name}") == data
        return
    cam.wait_reboot(timeout=60)
    if mode == 4:
        assert holds_image(cam) and cam.fw_printenv().get("net_upgrade_flag") == "2"
    elif mode == 7:
        assert cam.read("/dev/mtd2") == ROOTFS
    elif mode == 1:
        assert cam.read("/customer/app.conf") == b"level=2\n"


def test_whole_flash_watcher_killed_mid_write_starts_over(start_camera, lan):
    cam = flash_camera(start_camera, lan, pid_list=[])
    cam.write("/dev/full.img", IMAGE)
    cam.write("/dev/mtd_upgrade", "")
    cam.wait_line("mtd1 write_addr", timeout=30)
    cam.freeze_daemon()
    never_complete_early(cam, cam.fw_printenv())
    cam.kill_daemon(ready=None)
    # The image and its trigger are still there: the new run writes it all.
    cam.wait_reboot(timeout=60)
    assert holds_image(cam) and cam.fw_printenv().get("net_upgrade_flag") == "2"


# -- flood

FLOOD = 100_000
OTHER_ID = "f" * 32
REAL = [  # real commands, for another camera: cut anywhere, never obeyed
    rig.search_datagram(),
    f"CONFIGNET\r\nClient ID:{CLIENT}\r\nDevice ID:{OTHER_ID}\r\ndhcp=1\r\n".encode(),
    f"CAMERA_RE\r\nDevice ID:{OTHER_ID}\r\nClient ID:{CLIENT}".encode(),
    f"BOARD_TES\r\nDevice ID:{OTHER_ID}\r\nClient ID:{CLIENT}\r\nTYPE=K1".encode(),
    query([OTHER_ID]),
    announcement([OTHER_ID], "s" * 32, "fw.zip", "0" * 32, 100),
    rig.packet("b", "s" * 32, b"x" * 100),
    rig.confirmation(OTHER_ID),
    header(0x60, 16),
    header(0x02, 48) + text32(OTHER_ID),
    net_set(OTHER_ID, 3, "10.9.9.9", "255.0.0.0", "10.0.0.1", "1.1.1.1"),
    header(0x61, 56) + text32(OTHER_ID) + struct.pack("<I", 1) + struct.pack(">i", 3),
    b"Discovery camera",
    f"Camera netconfig\nDevice ID:{OTHER_ID}\ndhcp=1\n".encode(),
    f"Production mode\r\nDevice ID:{OTHER_ID}\r\naction=test enable\r\nenable=on".encode(),
]


def flood(lan, cam, count, seed):
    """`count` datagrams, half random bytes and half real commands cut at a
    random length, spread over every port the camera serves."""
    r = random.Random(seed)
    targets = [rig.SEARCH_GROUP, rig.BATCH_GROUP, rig.STATUS_GROUP, (REQUEST_GROUP, PARTNER_PORT),
               (cam.ip, PARAM_PORT), (cam.ip, 12811)]
    s = lan.socket()
    s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(lan.ip))
    for i in range(count):
        if i % 2:
            data = r.randbytes(r.choice((r.randrange(64), r.randrange(5200))))
        else:
            real = r.choice(REAL)
            data = real[:r.randrange(len(real) + 1)]
        s.sendto(data, targets[i % len(targets)])
    s.close()


def test_flood_on_every_port_leaves_the_daemon_answering_and_flat(start_camera, lan):
    site = "status_report=1\nbroadcast=1\npartner=1\n"
    cam = start_camera(pid_list=[], files={"/customer/upgrade.conf": site},
                       env={"ASAN_OPTIONS": "quarantine_size_mb=1"})
    cam.wait_line("init search_mira succeed", timeout=10)
    answers_and_is_idle(lan, cam)
    flood(lan, cam, FLOOD // 10, seed=1)  # every path taken once before counting
    answers_and_is_idle(lan, cam)
    before, conf = cam.resources(), cam.read("/data/net.conf")
    flood(lan, cam, FLOOD, seed=2)
    answers_and_is_idle(lan, cam)
    after = cam.resources()
    print(f"\n[flood] before {before} after {after}")
    assert cam.running and not cam.rebooted
    assert after["fds"] == before["fds"] and after["threads"] == before["threads"], (before, after)
    assert after["rss_kib"] - before["rss_kib"] < 2048, (before, after)
    assert cam.read("/data/net.conf") == conf
