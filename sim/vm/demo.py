"""One virtual camera from boot to upgrade and back, driven by camtool (run by
tools/demo and `tools/camlab demo`): camtool finds it, sends it a multicast
upgrade of its kernel partition and shows every acknowledgement; the camera
reboots through its watchdog, camtool sees it back, and a last search finds it.

    /usr/bin/python3 sim/vm/demo.py build/armhf/upgrade-VERSION-armhf.tar.gz \
        build/host-release/camtool/camtool

The camera is installed from the camera archive (or a bare armhf daemon).

camtool runs inside the lab's LAN namespace, never on this machine's network.
"""

import random
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "ns"))

import camera as rig  # noqa: E402
import vmcam  # noqa: E402

KERNEL = 2


def main(argv):
    if len(argv) != 3:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    daemon, camtool = Path(argv[1]), Path(argv[2])
    vmcam.build_image()
    rig.sweep_stale()
    session = rig.Session(daemon)
    lan = rig.Lan(session).start()
    cam = None
    ok = False

    def run(*args):
        print(f"\n$ camtool {' '.join(map(str, args))}", flush=True)
        return lan.exec([camtool, *map(str, args)], check=False, capture_output=False).returncode

    try:
        cam = vmcam.VirtualCamera(session, lan, name="demo",
                                  echo=lambda c, line: print(f"  {c.name} | {line}", flush=True))
        print(f"virtual camera {cam.ip} on LAN {lan.name}; files in {cam.dir}")
        t0 = time.monotonic()
        cam.start()
        print(f"\n--- the daemon is up {time.monotonic() - t0:.1f} s after power-on")
        ok = run("search", "--wait", 3) == 0
        piece = random.Random(1).randbytes(320 * 1024)  # whole 64 KiB pieces
        image = session.workdir / "uImage.bin"
        image.write_bytes(piece)
        # The emulated camera takes about 1 MB/s; it reboots by itself afterwards.
        ok = run("upgrade", image, "--mode", 5 + KERNEL, "--to", cam.device_id, "--rate", 8,
                 "--answer-wait", 120, "--back-wait", 600) == 0 and ok
        ok = run("search", "--wait", 3) == 0 and ok
        written = cam.flash.partition(KERNEL)[:len(piece)] == piece
        print(f"\npartition {KERNEL} of the flash holds the upgrade: {written}")
        ok = ok and written
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
