"""One virtual camera from boot to upgrade and back (run by `tools/camlab demo`):
it answers a search, takes a multicast upgrade of its kernel partition with
its acknowledgements, reboots through its watchdog and answers again.

    /usr/bin/python3 sim/vm/demo.py build/armhf/upgrade
"""

import random
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "ns"))

import camera as rig  # noqa: E402
import lanupgrade  # noqa: E402
import vmcam  # noqa: E402

ACKS = {"0": "ready, send the file", "1": "not enough room", "2": "file not stored",
        "5": "md5 good", "6": "md5 bad", "7": "installed, rebooting", "8": "controller failed",
        "9": "busy"}
KERNEL = 2


def show_search(lan, cam):
    replies = lan.search(count=1, from_ip=cam.ip, timeout=30)
    if not replies:
        raise SystemExit(f"no answer to the search{cam._tail(cam.boots)}")
    print(f"\n--- SEARCH * from the LAN ({lan.ip}); reply from {replies[0].src[0]}:")
    for line in replies[0].text.split("\r\n"):
        print(f"      {line}")
    return replies[0].fields()["Device ID"]


def main(argv):
    if len(argv) != 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    daemon = Path(argv[1])
    vmcam.build_image()
    rig.sweep_stale()
    session = rig.Session(daemon)
    lan = rig.Lan(session).start()
    cam = None
    ok = False
    try:
        cam = vmcam.VirtualCamera(session, lan, name="demo",
                                  echo=lambda c, line: print(f"  {c.name} | {line}", flush=True))
        print(f"virtual camera {cam.ip} on LAN {lan.name}; files in {cam.dir}")
        t0 = time.monotonic()
        cam.start()
        print(f"\n--- the daemon is up {time.monotonic() - t0:.1f} s after power-on")
        device_id = show_search(lan, cam)
        if b"cur_client_id_Upgrade" not in daemon.read_bytes():
            print("\nthis daemon has no multicast upgrade yet: the demo ends after the search")
            ok = True
            return 0
        piece = random.Random(1).randbytes(320 * 1024)  # whole 64 KiB pieces
        print(f"\n--- multicast upgrade: {len(piece)} bytes for partition {KERNEL} "
              f"(mode {5 + KERNEL}) to 239.255.255.252:8006")
        with lanupgrade.PacedTransfer(lan, [cam], piece, name="uImage.bin",
                                      mode=5 + KERNEL) as t:
            t.announce()
            if t.ack(cam, timeout=60) == "0":
                t.stream()
            replies = t.until(cam, "7", 600)
        for r in replies:
            code = r.fields().get("Ack")
            print(f"    +{r.at - replies[0].at:6.2f} s  REPLYU DO Ack:{code}  "
                  f"({ACKS.get(code, '?')})")
        reason = cam.wait_boot(2, timeout=600)
        print(f"\n--- the camera restarted ({reason}) and is up again")
        again = show_search(lan, cam)
        written = cam.flash.partition(KERNEL)[:len(piece)] == piece
        print(f"\nsame device ID after the reboot: {again == device_id}; "
              f"partition {KERNEL} holds the upgrade: {written}")
        ok = again == device_id and written
        return 0 if ok else 1
    finally:
        if cam is not None:
            cam.teardown(keep=not ok)
            if not ok:
                print(f"camera files kept for inspection: {cam.dir}")
        lan.stop()
        session.close()
        left = rig.leftovers(session.owner)
        print("\ncamera stopped; lab removed" if not any(left.values())
              else f"\nleft behind: {left}")


if __name__ == "__main__":
    sys.exit(main(sys.argv))
