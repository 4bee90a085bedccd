"""The LAN side of a multicast upgrade to virtual cameras, for the demo,
the bench and the tests: the sandbox's Transfer (sim/ns/transfer.py) with
the file paced on the wire. An emulated camera takes datagrams slower than a
namespace camera, and UDP has no flow control: a burst would be dropped.

    with PacedTransfer(lan, [cam], data, name="fw.img", mode=4) as t:
        t.announce()
        assert t.ack(cam) == "0"
        t.stream()                             # at `rate` bytes per second
        assert t.acks(cam, 3, timeout=600) == ["0", "5", "7"]
"""

from __future__ import annotations

import time

from transfer import Transfer, packets

FAIL_CODES = set("12689")


def send_paced(send, datagrams, rate):
    """Sends the datagrams with `send`, at most `rate` bytes per second."""
    start, sent = time.monotonic(), 0
    for d in datagrams:
        send(d)
        sent += len(d)
        ahead = start + sent / rate - time.monotonic()
        if ahead > 0:
            time.sleep(ahead)


class PacedTransfer(Transfer):
    def __init__(self, lan, cams, data, rate=1 << 20, **kw):
        super().__init__(lan, cams, data, **kw)
        self.rate = rate  # bytes per second on the wire

    def stream(self, skip=(), extra=None):
        datagrams = []
        for i, p in enumerate(packets(self.session, self.data)):
            if extra and i in extra:
                datagrams.append(extra[i])
            if i not in skip:
                datagrams.append(p)
        send_paced(self.send, datagrams, self.rate)

    def until(self, cam, final="7", timeout=600.0):
        """Acknowledgements of cam (Reply objects) up to `final` or a failure."""
        deadline = time.monotonic() + timeout

        def done():
            codes = self.heard_from(cam)
            return bool(codes) and (codes[-1] == final or codes[-1] in FAIL_CODES)

        while not done() and time.monotonic() < deadline:
            self._collect(min(1.0, deadline - time.monotonic()), done)
        return self._heard.get(cam.ip, [])


def run_upgrade(lan, cam, data, name, mode, final="7", timeout=600.0, **kw):
    """Announces, streams and waits; returns cam's acknowledgement codes
    ("057" for an installed upgrade)."""
    with PacedTransfer(lan, [cam], data, name=name, mode=mode, **kw) as t:
        t.announce()
        if t.ack(cam, timeout=60) == "0":
            t.stream()
            t.until(cam, final, timeout)
        return "".join(t.heard_from(cam))
