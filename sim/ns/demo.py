"""Starts one sandboxed camera and shows the daemon working (run by tools/demo).

    /usr/bin/python3 sim/ns/demo.py path/to/upgrade
"""

import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import camera as rig  # noqa: E402

CLIENT_ID = "00112233445566778899aabbccddeeff"


def show(title, lines):
    print(f"\n--- {title}")
    for line in lines:
        print(f"    {line}")


def main(argv):
    if len(argv) != 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    rig.sweep_stale()
    session = rig.Session(argv[1])
    lan = rig.Lan(session).start()
    ok, cam = False, None
    try:
        cam = rig.Camera(session, lan, name="demo-cam")
        print(f"camera root {cam.root}")
        print(f"LAN {lan.name}: tool at {lan.ip}, camera eth0 {cam.ip} ({cam.mac})")
        cam.start(ready="init socket succeed", timeout=15)
        time.sleep(0.5)
        show("daemon start-up, standard output", cam.lines("stdout"))
        show("daemon start-up, standard error", cam.lines("stderr") or ["(nothing)"])
        show("processes in the camera", [f"{p.pid:>4} {' '.join(p.argv)}"
                                         for p in cam.processes()])
        with lan.connect(cam.ip, rig.TCP_PORT, timeout=5):
            print(f"\nTCP {cam.ip}:{rig.TCP_PORT}: connection accepted")

        request = rig.search_datagram(CLIENT_ID)
        group, port = rig.SEARCH_GROUP
        print(f"\n--- sending {request!r} to {group}:{port}")
        replies = lan.request(request, group, port, timeout=3.0, count=1, resend=0.5,
                              match=lambda r: not r.data.startswith(b"SEARCH * "))
        if not replies:
            print("    no reply (discovery not built yet)")
        for r in replies:
            print(f"    reply from {r.src[0]}:{r.src[1]}:")
            for line in r.text.split("\r\n"):
                print(f"      {line}")
        ok = cam.running
        if not ok:
            print(f"\nthe camera ended: {cam.end_reason()}")
    finally:
        if cam is not None:
            cam.teardown(keep=not ok)
            if not ok:
                print(f"camera root kept for inspection: {cam.root}")
        lan.stop()
        session.close()
    left = rig.leftovers(session.owner)
    print("\ncamera stopped; sandbox removed" if not any(left.values())
          else f"\nleft behind: {left}")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
