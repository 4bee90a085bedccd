"""Discovery and configuration over multicast, against the real daemon.

Cameras that reboot take 5-7 s after their command; those tests start their
cameras together and wait for all reboots at once.
"""

import re
import threading
import time

import pytest

import camera as rig

CLIENT = "c0ffee00c0ffee00c0ffee00c0ffee00"
OTHER = "0" * 32


def addressed(keyword, device_id, rest=b"", sep=b"\r\n"):
    return (keyword.encode() + sep + b"Device ID:" + device_id.encode() + sep + b"Client ID:" +
            CLIENT.encode() + rest)


def ids(device_id):
    return f"\r\nClient ID:{CLIENT}\r\nDevice ID:{device_id}"


def search_reply(lan, cam, timeout=5.0):
    got = lan.search(client_id=CLIENT, count=1, timeout=timeout)
    assert got, f"{cam.name} did not answer the search{cam._tail()}"
    return got[0]


def send_and_collect(lan, data, group=rig.SEARCH_GROUP, timeout=1.0, match=None, count=None):
    return lan.request(data, *group, timeout=timeout, match=match, count=count)


def mtd_summary(table):
    return "".join(f'mtd{i}: {size:08x} {erase:08x} "{name}"\n'
                   for i, (size, erase, name) in enumerate(table))


def test_search_reply_and_identity(start_camera, lan):
    cam = start_camera()
    r = search_reply(lan, cam)
    dev = cam.device_id
    assert re.fullmatch(r"[0-9a-f]{32}", dev), "uuid_file holds 32 hex characters, no newline"
    text = re.sub(r"Uptime=\d+", "Uptime=N", r.text)
    assert text == ("REPLY OK \r\nVERSION:V2.5.1\r\nDEVICE_MODEL:K1.T" + ids(dev) + "\r\nUptime=N\r\nDHCP=0\r\nLUM_Serial_No=" +
        f"\r\nIP={cam.ip}\r\nMASK=255.255.255.0\r\nGATEWAY={lan.ip}\r\nMAC={cam.mac}"
        "\r\nFDNS=8.8.8.8")
    # The serial record is created with its defaults on first use.
    rec = cam.read("/data/fix_camera_serial.dat")
    assert rec is not None and len(rec) == 72 and rec[:8] == b"FSER\x01\x00\x00\x00"
    # Same identity after a restart.
    cam.restart()
    r2 = search_reply(lan, cam)
    assert r2.fields()["Device ID"] == dev


def test_search_variants(start_camera, lan):
    cam = start_camera(files={"/customer/device_model_file": None})
    r = search_reply(lan, cam)
    assert "DEVICE_MODEL" not in r.text
    # "SEARCH *" without its ninth blank and lower case are ignored.
    assert not send_and_collect(lan, b"SEARCH *\r\nSEQ=1\r\nClient ID:" + CLIENT.encode(),
                                match=b"REPLY OK ")
    assert not send_and_collect(lan, b"search * " + b"x" * 60, match=b"REPLY OK ")


def test_three_cameras_answer_one_search(start_camera, lan):
    cams = [start_camera() for _ in range(3)]
    got = lan.search(client_id=CLIENT, count=3, timeout=6.0)
    by_id = {r.fields()["Device ID"]: r.fields()["IP"] for r in got}
    assert by_id == {c.device_id: c.ip for c in cams}


def test_addressed_queries_and_silence(start_camera, lan):
    cam = start_camera(files={"/data/curve_times.dat": "41\n"})
    search_reply(lan, cam)  # listening
    dev = cam.device_id
    got = send_and_collect(lan, addressed("PRODUCTIO", dev), match=b"PRODUCTIO")
    assert [r.text for r in got] == [
        "PRODUCTIO" + ids(dev) + "\r\nboot_times:0\r\ncurve_times:41"]
    # Wrong device ID: nothing for any addressed command, no reboot.
    for kw in ("PRODUCTIO", "CONFIGNET", "CAMERA_RE", "LUMCONFIG", "CAMERA_FL", "BOARD_TES"):
        assert not send_and_collect(lan, addressed(kw, OTHER, b"\r\nstatus=open"), timeout=0.4,
                                    match=lambda r: not r.data.startswith(b"SEARCH"))
    assert cam.running and cam.control_datagrams() == []

    # The firmware query is a batch command on the second group.
    q = b"CAMERA_QU\r\nDevice ID:0002" + OTHER.encode() + dev.encode() + b"\r\nClient ID:" + \
        CLIENT.encode()
    got = send_and_collect(lan, q, rig.BATCH_GROUP, match=b"REPLYQ OK")
    assert [r.text for r in got] == [
        "REPLYQ OK" + ids(dev) + "\r\nVersion:V2.5.1\r\nMtdInfo:" + mtd_summary(cam.mtd)]
    # A count promising 99 IDs where two stand: no reply, still alive.
    bad = b"CAMERA_QU\r\nDevice ID:0099" + OTHER.encode() + b"1" * 32
    assert not send_and_collect(lan, bad, rig.BATCH_GROUP, timeout=0.5, match=b"REPLYQ OK")
    assert cam.running


def test_search_group_cuts_at_512_bytes_batch_group_keeps_5120(start_camera, lan):
    cam = start_camera()
    search_reply(lan, cam)
    far = b"PRODUCTIO" + b" " * 600 + addressed("", cam.device_id)
    assert not send_and_collect(lan, far, rig.SEARCH_GROUP, timeout=0.8, match=b"PRODUCTIO")
    got = send_and_collect(lan, far, rig.BATCH_GROUP, match=b"PRODUCTIO")
    assert len(got) == 1 and got[0].text.startswith("PRODUCTIO\r\nClient ID:" + CLIENT)


def test_led_flicker_and_board_test(start_camera, lan):
    cam = start_camera(apps=("autofocus",))
    search_reply(lan, cam)
    dev = cam.device_id
    assert not send_and_collect(lan, addressed("CAMERA_FL", dev, b"\r\nstatus=open"),
                                timeout=0.5, match=lambda r: not r.data.startswith(b"CAMERA_FL"))
    lan.send(addressed("CAMERA_FL", dev, b"\r\nstatus=close"))
    assert cam.wait_control(2) == [b"\x81\x0a\x02\x01\x02\xff", b"\x81\x0a\x02\x01\x03\xff"]

    got = send_and_collect(lan, addressed("BOARD_TES", dev,
                                          b"\r\nTYPE=K5\r\nUSB_Test=true\r\nSDI_Test=true"),
                           timeout=5.0, match=b"BOARD_TEST", count=1)
    assert [r.text for r in got] == [
        "BOARD_TEST" + ids(dev) + f"\r\nIP={cam.ip}\r\nMAC={cam.mac}\r\nV2.5.1"
        "\r\nUSB=0\r\nSDI=0\r\nSTATUS=Test finish"]
    assert ("main_app", 2) in cam.signals()
    assert rig.wait_until(lambda: "autofocus" not in [p.comm for p in cam.processes()], 3)

    # Type 8: the pin set-up around the SDI probe.
    before = len(cam.calls("himm"))
    got = send_and_collect(lan, addressed("BOARD_TES", dev, b"\r\nTYPE=R300I\r\nSDI_Test=true"),
                           timeout=15.0, match=b"BOARD_TEST", count=1)
    assert len(got) == 1 and re.search(r"\r\nSDI=[01]\r\nSTATUS=Test finish$", got[0].text)
    calls = cam.calls("himm")[before:]
    assert calls[:3] == ["0x120400cc 0x0", "0x12146400 0x80", "0x12146200 0x80"]
    assert calls[-1] == "0x12146200 0x0"


def _reboot_after(cam, lan, data, group=rig.SEARCH_GROUP):
    """Sends an addressed command; returns (this camera's replies other than
    search replies, seconds from send to reboot)."""
    dev = cam.device_id
    t0 = time.monotonic()
    got = send_and_collect(lan, data, group, timeout=3.0,
                           match=lambda r: not r.data.startswith(b"REPLY OK ") and
                           r.fields().get("Device ID") == dev)
    cam.wait_reboot(timeout=15.0)
    return got, cam.ended_at - t0


def test_commands_that_reboot(start_camera, lan):
    cams = {
        "confignet_lf": start_camera(),
        "confignet_crlf": start_camera(),
        "lumconfig": start_camera(),
        "camera_re": start_camera(),
    }
    assert len({r.src for r in lan.search(client_id=CLIENT, count=4, timeout=6.0)}) == 4
    time.sleep(0.7)  # let the 300 ms pauses after the searches pass
    dev = {k: c.device_id for k, c in cams.items()}
    body_lf = b"\ndhcp=0\nipaddr=192.168.77.99\nnetmask=255.255.255.0\nfdns=1.0.0.1\n"
    body_crlf = b"\r\ndhcp=1\r\nmacaddr=02:00:00:77:00:99\r\n"
    cmds = {
        "confignet_lf": addressed("CONFIGNET", dev["confignet_lf"], sep=b"\n") + body_lf,
        "confignet_crlf": addressed("CONFIGNET", dev["confignet_crlf"]) + body_crlf,
        "lumconfig": addressed("LUMCONFIG", dev["lumconfig"], sep=b"\n") +
        b"\nSerial No:SN-2026-0042\nMac Address:02:aa:bb:cc:dd:ee",
        "camera_re": addressed("CAMERA_RE", dev["camera_re"]),
    }
    results = {}

    def run(name):
        results[name] = _reboot_after(cams[name], lan, cmds[name])

    threads = [threading.Thread(target=run, args=(n,)) for n in cmds]
    for t in threads:
        t.start()
    for t in threads:
        t.join()

    for name in ("confignet_lf", "confignet_crlf", "lumconfig"):
        got, took = results[name]
        assert [r.text for r in got] == ["SUCCEED *" + ids(dev[name])], name
        assert 7.0 <= took < 9.5, (name, took)
        assert cams[name].control_datagrams() == [b"\x88\x0b\x01\xaa\xff"], name
    got, took = results["camera_re"]
    assert got == [] and 5.0 <= took < 7.5, took
    assert cams["camera_re"].control_datagrams() == [b"\x88\x0b\x01\xaa\xff"]

    c = cams["confignet_lf"]
    assert c.read("/data/net.conf") == body_lf[1:]
    assert c.read_text("/etc/resolv.conf") == "nameserver 1.0.0.1\n"
    c = cams["confignet_crlf"]
    # The skip past the client ID leaves the "\n" of the "\r\n" separator.
    assert c.read("/data/net.conf") == body_crlf[1:]
    assert c.read_text("/etc/resolv.conf") == "nameserver 8.8.8.8\n"  # no fdns= field
    c = cams["lumconfig"]
    rec = c.read("/data/fix_camera_serial.dat")
    assert rec[:8] == b"FSER\x01\x00\x00\x00" and rec[8:].rstrip(b"\0") == b"SN-2026-0042"
    assert "macaddr=02:aa:bb:cc:dd:ee\n" in c.read_text("/data/net.conf")

    # After its reboot the camera reports the new serial.
    c.restart()
    r = search_reply(lan, c)
    assert r.fields()["LUM_Serial_No"] == "SN-2026-0042"


def test_dhcp_watcher_static_and_dhcp(start_camera, lan):
    lan.start_dhcp_server()
    static = start_camera()
    dyn = start_camera(dhcp=True)
    static.wait_line("dchp is off, return")
    dyn.wait_dhcp(timeout=15.0)
    dyn.wait_line("dhcp get ip success, reset mcast service", timeout=10.0)
    dyn.wait_line(re.compile(r"dhcp_status\.cpp \w+\[\d+\] leave"), timeout=5.0)
    # Both listeners' sockets were made again: three successful opens.
    assert sum("init search succeed" in line for line in dyn.lines("both")) >= 3
    got = lan.search(client_id=CLIENT, count=2, timeout=8.0)
    ips = {r.fields()["Device ID"]: r.fields()["IP"] for r in got}
    assert ips == {static.device_id: static.ip, dyn.device_id: dyn.ip}
    assert ips[dyn.device_id].startswith("192.168.77.1")
    # The batch group still answers on the new socket.
    q = b"CAMERA_QU\r\nDevice ID:0001" + dyn.device_id.encode() + b"\r\nClient ID:" + \
        CLIENT.encode()
    assert send_and_collect(lan, q, rig.BATCH_GROUP, match=b"REPLYQ OK")
    assert not any("reset mcast service" in line for line in static.lines("both"))
