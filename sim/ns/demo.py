"""Starts two sandboxed cameras and shows them at work through camtool (run
by tools/demo): the daemon's start-up, a search, a query and an upgrade of
both cameras in one stream with every acknowledgement, then a search that
finds them back with the new version.

    /usr/bin/python3 sim/ns/demo.py path/to/upgrade [path/to/camtool]

camtool runs inside the sandbox's LAN namespace, never on this machine's
network. Without its path, the camtool built beside the daemon is used.
"""

import os
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import camera as rig  # noqa: E402


def show(title, lines):
    print(f"\n--- {title}")
    for line in lines:
        print(f"    {line}")


def main(argv):
    if len(argv) not in (2, 3):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    camtool = Path(argv[2]) if len(argv) == 3 else Path(argv[1]).parent / "camtool" / "camtool"
    if not camtool.is_file():
        print(f"no camtool at {camtool}: build the 'camtool' target or pass its path",
              file=sys.stderr)
        return 2
    rig.sweep_stale()
    session = rig.Session(argv[1])
    lan = rig.Lan(session).start()
    ok, cams = False, []

    def run(*args):
        print(f"\n$ camtool {' '.join(map(str, args))}", flush=True)
        p = lan.exec([camtool, *map(str, args)], check=False, capture_output=False)
        return p.returncode

    try:
        cams = [rig.Camera(session, lan, name=f"demo-cam{i}") for i in (1, 2)]
        for cam in cams:
            cam.start(ready="init socket succeed", timeout=15)
            print(f"{cam.name}: eth0 {cam.ip} ({cam.mac}), root {cam.root}")
        print(f"LAN {lan.name}: the tool's side at {lan.ip}")
        first = cams[0]
        show(f"{first.name}: daemon start-up, standard output", first.lines("stdout"))
        show(f"{first.name}: processes", [f"{p.pid:>4} {' '.join(p.argv)}"
                                          for p in first.processes()])

        ok = run("search") == 0
        ok = run("query", first.ip) == 0 and ok
        fw = session.workdir / "app_V2.6.0.zip"
        fw.write_bytes(rig.zip_package({"customer/version_file": "V2.6.0",
                                        "customer/payload.bin": os.urandom(2 << 20)}))
        # Each camera reboots after its installation; the rig powers it on again.
        with rig.PowerOn(cams) as power:
            ok = run("upgrade", fw, "--mode", 1, "--all") == 0 and ok
        ok = run("search") == 0 and ok and not power.failures
        for line in power.failures:
            print(f"rig: {line}")
        ok = ok and all(cam.running for cam in cams)
    finally:
        for cam in cams:
            cam.teardown(keep=not ok)
            if not ok:
                print(f"camera root kept for inspection: {cam.root}")
        lan.stop()
        session.close()
    left = rig.leftovers(session.owner)
    print("\ncameras stopped; sandbox removed" if not any(left.values())
          else f"\nleft behind: {left}")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv))
