#!/usr/bin/env python3
"""A site upgraded at once: namespace cameras on one LAN, one `camtool upgrade --all`.

Boots one sandboxed camera (sim/ns rig, needs root) and upgrades it alone
(the reference), then boots --cameras cameras on one LAN and upgrades them
all in one stream with a zip package (mode 1) of --mib MiB. The rig plays
each camera's power-on: it boots a camera again once it has rebooted. Prints
for both runs: cameras booted, upgraded and retried, the total time and
where it went (announcement to the last '0', the stream, the last '7', the
last camera back), camtool's peak RSS, the cameras' daemon and whole-camera
RSS, the host memory a camera costs, datagrams the cameras' kernels dropped,
and the load. Figures only: nothing here passes or fails.

    sudo bench/fleet_upgrade.py [--cameras 50] [--mib 8] [--rate 50]
         [--bin build/host-release/upgrade] [--camtool build/host-release/camtool/camtool]
"""

import argparse
import json
import os
import re
import statistics
import subprocess
import sys
import threading
import time
from pathlib import Path

import benchrig
from benchrig import default, rig

RESTARTS_AT_ONCE = 4  # boots the rig runs side by side after the reboots


def mem_available_kib():
    for line in Path("/proc/meminfo").read_text().splitlines():
        if line.startswith("MemAvailable:"):
            return int(line.split()[1])
    return 0


def status_kib(pid, key):
    try:
        for line in Path(f"/proc/{pid}/status").read_text().splitlines():
            if line.startswith(key + ":"):
                return int(line.split()[1])
    except OSError:
        pass
    return 0


class Sampler(threading.Thread):
    """Every `every` seconds, one pass over /proc: per camera the daemon's
    RSS and the RSS of all its processes (largest seen), and its network
    namespace's drop counters (last seen per boot)."""

    def __init__(self, cams, every=2.0):
        super().__init__(daemon=True, name="sampler")
        self.cams, self.every = cams, every
        self.daemon_rss, self.camera_rss, self.drops = {}, {}, {}
        self.stop = threading.Event()

    def sample(self):
        by_ns = {}
        for entry in os.listdir("/proc"):
            if entry.isdigit():
                by_ns.setdefault(rig.ns_link(entry, "pid"), []).append(entry)
        for cam in self.cams:
            init = cam.init_pid
            if not cam.running or not init:
                continue
            total = daemon = 0
            for pid in by_ns.get(rig.ns_link(init, "pid"), []):
                rss = status_kib(pid, "VmRSS")
                total += rss
                try:
                    if Path(f"/proc/{pid}/comm").read_text().strip() == "upgrade":
                        daemon = rss
                except OSError:
                    pass
            self.daemon_rss[cam.name] = max(self.daemon_rss.get(cam.name, 0), daemon)
            self.camera_rss[cam.name] = max(self.camera_rss.get(cam.name, 0), total)
            try:
                snmp = Path(f"/proc/{init}/net/snmp").read_text().splitlines()
                table = {}
                for head, values in zip(snmp[::2], snmp[1::2]):
                    table[head.split(":")[0]] = dict(zip(head.split()[1:], map(int, values.split()[1:])))
                self.drops[(cam.name, cam.boots)] = (table["Udp"]["RcvbufErrors"],
                                                     table["Ip"]["ReasmFails"])
            except (OSError, KeyError):
                pass

    def run(self):
        while not self.stop.wait(self.every):
            self.sample()


def boot(session, lan, count, log):
    cams, times = [], []
    for _ in range(count):
        cam = rig.Camera(session, lan)
        t = time.monotonic()
        try:
            cam.start(timeout=60)
        except (AssertionError, rig.RigError) as e:
            log.append(f"camera {len(cams) + 1} did not boot: {str(e).splitlines()[0]}")
            cam.teardown()
            break
        times.append(time.monotonic() - t)
        cams.append(cam)
    return cams, times


def upgrade(lan, camtool, pkg, rate, cams, log):
    """Runs camtool once; returns its figures."""
    power = rig.PowerOn(cams, at_once=RESTARTS_AT_ONCE)
    sampler = Sampler(cams)
    sampler.start()
    argv = ["ip", "netns", "exec", lan.name, str(camtool), "upgrade", str(pkg), "--mode", "1",
            "--all", "--json", "--rate", str(rate), "--answer-wait", "60", "--back-wait", "900"]
    t0 = time.monotonic()
    p = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    events, out, hwm = [], [], [0]

    def peak():
        # camtool's own high-water mark (the rusage of a child also counts
        # the forked parent's pages before the exec); read until it exits.
        while p.poll() is None:
            hwm[0] = max(hwm[0], status_kib(p.pid, "VmHWM"))
            time.sleep(0.1)

    readers = [threading.Thread(target=lambda: [events.append((time.monotonic() - t0, line))
                                                for line in p.stderr], daemon=True),
               threading.Thread(target=lambda: out.append(p.stdout.read()), daemon=True),
               threading.Thread(target=peak, daemon=True)]
    for r in readers:
        r.start()
    status = p.wait()
    took = time.monotonic() - t0
    for r in readers:
        r.join(10)
    sampler.sample()
    sampler.stop.set()
    power.close()  # a boot under way is finished first
    log.extend(power.failures)
    results = [json.loads(line) for line in "".join(out).splitlines() if line.strip()]

    def last(pattern, after=0.0):
        stamps = [t for t, line in events if re.search(pattern, line) and t >= after]
        return max(stamps) if stamps else None

    def first(pattern):
        stamps = [t for t, line in events if re.search(pattern, line)]
        return min(stamps) if stamps else None

    drops = [0, 0]
    for rcvbuf, reasm in sampler.drops.values():
        drops[0] += rcvbuf
        drops[1] += reasm
    return {
        "status": status,
        "took": took,
        "results": results,
        "announced": first(r"^round 1: announcing"),
        "streaming": first(r"^round 1: streaming"),
        "sent": first(r"^round 1: sent"),
        "last_7": last(r"\(7\)$"),
        "last_back": last(r"back after its reboot"),
        "rounds": max((len(r["acks"]) for r in results), default=0),
        "tool_rss": hwm[0],
        "daemon_rss": list(sampler.daemon_rss.values()),
        "camera_rss": list(sampler.camera_rss.values()),
        "drops": drops,
        "stderr_tail": [line.rstrip() for _, line in events[-5:]],
    }


def run(session, camtool, pkg, rate, count, log):
    with benchrig.lan(session) as lan:
        before = mem_available_kib()
        cams, boots = boot(session, lan, count, log)
        idle_per_camera = (before - mem_available_kib()) / max(1, len(cams))
        if not cams:
            return None
        fig = upgrade(lan, camtool, pkg, rate, cams, log)
        fig.update(booted=len(cams), boots=boots, host_kib_per_camera=idle_per_camera)
        return fig


def show(label, f, alone):
    res = f["results"]
    ok = sum(1 for r in res if r["ok"])
    retried = sum(1 for r in res if len(r["acks"]) > 1)
    med = statistics.median
    print(f"\n{label}")
    print(f"  booted            {f['booted']} (boot {med(f['boots']):.2f} s median, "
          f"{sum(f['boots']):.0f} s in all)")
    print(f"  upgraded          {ok} of {len(res)} named by --all (camtool exit {f['status']})")
    print(f"  retried           {retried} camera(s); rounds used {f['rounds']}")
    ratio = f" (x{f['took'] / alone:.1f} one camera alone)" if alone else ""
    print(f"  total             {f['took']:.1f} s{ratio}")

    def span(a, b):
        return f"{f[b] - f[a]:.1f} s" if f[a] is not None and f[b] is not None else "-"
    print(f"    search          {f['announced'] or 0:.1f} s")
    print(f"    announce -> 0   {span('announced', 'streaming')}")
    print(f"    stream          {span('streaming', 'sent')}")
    print(f"    sent -> last 7  {span('sent', 'last_7')}")
    print(f"    7 -> last back  {span('last_7', 'last_back')}")
    print(f"  camtool peak RSS  {f['tool_rss'] / 1024:.1f} MiB")
    d, c = f["daemon_rss"], f["camera_rss"]
    if d:
        print(f"  daemon RSS        median {med(d) / 1024:.1f} MiB, max {max(d) / 1024:.1f} MiB")
        print(f"  camera RSS        median {med(c) / 1024:.1f} MiB, max {max(c) / 1024:.1f} MiB "
              f"(every process of the camera)")
    print(f"  host memory       {f['host_kib_per_camera'] / 1024:.1f} MiB per booted camera "
          f"(MemAvailable, before the upgrade)")
    print(f"  dropped           {f['drops'][0]} datagrams in receive queues, "
          f"{f['drops'][1]} failed reassemblies (all cameras)")


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bin", type=Path, default=os.environ.get("UPGRADE_BIN") or default("upgrade"))
    ap.add_argument("--camtool", type=Path, default=default("camtool", "camtool"))
    ap.add_argument("--cameras", type=int, default=50)
    ap.add_argument("--mib", type=float, default=8, help="size of the package's payload")
    ap.add_argument("--rate", type=float, default=50, help="Mbit/s of the stream")
    args = ap.parse_args()
    benchrig.need_root()
    if args.bin is None or args.camtool is None:
        sys.exit("build the 'upgrade' and 'camtool' targets (host-release) or pass --bin/--camtool")

    log = []
    with benchrig.session(args.bin) as session:
        pkg = session.workdir / "app_V2.6.0.zip"
        pkg.write_bytes(rig.zip_package({"customer/version_file": "V2.6.0",
                                         "customer/payload.bin": os.urandom(int(args.mib * 1048576))}))
        print(f"daemon {args.bin}, camtool {args.camtool}")
        print(f"package {pkg.stat().st_size / 1048576:.1f} MiB (mode 1) at {args.rate:g} Mbit/s; "
              f"{os.cpu_count()} CPUs, load {os.getloadavg()[0]:.1f} at start")
        alone = run(session, args.camtool, pkg, args.rate, 1, log)
        fleet = run(session, args.camtool, pkg, args.rate, args.cameras, log)
        if alone:
            show("one camera alone", alone, None)
        if fleet:
            show(f"{args.cameras} cameras asked for", fleet, alone["took"] if alone else None)
        print(f"\nload {os.getloadavg()[0]:.1f} at the end")
        for line in log:
            print(f"  rig: {line}")
        for fig in (alone, fleet):
            if fig and fig["status"] != 0:
                print("  camtool's last lines:\n    " + "\n    ".join(fig["stderr_tail"]))


if __name__ == "__main__":
    main()
