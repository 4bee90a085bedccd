"""Virtual camera: the armhf daemon on a real ARM kernel.

One VirtualCamera is a qemu-system-arm "virt" machine booting Debian's armmp
kernel and the initramfs of sim/vm/build-image, plus a per-boot archive with
the daemon and this camera's files. It has

  flash     nandsim (2 KiB pages, 128 KiB erase blocks) whose cache file is a
            host file on a virtio disk: kept across reboots as on a camera;
            partitions boot, env, kernel, rootfs, homefs by default, optional
            bad blocks; the daemon's /proc/mtd names them. Without delays by
            default; `chip` gives it NAND or NOR-like timing (vmflash.CHIPS)
  watchdog  softdog; a starved watchdog restarts the machine
  network   virtio-net on a tap in the LAN's bridge: the same LAN as the
            namespace cameras of sim/ns
  ttyS1     pci-serial-2x, wired to the STM32 bootloader simulator (stm32_serve)
  /data, /customer, /home   kept on the host (a 9p share): they survive reboots
  /mnt/usb  an ext2 disk image when `usb` is given

qemu runs with -no-reboot: every restart of the machine ends the process and
the rig tells power-off, reboot and watchdog reset apart from the console,
then (autoboot) boots the same camera again. See README.md beside this file.
"""

from __future__ import annotations

import base64
import contextlib
import itertools
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
TOP = HERE.parents[1]
sys.path.insert(0, str(TOP / "sim" / "ns"))

from camroot import DEFAULT_FILES, del_list_text, pid_list_text  # noqa: E402
from rigbase import HostFiles, RigError, TOOL_PATH, run, wait_until  # noqa: E402

from vmflash import (  # noqa: E402,F401  (re-exported)
    BLOCK, CHIPS, DEFAULT_PARTS, NAND_BLOCKS, NAND_ID, OOB, PAGE, PAGES_PER_BLOCK, RAW_PAGE,
    Chip, Flash, partition_table)

IMAGE_DIR = Path(os.environ.get("VMCAM_IMAGE_DIR", TOP / ".deps" / "vm"))

UBOOT_ENV = "baudrate=115200\nbootcmd=nand read 0x82000000 0x140000 0x400000; bootm\nbootdelay=1\n"

END_LINES = (("softdog: Initiating system reboot", "watchdog reset"),
             ("reboot: Restarting system", "rebooted"),
             ("reboot: Power down", "powered off"),
             ("reboot: System halted", "halted"))
READY = "init socket succeed"

_tap_ids = itertools.count(1)


def build_image():
    """Builds (or reuses) the kernel and base initramfs; returns their directory."""
    run([HERE / "build-image", IMAGE_DIR], capture_output=False)
    return IMAGE_DIR


def install_daemon(source, root):
    """Puts the daemon into a camera root: `source` is the camera archive
    (upgrade-<version>-armhf.tar.gz, unpacked over the root as a firmware
    team does) or a bare armhf binary, which gets the archive's init script
    from the source tree beside it."""
    source = Path(source)
    if source.name.endswith(".tar.gz"):
        run(["tar", "-xzf", source, "-C", root])
        return
    for rel, src in (("bin/upgrade", source),
                     ("etc/init.d/S90upgrade", TOP / "packaging/camera/S90upgrade")):
        dest = Path(root) / rel
        dest.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(src, dest)
        os.chmod(dest, 0o755)


def find_package(build_dir=TOP / "build" / "armhf"):
    """The newest camera archive of an armhf build, or None."""
    found = [p for p in Path(build_dir).glob("upgrade-*-armhf.tar.gz") if p.is_file()]
    return max(found, key=lambda p: p.stat().st_mtime) if found else None


def find_program(name):
    """The newest host build of a program (build/host-*/...)."""
    found = [p for p in (TOP / "build").glob(f"host-*/**/{name}") if p.is_file()]
    return max(found, key=lambda p: p.stat().st_mtime) if found else None


class VirtualCamera(HostFiles):
    """One virtual camera on a sim/ns Lan. Keywords (all optional):

    word        the daemon's command-line word
    ip, mac     eth0's address (default: next free on the LAN) and MAC
    gateway     default route (LAN's address; None for a multicast route only)
    files       {camera path under /data, /customer, /home, /etc: str|bytes|None}
                on top of the defaults (model "K1.T", version "V2.5.1",
                arm_version_file); /etc files are part of every boot
    pid_list    kill-list names; a dummy process runs per name
    del_list    paths for /customer/del_list (None: no file)
    chip        "nand" (default: no delays), "nand-timed" (NAND's page read,
                program and block erase times) or "nor-timed" (64 KiB erase
                blocks with SPI NOR's times); see vmflash.CHIPS
    parts       [(name, erase blocks|None)] of the 128 MiB chip
    bad_blocks  chip-wide erase block numbers marked bad at first boot
    wdt_margin  softdog's default margin in seconds
    usb         {name: bytes} on an ext2 disk mounted at /mnt/usb
    stm32       True: ttyS1 wired to stm32_serve (controller flash in
                stm32_flash()); False: ttyS1 unconnected
    autoboot    boot again after a reboot or watchdog reset
    mem         guest memory in MiB
    qemu_args   more qemu-system-arm arguments (e.g. "-icount" for benchmarks)
    nice        qemu's scheduling niceness (benchmarks: negative, so that the
                host's other work delays the emulated disk's answers less)
    """

    def __init__(self, session, lan, name=None, *, word=None, ip=None, mac=None, gateway=True,
                 files=None, pid_list=None, del_list=(), parts=None, bad_blocks=(),
                 wdt_margin=60, usb=None, stm32=True, autoboot=True, mem=256,
                 upgrade_bin=None, echo=None, qemu_args=(), chip="nand", nice=0):
        self.session, self.lan = session, lan
        n = session.next_id()
        self.name = name or f"vm{n}"
        self.dir = Path(session.workdir) / f"{self.name}-{n}"
        self.share = self.dir / "share"
        self.word = word
        self.if_index = lan.new_if_index()
        self.ip = ip or lan.new_host_address()
        self.mac = mac or f"52:54:00:77:01:{self.if_index:02x}"
        self.gateway = (lan.ip if gateway is True else gateway) or None
        self.chip = chip if isinstance(chip, Chip) else CHIPS[chip]
        self.parts = list(parts or self.chip.parts)
        self.bad_blocks = list(bad_blocks)
        self.wdt_margin = wdt_margin
        self.usb = usb
        self.stm32_wanted = stm32
        self.autoboot = autoboot
        self.mem = mem
        self.upgrade_bin = Path(upgrade_bin or session.upgrade_bin)
        self.echo = echo  # callable(camera, line) for every console line
        self.qemu_args = list(qemu_args)
        self.nice = nice
        self.flash = Flash(self.dir / "flash.nand", self.parts, chip=self.chip)
        self.boots = 0
        self.ends = []  # (boot, reason, seconds) of every boot that ended
        self.proc = None
        self.stm32 = None
        self._tap = f"vmt{os.getpid() % 1000}x{next(_tap_ids)}"
        self._stopping = False
        self._ended = threading.Event()
        self._booted = threading.Condition()
        self._watcher = None
        self._shell = None
        self._shell_lock = threading.Lock()
        self.started_at = None
        self._setup(files or {}, pid_list, del_list)
        lan.cameras.append(self)

    # -- the camera's files on the host

    def _setup(self, files, pid_list, del_list):
        for d in ("state/data", "state/customer", "state/home", "calls", "xfer"):
            (self.share / d).mkdir(parents=True, exist_ok=True)
        names = ["main_app", "onvif_server"] if pid_list is None else list(pid_list)
        self.apps = list(dict.fromkeys(["ntp_client", *names]))
        layout = dict(DEFAULT_FILES)
        layout["/data/net.conf"] = (f"dhcp=0\nipaddr={self.ip}\nnetmask=255.255.255.0\n"
                                    f"gateway={self.gateway or ''}\nfdns=8.8.8.8\n"
                                    f"macaddr={self.mac}\n")
        layout["/customer/pid_list"] = pid_list_text(names)
        layout["/customer/del_list"] = None if del_list is None else del_list_text(del_list)
        layout.update(files)
        # /etc lives in the initramfs: its files go into every boot's archive.
        self.etc_files = {p: c for p, c in layout.items() if p.startswith("/etc/")}
        for p, content in layout.items():
            if p not in self.etc_files:
                self.write(p, content)
        shutil.copy2(HERE / "rootfs" / "arm_upgrade", self.path("/customer/arm_upgrade"))
        os.chmod(self.path("/customer/arm_upgrade"), 0o755)
        self.flash.create()
        if self.usb is not None:
            self._make_usb_disk()

    def _make_usb_disk(self):
        src = self.dir / "usb"
        shutil.rmtree(src, ignore_errors=True)
        src.mkdir()
        for name, content in self.usb.items():
            (src / name).write_bytes(content.encode() if isinstance(content, str) else content)
        size = max(8 << 20, sum((src / n).stat().st_size for n in self.usb) * 2 + (4 << 20))
        img = self.dir / "usb.img"
        img.unlink(missing_ok=True)
        run(["mke2fs", "-q", "-t", "ext2", "-F", "-d", src, img, f"{size // 1024}k"])

    def path(self, camera_path):
        """Host path of a camera path under /data, /customer or /.rig."""
        p = str(camera_path)
        for prefix, host in (("/data", "state/data"), ("/customer", "state/customer"),
                             ("/home", "state/home"), ("/.rig", "")):
            if p == prefix or p.startswith(prefix + "/"):
                return self.share / host / p[len(prefix):].lstrip("/")
        raise RigError(f"{p}: only /data, /customer and /.rig are kept on the host; "
                       "use exec() for other camera files")

    def wait_file_text(self, camera_path, text, timeout=60.0):
        """Waits until a camera file (under /data, /customer, /.rig) holds
        `text`; returns the file's text."""
        if not wait_until(lambda: text in (self.read_text(camera_path) or ""), timeout):
            raise AssertionError(f"{self.name}: no {text!r} in {camera_path} within {timeout}s")
        return self.read_text(camera_path)

    @property
    def device_id(self):
        return self.read_text("/data/uuid_file")

    def signals(self):
        text = self.read_text("/.rig/calls/signals.log") or ""
        return [(a, int(b)) for a, b in (line.split() for line in text.splitlines())]

    # -- boot

    def _boot_archive(self):
        """base.cpio.gz followed by this boot's archive (daemon, camera files)."""
        stage = self.dir / "boot-root"
        shutil.rmtree(stage, ignore_errors=True)
        for d in ("bin", "etc"):
            (stage / d).mkdir(parents=True)
        install_daemon(self.upgrade_bin, stage)
        if self.word:
            (stage / "etc/default").mkdir(parents=True, exist_ok=True)
            (stage / "etc/default/upgrade").write_text(f"UPGRADE_ARGS='{self.word}'\n")
        parts = ",".join(str(c) for _n, _f, c in self.flash.parts[:-1])
        env = {
            "CAM_NAME": self.name, "CAM_IP": self.ip, "CAM_PREFIX": "24",
            "CAM_GW": self.gateway or "", "CAM_WORD": self.word or "",
            "NAND_ID": self.chip.nand_id, "NAND_PARTS": parts,
            "NAND_OPTS": self.chip.nandsim_args(),
            "NAND_BAD": ",".join(str(b) for b in self.bad_blocks),
            "NAND_NAMES": " ".join(n for n, _c in self.parts),
            "WDT_MARGIN": str(self.wdt_margin),
        }
        (stage / "etc/camera.env").write_text("".join(f"{k}='{v}'\n" for k, v in env.items()))
        (stage / "etc/apps.list").write_text("".join(a + "\n" for a in self.apps))
        (stage / "etc/fw_env.config").write_text(self.chip.fw_env_config)
        (stage / "etc/u-boot-initial-env").write_text(UBOOT_ENV)
        for p, content in self.etc_files.items():
            if content is not None:
                dest = stage / p.lstrip("/")
                dest.parent.mkdir(parents=True, exist_ok=True)
                dest.write_bytes(content.encode() if isinstance(content, str) else content)
        names = "\n".join(sorted(str(p.relative_to(stage)) for p in stage.rglob("*"))) + "\n"
        cpio = subprocess.run(["cpio", "-o", "-H", "newc", "--quiet", "-R", "0:0"], cwd=stage,
                              input=names.encode(), capture_output=True, check=True).stdout
        out = self.dir / "boot.cpio.gz"
        with open(out, "wb") as f:
            f.write((IMAGE_DIR / "base.cpio.gz").read_bytes())
            f.write(subprocess.run(["gzip", "-1"], input=cpio, capture_output=True,
                                   check=True).stdout)
        return out

    def _start_stm32(self):
        if not self.stm32_wanted or (self.stm32 and self.stm32.poll() is None):
            return
        prog = find_program("stm32_serve")
        if prog is None:
            raise RigError("no stm32_serve: build it (cmake --build --preset host-debug)")
        log = open(self.dir / "stm32.log", "ab")
        try:
            self.stm32 = subprocess.Popen(
                [prog, "--link", self.dir / "ttyS1", "--flash-out", self.dir / "stm32.flash"],
                stdout=log, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                start_new_session=True)
        finally:
            log.close()
        if not wait_until(lambda: (self.dir / "ttyS1").exists(), 10):
            raise RigError(f"{self.name}: stm32_serve did not start")

    def stm32_log(self):
        with contextlib.suppress(FileNotFoundError):
            return (self.dir / "stm32.log").read_text().splitlines()
        return []

    def stm32_flash(self):
        """The controller's flash after its last Go (bytes written), or None."""
        with contextlib.suppress(FileNotFoundError):
            return (self.dir / "stm32.flash").read_bytes()
        return None

    def _qemu_argv(self, archive):
        d = self.dir
        mcu = (f"serial,id=mcu,path={os.path.realpath(d / 'ttyS1')}" if self.stm32_wanted
               else "null,id=mcu")
        argv = [
            "qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15", "-smp", "1",
            "-m", str(self.mem), "-display", "none", "-monitor", "none", "-no-reboot",
            "-kernel", IMAGE_DIR / "vmlinuz", "-initrd", archive,
            "-append", "console=ttyAMA0 quiet",
            "-chardev", f"file,id=con,path={self.console_path(self.boots)}",
            "-serial", "chardev:con",
            # The flash file is written through: a write is in the host's
            # file when it completes, so the guest's O_SYNC writes need no
            # flush request after each page (one round trip, not two).
            "-drive", f"if=none,id=flash,file={self.flash.path},format=raw,cache=unsafe",
            "-device", "virtio-blk-device,drive=flash,serial=flash,write-cache=off",
            "-fsdev", f"local,id=rig,path={self.share},security_model=none",
            "-device", "virtio-9p-device,fsdev=rig,mount_tag=rig",
            "-netdev", f"tap,id=n0,ifname={self._tap},script=no,downscript=no",
            "-device", f"virtio-net-device,netdev=n0,mac={self.mac}",
            "-chardev", f"socket,id=rigsh,path={d / 'rig.sock'},server=on,wait=off",
            "-device", "virtio-serial-device", "-device", "virtconsole,chardev=rigsh",
            "-chardev", "null,id=ttyS0", "-chardev", mcu,
            "-device", "pci-serial-2x,chardev1=ttyS0,chardev2=mcu",
        ]
        if self.usb is not None:
            argv += ["-drive", f"if=none,id=usb,file={d / 'usb.img'},format=raw",
                     "-device", "virtio-blk-device,drive=usb,serial=usb"]
        return [str(a) for a in argv + self.qemu_args]

    def console_path(self, boot):
        return self.dir / f"console.boot{boot}"

    def start(self, ready=READY, timeout=120.0):
        """Boots the camera; with `ready` (a console text) returns once the
        daemon printed it."""
        if self.running:
            raise RigError(f"{self.name} is already running")
        if not (IMAGE_DIR / "base.cpio.gz").exists():
            raise RigError(f"no virtual camera image in {IMAGE_DIR}: run sim/vm/build-image")
        self._stopping = False
        self._start_stm32()
        self._boot()
        if ready:
            self.wait_line(ready, timeout)
        return self

    def _boot(self):
        lan = self.lan.name
        if run(["ip", "-n", lan, "link", "show", self._tap], check=False).returncode != 0:
            run(["ip", "-n", lan, "tuntap", "add", "dev", self._tap, "mode", "tap"])
            # A long queue: upgrade datagrams wait there (as IP fragments)
            # while the emulated CPU is busy, instead of being dropped.
            run(["ip", "-n", lan, "link", "set", self._tap, "txqueuelen", "20000"])
            run(["ip", "-n", lan, "link", "set", self._tap, "master", "br0", "up"])
        self.boots += 1
        archive = self._boot_archive()
        self.console_path(self.boots).write_bytes(b"")
        self._close_shell()
        (self.dir / "rig.sock").unlink(missing_ok=True)
        log = open(self.dir / "qemu.log", "ab")
        try:
            self.proc = subprocess.Popen(
                [*(["nice", "-n", str(self.nice)] if self.nice else []),
                 "nsenter", f"--net=/run/netns/{lan}", *self._qemu_argv(archive)],
                stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                start_new_session=True, env={"PATH": TOOL_PATH})
        finally:
            log.close()
        self.started_at = time.monotonic()
        self._ended.clear()
        self._watcher = threading.Thread(target=self._watch, args=(self.proc, self.boots),
                                         daemon=True, name=f"{self.name}-watch")
        self._watcher.start()

    def _watch(self, proc, boot):
        shown = 0
        while True:
            done = proc.poll() is not None
            if self.echo:
                lines = self.lines(boot=boot, complete=not done)
                for line in lines[shown:]:
                    self.echo(self, line)
                shown = len(lines)
            if done:
                break
            time.sleep(0.1)
        reason = self.end_reason(boot) if not self._stopping else "stopped by the rig"
        self.ends.append((boot, reason, time.monotonic() - self.started_at))
        if self.echo:
            self.echo(self, f"[{reason}]")
        again = (self.autoboot and not self._stopping
                 and reason in ("rebooted", "watchdog reset"))
        if again:
            try:
                self._boot()
            except Exception as exc:  # reported, the camera stays down
                self.ends.append((boot, f"boot failed: {exc}", 0.0))
                again = False
        if not again:
            self._ended.set()
        with self._booted:
            self._booted.notify_all()

    # -- state

    @property
    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def end_reason(self, boot=None):
        """How boot `boot` (default: the current one) ended, from its console."""
        boot = boot or self.boots
        if boot == self.boots and self.running:
            return "running"
        text = "\n".join(self.lines(boot=boot))
        for line, reason in END_LINES:
            if line in text:
                return reason
        code = self.proc.returncode if self.proc else None
        return f"qemu exited with {code}"

    def lines(self, boot=None, complete=False):
        """Console lines (kernel and daemon) of a boot (default: the current
        one); with `complete`, a last line still being written is left out."""
        try:
            data = self.console_path(boot or self.boots).read_bytes()
        except FileNotFoundError:
            return []
        if complete:
            data = data[:data.rfind(b"\n") + 1]
        return data.decode(errors="replace").replace("\r", "").splitlines()

    def wait_line(self, pattern, timeout=60.0, boot=None, after=0):
        """Waits for a console line of the boot containing `pattern` (or
        matching a compiled regex), from line `after` on; returns it."""
        deadline = time.monotonic() + timeout
        while True:
            b = boot or self.boots
            for line in self.lines(boot=b)[after:]:
                if pattern.search(line) if hasattr(pattern, "search") else pattern in line:
                    return line
            if boot is not None and b != self.boots or (self._ended.is_set() and boot is None):
                raise AssertionError(f"{self.name}: boot {b} ended ({self.end_reason(b)}) "
                                     f"without {pattern!r}{self._tail(b)}")
            if time.monotonic() >= deadline:
                raise AssertionError(f"{self.name}: no line {pattern!r} within {timeout}s"
                                     f"{self._tail(b)}")
            time.sleep(0.05)

    def _tail(self, boot=None, n=25):
        lines = self.lines(boot=boot)[-n:]
        return f"\n  ({self.dir})\n  console: " + "\n  console: ".join(lines)

    def wait_boot(self, boot, timeout=120.0, ready=READY):
        """Waits until boot number `boot` has started and its daemon is
        ready; returns how the boot before it ended."""
        deadline = time.monotonic() + timeout
        with self._booted:
            while self.boots < boot and not self._ended.is_set():
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                self._booted.wait(left)
        if self.boots < boot:
            raise AssertionError(f"{self.name}: boot {boot} did not come within {timeout}s; "
                                 f"ends: {self.ends}{self._tail(self.boots)}")
        if ready:
            self.wait_line(ready, max(1.0, deadline - time.monotonic()), boot=boot)
        return next((r for b, r, _s in self.ends if b == boot - 1), None)

    def wait_end(self, timeout=120.0):
        """Waits until the machine is down (autoboot off, or stopped)."""
        if not self._ended.wait(timeout):
            raise AssertionError(f"{self.name} still running after {timeout}s"
                                 f"{self._tail(self.boots)}")
        return self.ends[-1][1]

    # -- the rig shell on ttyS0

    def _connect_shell(self):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.connect(str(self.dir / "rig.sock"))
        self._shell = s
        self._shell_boot = self.boots
        self._marker = itertools.count(1)
        # The shell may still be starting: ask until it answers.
        tag = f"@@ready{os.getpid()}@@".encode()
        buf, deadline = b"", time.monotonic() + 60
        while tag + b"\n" not in buf:
            if time.monotonic() > deadline or not self.running:
                self._close_shell()
                raise AssertionError(f"{self.name}: the rig shell does not answer: {buf[-200:]!r}")
            s.sendall(tag + b"\n")
            s.settimeout(1.0)
            with contextlib.suppress(socket.timeout):
                while tag + b"\n" not in buf:
                    buf += s.recv(4096)
        time.sleep(0.2)  # let the answers to the repeated probes arrive
        s.settimeout(0.2)
        with contextlib.suppress(socket.timeout):
            while s.recv(4096):
                pass

    def _close_shell(self):
        if self._shell is not None:
            with contextlib.suppress(OSError):
                self._shell.close()
        self._shell = None

    def exec(self, command, timeout=60.0, check=False):
        """Runs a shell command in the camera (as root, on its rig shell);
        returns (status, output text)."""
        with self._shell_lock:
            if not self.running:
                raise RigError(f"{self.name} is not running")
            if self._shell is None or self._shell_boot != self.boots:
                self._close_shell()
                self._connect_shell()
            tag = f"@@rig{os.getpid()}x{next(self._marker)}@@"
            script = base64.b64encode(command.encode()).decode()
            self._shell.sendall(f"{tag} {script}\n".encode())
            buf = b""
            deadline = time.monotonic() + timeout
            pat = re.compile(re.escape(tag.encode()) + rb"(\d+)\n")
            while True:
                m = pat.search(buf)
                if m:
                    out = buf[:m.start()].decode(errors="replace").replace("\r", "")
                    status = int(m.group(1))
                    break
                left = deadline - time.monotonic()
                if left <= 0 or not self.running:
                    self._close_shell()
                    raise AssertionError(f"{self.name}: {command!r} gave no answer "
                                         f"within {timeout}s: {buf[-500:]!r}")
                self._shell.settimeout(min(left, 0.5))
                try:
                    chunk = self._shell.recv(65536)
                except socket.timeout:
                    continue
                if not chunk:
                    self._close_shell()
                    raise AssertionError(f"{self.name}: rig shell closed during {command!r}")
                buf += chunk
        if check and status != 0:
            raise AssertionError(f"{self.name}: {command!r} failed ({status}): {out}")
        return status, out

    def put(self, data, camera_path):
        """Copies bytes into the camera (through the share), e.g. to /dev."""
        name = f"put-{next(_tap_ids)}"
        (self.share / "xfer" / name).write_bytes(data)
        try:
            self.exec(f"cp /.rig/xfer/{name} '{camera_path}'", check=True)
        finally:
            (self.share / "xfer" / name).unlink(missing_ok=True)

    def fw_printenv(self):
        _s, out = self.exec("fw_printenv")
        return dict(line.split("=", 1) for line in out.splitlines() if "=" in line)

    # -- stop

    def stop(self):
        """Ends the machine (if running), the simulator and the tap."""
        self._stopping = True
        while True:
            # A reboot may have started a new machine just before the flag.
            p = self.proc
            if p is not None and p.poll() is None:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(p.pid, signal.SIGTERM)
                try:
                    p.wait(10)
                except subprocess.TimeoutExpired:
                    p.kill()
                    p.wait(5)
            w = self._watcher
            if w is not None and w is not threading.current_thread():
                w.join(10)
            if self.proc is p:
                break
        self._ended.set()
        self._close_shell()
        s = self.stm32
        if s is not None and s.poll() is None:
            s.terminate()
            try:
                s.wait(5)
            except subprocess.TimeoutExpired:
                s.kill()
                s.wait(5)
        if self.lan.up:
            run(["ip", "-n", self.lan.name, "link", "del", self._tap], check=False)

    def teardown(self, keep=False):
        self.stop()
        if self in self.lan.cameras:
            self.lan.cameras.remove(self)
        if keep:
            self.session.kept.append(self.dir)
        else:
            shutil.rmtree(self.dir, ignore_errors=True)

    def __repr__(self):
        return f"<VirtualCamera {self.name} {self.ip} boot {self.boots} {self.end_reason()}>"

