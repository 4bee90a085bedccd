"""Camera sandbox: the tool's side of a multicast upgrade on the LAN:
announcements, transfer packets and the cameras' acknowledgements
("REPLYU DO ... Ack:X"), and the confirmation of a post-upgrade report.

    with Transfer(lan, [cam], data, name="fw.zip", mode=1) as t:
        t.announce()
        assert t.ack(cam) == "0"
        t.stream()
        assert t.acks(cam, 3) == ["0", "5", "7"]
"""

from __future__ import annotations

import hashlib
import io
import secrets
import zipfile

from rigbase import BATCH_GROUP

CLIENT = "7001c0de7001c0de7001c0de7001c0de"
STATUS_GROUP = ("238.255.255.251", 8004)
PACKET_DATA = 5120 - 42  # a transfer packet fills the listener's 5120 bytes


def announcement(device_ids, session, name, md5, size, mode=1, client=CLIENT):
    """"CAMERA_UP" naming the cameras; mode None leaves the field out."""
    text = (f"CAMERA_UP\r\nDevice ID:{len(device_ids):04d}{''.join(device_ids)}"
            f"\r\nClient ID:{client}\r\nSESSION:{session}\r\nFile name:{name}*"
            f"\r\nFile md5:{md5}\r\nFile size:{size}*")
    if mode is not None:
        text += f"\r\nUpgrade Mode:{mode}"
    return text.encode()


def zip_package(files):
    """A system package (mode 1): a zip of {path under "/": str | bytes}."""
    buf = io.BytesIO()
    with zipfile.ZipFile(buf, "w", zipfile.ZIP_DEFLATED) as z:
        for name, data in files.items():
            z.writestr(name, data)
    return buf.getvalue()


def packet(kind, session, data=b""):
    return b"CAMERA_UP" + kind.encode() + session.encode() + data


def packets(session, data, size=PACKET_DATA):
    """'b', 't'..., 'o' packets for data (a lone chunk is followed by an empty 'o')."""
    chunks = [data[i:i + size] for i in range(0, len(data), size)] or [b""]
    if len(chunks) == 1:
        chunks.append(b"")
    kinds = ["b"] + ["t"] * (len(chunks) - 2) + ["o"]
    return [packet(k, session, c) for k, c in zip(kinds, chunks)]


def query(device_ids, client=CLIENT):
    """"CAMERA_QU" (firmware query) naming the cameras."""
    return (f"CAMERA_QU\r\nDevice ID:{len(device_ids):04d}{''.join(device_ids)}"
            f"\r\nClient ID:{client}").encode()


def wait_ready(lan, cams, timeout=15.0):
    """Returns once each camera's batch listener has answered a firmware
    query: an announcement is sent once and must be heard."""
    for cam in cams:
        got = lan.request(query([cam.device_id]), *BATCH_GROUP, timeout=timeout, count=1,
                          match=b"REPLYQ OK", resend=0.5, from_ip=cam.ip)
        assert got, f"{cam.name}: the batch listener never answered{cam._tail()}"


def confirmation(device_id, client=CLIENT):
    """The tool's "STATUS * " answer that ends a camera's report."""
    return (f"STATUS * \r\nDevice ID:{device_id}\r\nClient ID:{client}"
            f"\r\nStatus=2").encode()


def ack_code(reply):
    return reply.fields().get("Ack")


class Transfer:
    """One upgrade of `cams` with `data`, from a tool socket joined to the
    batch group; acknowledgements are collected on the same socket."""

    def __init__(self, lan, cams, data, name="fw.zip", mode=1, md5=None, size=None,
                 session=None, client=CLIENT, previous=""):
        self.lan, self.cams, self.data = lan, list(cams), data
        self.name, self.mode, self.client = name, mode, client
        # The camera's previous requester (empty on a fresh daemon): a
        # refused name is answered under that ID.
        self.previous = previous
        self.md5 = md5 or hashlib.md5(data).hexdigest()
        self.size = len(data) if size is None else size
        self.session = session or secrets.token_hex(16)
        self.rx = lan.listen(*BATCH_GROUP)
        self._heard = {}
        self._read = {}

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.rx.close()

    def send(self, datagram):
        self.rx.send(datagram)

    def announce(self, device_ids=None, **kw):
        ids = device_ids or [c.device_id for c in self.cams]
        fields = dict(session=self.session, name=self.name, md5=self.md5, size=self.size,
                      mode=self.mode, client=self.client)
        fields.update(kw)
        self.send(announcement(ids, **fields))

    def stream(self, skip=(), extra=None):
        """Sends the packets in order, leaving out the indexes in `skip`;
        extra: {index: datagram} sent before packet `index`."""
        for i, p in enumerate(packets(self.session, self.data)):
            if extra and i in extra:
                self.send(extra[i])
            if i not in skip:
                self.send(p)

    def _mine(self, reply):
        # Another tool's '9' names that tool's client ID, a refused name the
        # previous requester's; every other acknowledgement names the
        # upgrade's session.
        return (reply.data.startswith(b"REPLYU DO")
                and reply.fields().get("Client ID") in (self.session, self.client,
                                                        self.previous))

    def _collect(self, timeout, done):
        while not done():
            got = self.rx.collect(timeout=timeout, count=1, match=self._mine)
            if not got:
                return
            r = got[0]
            self._heard.setdefault(r.src[0], []).append(r)

    def replies(self, cam, count, timeout=30.0):
        """The first `count` acknowledgements from cam (Reply objects)."""
        self._collect(timeout, lambda: len(self._heard.get(cam.ip, [])) >= count)
        got = self._heard.get(cam.ip, [])
        assert len(got) >= count, (f"{cam.name}: {len(got)} of {count} acknowledgements "
                                   f"({[ack_code(r) for r in got]}){cam._tail()}")
        return got[:count]

    def acks(self, cam, count, timeout=30.0):
        """The codes of cam's first `count` acknowledgements, checking that
        each names this camera and the session."""
        out = []
        for r in self.replies(cam, count, timeout):
            f = r.fields()
            assert f["Device ID"] == cam.device_id
            out.append(ack_code(r))
        return out

    def ack(self, cam, timeout=30.0):
        """The next acknowledgement code from cam not yet read by ack()."""
        seen = self._read.get(cam.ip, 0)
        codes = self.acks(cam, seen + 1, timeout)
        self._read[cam.ip] = seen + 1
        return codes[-1]

    def heard_from(self, cam):
        return [ack_code(r) for r in self._heard.get(cam.ip, [])]
