#!/usr/bin/env python3
"""Round-trip latency of "SEARCH * " on the sandbox LAN.

Boots one sandboxed camera (sim/ns rig, needs root), then sends 200
searches to 239.255.255.251:8005, one every 350 ms so that each lands after
the listener's 300 ms pause, and prints the latency from send to the camera's
"REPLY OK " on the group: p50, p99, min, max and lost requests.

    sudo bench/search_latency.py [--bin build/host-release/upgrade] [--count 200]
"""

import argparse
import os
import statistics
import sys
import time
from pathlib import Path

import benchrig
from benchrig import default, rig

CLIENT = "b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0"


def percentile(sorted_values, p):
    if not sorted_values:
        return float("nan")
    k = (len(sorted_values) - 1) * p / 100.0
    lo, hi = int(k), min(int(k) + 1, len(sorted_values) - 1)
    return sorted_values[lo] + (sorted_values[hi] - sorted_values[lo]) * (k - lo)


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bin", type=Path, default=os.environ.get("UPGRADE_BIN") or default("upgrade"))
    ap.add_argument("--count", type=int, default=200)
    ap.add_argument("--interval", type=float, default=0.35, help="seconds between searches")
    args = ap.parse_args()
    benchrig.need_root()
    if args.bin is None:
        sys.exit("no daemon binary: build the 'upgrade' target or pass --bin")

    with benchrig.session(args.bin) as session, benchrig.lan(session) as lan:
        cam = rig.Camera(session, lan)
        cam.start()
        if not lan.search(client_id=CLIENT, count=1, timeout=10.0):
            sys.exit("the camera never answered")
        time.sleep(1.0)  # let the pauses after the warm-up searches pass
        request = rig.search_datagram(CLIENT)
        lat, lost = [], 0
        with lan.listen() as lst:
            for _ in range(args.count):
                t0 = time.monotonic()
                lst.send(request)
                got = lst.collect(timeout=args.interval, count=1, match=b"REPLY OK ")
                if got:
                    lat.append((got[0].at - t0) * 1000.0)
                else:
                    lost += 1
                rest = t0 + args.interval - time.monotonic()
                if rest > 0:
                    time.sleep(rest)
        lat.sort()
        print(f"daemon: {args.bin}")
        print(f"SEARCH * round trip over {args.count} searches ({args.interval * 1000:.0f} ms apart):")
        if lat:
            print(f"  p50 {percentile(lat, 50):.2f} ms   p99 {percentile(lat, 99):.2f} ms   "
                  f"min {lat[0]:.2f} ms   max {lat[-1]:.2f} ms   mean {statistics.mean(lat):.2f} ms")
        print(f"  answered {len(lat)}, lost {lost}")


if __name__ == "__main__":
    main()
