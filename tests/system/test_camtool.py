"""camtool against namespace cameras: what a technician does from the LAN.

camtool runs inside the LAN namespace (never on the host's network).
"""

import json
import os
import re
import signal
import subprocess
import threading
import time
from pathlib import Path

import pytest

import camera as rig

NOBODY = "0123456789abcdef0123456789abcdef"


@pytest.fixture(scope="session")
def camtool_bin(upgrade_bin):
    """$CAMTOOL_BIN, else the camtool built beside the daemon under test."""
    path = Path(os.environ.get("CAMTOOL_BIN") or Path(upgrade_bin).parent / "camtool" / "camtool")
    if not path.is_file():
        pytest.fail(f"no camtool at {path}: set CAMTOOL_BIN or build the 'camtool' target")
    return path


@pytest.fixture
def camtool(camtool_bin, lan):
    """camtool(*args) runs camtool in the LAN namespace; returns the
    CompletedProcess (text). camtool.start(*args) returns a Popen."""

    class Runner:
        def __call__(self, *args, timeout=120):
            return lan.exec([camtool_bin, *map(str, args)], check=False, timeout=timeout)

        def start(self, *args):
            return subprocess.Popen(["ip", "netns", "exec", lan.name, str(camtool_bin),
                                     *map(str, args)], stdout=subprocess.PIPE,
                                    stderr=subprocess.PIPE, text=True)

    return Runner()


def json_lines(text):
    return [json.loads(line) for line in text.splitlines() if line.strip()]


def test_search_five_cameras_as_table_json_and_watch(start_camera, lan, camtool):
    cams = [start_camera() for _ in range(5)]
    p = camtool("search", "--wait", 3)
    assert p.returncode == 0, p.stderr
    for c in cams:
        assert re.search(rf"^{c.device_id}\s+{re.escape(c.ip)}\s+{c.mac}\s+off\s+V2.5.1\s+K1.T\s",
                         p.stdout, re.M), p.stdout
    assert p.stdout.rstrip().endswith("5 cameras")

    p = camtool("search", "--wait", 3, "--json")
    got = {j["device_id"]: j for j in json_lines(p.stdout)}
    assert {k: j["ip"] for k, j in got.items()} == {c.device_id: c.ip for c in cams}
    assert all(j["dhcp"] is False and j["netmask"] == "255.255.255.0" for j in got.values())

    # --watch prints a JSON line per camera as it appears, until interrupted.
    w = camtool.start("search", "--watch", "--json")
    guard = threading.Timer(60, w.kill)  # a hung camtool ends the read below
    guard.start()
    seen = set()
    try:
        while len(seen) < 5:
            line = w.stdout.readline()
            assert line, w.stderr.read()
            seen.add(json.loads(line)["device_id"])
        w.send_signal(signal.SIGINT)
        assert w.wait(10) == 0
    finally:
        guard.cancel()
    assert seen == {c.device_id for c in cams}


def test_single_camera_commands(start_camera, lan, camtool):
    cam = start_camera(apps=("autofocus",), files={"/data/curve_times.dat": "41\n"})
    p = camtool("query", cam.ip, "--json")
    assert p.returncode == 0, p.stderr
    [q] = json_lines(p.stdout)
    assert q["device_id"] == cam.device_id and q["version"] == "V2.5.1"
    assert [(x["dev"], x["name"], x["size"], x["mode"]) for x in q["partitions"]] == [
        (f"mtd{i}", name, size, i + 5) for i, (size, _, name) in enumerate(cam.mtd)]

    p = camtool("production", cam.device_id, "--json")
    assert json_lines(p.stdout) == [
        {"device_id": cam.device_id, "boot_times": 0, "curve_times": 41}], p.stderr

    assert camtool("flicker", cam.ip, "on").returncode == 0
    assert cam.wait_control(1) == [b"\x81\x0a\x02\x01\x02\xff"]

    # The board test: checks asked for come back as pass/fail; a failed one fails the command.
    p = camtool("board-test", cam.device_id, "--type", "K5", "--usb", "--sdi", "--json")
    [b] = json_lines(p.stdout)
    assert b["checks"] == {"USB": False, "SDI": False} and b["finished"] is True
    assert b["version"] == "V2.5.1" and b["mac"] == cam.mac
    assert p.returncode == 1 and "main application" in p.stderr
    # The camera's killall reached its programs: the main one interrupted,
    # autofocus killed.
    assert ("main_app", 2) in cam.signals()
    assert rig.wait_until(lambda: "autofocus" not in [p.comm for p in cam.processes()], 3)

    # Nobody with that ID: said plainly, exit status 1.
    p = camtool("production", NOBODY, "--timeout", 1)
    assert p.returncode == 1
    assert f"no camera {NOBODY} answered a search" in p.stderr


def test_commands_that_reboot(start_camera, lan, camtool):
    net, lum, boot = start_camera(), start_camera(), start_camera()
    # All three at once: each camera takes 5-7 s to reboot after its command.
    procs = {"net": camtool.start("confignet", net.device_id, "--ip", "192.168.77.99",
                                  "--dns", "1.0.0.1"),
             "lum": camtool.start("lumconfig", lum.ip, "--serial", "SN-2026-0042", "--json"),
             "boot": camtool.start("reboot", boot.device_id)}
    results = {k: (p.communicate(timeout=120), p.returncode) for k, p in procs.items()}
    for cam in (net, lum, boot):
        cam.wait_reboot(timeout=20)

    (out, err), rc = results["net"]
    assert rc == 0 and "accepted; the camera reboots" in out, err
    assert net.read_text("/data/net.conf") == (
        f"dhcp=0\nipaddr=192.168.77.99\nnetmask=255.255.255.0\ngateway={lan.ip}\n"
        f"fdns=1.0.0.1\nmacaddr={net.mac}\n")
    assert net.read_text("/etc/resolv.conf") == "nameserver 1.0.0.1\n"

    (out, err), rc = results["lum"]
    assert json_lines(out) == [{"device_id": lum.device_id, "ip": lum.ip, "accepted": True,
                                     "settings": {"serial": "SN-2026-0042", "mac": lum.mac}}], err
    rec = lum.read("/data/fix_camera_serial.dat")
    assert rec[8:].rstrip(b"\0") == b"SN-2026-0042"

    (out, err), rc = results["boot"]
    assert rc == 0 and "rebooting (it has answered nothing since" in out, err
    assert boot.control_datagrams() == [b"\x88\x0b\x01\xaa\xff"]


def test_one_camera_of_twenty_answers_while_another_tool_floods_the_search_group(
        start_camera, lan, camtool):
    cams = [start_camera() for _ in range(20)]
    target = cams[13]
    # Another tool's searches on the search group: all twenty answer there,
    # and each camera's listener pauses 300 ms per answer it hears.
    with lan.listen(*rig.SEARCH_GROUP) as other:
        for _ in range(2):
            other.send(rig.search_datagram())

    p = camtool("production", target.ip, "--json")
    assert json_lines(p.stdout) == [
        {"device_id": target.device_id, "boot_times": 0, "curve_times": 0}], p.stderr
    p = camtool("query", target.ip, "--json")
    assert [j["device_id"] for j in json_lines(p.stdout)] == [target.device_id], p.stderr

    p = camtool("confignet", target.device_id, "--dns", "1.0.0.1")
    assert p.returncode == 0 and f"{target.device_id} ({target.ip}): accepted" in p.stdout, p.stderr
    target.wait_reboot(timeout=30)
    assert "fdns=1.0.0.1" in target.read_text("/data/net.conf")
    assert all(c.running for c in cams if c is not target), [(c.name, c.end_reason()) for c in cams]
    assert all("1.0.0.1" not in c.read_text("/data/net.conf") for c in cams if c is not target)


def test_bad_input_refused_before_anything_is_sent_and_silence_reported(lan, camtool, tmp_path):
    hostile = tmp_path / "fw;reboot.zip"
    hostile.write_bytes(b"PK")
    good = tmp_path / "fw.zip"
    good.write_bytes(b"PK")
    cases = [
        (["confignet", NOBODY, "--ip", "192.168.1.256"], "--ip '192.168.1.256' is not an IPv4"),
        (["lumconfig", NOBODY, "--mac", "01:00:5e:00:00:01"], "not a unicast MAC"),
        (["production", "camera-1"], "neither a device ID"),
        (["upgrade", hostile, "--mode", 1, "--all"], "would be refused by the cameras"),
        (["upgrade", tmp_path / "missing.zip", "--mode", 1, "--all"], "cannot open"),
        (["upgrade", good, "--mode", 12, "--all"], "is not an upgrade mode"),
        (["upgrade", good, "--mode", 1], "--to ID[,ID...] or give --all"),
        (["partner", "track", NOBODY, 16], "goes from 0 to 15, not 16"),
        (["broadcast", "production", NOBODY, "dance"], "no production action 'dance'"),
    ]
    with lan.listen(*rig.BATCH_GROUP) as batch, lan.listen(*rig.SEARCH_GROUP) as search:
        for args, message in cases:
            p = camtool(*args)
            assert p.returncode == 2 and message in p.stderr, (args, p.stderr)
        assert batch.collect(timeout=0.3) == [] and search.collect(timeout=0.3) == []

    # A camera that never answers the search is reported, and fails the run.
    p = camtool("upgrade", good, "--mode", 1, "--to", NOBODY, "--answer-wait", 2, "--json")
    assert p.returncode == 1
    [j] = json_lines(p.stdout)
    assert j["device_id"] == NOBODY and j["outcome"] == "no answer to the announcement"
    assert "did not answer the search" in p.stderr and NOBODY in p.stderr


def test_status_lists_and_confirms_a_report(start_camera, lan, camtool):
    cam = start_camera()
    # A report as the camera sends it after an upgrade, from the camera's
    # network; resent until confirmed (the daemon sends it once).
    s = cam.socket()
    s.setsockopt(rig.socket.SOL_SOCKET, rig.socket.SO_REUSEADDR, 1)
    s.bind(("238.255.255.251", 8004))
    s.setsockopt(rig.socket.IPPROTO_IP, rig.socket.IP_ADD_MEMBERSHIP,
                 rig.socket.inet_aton("238.255.255.251") + rig.socket.inet_aton(cam.ip))
    s.setsockopt(rig.socket.IPPROTO_IP, rig.socket.IP_MULTICAST_IF, rig.socket.inet_aton(cam.ip))
    s.settimeout(0.5)
    report = (f"STATUS * \r\nDevice ID:{cam.device_id}\r\nMAC={cam.mac}\r\nVERSION:V9.9"
              "\r\nDEVICE_MODEL:K1.T\r\nStatus=1").encode()
    w = camtool.start("status", "--confirm", "--count", 1, "--wait", 60, "--json")
    confirmation = None
    deadline = time.monotonic() + 60
    while confirmation is None and time.monotonic() < deadline:
        if w.poll() is None:
            s.sendto(report, ("238.255.255.251", 8004))
        try:
            while True:
                data, _ = s.recvfrom(2048)
                if b"Status=2" in data:
                    confirmation = data.decode()
                    break
        except rig.socket.timeout:
            pass
    out, err = w.communicate(timeout=10)
    assert w.returncode == 0, err
    [j] = json_lines(out)
    assert j["device_id"] == cam.device_id and j["confirmed"] is True
    assert re.fullmatch(rf"STATUS \* \r\nDevice ID:{cam.device_id}\r\nClient ID:[0-9a-f]{{32}}"
                        r"\r\nStatus=2", confirmation)


def test_partner_protocol_search_query_tracking_and_settings(start_camera, lan, camtool):
    on = {"/customer/upgrade.conf": "partner=1\n"}
    hk = start_camera(files=on)  # model K1.T: its tracking service counts 0..4
    dk = start_camera(files={**on, "/home/device_model_file": "S2T\n"})
    start_camera()  # the protocol switched off: not found
    for cam in (hk, dk):
        cam.wait_line("init search_mira succeed")
    p = camtool("partner", "search", "--json")
    assert {j["device_id"]: (j["ip"], j["mac"], j["type"]) for j in json_lines(p.stdout)} == {
        hk.device_id: (hk.ip, hk.mac, "HKW7"), dk.device_id: (dk.ip, dk.mac, "DKW7")}, p.stderr

    p = camtool("partner", "query", dk.ip, "--json")
    assert json_lines(p.stdout) == [{"device_id": dk.device_id, "dhcp": False, "ip": dk.ip,
                                     "netmask": "255.255.255.0", "gateway": lan.ip,
                                     "dns": "8.8.8.8", "dns2": "8.8.8.8"}], p.stderr

    with rig.TrackingService(hk, raw=2) as service:
        p = camtool("partner", "track", hk.device_id, "--json")
        assert json_lines(p.stdout)[0]["sensitivity"] == 7, p.stderr
        p = camtool("partner", "track", hk.ip, 8)
        assert "set to 8; the camera reads back 7" in p.stdout, p.stderr
        assert service.raw == 2
    p = camtool("partner", "track", dk.ip, "--timeout", 1)  # no tracking service there
    assert p.returncode == 1 and "no tracking reply" in p.stderr

    p = camtool("partner", "set", dk.device_id, "--dhcp", "on", "--dns", "9.9.9.9")
    assert p.returncode == 0 and "accepted; the camera reboots" in p.stdout, p.stderr
    dk.wait_reboot(timeout=30)
    assert dk.read_text("/data/net.conf") == (
        f"dhcp=1\nipaddr={dk.ip}\nnetmask=255.255.255.0\ngateway={lan.ip}\nfdns=9.9.9.9\n"
        f"macaddr={dk.mac}\n")


def test_broadcast_discovery_netconfig_and_production_mode(start_camera, lan, camtool):
    on = {"/customer/upgrade.conf": "broadcast=1\n"}
    a, b = start_camera(files=on), start_camera(files=on)
    for cam in (a, b):
        cam.wait_line("init broadcast finish")
    p = camtool("broadcast", "discover")
    for cam in (a, b):
        assert re.search(rf"^{cam.device_id}\s+{re.escape(cam.ip)}\s+{cam.mac}\s+off\s+"
                         rf"255.255.255.0\s+{re.escape(lan.ip)}\s+8.8.8.8$", p.stdout, re.M), p.stdout
    assert p.stdout.rstrip().endswith("2 cameras")

    p = camtool("broadcast", "netconfig", a.device_id, "--ip", "192.168.77.50", "--json")
    assert json_lines(p.stdout)[0]["accepted"] is True, p.stderr
    assert a.read_text("/data/net.conf") == (
        f"dhcp=0\nipaddr=192.168.77.50\nnetmask=255.255.255.0\ngateway={lan.ip}\nfdns=8.8.8.8\n"
        f"macaddr={a.mac}\n")
    assert a.running

    # Production mode switched on, then a new model taken (the switch's
    # course is followed in the broadcast tests).
    for args in (("test-enable", "on"), ("update-model", "PTZ-20")):
        p = camtool("broadcast", "production", b.ip, *args)
        assert p.returncode == 0 and "answered a discovery sent after it" in p.stdout, p.stderr
    b.wait_line("new model: PTZ-20")


LYING_MD5SUM = """#!/bin/sh
# The first check on this camera reads a wrong digest, as after a lost packet.
if [ ! -e /data/.md5-lied ]; then
  : > /data/.md5-lied
  echo "00000000000000000000000000000000  $1"
  exit 0
fi
exec /bin/busybox md5sum "$@"
"""


def test_upgrade_three_cameras_norm_and_stream_md5_retried_a_fourth_left_out(start_camera, lan,
                                                                         camtool, tmp_path):
    no_flag = {"/customer/upgrade_finish_flag": None}
    # a and b take the file over NORM, c (switched off) as the stream.
    a, other = (start_camera(files=no_flag) for _ in range(2))
    c = start_camera(files={**no_flag, "/customer/upgrade.conf": "norm_transfer=0\n"})
    b = start_camera(boot=False, files=no_flag)
    b.write("/usr/bin/md5sum", None)  # the busybox link
    b.write("/usr/bin/md5sum", LYING_MD5SUM, mode=0o755)
    b.start()
    payload = os.urandom(300_000)
    fw = tmp_path / "app_V2.6.0.zip"
    fw.write_bytes(rig.zip_package({"customer/version_file": "V2.6.0",
                                "customer/payload.bin": payload}))

    with rig.PowerOn([a, b, c]) as power:
        p = camtool("upgrade", fw, "--mode", 1, "--to",
                    ",".join([a.device_id, b.ip, c.device_id]), "--json", timeout=400)
    assert not power.failures, (power.failures, p.stderr)
    assert p.returncode == 0, p.stdout + p.stderr
    assert (a.boots, b.boots, c.boots) == (2, 3, 2)
    got = {j["device_id"]: j for j in json_lines(p.stdout)}
    assert got[b.device_id]["acks"] == ["06", "057"], p.stderr
    for cam in (a, c):
        assert got[cam.device_id]["acks"] == ["057"], p.stderr
    for cam in (a, b, c):
        j = got[cam.device_id]
        assert j["ok"] and j["back"] and j["rebooted"], (cam.name, j, p.stderr)
        assert (j["version_before"], j["version_after"]) == ("V2.5.1", "V2.6.0")
        assert j["confirmed"], p.stderr
        assert cam.read("/customer/payload.bin") == payload
        cam.wait_file("/customer/upgrade_finish_flag", timeout=10)
        assert j["transfer"] == ("stream" if cam is c else "norm"), j
    assert "streaming" in p.stderr and "Mbit/s" in p.stderr
    # A camera not named heard the stream and kept out of it.
    assert other.running and "device id is not the same" in other.stderr()
    assert not other.exists("/dev/app_V2.6.0.zip") and not other.exists("/customer/payload.bin")


def test_site_at_three_percent_loss_upgraded_in_one_command(start_camera, lan, camtool, tmp_path):
    cams = [start_camera(files={"/customer/upgrade_finish_flag": None}) for _ in range(5)]
    payload = os.urandom(1_000_000)
    fw = tmp_path / "app_V2.6.0.zip"
    fw.write_bytes(rig.zip_package({"customer/version_file": "V2.6.0",
                                    "customer/payload.bin": payload}))
    lan.set_loss(3)
    with rig.PowerOn(cams) as power:
        p = camtool("upgrade", fw, "--mode", 1, "--to", ",".join(c.device_id for c in cams),
                    "--json", timeout=400)
    lost = lan.lost_packets()
    lan.set_loss(0)
    assert not power.failures, (power.failures, p.stderr)
    assert p.returncode == 0, p.stdout + p.stderr
    for j in json_lines(p.stdout):
        assert j["ok"] and j["transfer"] == "norm", (j, p.stderr)
        assert j["version_after"] == "V2.6.0"
    assert lost > 0
    for cam in cams:
        assert cam.read("/customer/payload.bin") == payload
