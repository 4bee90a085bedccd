#!/usr/bin/env python3
"""Multicast upgrade throughput on the sandbox LAN.

Boots one sandboxed camera (sim/ns rig, needs root) whose daemon runs with
"DEBUG" (a good transfer is answered '5' and not installed, so one camera
serves every run), and streams a 32 MiB file in 5120-byte packets at rising
paced rates. Per rate it prints, for the daemon and for a bare
receive-and-write sink in the same camera's network namespace (same LAN,
same run, another port of the group): packets lost, and CPU seconds per MiB
received (the receiving process's own run time, all its threads; the
daemon's idle threads included). The sink keeps the system's default
receive buffer.

    sudo bench/mcast_upgrade_bench.py [--bin build/host-release/upgrade]
         [--stream build/host-release/mcast_stream] [--mib 32] [--runs 1]
"""

import argparse
import hashlib
import os
import re
import subprocess
import sys
from pathlib import Path

import benchrig
from benchrig import default, rig

RATES = [10, 25, 50, 100, 200, 0]  # Mbit/s of datagrams; 0 = unpaced
SINK_PORT = 8106
PACKET = 5120 - 42


def cpu_seconds(pid):
    """Run time of every thread of a host process (schedstat, ns)."""
    total = 0
    for task in Path(f"/proc/{pid}/task").iterdir():
        try:
            total += int((task / "schedstat").read_text().split()[0])
        except (OSError, ValueError, IndexError):
            pass
    return total / 1e9


def drops(cam):
    """(receive-buffer overflows, failed reassemblies, backlog drops) so far:
    the camera namespace's UDP and IP counters and the host's per-CPU
    backlog, where a lost datagram is counted."""
    snmp = Path(f"/proc/{cam.init_pid}/net/snmp").read_text().splitlines()
    table = {}
    for head, values in zip(snmp[::2], snmp[1::2]):
        name = head.split(":")[0]
        table[name] = dict(zip(head.split()[1:], map(int, values.split()[1:])))
    backlog = sum(int(line.split()[1], 16)
                  for line in Path("/proc/net/softnet_stat").read_text().splitlines())
    return table["Udp"]["RcvbufErrors"], table["Ip"]["ReasmFails"], backlog


def host_pid(cam, nspid):
    for p in cam.processes():
        if p.pid == nspid:
            return p.host_pid
    raise RuntimeError("daemon process not found")


def send(lan, stream, path, session, port, rate):
    """(packets sent, seconds)"""
    out = lan.exec([stream, "send", rig.BATCH_GROUP[0], port, lan.ip, path, session, rate])
    f = out.stdout.split()
    return int(f[1]), float(f[2])


def daemon_run(lan, cam, pid, stream, data, path, rate):
    """Announce, stream, wait for '5' or '6'; (sent, lost, cpu seconds, send time,
    whether the camera answered)."""
    with rig.Transfer(lan, [cam], data, name="bench.img", mode=1) as t:
        t.announce()
        assert t.ack(cam, timeout=30) == "0"
        before, counted = cpu_seconds(pid), drops(cam)
        sent, secs = send(lan, stream, path, t.session, rig.BATCH_GROUP[1], rate)
        got = t.rx.collect(timeout=15, count=1, match=b"REPLYU DO", from_ip=cam.ip)
        cpu = cpu_seconds(pid) - before
        where = [b - a for a, b in zip(counted, drops(cam))]
        if any(where):
            print(f"  (daemon at {rate or 'unpaced'}: receive buffer {where[0]}, "
                  f"reassembly {where[1]}, backlog {where[2]})", flush=True)
    if got and got[0].fields().get("Ack") == "5":
        return sent, 0, cpu, secs, True
    # The md5 tells that something is missing; the stored file how much.
    stored = cam.path("/dev/bench.img")
    size = stored.stat().st_size if stored.exists() else 0
    lost = max(1, round((len(data) - size) / PACKET))
    return sent, lost, cpu, secs, bool(got)


def sink_run(lan, cam, stream, path, rate):
    out = cam.path("/dev/sink.bin")
    p = subprocess.Popen(["nsenter", f"--net=/proc/{cam.init_pid}/ns/net", stream, "sink",
                          rig.BATCH_GROUP[0], str(SINK_PORT), cam.ip, str(out)],
                         stdout=subprocess.PIPE, text=True)
    try:
        assert p.stdout.readline().strip() == "ready"
        counted = drops(cam)
        sent, _secs = send(lan, stream, path, "s" * 32, SINK_PORT, rate)
        line = p.stdout.readline().split()
        p.wait(10)
        where = [b - a for a, b in zip(counted, drops(cam))]
        if any(where):
            print(f"  (sink at {rate or 'unpaced'}: receive buffer {where[0]}, "
                  f"reassembly {where[1]}, backlog {where[2]})", flush=True)
    finally:
        if p.poll() is None:
            p.kill()
            p.wait()
    packets, cpu = int(line[1]), float(line[3])
    out.unlink(missing_ok=True)
    return sent, sent - packets, cpu


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bin", type=Path, default=os.environ.get("UPGRADE_BIN") or default("upgrade"))
    ap.add_argument("--stream", type=Path, default=default("mcast_stream"))
    ap.add_argument("--mib", type=int, default=32)
    ap.add_argument("--runs", type=int, default=1)
    args = ap.parse_args()
    benchrig.need_root()
    if not args.bin or not args.stream:
        sys.exit("build the host-release preset (upgrade, mcast_stream) or pass --bin/--stream")

    data = os.urandom(args.mib << 20)
    mib = len(data) / (1 << 20)
    with benchrig.session(args.bin) as session, benchrig.lan(session) as lan:
        path = session.workdir / "stream.bin"
        path.write_bytes(data)
        cam = rig.Camera(session, lan, word="DEBUG", pid_list=[], dev_size="128m")
        cam.start()
        if not lan.search(count=1, timeout=10.0):
            sys.exit("the camera never answered")
        pid = host_pid(cam, cam.daemon_pid)
        print(f"daemon: {args.bin}; {mib:.0f} MiB in {PACKET}-byte packets "
              f"({-(-len(data) // PACKET)} packets), md5 {hashlib.md5(data).hexdigest()}")
        print(f"{'rate':>18} | {'daemon lost':>11} {'CPU s/MiB':>10} | "
              f"{'sink lost':>9} {'CPU s/MiB':>10}")

        def per_mib(cpu, sent, lost):
            return cpu / max(1e-9, (sent - lost) * PACKET / (1 << 20))

        for _ in range(args.runs):
            for rate in RATES:
                sent, d_lost, d_cpu, secs, answered = daemon_run(lan, cam, pid, args.stream,
                                                                 data, path, rate)
                cam.path("/dev/bench.img").unlink(missing_ok=True)
                if not answered:
                    # The 'o' packet was lost: that transfer stays open (a new
                    # announcement would be answered '9') until a restart.
                    cam.restart()
                    rig.wait_ready(lan, [cam])
                    pid = host_pid(cam, cam.daemon_pid)
                s_sent, s_lost, s_cpu = sink_run(lan, cam, args.stream, path, rate)
                achieved = sent * 5120 * 8 / secs / 1e6
                label = f"{rate} Mbit/s" if rate else f"unpaced ({achieved:.0f})"
                print(f"{label:>18} | {d_lost:>11} {per_mib(d_cpu, sent, d_lost):>10.5f} | "
                      f"{s_lost:>9} {per_mib(s_cpu, s_sent, s_lost):>10.5f}", flush=True)
        stray = [line for line in cam.lines("both") if re.search(r"write dstfile failed", line)]
        if stray:
            print(f"daemon write failures: {len(stray)}")


if __name__ == "__main__":
    main()
