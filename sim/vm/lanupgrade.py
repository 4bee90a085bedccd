"""The LAN side of a multicast upgrade, for the demo, camlab and the tests:
announce a file to cameras on 239.255.255.252:8006, stream it, and collect
their "REPLYU DO" acknowledgements.

    ups = Upgrade(lan, [cam.device_id], data, "fw.img", mode=4)
    ups.announce()            # -> {device id: "0"}  ('0' ready, '1' no room, '9' busy)
    ups.stream()              # 'b', 't'..., 'o' datagrams
    ups.wait_acks("7", 300)   # -> {device id: code} once every camera sent '7' (or failed)
"""

from __future__ import annotations

import hashlib
import os
import time

from rigbase import BATCH_GROUP

DATA_MAX = 5120 - 42  # a batch datagram less the transfer header
FAIL_CODES = set("12689")


def ack_of(reply_text):
    """(device id, client id, code) of a "REPLYU DO" reply, or None."""
    if not reply_text.startswith("REPLYU DO"):
        return None
    fields = {}
    for part in reply_text.split("\r\n")[1:]:
        key, sep, value = part.partition(":")
        if sep:
            fields[key] = value
    if "Ack" not in fields:
        return None
    return fields.get("Device ID", ""), fields.get("Client ID", ""), fields["Ack"][:1]


class Upgrade:
    """One multicast upgrade session to the cameras with these device IDs."""

    def __init__(self, lan, device_ids, data, file_name, mode, client_id=None, session=None,
                 rate=1 << 20):
        self.lan = lan
        self.ids = list(device_ids)
        self.data = data
        self.name = file_name
        self.mode = mode
        self.client_id = client_id or os.urandom(16).hex()
        self.session = session or os.urandom(16).hex()
        self.rate = rate  # bytes per second on the wire
        self.acks = []    # (arrival time, device id, code) in order
        self.listener = lan.listen(*BATCH_GROUP)

    def announcement(self):
        md5 = hashlib.md5(self.data).hexdigest()
        return ("CAMERA_UP\r\nDevice ID:" + f"{len(self.ids):04d}" + "".join(self.ids) +
                f"\r\nClient ID:{self.client_id}\r\nSESSION:{self.session}"
                f"\r\nFile name:{self.name}*\r\nFile md5:{md5}"
                f"\r\nFile size:{len(self.data)}*\r\nUpgrade Mode:{self.mode}").encode()

    def _collect(self, timeout):
        for r in self.listener.collect(timeout=timeout):
            ack = ack_of(r.text)
            if ack and ack[0] in self.ids:
                self.acks.append((r.at, ack[0], ack[2]))
                yield ack

    def codes(self, device_id):
        return "".join(c for _t, d, c in self.acks if d == device_id)

    def announce(self, timeout=30.0):
        """Sends the announcement; returns {device id: first code} of the
        cameras that answered within the timeout."""
        self.listener.send(self.announcement())
        got = {}
        deadline = time.monotonic() + timeout
        while len(got) < len(self.ids) and time.monotonic() < deadline:
            for dev, _cid, code in self._collect(min(0.5, deadline - time.monotonic())):
                got.setdefault(dev, code)
        return got

    def stream(self):
        """Sends the file as 'b', 't'..., 'o' datagrams at `rate`."""
        chunks = [self.data[i:i + DATA_MAX] for i in range(0, len(self.data), DATA_MAX)] or [b""]
        start = time.monotonic()
        sent = 0
        sid = self.session.encode()
        for i, chunk in enumerate(chunks):
            kind = b"b" if i == 0 else b"o" if i == len(chunks) - 1 else b"t"
            if len(chunks) == 1:
                kind = b"b"
            self.listener.send(b"CAMERA_UP" + kind + sid + chunk)
            sent += len(chunk) + 42
            ahead = start + sent / self.rate - time.monotonic()
            if ahead > 0:
                time.sleep(ahead)
        if len(chunks) == 1:
            # A one-packet file still needs its last packet to end the transfer.
            self.listener.send(b"CAMERA_UP" + b"o" + sid)

    def wait_acks(self, final="7", timeout=300.0):
        """Collects acknowledgements until every camera sent `final` or a
        failure code; returns {device id: last code}."""
        last = {}
        for _t, dev, code in self.acks:
            last[dev] = code
        deadline = time.monotonic() + timeout

        def done():
            return all(last.get(d) == final or last.get(d) in FAIL_CODES for d in self.ids)

        while not done() and time.monotonic() < deadline:
            for dev, _cid, code in self._collect(min(0.5, deadline - time.monotonic())):
                last[dev] = code
        return last

    def close(self):
        self.listener.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def run_upgrade(lan, device_ids, data, file_name, mode, final="7", timeout=300.0, **kw):
    """Announce, stream and wait: returns {device id: acknowledgement codes in order}."""
    with Upgrade(lan, device_ids, data, file_name, mode, **kw) as up:
        ready = up.announce()
        if any(code == "0" for code in ready.values()):
            up.stream()
            up.wait_acks(final, timeout)
        return {d: up.codes(d) for d in up.ids}

