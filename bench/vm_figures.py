"""Figures of the armhf daemon on a virtual camera, as ratios within one run
(an emulated CPU is not a clock; ratios between programs on the same
emulated flash are). The guests run with -icount: their time counts
emulated instructions, not the host's load. Erases are counted by the flash
driver and do not depend on time at all.

    /usr/bin/python3 bench/vm_figures.py [build/armhf/upgrade]

Prints:
  - whole-flash write (the watcher, /dev/*.img + /dev/mtd_upgrade) of a new,
    an unchanged and a 10 %-changed image against mtd-utils flashcp and
    flash_erase + nandwrite (armhf) writing the same image on the same nandsim
  - multicast ingest: CPU the daemon spends from the announcement to md5 '5'
    (DEBUG mode) against a bare receive-and-write sink in the same guest, on
    the same stream, when the daemon has the multicast upgrade
  - stripped size, RSS, private dirty memory and threads after start-up, and
    the daemon's CPU share of an idle minute
Run as root; needs the virtual camera image (sim/vm/build-image).
"""

import random
import re
import subprocess
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOP / "sim" / "vm"))
sys.path.insert(0, str(TOP / "sim" / "ns"))

import camera as rig  # noqa: E402
import lanupgrade  # noqa: E402
import transfer  # noqa: E402
import vmcam  # noqa: E402

BLOCK = vmcam.BLOCK
PARTS = [(0, 8), (1, 2), (2, 32)]  # boot, env, kernel: (mtd index, blocks)
# Guest time counts emulated instructions while the guest runs (and real
# time while it waits), so that the figures depend little on the host's load.
ICOUNT = ["-icount", "shift=3"]
STAMP = re.compile(r"^\[\d+-\d+-\d+ (\d+):(\d+):([\d.]+) ")


def stamp_seconds(line):
    m = STAMP.match(line)
    h, mi, s = m.groups()
    return int(h) * 3600 + int(mi) * 60 + float(s)


def watcher_write(cam, img, boot):
    """(seconds, erases) of the watcher writing img (its own trace stamps:
    first partition to "MTD upgrade finish"); waits for the next boot."""
    erases = cam.flash.erase_count()
    cam.put(img, "/dev/fw.img")
    cam.exec("touch /dev/mtd_upgrade", check=True)
    cam.wait_boot(boot + 1, timeout=900)
    lines = cam.lines(boot=boot)
    start = next(l for l in lines if " mtd0 write_addr 0x0 " in l and STAMP.match(l))
    end = next(l for l in lines if "MTD upgrade finish" in l and STAMP.match(l))
    return stamp_seconds(end) - stamp_seconds(start), cam.flash.erase_count() - erases


def uptime(cam):
    return float(cam.exec("cat /proc/uptime", check=True)[1].split()[0])


def tool_write(cam, img, how):
    """Seconds (guest uptime) a stock tool takes to put the same partitions."""
    off = 0
    cmds = []
    for index, blocks in PARTS:
        piece = img[off:off + blocks * BLOCK]
        cam.put(piece, f"/dev/part{index}.bin")
        off += blocks * BLOCK
        if how == "flashcp":
            cmds.append(f"flashcp /dev/part{index}.bin /dev/mtd{index}")
        else:
            cmds.append(f"flash_erase -q /dev/mtd{index} 0 0 && "
                        f"nandwrite -q -p /dev/mtd{index} /dev/part{index}.bin")
    t0, e0 = uptime(cam), cam.flash.erase_count()
    cam.exec(" && ".join(cmds), timeout=900, check=True)
    return uptime(cam) - t0, cam.flash.erase_count() - e0


def daemon_memory(cam):
    pid = cam.exec("pidof upgrade", check=True)[1].split()[0]
    status = cam.exec(f"cat /proc/{pid}/status", check=True)[1]
    smaps = cam.exec(f"cat /proc/{pid}/smaps", check=True)[1]
    rss = int(re.search(r"VmRSS:\s+(\d+)", status).group(1))
    threads = int(re.search(r"Threads:\s+(\d+)", status).group(1))
    dirty = sum(int(x) for x in re.findall(r"Private_Dirty:\s+(\d+)", smaps))

    def ticks():
        f = cam.exec(f"cat /proc/{pid}/stat", check=True)[1].rsplit(")", 1)[1].split()
        return int(f[11]) + int(f[12])  # utime + stime

    t0, c0 = uptime(cam), ticks()
    cam.exec("sleep 60", timeout=300)
    t1, c1 = uptime(cam), ticks()
    cpu = (c1 - c0) / 100.0 / (t1 - t0) * 100.0  # USER_HZ = 100
    return rss, dirty, threads, cpu


def cpu_ms(cam, pid):
    f = cam.exec(f"cat /proc/{pid}/stat", check=True)[1].rsplit(")", 1)[1].split()
    return (int(f[11]) + int(f[12])) * 10  # utime + stime, USER_HZ = 100


def ingest(session, lan, size):
    """CPU milliseconds the daemon (announcement to '5', DEBUG mode: nothing
    installed) and the bare sink spend on the same stream. UDP has no flow
    control, so both get it at a rate they keep up with (1 MB/s) and the
    figure is the CPU they spend on it, not the time."""
    cam = vmcam.VirtualCamera(session, lan, name="ingest", word="DEBUG", qemu_args=ICOUNT)
    try:
        cam.start()
        lan.search(count=1, from_ip=cam.ip, timeout=30)
        pid = cam.exec("pidof upgrade", check=True)[1].split()[0]
        data = random.Random(1).randbytes(size)
        before = cpu_ms(cam, pid)
        with lanupgrade.PacedTransfer(lan, [cam], data, name="ingest.bin", mode=1) as t:
            t.announce()
            assert t.ack(cam, timeout=60) == "0", "announcement not accepted"
            t.stream()
            assert t.until(cam, "5", 600) and t.heard_from(cam)[-1] == "5", t.heard_from(cam)
        daemon = cpu_ms(cam, pid) - before
        cam.exec(f"(mcast_sink 239.255.255.252 8106 /dev/sink.bin {size} "
                 "> /.rig/calls/sink.txt 2>&1 &)", check=True)
        cam.wait_file_text("/.rig/calls/sink.txt", "ready", 30)
        with lan.listen("239.255.255.252", 8106) as tx:
            lanupgrade.send_paced(tx.send, transfer.packets("s" * 32, data), 1 << 20)
        text = cam.wait_file_text("/.rig/calls/sink.txt", "ms cpu", 600)
        sink = int(re.search(r"(\d+) ms cpu", text).group(1))
        return daemon, sink
    finally:
        cam.teardown()


def show(name, value):
    shown = f"{value:.2f}" if isinstance(value, float) else str(value)
    print(f"  {name:<60} {shown}", flush=True)


def main(argv):
    daemon = Path(argv[1] if len(argv) > 1 else TOP / "build/armhf/upgrade")
    vmcam.build_image()
    rig.sweep_stale()
    session = rig.Session(daemon)
    lan = rig.Lan(session).start()
    total = sum(b for _i, b in PARTS)
    print(f"virtual camera figures ({len(PARTS)} partitions, {total * BLOCK >> 10} KiB image)",
          flush=True)
    try:
        cam = vmcam.VirtualCamera(session, lan, name="bench", qemu_args=ICOUNT)
        try:
            cam.start()
            stripped = session.workdir / "upgrade.stripped"
            subprocess.run(["arm-linux-gnueabihf-strip", "-o", stripped, daemon], check=True)
            show("stripped armhf size, bytes", stripped.stat().st_size)
            rss, dirty, threads, cpu = daemon_memory(cam)
            show("RSS after start-up, KiB", rss)
            show("private dirty after start-up, KiB", dirty)
            show("threads", threads)
            show("idle CPU over 60 s, % of the emulated CPU", round(cpu, 2))

            rnd = random.Random(7)
            new = rnd.randbytes(total * BLOCK)
            changed = bytearray(new)
            for blk in rnd.sample(range(total), total // 10):
                changed[blk * BLOCK:blk * BLOCK + 64] = rnd.randbytes(64)
            times = {"new image": watcher_write(cam, new, 1),
                     "unchanged image": watcher_write(cam, new, 2),
                     "10 %-changed image": watcher_write(cam, bytes(changed), 3)}
            t_flashcp, e_flashcp = min(tool_write(cam, new, "flashcp") for _ in range(2))
            t_nand, e_nand = min(tool_write(cam, new, "nandwrite") for _ in range(2))
            for name, (t, erases) in times.items():
                show(f"whole-flash write, {name}: time / flashcp", t / t_flashcp)
                show(f"whole-flash write, {name}: time / flash_erase+nandwrite", t / t_nand)
                show(f"whole-flash write, {name}: erases / flashcp's", erases / e_flashcp)
            show("flashcp, s (emulated); erases of flashcp, of nandwrite",
                 f"{t_flashcp:.2f}; {e_flashcp}, {e_nand}")
        finally:
            cam.teardown()
        if b"cur_client_id_Upgrade" in daemon.read_bytes():
            d_cpu, s_cpu = ingest(session, lan, 4 << 20)
            show("multicast ingest 4 MiB, CPU daemon / bare sink", d_cpu / max(s_cpu, 1))
            show("  daemon CPU ms, sink CPU ms", f"{d_cpu}, {s_cpu}")
        else:
            show("multicast ingest / bare sink", "n/a (no multicast upgrade in this daemon)")
    finally:
        lan.stop()
        session.close()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
