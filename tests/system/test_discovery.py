"""Discovery over multicast against the real daemon: what only a real
camera shows (its ifconfig, route and files, the stand-ins it runs, the
DHCP client). The commands' fields and refusals are the unit tests' part;
camtool's tests send every command through the tool.
"""

import re

import camera as rig

CLIENT = "c0ffee00c0ffee00c0ffee00c0ffee00"


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


def test_search_reply_identity_and_board_test_pins(start_camera, lan):
    cam = start_camera()
    r = search_reply(lan, cam)
    dev = cam.device_id
    assert re.fullmatch(r"[0-9a-f]{32}", dev), "uuid_file holds 32 hex characters, no newline"
    text = re.sub(r"Uptime=\d+", "Uptime=N", r.text)
    assert text == (
        "REPLY OK \r\nVERSION:V2.5.1\r\nDEVICE_MODEL:K1.T" + ids(dev) +
        f"\r\nUptime=N\r\nDHCP=0\r\nLUM_Serial_No=\r\nIP={cam.ip}\r\nMASK=255.255.255.0"
        f"\r\nGATEWAY={lan.ip}\r\nMAC={cam.mac}\r\nFDNS=8.8.8.8")
    # The serial record is created with its defaults on first use.
    rec = cam.read("/data/fix_camera_serial.dat")
    assert rec is not None and len(rec) == 72 and rec[:8] == b"FSER\x01\x00\x00\x00"

    # The type-8 board test sets the SDI pins through the camera's own himm
    # (the fields and the other types are the unit tests' part).
    got = send_and_collect(lan, addressed("BOARD_TES", dev, b"\r\nTYPE=R300I\r\nSDI_Test=true"),
                           timeout=15.0, match=b"BOARD_TEST", count=1)
    assert len(got) == 1 and re.search(r"\r\nSDI=[01]\r\nSTATUS=Test finish$", got[0].text)
    calls = cam.calls("himm")
    assert calls[:3] == ["0x120400cc 0x0", "0x12146400 0x80", "0x12146200 0x80"]
    assert calls[-1] == "0x12146200 0x0"


def test_dhcp_watcher_static_and_dhcp(start_camera, lan):
    lan.start_dhcp_server(first=100, last=110)
    static = start_camera()
    dyn = start_camera(dhcp=True)
    static.wait_line("dchp is off, return")
    ip = dyn.wait_dhcp(timeout=15.0)
    assert re.fullmatch(r"192\.168\.77\.1(0\d|10)", ip) and dyn.exists("/dev/dhcp_ok")
    assert "dhcp=1" in dyn.read_text("/data/net.conf")
    dyn.wait_line("dhcp get ip success, reset mcast service", timeout=10.0)
    dyn.wait_line(re.compile(r"dhcp_status\.cpp \w+\[\d+\] leave"), timeout=5.0)
    # Both listeners' sockets were made again: three successful opens.
    assert sum("init search succeed" in line for line in dyn.lines("both")) >= 3
    got = lan.search(client_id=CLIENT, count=2, timeout=8.0)
    fields = {r.fields()["Device ID"]: r.fields() for r in got}
    assert fields[static.device_id]["IP"] == static.ip
    # The leased address and the server's default route, as the daemon reads them.
    assert (fields[dyn.device_id]["IP"], fields[dyn.device_id]["GATEWAY"]) == (ip, lan.ip)
    # The batch group still answers on the new socket.
    q = b"CAMERA_QU\r\nDevice ID:0001" + dyn.device_id.encode() + b"\r\nClient ID:" + \
        CLIENT.encode()
    assert send_and_collect(lan, q, rig.BATCH_GROUP, match=b"REPLYQ OK")
    assert not any("reset mcast service" in line for line in static.lines("both"))
