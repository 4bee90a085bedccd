"""Camera sandbox: a stand-in for the camera's tracking service, which the
daemon's tracking-sensitivity relay asks on 127.0.0.1:14791 inside the
camera's network namespace."""

from __future__ import annotations

import select
import socket
import threading

from rigbase import wait_until

TRACKING_PORT = 14791
GET = b"\xbb\xd1\x00"


class TrackingService:
    """Answers in `cam`'s network namespace: a get (BB D1 00) with
    BB D1 00 <raw>, a set (BB E1 04 <raw> 00 00 00) with BB E1 <result> (the
    raw value is kept for the next get). `raw` is the service's own scale
    (0..4 or 0..8). Every request is kept in `requests`. Use as a context
    manager; the camera must be running."""

    def __init__(self, cam, raw=0, result=1):
        self.raw = raw
        self.result = result
        self.requests = []
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self.sock = cam.socket(socket.SOCK_DGRAM)
        self.sock.bind(("127.0.0.1", TRACKING_PORT))
        self._thread = threading.Thread(target=self._serve, daemon=True,
                                        name=f"{cam.name}-tracking")
        self._thread.start()

    def _serve(self):
        while not self._stop.is_set():
            try:
                ready, _, _ = select.select([self.sock], [], [], 0.1)
                if not ready:
                    continue
                data, src = self.sock.recvfrom(512)
            except (OSError, ValueError):  # closed with the camera
                return
            with self._lock:
                self.requests.append(data)
                if data[:2] == b"\xbb\xe1" and len(data) >= 4:
                    self.raw = data[3]
                    answer = bytes([0xBB, 0xE1, self.result])
                else:
                    answer = GET + bytes([self.raw])
            try:
                self.sock.sendto(answer, src)
            except OSError:
                return

    def wait_requests(self, count, timeout=5.0):
        """The requests once `count` of them have come."""
        if not wait_until(lambda: len(self.requests) >= count, timeout):
            raise AssertionError(f"tracking service: {len(self.requests)} of {count} requests "
                                 f"within {timeout}s: {self.requests!r}")
        with self._lock:
            return list(self.requests)

    def close(self):
        self._stop.set()
        self._thread.join(2)
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
