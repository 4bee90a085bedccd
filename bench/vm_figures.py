"""Figures of the armhf daemon on a virtual camera, as ratios within one run
(an emulated CPU is not a clock; ratios between programs on the same
emulated flash are). The guests run with -icount: their time counts
emulated instructions, not the host's load, and nandsim's delays are
busy-waits that count the same way. Erases are counted by the flash driver
and do not depend on time at all.

    /usr/bin/python3 bench/vm_figures.py [build/armhf/upgrade]
        [--chips nand,nand-timed,nor-timed] [--flash-only] [--repeat N]

Prints:
  - whole-flash write (the watcher, /dev/*.img + /dev/mtd_upgrade) of a new,
    a 10 %-changed and an unchanged image against mtd-utils flashcp and
    flash_erase + nandwrite (armhf) writing the same image on the same flash,
    for each flash chip of the virtual camera (sim/vm/vmflash.py CHIPS):
    "nand" without delays (the old timing model), "nand-timed" (NAND page
    read, program and erase times) and "nor-timed" (SPI NOR times on 64 KiB
    erase blocks). Time, erases, the blocks that differed from the image,
    and what the watcher's three boot-environment flag writes cost alone.
  - multicast ingest: CPU the daemon spends from the announcement to md5 '5'
    (DEBUG mode) against a bare receive-and-write sink in the same guest, on
    the same stream, when the daemon has the multicast upgrade
  - stripped size, RSS, private dirty memory and threads after start-up, and
    the daemon's CPU share of an idle minute
Run as root; needs the virtual camera image (sim/vm/build-image).
"""

import argparse
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

IMAGE_BYTES = [1 << 20, 256 << 10, 4 << 20]  # boot, env, kernel: partitions 0-2
# Guest time counts emulated instructions while the guest runs (and real
# time while it waits), so that the figures depend little on the host's load.
ICOUNT = ["-icount", "shift=3"]
# While the guest waits for its disk (nandsim's backing file) its clock runs
# with the host's: qemu runs at a raised priority, so that other work on the
# host delays those answers less.
NICE = -10
STAMP = re.compile(r"^\[\d+-\d+-\d+ (\d+):(\d+):([\d.]+) ")
# The three boot-environment flag writes of every whole-flash write, as the
# watcher runs them.
FLAG_WRITES = ("/dev/fw_setenv net_upgrade_flag 1", "/dev/fw_setenv dfu_upgrade_flag 0",
               "/dev/fw_setenv net_upgrade_flag 2")


def stamp_seconds(line):
    m = STAMP.match(line)
    h, mi, s = m.groups()
    return int(h) * 3600 + int(mi) * 60 + float(s)


def differing_blocks(cam, img):
    """Erase blocks of partitions 0-2 whose flash content differs from img."""
    bs, off, n = cam.flash.block_size, 0, 0
    for index, size in enumerate(IMAGE_BYTES):
        part = cam.flash.partition(index)
        for at in range(0, size, bs):
            n += part[at:at + bs] != img[off + at:off + at + bs]
        off += size
    return n


def warm(cam):
    """Reads the flash's backing store for partitions 0-2 into the guest's
    page cache. nandsim keeps the flash in a file on a virtio disk: after a
    boot the first read of a page would wait for the host's disk, which no
    chip does; the chip's own read time is nandsim's read delay."""
    raw = sum(IMAGE_BYTES) // vmcam.PAGE * vmcam.RAW_PAGE
    cam.exec("for d in /sys/block/vd*; do [ \"$(cat $d/serial)\" = flash ] && "
             f"dd if=/dev/${{d##*/}} of=/dev/null bs=64k count={raw // 65536 + 1} 2>/dev/null; "
             "done; true", timeout=300, check=True)


def watcher_write(cam, img, boot):
    """(seconds, erases, differing blocks) of the watcher writing img (its
    own trace stamps: first partition to "MTD upgrade finish"); waits for
    the next boot."""
    differ = differing_blocks(cam, img)
    warm(cam)
    erases = cam.flash.erase_count()
    cam.put(img, "/dev/fw.img")
    cam.exec("touch /dev/mtd_upgrade", check=True)
    cam.wait_boot(boot + 1, timeout=1800)
    lines = cam.lines(boot=boot)
    start = next(l for l in lines if " mtd0 write_addr 0x0 " in l and STAMP.match(l))
    end = next(l for l in lines if "MTD upgrade finish" in l and STAMP.match(l))
    return stamp_seconds(end) - stamp_seconds(start), cam.flash.erase_count() - erases, differ


def uptime(cam):
    return float(cam.exec("cat /proc/uptime", check=True)[1].split()[0])


def timed(cam, command):
    """(guest seconds, erases) of a shell command in the camera."""
    t0, e0 = uptime(cam), cam.flash.erase_count()
    cam.exec(command, timeout=1800, check=True)
    return uptime(cam) - t0, cam.flash.erase_count() - e0


def tool_write(cam, img, how):
    """(seconds, erases) of a stock tool putting the same partitions."""
    off = 0
    cmds = []
    for index, size in enumerate(IMAGE_BYTES):
        cam.put(img[off:off + size], f"/dev/part{index}.bin")
        off += size
        if how == "flashcp":
            cmds.append(f"flashcp /dev/part{index}.bin /dev/mtd{index}")
        else:
            cmds.append(f"flash_erase -q /dev/mtd{index} 0 0 && "
                        f"nandwrite -q -p /dev/mtd{index} /dev/part{index}.bin")
    warm(cam)
    return timed(cam, " && ".join(cmds))


def flash_figures(session, lan, chip, repeat):
    """The whole-flash table of one chip."""
    cam = vmcam.VirtualCamera(session, lan, name=f"bench-{chip}", qemu_args=ICOUNT, chip=chip,
                              nice=NICE)
    try:
        cam.start(timeout=600)
        rnd = random.Random(7)
        total = sum(IMAGE_BYTES)
        bs = cam.flash.block_size
        new, other = rnd.randbytes(total), rnd.randbytes(total)
        changed = bytearray(new)
        for blk in rnd.sample(range(total // bs), total // bs // 10):
            changed[blk * bs:blk * bs + 64] = rnd.randbytes(64)
        # New and unchanged twice (over the erased flash, then over another
        # image): the shorter run counts, as for the stock tools.
        runs = [("watcher, new image", new), ("watcher, unchanged image", new),
                ("watcher, 10 %-changed image", bytes(changed)),
                ("watcher, new image", other), ("watcher, unchanged image", other)]
        rows = {}
        for boot, (name, img) in enumerate(runs, 1):
            rows.setdefault(name, []).append(watcher_write(cam, img, boot))
        # The flag writes alone, from where the watcher starts them: an
        # environment the image has just replaced (here: erased), so that each
        # of the three rewrites it. The daemon's copy of the flag tool exists
        # once it has started.
        cam.exec("flash_erase -q /dev/mtd1 0 0", timeout=600, check=True)
        flags = timed(cam, " && ".join(FLAG_WRITES))
        tool_runs = {"flashcp": [tool_write(cam, new, "flashcp") for _ in range(repeat)],
                "flash_erase + nandwrite": [tool_write(cam, new, "nandwrite")
                                            for _ in range(repeat)]}
        tools = {name: min(r) for name, r in tool_runs.items()}
    finally:
        cam.teardown()
    t_cp, t_nw = tools["flashcp"][0], tools["flash_erase + nandwrite"][0]
    c = vmcam.CHIPS[chip]
    timing = (", ".join(f"{k}={v}" for k, v in c.timing.items()) if c.timing
              else "no delays")
    print(f"\nwhole-flash write, chip {chip}: {total >> 10} KiB in {total // bs} erase blocks "
          f"of {bs >> 10} KiB ({timing})", flush=True)
    print(f"  {'':<30} {'time, s':>9} {'/flashcp':>9} {'/nandwrite':>11} {'erases':>7} "
          f"{'differed':>9}")
    for name, (t, e) in tools.items():
        print(f"  {name:<30} {t:9.2f} {t / t_cp:9.2f} {t / t_nw:11.2f} {e:7d} {'':>9}")
    for name, r in rows.items():
        t, e, differ = min(r)
        print(f"  {name:<30} {t:9.2f} {t / t_cp:9.2f} {t / t_nw:11.2f} {e:7d} {differ:9d}")
    print(f"  {'of which 3 flag writes alone':<30} {flags[0]:9.2f} {flags[0] / t_cp:9.2f} "
          f"{flags[0] / t_nw:11.2f} {flags[1]:7d}")
    t = min(rows["watcher, new image"])[0] - flags[0]
    print(f"  {'new image less flag writes':<30} {t:9.2f} {t / t_cp:9.2f} {t / t_nw:11.2f}")
    print("  runs, s (the shortest counts): " + "; ".join(
        f"{name} " + " ".join(f"{t:.2f}" for t, *_ in r)
        for name, r in [*tool_runs.items(), *rows.items()]), flush=True)


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
    ap = argparse.ArgumentParser(description="virtual camera figures")
    ap.add_argument("daemon", nargs="?", default=str(TOP / "build/armhf/upgrade"))
    ap.add_argument("--chips", default="nand,nand-timed,nor-timed",
                    help="flash chips to write on (sim/vm/vmflash.py CHIPS)")
    ap.add_argument("--flash-only", action="store_true",
                    help="only the whole-flash tables")
    ap.add_argument("--repeat", type=int, default=2,
                    help="runs of each stock tool (the shortest counts)")
    args = ap.parse_args(argv[1:])
    daemon = Path(args.daemon)
    vmcam.build_image()
    rig.sweep_stale()
    session = rig.Session(daemon)
    lan = rig.Lan(session).start()
    print(f"virtual camera figures ({daemon})", flush=True)
    try:
        if not args.flash_only:
            resources(session, lan, daemon)
        for chip in args.chips.split(","):
            flash_figures(session, lan, chip, args.repeat)
        if args.flash_only:
            pass
        elif b"cur_client_id_Upgrade" in daemon.read_bytes():
            d_cpu, s_cpu = ingest(session, lan, 4 << 20)
            show("multicast ingest 4 MiB, CPU daemon / bare sink", d_cpu / max(s_cpu, 1))
            show("  daemon CPU ms, sink CPU ms", f"{d_cpu}, {s_cpu}")
        else:
            show("multicast ingest / bare sink", "n/a (no multicast upgrade in this daemon)")
    finally:
        lan.stop()
        session.close()
    return 0


def resources(session, lan, daemon):
    """Size, memory, threads and idle CPU of the daemon after start-up."""
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
    finally:
        cam.teardown()


if __name__ == "__main__":
    sys.exit(main(sys.argv))
