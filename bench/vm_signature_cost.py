"""What checking a site key's signature costs a keyed camera: the daemon's
CPU from the last transfer packet to its md5 answer '5', for a 16 MiB file
on a virtual camera, without keys (md5 only) and with a key (md5, then the
signature over the whole file). The guest runs with -icount, so its CPU
time counts emulated instructions, not the host's load; from the last
packet to '5' the daemon does nothing but these checks.

    /usr/bin/python3 bench/vm_signature_cost.py [build/armhf/upgrade] [MiB]

Prints the CPU milliseconds of each run and the share the signature adds.
Run as root; needs minisign and the virtual camera image (sim/vm/build-image).
"""

import random
import struct
import subprocess
import sys
import tempfile
from pathlib import Path

TOP = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOP / "sim" / "vm"))
sys.path.insert(0, str(TOP / "sim" / "ns"))

import camera as rig  # noqa: E402
import lanupgrade  # noqa: E402
import transfer  # noqa: E402
import vmcam  # noqa: E402

ICOUNT = ["-icount", "shift=3"]
RATE = 1 << 20  # bytes per second: what an emulated camera keeps up with
KEY = "/customer/keys/site.pub"


def cpu_ms(cam, pid):
    """The daemon's CPU, its waited-for children (md5sum) included."""
    f = cam.exec(f"cat /proc/{pid}/stat", check=True)[1].rsplit(")", 1)[1].split()
    return sum(int(x) for x in f[11:15]) * 10  # utime stime cutime cstime, USER_HZ = 100


def last_packet_to_md5(lan, cam, pid, data):
    """CPU ms of the daemon from the last packet to its '5'."""
    with lanupgrade.PacedTransfer(lan, [cam], data, name="sig.bin", mode=0, rate=RATE) as t:
        t.announce()
        assert t.ack(cam, timeout=60) == "0", "announcement not accepted"
        last = len(transfer.packets(t.session, data)) - 1
        t.stream(skip={last})
        before = cpu_ms(cam, pid)
        t.send(transfer.packets(t.session, data)[last])
        t.until(cam, "5", 600)
        codes = t.heard_from(cam)
        assert codes and codes[-1] == "5", codes
        return cpu_ms(cam, pid) - before


def signed(data, tmp):
    """data followed by its signature trailer, signed by a fresh key made by
    the release signer; returns (file bytes, public key text)."""
    pub, sec, f = tmp / "site.pub", tmp / "site.key", tmp / "sig.bin"
    subprocess.run(["minisign", "-G", "-W", "-p", pub, "-s", sec], check=True,
                   capture_output=True)
    f.write_bytes(data)
    subprocess.run(["minisign", "-S", "-W", "-s", sec, "-m", f], check=True, capture_output=True)
    sig = (tmp / "sig.bin.minisig").read_bytes()
    return data + sig + struct.pack("<I", len(sig)) + b"CAMSIG01", pub.read_text()


def main(argv):
    daemon = Path(argv[1] if len(argv) > 1 else TOP / "build/armhf/upgrade")
    mib = int(argv[2]) if len(argv) > 2 else 16
    vmcam.build_image()
    rig.sweep_stale()
    session = rig.Session(daemon)
    lan = rig.Lan(session).start()
    data = random.Random(3).randbytes(mib << 20)
    try:
        with tempfile.TemporaryDirectory() as tmp:
            file_signed, pub = signed(data, Path(tmp))
        cam = vmcam.VirtualCamera(session, lan, name="sigcost", word="DEBUG", qemu_args=ICOUNT,
                                  mem=512)
        try:
            cam.start()
            lan.search(count=1, from_ip=cam.ip, timeout=30)
            pid = cam.exec("pidof upgrade", check=True)[1].split()[0]
            cam.exec("mkdir -p /customer/keys", check=True)
            runs = {"no key, md5 only": [], "keyed, md5 and signature": []}
            for _ in range(2):
                cam.exec(f"rm -f {KEY}", check=True)
                runs["no key, md5 only"].append(last_packet_to_md5(lan, cam, pid, data))
                cam.exec("rm -f /dev/sig.bin", check=True)
                cam.put(pub.encode(), KEY)
                runs["keyed, md5 and signature"].append(
                    last_packet_to_md5(lan, cam, pid, file_signed))
                cam.exec("rm -f /dev/sig.bin", check=True)
        finally:
            cam.teardown()
    finally:
        lan.stop()
        session.close()
    print(f"last packet to '5', {mib} MiB file, daemon CPU ms (emulated, -icount):")
    for name, ms in runs.items():
        print(f"  {name:<28} {', '.join(str(m) for m in ms)}")
    plain, keyed = min(runs["no key, md5 only"]), min(runs["keyed, md5 and signature"])
    print(f"  the signature adds {100.0 * (keyed - plain) / max(plain, 1):.1f} % "
          f"({keyed - plain} ms over {plain} ms)")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
