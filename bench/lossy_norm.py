#!/usr/bin/env python3
"""One file to a site of receivers under packet loss: NORM (libnorm, through
bench/norm_file) against uftp/uftpd, on the same namespace LAN, file, rate
and loss. Prints figures; nothing passes or fails.

The LAN: a bridge br0 in a LAN namespace (the sender, 192.168.77.1) and N
receiver namespaces on veth ports (192.168.77.10 up). Loss is independent
and random per port, in the LAN namespace's bridge table: every multicast
packet leaving a port (the bridge's output hook for the sender's packets,
its forward hook for packets between receivers) is dropped with the given
probability (`ip daddr 224.0.0.0/4 numgen random mod 1000 < K drop`).
Packets towards the sender are not dropped.

What the sender puts on the wire is counted by nftables in the LAN
namespace (IP bytes leaving br0 from the sender, once per packet whatever
the number of ports), split by NORM message type; feedback is what reaches
the sender. Per run it prints: receivers complete (file whole and equal),
the sender's total time (start to the end of its session: for NORM, every
listed receiver acknowledged; for uftp, its exit), bytes on the wire / file
size, the repair share (packets beyond the same tool's lossless run, over
all its packets), NACKs, the CPU seconds of the sender and of the average
receiver (what a camera would spend) and the machine's load.

    sudo bench/lossy_norm.py [--receivers 20] [--mib 16] [--loss 0,0.1,1,3]
         [--rate 50] [--runs 1] [--only norm|uftp] [--norm-args "..."]
         [--norm build/host-release/bench/norm_file]

Options for norm_file's sender go in one argument, for example
--norm-args=--boost (its protocol thread at real-time priority, which keeps
its pacing on a busy machine) or --norm-args="--auto-parity 2".

Needs root, nftables, uftp (uftp, uftpd) and a build of norm_file.
"""

import argparse
import hashlib
import json
import math
import os
import shlex
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

TOP = Path(__file__).resolve().parents[1]
GROUP, PORT = "239.255.255.253", 8010
SEGMENT = 1400  # NORM segment and uftp block: same payload per packet
NORM_TYPES = {"info": 1, "data": 2, "cmd": 3, "nack": 4, "ack": 5}


def run(*cmd, check=True, **kw):
    return subprocess.run([str(c) for c in cmd], check=check, capture_output=True, text=True, **kw)


def load():
    return Path("/proc/loadavg").read_text().split()[0]


class Lan:
    """The LAN and receiver namespaces, and what runs in them; close()
    removes all of it."""

    def __init__(self, n):
        self.prefix = f"normp{os.getpid()}-"
        self.lan = self.prefix + "lan"
        self.rx = [f"{self.prefix}r{i}" for i in range(1, n + 1)]
        self.procs = []
        self.made = []

    def ns(self, name):
        run("ip", "netns", "add", name)
        self.made.append(name)

    def start(self):
        self.ns(self.lan)
        L = ("ip", "-n", self.lan)
        run(*L, "link", "set", "lo", "up")
        run(*L, "link", "add", "br0", "type", "bridge", "mcast_snooping", "0")
        run(*L, "addr", "add", "192.168.77.1/24", "dev", "br0")
        run(*L, "link", "set", "br0", "up")
        run(*L, "route", "add", "224.0.0.0/4", "dev", "br0")
        for i, name in enumerate(self.rx, 1):
            self.ns(name)
            run(*L, "link", "add", f"p{i}", "type", "veth", "peer", "name", "eth0", "netns", name)
            run(*L, "link", "set", f"p{i}", "master", "br0", "up")
            R = ("ip", "-n", name)
            run(*R, "link", "set", "lo", "up")
            run(*R, "addr", "add", f"192.168.77.{9 + i}/24", "dev", "eth0")
            run(*R, "link", "set", "eth0", "up")
            run(*R, "route", "add", "224.0.0.0/4", "dev", "eth0")
        return self

    def nft(self, script):
        p = subprocess.run(["ip", "netns", "exec", self.lan, "nft", "-f", "-"], input=script,
                           text=True, capture_output=True)
        if p.returncode:
            raise RuntimeError(f"nft: {p.stderr.strip()}")

    def set_loss(self, per_mille):
        """Independent random loss on every port (both hooks), and fresh counters."""
        run("ip", "netns", "exec", self.lan, "nft", "flush", "ruleset")
        k = int(round(per_mille))
        types = "\n".join(
            f"    udp dport {PORT} @th,68,4 {v} counter name tx_{t}" for t, v in NORM_TYPES.items()
            if t in ("info", "data", "cmd"))
        self.nft(f"""
table bridge loss {{
  counter dropped {{ }}
  chain lo {{ type filter hook output priority 0; ip daddr 224.0.0.0/4 numgen random mod 1000 < {k} counter name dropped drop; }}
  chain lf {{ type filter hook forward priority 0; ip daddr 224.0.0.0/4 numgen random mod 1000 < {k} counter name dropped drop; }}
}}
table ip tally {{
  counter tx_all {{ }}
  counter tx_frag {{ }}
  counter tx_info {{ }}
  counter tx_data {{ }}
  counter tx_cmd {{ }}
  counter rx_all {{ }}
  counter rx_nack {{ }}
  counter rx_ack {{ }}
  chain out {{
    type filter hook output priority 0;
    oifname "br0" counter name tx_all
    oifname "br0" ip frag-off & 0x3fff != 0 counter name tx_frag
{types}
  }}
  chain in {{
    type filter hook input priority 0;
    iifname "br0" counter name rx_all
    iifname "br0" udp dport {PORT} @th,68,4 4 counter name rx_nack
    iifname "br0" udp dport {PORT} @th,68,4 5 counter name rx_ack
  }}
}}
""")

    def counters(self):
        out = run("ip", "netns", "exec", self.lan, "nft", "-j", "list", "counters").stdout
        c = {}
        for item in json.loads(out)["nftables"]:
            if "counter" in item:
                k = item["counter"]
                c[k["name"]] = (k["packets"], k["bytes"])
        return c

    def spawn(self, ns, cmd, **kw):
        p = subprocess.Popen(["ip", "netns", "exec", ns] + [str(c) for c in cmd],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                             start_new_session=True, **kw)
        self.procs.append(p)
        return p

    def wait(self, p, timeout):
        """Waits for a process this rig started; its CPU seconds (user and
        system, also kept as p.cpu), or None when it still runs at the timeout."""
        if p.returncode is not None:
            return getattr(p, "cpu", None)
        end = time.monotonic() + timeout
        while True:
            pid, status, ru = os.wait4(p.pid, os.WNOHANG)
            if pid == p.pid:
                p.returncode = os.waitstatus_to_exitcode(status)
                p.cpu = ru.ru_utime + ru.ru_stime
                return p.cpu
            if time.monotonic() >= end:
                return None
            time.sleep(0.02)

    def stop(self, p, timeout=5):
        """Ends one process this rig started (its own process group); its
        output and error text."""
        if self.wait(p, 0) is None:
            for sig in (signal.SIGTERM, signal.SIGKILL):
                try:
                    os.killpg(p.pid, sig)
                except ProcessLookupError:
                    pass
                if self.wait(p, timeout) is not None:
                    break
        return p.communicate()

    def close(self):
        for p in self.procs:
            self.stop(p, timeout=2)
        self.procs.clear()
        for name in reversed(self.made):
            run("ip", "netns", "del", name, check=False)
        self.made.clear()


def keyvals(line):
    return dict(f.split("=", 1) for f in line.split() if "=" in f)


def digest(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for chunk in iter(lambda: f.read(1 << 20), b""):
            h.update(chunk)
    return h.hexdigest()


def fresh_dirs(work, lan):
    dirs = []
    for i in range(1, len(lan.rx) + 1):
        d = work / f"r{i}"
        if d.exists():
            for f in d.iterdir():
                f.unlink()
        d.mkdir(exist_ok=True)
        dirs.append(d)
    return dirs


def complete(dirs, name, want):
    n = 0
    for d in dirs:
        f = d / name
        n += f.is_file() and digest(f) == want
    return n


def norm_run(lan, work, norm, src, want, rate_mbit, extra, timeout):
    size = src.stat().st_size
    dirs = fresh_dirs(work, lan)
    name = "site.pkg"
    recvs = [lan.spawn(ns, [norm, "recv", "--iface", "eth0", "--addr", GROUP, "--port", PORT,
                            "--dir", d, "--name", name, "--size", size, "--id", i,
                            "--silence", 15, "--linger", 5])
             for i, (ns, d) in enumerate(zip(lan.rx, dirs), 1)]
    time.sleep(0.5)
    t0 = time.monotonic()
    snd = lan.spawn(lan.lan, [norm, "send", "--iface", "br0", "--addr", GROUP, "--port", PORT,
                              "--file", src, "--name", name, "--rate", rate_mbit * 1e6,
                              "--segment", SEGMENT, "--acks", f"1-{len(lan.rx)}",
                              "--timeout", timeout] + shlex.split(extra))
    cpu = lan.wait(snd, timeout + 10)
    wall = time.monotonic() - t0
    out, err = lan.stop(snd)
    s = keyvals(out.strip().splitlines()[-1]) if out.strip() else {}
    for p in recvs:
        lan.wait(p, 20)
    outcomes = [keyvals(lan.stop(p)[0].strip() or "x=1").get("outcome", "?") for p in recvs]
    rx_cpu = [getattr(p, "cpu", float("nan")) for p in recvs]
    c = lan.counters()
    source_segments = math.ceil(size / SEGMENT)
    return {
        "complete": complete(dirs, name, want),
        "acked": s.get("acked", "?"),
        "secs": float(s.get("done_s", -1)) if s.get("done_s") else wall,
        "cpu": cpu if cpu is not None else float("nan"),
        "rx_cpu": statistics.mean(rx_cpu),
        "first_pass": float(s.get("first_pass_s", -1)),
        "pkts": c["tx_all"][0], "bytes": c["tx_all"][1],
        "data_pkts": c["tx_data"][0],
        "beyond_source": c["tx_data"][0] - source_segments,
        "cmd_pkts": c["tx_cmd"][0],
        "frags": c["tx_frag"][0],
        "nacks": c["rx_nack"][0], "acks": c["rx_ack"][0], "feedback": c["rx_all"][0],
        "dropped": c["dropped"][0],
        "grtt_ms": s.get("grtt_ms", "?"),
        "ack_rounds": s.get("ack_rounds", "?"),
        "outcomes": ",".join(sorted(set(outcomes))),
        "err": err.strip().splitlines()[-3:] if err.strip() and not s.get("ok") == "1" else [],
    }


def uftp_run(lan, work, src, want, rate_mbit, timeout):
    size = src.stat().st_size
    dirs = fresh_dirs(work, lan)
    uids = [f"0x{0xC0A84D00 + 9 + i:08X}" for i in range(1, len(lan.rx) + 1)]
    recvs = [lan.spawn(ns, ["uftpd", "-d", "-q", "-x", "1", "-D", d, "-I", "eth0", "-U", uid,
                            "-B", 4 * 1024 * 1024])
             for ns, d, uid in zip(lan.rx, dirs, uids)]
    time.sleep(0.5)
    t0 = time.monotonic()
    snd = lan.spawn(lan.lan, ["uftp", "-R", int(rate_mbit * 1000), "-I", "br0", "-b", SEGMENT,
                              "-H", ",".join(uids), "-B", 4 * 1024 * 1024, "-S", "@LOG",
                              "-x", "2", src])
    cpu = lan.wait(snd, timeout)
    wall = time.monotonic() - t0
    _, err = lan.stop(snd)
    for p in recvs:
        lan.stop(p, timeout=2)
    rx_cpu = [getattr(p, "cpu", float("nan")) for p in recvs]
    c = lan.counters()
    passes = sum(1 for line in err.splitlines() if "Starting pass" in line)
    return {
        "complete": complete(dirs, src.name, want),
        "acked": "-",
        "secs": wall, "first_pass": -1,
        "cpu": cpu if cpu is not None else float("nan"),
        "rx_cpu": statistics.mean(rx_cpu),
        "pkts": c["tx_all"][0], "bytes": c["tx_all"][1],
        "frags": c["tx_frag"][0],
        "nacks": -1, "acks": -1, "feedback": c["rx_all"][0],
        "dropped": c["dropped"][0],
        "passes": passes,
        "log": err,
    }


def summary(results, base, n, size):
    """Medians over the runs of each tool and loss; completion is the worst run."""
    med = statistics.median
    print(f"# summary: medians of the runs; x lossless against the median lossless run of the same tool")
    print(f"# {'tool':5} {'loss%':>5} {'runs':>4} {'worst complete':>14} {'secs':>6} {'x lossless':>10} "
          f"{'bytes/file':>10} {'repair':>6} {'NACKs':>5} {'cpu s':>5} {'rx cpu':>6} {'load':>5}")
    for (tool, loss), fs in results.items():
        nacks = med(f["nacks"] for f in fs)
        b = med(x["secs"] for x in base[tool]) if tool in base else float("nan")
        print(f"  {tool:5} {loss:5g} {len(fs):4} {min(f['complete'] for f in fs):>10}/{n:<3} "
              f"{med(f['secs'] for f in fs):6.2f} {med(f['secs'] for f in fs) / b:10.2f} "
              f"{med(f['bytes'] for f in fs) / size:10.3f} {med(f['repair'] for f in fs):6.3f} "
              f"{nacks if nacks >= 0 else '-':>5} {med(f['cpu'] for f in fs):5.2f} {med(f['rx_cpu'] for f in fs):6.2f} {med(f['load'] for f in fs):5.1f}")


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--receivers", type=int, default=20)
    ap.add_argument("--mib", type=int, default=16)
    ap.add_argument("--loss", default="0,0.1,1,3", help="percent per port, comma-separated")
    ap.add_argument("--rate", type=float, default=50, help="Mbit/s, both tools")
    ap.add_argument("--runs", type=int, default=1)
    ap.add_argument("--only", choices=["norm", "uftp"])
    ap.add_argument("--norm", default=str(TOP / "build/host-release/bench/norm_file"))
    ap.add_argument("--norm-args", default="", help="more norm_file send options")
    ap.add_argument("--timeout", type=float, default=120)
    ap.add_argument("--uftp-log", action="store_true", help="print uftp's log of each run")
    a = ap.parse_args()
    if os.geteuid() != 0:
        sys.exit("lossy_norm: needs root (network namespaces, nftables)")
    if a.only != "uftp" and not Path(a.norm).is_file():
        sys.exit(f"lossy_norm: no {a.norm} (cmake --preset host-release with libnorm-dev installed)")
    losses = [float(x) for x in a.loss.split(",")]

    def stop_signal(*_):
        raise KeyboardInterrupt
    signal.signal(signal.SIGTERM, stop_signal)

    lan = Lan(a.receivers)
    with tempfile.TemporaryDirectory(prefix="normp-") as tmp:
        work = Path(tmp)
        src = work / "site.pkg"
        src.write_bytes(os.urandom(a.mib << 20))
        want = digest(src)
        size = src.stat().st_size
        try:
            lan.start()
            print(f"# {a.receivers} receivers, {a.mib} MiB, {a.rate:g} Mbit/s, segment {SEGMENT} B, "
                  f"norm_file {a.norm_args or '(defaults)'}")
            print(f"# {'tool':5} {'loss%':>5} {'run':>3} {'complete':>8} {'acked':>6} {'secs':>6} "
                  f"{'x lossless':>10} {'bytes/file':>10} {'repair':>6} {'beyond':>6} {'NACKs':>5} "
                  f"{'fdbk':>5} {'frags':>5} {'drops':>6} {'cpu s':>5} {'rx cpu':>6} {'load':>5} extra")
            base, results = {}, {}
            tools = [t for t in ("norm", "uftp") if a.only in (None, t)]
            # Tools and losses interleaved, so that the machine's load falls
            # on all of them alike.
            for r in range(1, a.runs + 1):
                for loss in losses:
                    for tool in tools:
                        lan.set_loss(loss * 10)
                        ld = load()
                        if tool == "norm":
                            f = norm_run(lan, work, a.norm, src, want, a.rate, a.norm_args, a.timeout)
                            extra = f"first_pass={f['first_pass']:.2f}s grtt={f['grtt_ms']}ms " \
                                    f"ack_rounds={f['ack_rounds']} cmd={f['cmd_pkts']} rx={f['outcomes']}"
                            if f["err"]:
                                extra += " err=" + " | ".join(f["err"])
                        else:
                            f = uftp_run(lan, work, src, want, a.rate, a.timeout)
                            f["beyond_source"] = f["pkts"] - math.ceil(size / SEGMENT)
                            extra = f"passes={f['passes']}"
                            if a.uftp_log:
                                print(f["log"])
                        if loss == 0:
                            base.setdefault(tool, []).append(f)
                        b = base.get(tool)
                        b_secs = statistics.median(x["secs"] for x in b) if b else float("nan")
                        b_pkts = statistics.median(x["pkts"] for x in b) if b else float("nan")
                        ratio = f["secs"] / b_secs
                        repair = (f["pkts"] - b_pkts) / f["pkts"]
                        f.update(ratio=ratio, repair=repair, load=float(ld))
                        results.setdefault((tool, loss), []).append(f)
                        nacks = f["nacks"] if f["nacks"] >= 0 else "-"
                        print(f"  {tool:5} {loss:5g} {r:3} {f['complete']:>4}/{a.receivers:<3} "
                              f"{f['acked']:>6} {f['secs']:6.2f} {ratio:10.2f} "
                              f"{f['bytes'] / size:10.3f} {repair:6.3f} {f['beyond_source']:6} "
                              f"{nacks:>5} {f['feedback']:5} {f['frags']:5} {f['dropped']:6} {f['cpu']:5.2f} {f['rx_cpu']:6.2f} {ld:>5} "
                              f"{extra}", flush=True)
            summary(results, base, a.receivers, size)
        except KeyboardInterrupt:
            print("interrupted", file=sys.stderr)
        finally:
            lan.close()
            left = [n for n in run("ip", "netns", "list").stdout.split() if n.startswith(lan.prefix)]
            if left:
                print(f"left behind: {left}", file=sys.stderr)


if __name__ == "__main__":
    main()
