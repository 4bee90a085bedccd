"""The partner's binary protocol against the real daemon: a tool on the LAN
searches on 236.5.7.1:8000 and hears the answers on 236.5.7.2 and 236.5.7.3
(raw datagrams with hand-made headers); the tracking relay on port 8001 asks
a stand-in tracking service inside the camera. Frames are built here from
the layout, independently of the daemon's code; their fields are checked
byte by byte by the unit tests, and the query and the settings through
camtool's tests.
"""

import re
import socket
import struct

import camera as rig

REQUEST_GROUP = "236.5.7.1"
REPLY_GROUPS = ("236.5.7.2", "236.5.7.3")
PORT = 8000
PARAM_PORT = 8001
SITE_ON = {"/customer/upgrade.conf": "partner=1\n"}


def header(cmd, length):
    return struct.pack(">BBHHHII", 0, cmd, 0, length, 0, 0, 0)


def text32(s):
    return s.encode().ljust(32, b"\0")[:32]


def net_set(serial, conn, ip, mask, gw, dns, dns2="0.0.0.0"):
    addrs = b"".join(socket.inet_aton(a) for a in (ip, mask, gw, dns, dns2))
    return (header(0x01, 144) + text32(serial) + bytes([conn, 0, 0, 0]) + struct.pack(">I", 1) +
            addrs + struct.pack(">I", 0) + b"\0" * 64)


def track(serial, op, value=0):
    return header(0x61, 56) + text32(serial) + struct.pack("<I", op) + struct.pack(">i", value)


def udp_ports(cam):
    """Local UDP ports the camera has sockets on."""
    out = cam.exec("cat /proc/net/udp").stdout.splitlines()[1:]
    return {int(line.split()[1].split(":")[1], 16) for line in out}


def test_services_where_the_site_switches_them_on_search_and_tracking(start_camera, lan):
    plain = start_camera()
    partner = start_camera(files=SITE_ON)  # model "K1.T": the service counts 0..4
    bcast = start_camera(files={"/customer/upgrade.conf": "broadcast=1\npartner=0\n"})
    partner.wait_line("init search_mira succeed", timeout=10)
    partner.wait_line(re.compile(r"init_param_mira\[\d+\] leave"))
    bcast.wait_line("init broadcast finish")
    assert {8000, 8001, 12811} & udp_ports(plain) == set()
    assert {8000, 8001} <= udp_ports(partner) and 12811 not in udp_ports(partner)
    assert 12811 in udp_ports(bcast) and {8000, 8001} & udp_ports(bcast) == set()
    for cam in (plain, bcast):
        assert "search_mira" not in cam.stdout() + cam.stderr()

    # A search is answered on both reply groups, from port 8000.
    with lan.listen(REQUEST_GROUP, PORT) as tx, lan.listen(REPLY_GROUPS[0], PORT) as rx2, \
            lan.listen(REPLY_GROUPS[1], PORT) as rx3:
        tx.send(header(0x60, 16))
        for rx in (rx2, rx3):
            got = rx.collect(timeout=5, count=1)
            assert [(r.src, r.data[1]) for r in got] == [((partner.ip, PORT), 0xE0)], rx.group

    # The tracking relay asks the camera's tracking service.
    tool = lan.socket(socket.SOCK_DGRAM)
    tool.bind(("0.0.0.0", 0))
    tool.settimeout(10)

    def ask(frame):
        tool.sendto(frame, (partner.ip, PARAM_PORT))
        data, src = tool.recvfrom(512)
        assert src == (partner.ip, PARAM_PORT) and len(data) == 56
        assert data[:2] == b"\x80\xe1" and data[16:48].decode() == partner.device_id
        return struct.unpack("<I", data[48:52])[0], struct.unpack(">i", data[52:56])[0]

    with rig.TrackingService(partner, raw=2) as service:
        # Not this camera: no set, no answer (it would come first).
        tool.sendto(track("a" * 32, 1, 0), (partner.ip, PARAM_PORT))
        assert ask(track(partner.device_id, 0)) == (0, 7)
        assert ask(track(partner.device_id, 1, 15)) == (1, 15)
        assert service.wait_requests(3) == [
            b"\xbb\xd1\x00", b"\xbb\xe1\x04\x04\x00\x00\x00", b"\xbb\xd1\x00"]
