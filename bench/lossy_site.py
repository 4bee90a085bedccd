#!/usr/bin/env python3
"""A whole site under packet loss: one `camtool upgrade` per loss on a LAN of
namespace cameras, uftp/uftpd on the same LAN for comparison, and the latency
of single-camera commands on a site of 20 and of 100 cameras. Prints figures;
nothing passes or fails.

Boots --cameras namespace cameras (sim/ns rig, needs root) on one LAN and
makes a mode-1 package (a zip with a version file and --mib MiB of random
payload, unpacked over the camera's root). For each --loss (independent
random loss on every camera's port, the lab's loss switch: lan.set_loss):

  auto    `camtool upgrade --transfer auto --to <every camera>`: cameras that
          accept the NORM offer get the file over NORM, the rest today's
          stream; skipped when this camtool has no --transfer
  uftp    uftp in the LAN namespace, uftpd in every camera's network
          namespace (lossy_norm.py's run), same file, rate and loss

then today's stream (`--transfer stream`, or no flag on a camtool without
it) at each --stream-loss, for the record. Per run: cameras upgraded
(answered '7' and came back; for uftp: files whole), cameras on NORM, rounds
(uftp: passes), the command's total time and the span during which the
file's packets were on the wire (first to last packet over 1,200 bytes; the
counters are read every 0.1 s), bytes the tool's side put on the LAN / file
size, the repair share (packets beyond the same tool's lossless run over all
its packets, as in lossy_norm.py) and the packets the loss switch dropped.
The tool's side is counted by nftables in the LAN namespace (IP bytes
leaving br0, once per packet whatever the number of ports). Below the
tables, per camtool run: the medians of camtool's own numeric per-camera
figures (its --json, e.g. its bytes on the wire per file byte), the NORM
data packets against the file's 1,400-byte segments, and camtool's last
lines when it did not exit 0.

Then, on the same LAN without loss, camtool's `production`, `query` and
`confignet` to one camera at a time (command_latency.py's measure), with the
LAN grown to each --latency-cameras size.

    sudo bench/lossy_site.py [--cameras 20] [--mib 16] [--loss 0,0.1,1,3]
         [--stream-loss 0,0.1] [--rate 50] [--latency-cameras 20 100] [--runs 5]
         [--parts auto,uftp,stream,latency] [--quick] [--logs DIR] [--camtool-args "..."]
         [--bin build/host-release/upgrade] [--camtool build/host-release/camtool/camtool]

--quick: 5 cameras, 4 MiB, loss 0 and 1 %, the stream at 0.1 %, latency on
the 5 cameras with 2 runs (each unless given explicitly).
"""

import argparse
import itertools
import json
import os
import shlex
import shutil
import signal
import statistics
import subprocess
import sys
import threading
import time
from pathlib import Path

import benchrig
import command_latency
import lossy_norm
from benchrig import default, rig

NORM_GROUP = "239.255.255.253:8010"
BULK = 1200  # bytes: a packet of the file (NORM 1,400-byte segments, stream
#              5,120-byte datagrams, uftp 1,400-byte blocks), not control
TALLY = "lossy_site"
LOG_NUMBERS = itertools.count(1)
FULL = dict(cameras=20, mib=16, loss="0,0.1,1,3", stream_loss="0,0.1",
            latency_cameras=[20, 100], runs=5)
QUICK = dict(cameras=5, mib=4, loss="0,1", stream_loss="0.1", latency_cameras=[5], runs=2)
KNOWN_FIELDS = {"device_id", "ip", "model", "rounds", "acks", "ready", "md5_ok", "result",
                "rebooted", "back", "version_before", "version_after", "reported",
                "confirmed", "outcome", "ok", "transfer", "wire_bytes"}


def load():
    return os.getloadavg()[0]


class Tally:
    """Counters of what the tool's side of the LAN sends and receives: an
    nftables ip table in the LAN namespace, made anew (counters at zero) by
    reset()."""

    def __init__(self, lan, norm_port):
        self.lan, self.norm_port = lan, norm_port

    def nft(self, script):
        self.lan.exec(["nft", "-f", "-"], input=script)

    def reset(self):
        self.nft(f"""add table ip {TALLY}
delete table ip {TALLY}
table ip {TALLY} {{
  counter tx_all {{ }}
  counter tx_frag {{ }}
  counter tx_bulk {{ }}
  counter tx_norm_data {{ }}
  counter rx_all {{ }}
  chain out {{
    type filter hook output priority 0;
    oifname "br0" counter name tx_all
    oifname "br0" ip frag-off & 0x3fff != 0 counter name tx_frag
    oifname "br0" meta length > {BULK} counter name tx_bulk
    oifname "br0" udp dport {self.norm_port} @th,68,4 2 counter name tx_norm_data
  }}
  chain in {{
    type filter hook input priority 0;
    iifname "br0" counter name rx_all
  }}
}}
""")

    def counters(self, drops=True):
        """{name: (packets, bytes)}, with the loss switch's drops as "dropped"."""
        out = self.lan.exec(["nft", "-j", "list", "table", "ip", TALLY]).stdout
        c = {}
        for item in json.loads(out)["nftables"]:
            k = item.get("counter")
            if k:
                c[k["name"]] = (k["packets"], k["bytes"])
        if drops:
            c["dropped"] = (self.lan.lost_packets(), 0)
        return c

    def close(self):
        self.lan.exec(["nft", "delete", "table", "ip", TALLY], check=False)


class BulkSpan(threading.Thread):
    """Watches the tally's large-packet counter: when the file's first and
    last packets left (monotonic seconds, 0.1 s resolution)."""

    def __init__(self, tally, every=0.1):
        super().__init__(daemon=True, name="bulk-span")
        self.tally, self.every = tally, every
        self.first = self.last = None
        self.halt = threading.Event()
        self.start()

    def run(self):
        seen = 0
        while not self.halt.wait(self.every):
            try:
                n = self.tally.counters(drops=False)["tx_bulk"][0]
            except (rig.RigError, KeyError, ValueError):
                continue
            if n != seen:
                now = time.monotonic()
                self.first = self.first or now
                self.last, seen = now, n

    def span(self):
        self.halt.set()
        self.join(5)
        return self.last - self.first if self.first else float("nan")


class CameraReceivers(lossy_norm.Lan):
    """lossy_norm's receiver set on the rig's cameras: its uftp run starts
    uftpd in each camera's network namespace (the camera's files untouched;
    uftpd writes on the host) and uftp in the LAN namespace; counters from
    the tally."""

    def __init__(self, lan, cams, tally):
        # Not lossy_norm.Lan's own: that one names namespaces it makes.
        self.lan = lan.name
        self.rx = list(cams)
        self.procs, self.made = [], []
        self.tally = tally

    def spawn(self, where, cmd, **kw):
        enter = (["ip", "netns", "exec", where] if isinstance(where, str)
                 else ["nsenter", f"--net=/proc/{where.init_pid}/ns/net"])
        p = subprocess.Popen(enter + [str(c) for c in cmd], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True, start_new_session=True, **kw)
        self.procs.append(p)
        return p

    def counters(self):
        return self.tally.counters()


def transfer_options(camtool):
    """The upgrade options this camtool knows of --transfer and --norm-group."""
    text = subprocess.run([str(camtool), "upgrade", "--help"], capture_output=True,
                          text=True).stdout
    return {o for o in ("--transfer", "--norm-group") if o in text}


def all_up(lan, cams, timeout=300.0):
    """Waits until every camera runs again (the rig powers rebooted ones on)
    and its batch listener answers; the names of those that do not."""
    rig.wait_until(lambda: all(c.running for c in cams), timeout, interval=0.2)
    down = [c.name for c in cams if not c.running]
    up = [c for c in cams if c.running]
    try:
        rig.wait_ready(lan, up, timeout=30.0)
    except AssertionError as e:
        down.append(str(e).splitlines()[0])
    return down


def run_stamped(lan, argv, timeout):
    """Runs argv in the LAN namespace: (exit status, its output, its error
    lines each after the seconds since the start). One still running at the
    timeout is killed."""
    p = subprocess.Popen(["ip", "netns", "exec", lan.name, *argv], stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, text=True, start_new_session=True)
    t0 = time.monotonic()
    out, err = [], []
    readers = [threading.Thread(target=lambda: err.extend(
                   f"{time.monotonic() - t0:7.2f}  {line}" for line in p.stderr), daemon=True),
               threading.Thread(target=lambda: out.append(p.stdout.read()), daemon=True)]
    for r in readers:
        r.start()
    try:
        status = p.wait(timeout)
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        p.wait()
        status = f"killed after {timeout:g} s"
    for r in readers:
        r.join(10)
    return status, "".join(out), "".join(err)


def camtool_run(lan, tally, camtool, pkg, cams, a, transfer, options, loss):
    argv = [str(camtool), "upgrade", str(pkg), "--mode", "1", "--json", "--rate", str(a.rate),
            "--to", ",".join(c.device_id for c in cams),
            "--answer-wait", "60", "--back-wait", "900", *shlex.split(a.camtool_args)]
    if "--transfer" in options:
        argv += ["--transfer", transfer]
        if transfer == "auto" and "--norm-group" in options:
            argv += ["--norm-group", a.norm_group]
    tally.reset()
    span = BulkSpan(tally)
    t0 = time.monotonic()
    status, out, err = run_stamped(lan, argv, a.timeout)
    took = time.monotonic() - t0
    if a.logs:
        name = f"{next(LOG_NUMBERS):02d}-camtool-{transfer}-{loss:g}.log"
        (a.logs / name).write_text(f"$ {' '.join(argv)}\n{err}\n{out}")
    secs = span.span()
    c = tally.counters()
    res = [json.loads(line) for line in out.splitlines() if line.startswith("{")]
    extra = {}
    for r in res:
        for k, v in r.items():
            if k not in KNOWN_FIELDS and isinstance(v, (int, float)) and not isinstance(v, bool):
                extra.setdefault(k, []).append(v)
    norm = sum(1 for r in res if r.get("transfer") == "norm")
    notes = [f"{k} median {statistics.median(v):.3g}" for k, v in sorted(extra.items())]
    if c["tx_norm_data"][0]:
        segments = -(-pkg.stat().st_size // lossy_norm.SEGMENT)
        notes.append(f"NORM data packets {c['tx_norm_data'][0]} for {segments} segments of "
                     f"{lossy_norm.SEGMENT} bytes")
    if status != 0:
        tail = [line for line in err.splitlines() if line.strip()][-3:]
        notes.append(f"camtool exit {status}: " + " | ".join(tail))
    return {
        "complete": sum(1 for r in res if r.get("ok")),
        "norm": norm if "--transfer" in options else 0,
        "stream": sum(1 for r in res if r.get("transfer", "stream") == "stream"),
        "rounds": max((len(r.get("acks", [])) for r in res), default=0),
        "secs": took, "data_secs": secs,
        "pkts": c["tx_all"][0], "bytes": c["tx_all"][1],
        "dropped": c["dropped"][0],
        "notes": notes,
    }


def uftp_run(lan, tally, cams, work, pkg, want, a):
    rx = CameraReceivers(lan, cams, tally)
    tally.reset()
    span = BulkSpan(tally)
    try:
        f = lossy_norm.uftp_run(rx, work, pkg, want, a.rate, a.uftp_timeout)
    finally:
        secs = span.span()
        rx.close()
    f.update(data_secs=secs, norm="-", stream="-", rounds=f["passes"], notes=[])
    return f


def show_run(label, loss, f, n, size, base):
    """One markdown row; base: the same tool's lossless run, if measured."""
    b_secs = base["secs"] if base else float("nan")
    b_pkts = base["pkts"] if base else float("nan")
    f["repair"] = (f["pkts"] - b_pkts) / f["pkts"] if f["pkts"] else float("nan")
    via = f"{f['norm']} / {f['stream']}" if f["norm"] != "-" else "-"
    return (f"| {label} | {loss:g} | {f['complete']}/{n} | {via} | {f['rounds']} | "
            f"{f['secs']:.1f} | {f['secs'] / b_secs:.2f} | {f['data_secs']:.1f} | "
            f"{f['bytes'] / size:.3f} | {f['repair']:.3f} | {f['dropped']} | {f['load']:.1f} |")


UPGRADE_HEAD = ("| tool | loss % | upgraded | NORM / stream | rounds | total s | x lossless | "
                "file on wire s | bytes / file | repair | lost pkts | load |\n"
                "|---|---|---|---|---|---|---|---|---|---|---|---|")


def upgrades(session, lan, cams, a, options, log):
    size_note = []
    pkg = session.workdir / "site_V2.6.0.zip"
    pkg.write_bytes(rig.zip_package({"customer/version_file": "V2.6.0",
                                     "customer/payload.bin": os.urandom(a.mib << 20)}))
    size = pkg.stat().st_size
    want = lossy_norm.digest(pkg)
    work = session.workdir / "uftp"
    work.mkdir(exist_ok=True)
    group_port = int(a.norm_group.rsplit(":", 1)[1])
    tally = Tally(lan, group_port)
    base, rows = {}, []
    plan = []
    for loss in a.losses:
        if "auto" in a.parts:
            plan.append(("camtool auto", loss))
        if "uftp" in a.parts:
            plan.append(("uftp", loss))
    if "stream" in a.parts:
        plan += [("camtool stream", loss) for loss in a.stream_losses]
    size_note.append(f"package {size} bytes (mode 1), {a.rate:g} Mbit/s, "
                     f"{len(cams)} cameras named with --to")
    print("# " + size_note[0], flush=True)
    print(UPGRADE_HEAD, flush=True)
    try:
        for tool, loss in plan:
            if tool == "camtool auto" and "--transfer" not in options:
                log.append(f"camtool auto at {loss:g} %: skipped, this camtool has no --transfer")
                continue
            if tool == "uftp" and not (shutil.which("uftp") and shutil.which("uftpd")):
                log.append("uftp: skipped, uftp/uftpd not installed")
                continue
            lan.set_loss(0)
            down = all_up(lan, cams)
            if down:
                log.append(f"{tool} at {loss:g} %: not up before the run: {down}")
            lan.set_loss(loss)
            ld = load()
            t0 = time.monotonic()
            if tool == "uftp":
                f = uftp_run(lan, tally, cams, work, pkg, want, a)
            else:
                f = camtool_run(lan, tally, a.camtool, pkg, cams, a, tool.split()[1], options, loss)
            f.update(load=ld, wall=time.monotonic() - t0)
            lan.set_loss(0)
            if loss == 0:
                base.setdefault(tool, f)
            row = show_run(tool, loss, f, len(cams), size, base.get(tool))
            rows.append(row)
            print(row, flush=True)
            for note in f["notes"]:
                log.append(f"{tool} at {loss:g} %: {note}")
    finally:
        tally.close()
    return rows, size_note


def latency(session, lan, cams, a, log):
    """command_latency's measure on the LAN grown to each size; rows."""
    rows, powers = [], []
    configured = set()
    try:
        for size in sorted(a.latency_cameras):
            if len(cams) < size:
                t0 = time.monotonic()
                more, took = command_latency.boot(session, lan, size - len(cams), log)
                powers.append(rig.PowerOn(more, at_once=4))
                cams += more
                print(f"# LAN grown to {len(cams)} cameras in {took:.0f} s "
                      f"(load {load():.1f})", flush=True)
            lan.set_loss(0)
            rig.wait_until(lambda: all(c.running for c in cams), 300, interval=0.2)
            res = command_latency.measure(lan, a.camtool, cams, a.runs, [], 0.5, log,
                                          f"{len(cams)} cameras", configured)
            for command in command_latency.COMMANDS:
                times = sorted(t for t, _ in res[command])
                good = sorted(t for t, ok in res[command] if ok)
                if not times:
                    continue
                med = f"{statistics.median(good):.2f}" if good else "-"
                rows.append(f"| {len(cams)} | {command} | {len(good)}/{len(times)} | {med} | "
                            f"{times[-1]:.2f} |")
                print(rows[-1], flush=True)
    finally:
        for p in powers:
            p.close()
            log.extend(p.failures)
    return rows


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bin", type=Path, default=os.environ.get("UPGRADE_BIN") or default("upgrade"))
    ap.add_argument("--camtool", type=Path, default=default("camtool", "camtool"))
    ap.add_argument("--quick", action="store_true", help="a short run (see the description)")
    ap.add_argument("--cameras", type=int, help="cameras upgraded (default 20)")
    ap.add_argument("--mib", type=int, help="the package's payload in MiB (default 16)")
    ap.add_argument("--loss", help="loss per camera port in %%, comma-separated (default 0,0.1,1,3)")
    ap.add_argument("--stream-loss", help="losses for today's stream (default 0,0.1)")
    ap.add_argument("--rate", type=float, default=50, help="Mbit/s, every tool")
    ap.add_argument("--norm-group", default=NORM_GROUP, help="ADDR:PORT offered to the cameras")
    ap.add_argument("--latency-cameras", type=int, nargs="+", help="LAN sizes (default 20 100)")
    ap.add_argument("--runs", type=int, help="runs per command for the latency (default 5)")
    ap.add_argument("--parts", default="auto,uftp,stream,latency",
                    help="what to run, comma-separated: auto, uftp, stream, latency")
    ap.add_argument("--timeout", type=float, default=1800, help="seconds for one camtool upgrade")
    ap.add_argument("--camtool-args", default="",
                    help="more camtool upgrade options, e.g. \"--install-wait 120\"")
    ap.add_argument("--logs", type=Path, help="keep camtool's output of each run in this folder")
    ap.add_argument("--uftp-timeout", type=float, default=180, help="seconds for one uftp run")
    a = ap.parse_args()
    for k, v in (QUICK if a.quick else FULL).items():
        if getattr(a, k) is None:
            setattr(a, k, v)
    a.losses = [float(x) for x in a.loss.split(",") if x]
    a.stream_losses = [float(x) for x in a.stream_loss.split(",") if x]
    a.parts = set(a.parts.split(","))
    benchrig.need_root()
    if a.logs:
        a.logs.mkdir(parents=True, exist_ok=True)
    if a.bin is None or a.camtool is None:
        sys.exit("build the 'upgrade' and 'camtool' targets (host-release) or pass --bin/--camtool")

    def stop_signal(*_):
        raise KeyboardInterrupt
    signal.signal(signal.SIGTERM, stop_signal)

    start = time.monotonic()
    options = transfer_options(a.camtool)
    log, up_rows, lat_rows, notes = [], [], [], []
    print(f"# daemon {a.bin}, camtool {a.camtool} "
          f"({'with ' + ' '.join(sorted(options)) if options else 'no --transfer: stream only'})")
    print(f"# {os.cpu_count()} CPUs, load {load():.1f} at start", flush=True)
    try:
        with benchrig.session(a.bin) as session, benchrig.lan(session) as lan:
            cams, took = command_latency.boot(session, lan, a.cameras, log)
            notes.append(f"{len(cams)} cameras booted in {took:.1f} s")
            print(f"# {notes[-1]} (load {load():.1f})", flush=True)
            with rig.PowerOn(cams, at_once=4) as power:
                if a.parts & {"auto", "uftp", "stream"}:
                    t0 = time.monotonic()
                    up_rows, size_note = upgrades(session, lan, cams, a, options, log)
                    notes += size_note
                    notes.append(f"upgrade runs took {time.monotonic() - t0:.0f} s")
                if "latency" in a.parts:
                    t0 = time.monotonic()
                    print("| cameras | command | answered | median s | max s |\n|---|---|---|---|---|",
                          flush=True)
                    lat_rows = latency(session, lan, cams, a, log)
                    notes.append(f"latency runs took {time.monotonic() - t0:.0f} s")
            log.extend(power.failures)
    except KeyboardInterrupt:
        print("interrupted", file=sys.stderr)
    notes.append(f"whole run {time.monotonic() - start:.0f} s, load {load():.1f} at the end")
    if up_rows:
        print(f"\n{UPGRADE_HEAD}\n" + "\n".join(up_rows))
        print("(camtool: total = the command, announcement to the last camera back; "
              "uftp: the sender's run, no installation)")
    if lat_rows:
        print("\n| cameras | command | answered | median s | max s |\n|---|---|---|---|---|")
        print("\n".join(lat_rows))
        print("(median of the answered runs; max of all; wall time of the camtool process)")
    for line in notes:
        print(f"# {line}")
    for line in log:
        print(f"  {line}")


if __name__ == "__main__":
    main()
