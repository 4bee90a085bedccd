"""Broadcast commissioning on UDP 12811 against the real daemon: a tool on the
LAN discovers the camera by unicast and by broadcast, sets its network and
switches production mode; replies come straight back to the tool."""

import socket

SITE_ON = {"/customer/upgrade.conf": "broadcast=1\n"}
PORT = 12811


def test_discovery_netconfig_and_the_production_switch(start_camera, lan):
    cam = start_camera(files=SITE_ON)
    cam.wait_line("init broadcast finish")
    tool = lan.socket(socket.SOCK_DGRAM)
    tool.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    tool.bind(("0.0.0.0", 0))
    tool.settimeout(5)

    def settled():
        # Datagrams are handled in order: once the discovery after them is
        # answered, every earlier command has been dealt with.
        tool.sendto(b"Discovery camera", (cam.ip, PORT))
        assert tool.recvfrom(1024)[0].startswith(b"Network parameter")

    for dest in (cam.ip, "192.168.77.255"):
        tool.sendto(b"Discovery camera", (dest, PORT))
        data, src = tool.recvfrom(1024)
        assert src == (cam.ip, PORT)
        assert data.decode() == (
            f"Network parameter\r\nDevice ID:{cam.device_id}\r\ndhcp=0\r\nipaddr={cam.ip}"
            f"\r\nnetmask=255.255.255.0\r\ngateway={lan.ip}\r\nfdns=8.8.8.8\r\nmacaddr={cam.mac}")

    # Settings for another camera: no answer, nothing stored. For this one:
    # stored, DNS set, answered, no reboot.
    body = (f"dhcp=0\nipaddr=192.168.77.50\nnetmask=255.255.255.0\ngateway={lan.ip}\n"
            f"fdns=9.9.9.9\nmacaddr={cam.mac}\n")
    tool.sendto(b"Camera netconfig\nDevice ID:" + b"0" * 32 + b"\n" + body.encode(), (cam.ip, PORT))
    settled()
    assert cam.read_text("/etc/resolv.conf") == "nameserver 8.8.8.8\n"
    tool.sendto(f"Camera netconfig\nDevice ID:{cam.device_id}\n{body}".encode(), (cam.ip, PORT))
    data, src = tool.recvfrom(1024)
    assert (data.decode(), src) == (f"Network setup completed\r\nDevice ID:{cam.device_id}",
                                    (cam.ip, PORT))
    assert cam.read_text("/data/net.conf") == body
    assert cam.read_text("/etc/resolv.conf") == "nameserver 9.9.9.9\n"
    assert cam.running and cam.control_datagrams() == []

    # Production mode: ignored until switched on; switching it off again
    # leaves it on.
    off = "production_mode_enable == 0"

    def production(action, extra=""):
        msg = f"Production mode\r\nDevice ID:{cam.device_id}\r\n{action}"
        tool.sendto((msg + (f"\r\n{extra}" if extra else "")).encode(), (cam.ip, PORT))

    def count(text):
        return sum(text in line for line in cam.lines())

    production("action=test enable", "enable=off")
    production("action=update model", "model=X1")
    settled()
    assert count(off) == 2 and count("new model") == 0
    production("action=test enable", "enable=on")
    production("action=test enable", "enable=off")
    production("action=update model", "model=PTZ-20")
    settled()
    assert count("test enable = on") == 1 and count("test enable = off") == 1
    assert count(off) == 2, "switching off leaves production mode on"
    assert count("new model: PTZ-20") == 1
