"""Camera sandbox: power that stays on. A camera that reboots ends its
namespaces; PowerOn boots it again, as a camera's power-on would."""

from __future__ import annotations

import threading
import time

from rigbase import RigError


class PowerOn:
    """Boots each camera again after each reboot, on threads of its own,
    until closed (a boot under way is finished first). At most `at_once`
    boots run side by side. A camera that ends otherwise, or does not boot,
    is left down and noted in `failures`. Use as a context manager."""

    def __init__(self, cams, at_once=4, timeout=120.0):
        self.failures = []
        self._timeout = timeout
        self._stop = threading.Event()
        self._gate = threading.Semaphore(at_once)
        self._threads = [threading.Thread(target=self._keep, args=(c,), daemon=True,
                                          name=f"{c.name}-power") for c in cams]
        for t in self._threads:
            t.start()

    def _keep(self, cam):
        while not self._stop.is_set():
            if cam.running:
                time.sleep(0.1)
                continue
            if not cam.rebooted:
                self.failures.append(f"{cam.name} ended: {cam.end_reason()}")
                return
            with self._gate:
                try:
                    cam.restart(timeout=self._timeout)
                except (AssertionError, RigError) as e:
                    self.failures.append(f"{cam.name} did not boot again: {e}")
                    return

    def close(self):
        self._stop.set()
        for t in self._threads:
            t.join(self._timeout + 30)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
