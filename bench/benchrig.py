"""What the LAN benchmarks share: finding the programs they run, and a
sandbox session and LAN that are cleaned up (and anything left behind
reported) however the benchmark ends."""

import contextlib
import os
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOP / "sim" / "ns"))

import camera as rig  # noqa: E402,F401  (re-exported)


def default(*names):
    """A host build of a program: build/host-{release,debug}/NAMES..., or
    the same under bench/ there."""
    for preset in ("host-release", "host-debug"):
        for p in (TOP / "build" / preset / Path(*names),
                  TOP / "build" / preset / "bench" / Path(*names)):
            if p.is_file():
                return p
    return None


def need_root():
    if os.geteuid() != 0:
        sys.exit("the camera sandbox needs root")


@contextlib.contextmanager
def session(binary):
    """A sandbox session for the daemon at `binary`, after sweeping what
    killed runs left."""
    rig.sweep_stale()
    s = rig.Session(binary)
    try:
        yield s
    finally:
        s.close()
        left = s.leftovers()
        if any(left.values()):
            print(f"left behind: {left}", file=sys.stderr)


@contextlib.contextmanager
def lan(s):
    """A LAN of session `s`; its cameras are torn down before it stops."""
    net = rig.Lan(s).start()
    try:
        yield net
    finally:
        for c in list(net.cameras):
            c.teardown()
        net.stop()
