#!/usr/bin/env python3
"""Latency of camtool's single-camera commands on a LAN of many cameras.

Boots --cameras namespace cameras (sim/ns rig, needs root) on one LAN for
each size asked for (default 20 and 100), then times `camtool production`,
`camtool query` and `camtool confignet` (--dns to the camera's own DNS: the
camera stores it and reboots; the rig powers it on again) to one camera at a
time, a different camera each run: the wall time of the camtool process from
start to exit, and whether it reported the camera's answer. With --before
CAMTOOL, the same with another camtool (the landed one, whose look-up search
goes to both groups and whose commands go to the search group) and its
--timeout raised to --before-timeout, so that its answer is timed even when
it comes later than its default 3 s. With --loss, the new camtool again with
that much independent random loss on every camera's port (the lab's loss
switch). Figures only: nothing here passes or fails.

    sudo bench/command_latency.py [--cameras 20 100] [--runs 5] [--loss 1]
         [--before /path/to/old/camtool] [--before-runs 2] [--before-timeout 90]
         [--bin build/host-release/upgrade] [--camtool build/host-release/camtool/camtool]
"""

import argparse
import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

import benchrig
from benchrig import default, rig

COMMANDS = ("production", "query", "confignet")


def boot(session, lan, count, log):
    cams = []
    t0 = time.monotonic()
    for _ in range(count):
        cam = rig.Camera(session, lan)
        try:
            cam.start(timeout=60)
        except (AssertionError, rig.RigError) as e:
            log.append(f"camera {len(cams) + 1} did not boot: {str(e).splitlines()[0]}")
            cam.teardown()
            break
        cams.append(cam)
    return cams, time.monotonic() - t0


def argv_for(command, cam):
    if command == "production":
        return ["production", cam.ip]
    if command == "query":
        return ["query", cam.ip]
    return ["confignet", cam.device_id, "--dns", "8.8.8.8"]


def answered(command, p):
    if p.returncode != 0:
        return False
    return {"production": "boot_times", "query": "firmware",
            "confignet": "accepted"}[command] in p.stdout


def measure(lan, camtool, cams, runs, extra, pause, log, label, configured):
    """{command: [(seconds, answered)]}; a different camera for each run,
    never one that was sent settings (it reboots, perhaps later)."""
    out = {c: [] for c in COMMANDS}
    pick = iter(range(10**6))
    for command in COMMANDS:
        for _ in range(runs):
            up = [c for c in cams if c.running and c.name not in configured]
            if not up:
                log.append(f"{label}: no camera running")
                return out
            cam = up[(next(pick) * 7) % len(up)]
            if command == "confignet":
                configured.add(cam.name)
            argv = ["ip", "netns", "exec", lan.name, str(camtool), *argv_for(command, cam), *extra]
            t0 = time.monotonic()
            p = subprocess.run(argv, capture_output=True, text=True, timeout=600)
            took = time.monotonic() - t0
            ok = answered(command, p)
            out[command].append((took, ok))
            if not ok:
                log.append(f"{label} {command} {cam.name}: exit {p.returncode}: "
                           f"{(p.stderr.strip().splitlines() or [''])[-1]}")
            time.sleep(pause)
    return out


def row(size, label, command, results):
    times = sorted(t for t, _ in results)
    ok = sum(1 for _, a in results if a)
    if not times:
        return f"{size:>7}  {label:<28} {command:<11} -"
    good = sorted(t for t, a in results if a)
    p50 = f"{statistics.median(good):.2f} s" if good else "-"
    return (f"{size:>7}  {label:<28} {command:<11} {ok}/{len(results):<6}  "
            f"{p50:>8}  {times[-1]:>7.2f} s")


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bin", type=Path, default=os.environ.get("UPGRADE_BIN") or default("upgrade"))
    ap.add_argument("--camtool", type=Path, default=default("camtool", "camtool"))
    ap.add_argument("--cameras", type=int, nargs="+", default=[20, 100])
    ap.add_argument("--runs", type=int, default=5, help="runs per command")
    ap.add_argument("--loss", type=float, default=0.0, help="also with this much loss per port, in %%")
    ap.add_argument("--before", type=Path, help="another camtool to time the same way")
    ap.add_argument("--before-runs", type=int, default=2)
    ap.add_argument("--before-timeout", type=float, default=90)
    args = ap.parse_args()
    benchrig.need_root()
    if args.bin is None or args.camtool is None:
        sys.exit("build the 'upgrade' and 'camtool' targets (host-release) or pass --bin/--camtool")

    log, rows = [], []
    print(f"daemon {args.bin}, camtool {args.camtool}" + (f", before: {args.before}" if args.before else ""))
    print(f"{os.cpu_count()} CPUs, load {os.getloadavg()[0]:.1f} at start")
    with benchrig.session(args.bin) as session:
        for size in args.cameras:
            with benchrig.lan(session) as lan:
                cams, took = boot(session, lan, size, log)
                print(f"{len(cams)} cameras booted in {took:.0f} s (load {os.getloadavg()[0]:.1f})",
                      flush=True)
                configured = set()
                with rig.PowerOn(cams, at_once=4) as power:
                    sets = [("camtool", args.camtool, args.runs, [], 0.0, 0.5)]
                    if args.loss:
                        sets.append((f"camtool, {args.loss:g} % loss", args.camtool, args.runs, [],
                                     args.loss, 0.5))
                    if args.before:
                        # Its storms last about the site's size times 0.3 s per
                        # search round: let them pass before the next run.
                        sets.append((f"before, --timeout {args.before_timeout:g}", args.before,
                                     args.before_runs, ["--timeout", str(args.before_timeout)], 0.0,
                                     0.3 * size * 2))
                    for label, tool, runs, extra, loss, pause in sets:
                        lan.set_loss(loss)
                        res = measure(lan, tool, cams, runs, extra, pause, log, f"{size} {label}",
                                      configured)
                        lost = lan.lost_packets()
                        for command in COMMANDS:
                            rows.append(row(size, label, command, res[command]))
                        if loss:
                            rows.append(f"{'':>7}  ({lost} packets lost by the loss switch)")
                        print("\n".join(rows[-len(COMMANDS) - (1 if loss else 0):]), flush=True)
                    lan.set_loss(0)
                log.extend(power.failures)
    print(f"\n{'cameras':>7}  {'camtool':<28} {'command':<11} answered  {'median':>8}  {'max':>9}")
    print("\n".join(rows))
    print(f"(median of the answered runs; max of all; wall time of the camtool process)")
    print(f"load {os.getloadavg()[0]:.1f} at the end")
    for line in log:
        print(f"  {line}")


if __name__ == "__main__":
    main()
