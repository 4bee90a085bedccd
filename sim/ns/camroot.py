"""Camera sandbox: the fixture files of a camera root and the Camera methods
that read and write them (files, stand-ins, call logs, boot environment)."""

from __future__ import annotations

import os
import shutil

from rigbase import HostFiles, RigError, run, wait_until

# Sixteen MiB of flash as the camera's kernel lists it.
DEFAULT_MTD = [
    (0x080000, 0x10000, "boot"),
    (0x300000, 0x10000, "kernel"),
    (0x900000, 0x10000, "rootfs"),
    (0x200000, 0x10000, "customer"),
    (0x180000, 0x10000, "data"),
]
# fw_setenv keeps the boot environment in a plain file. libubootenv treats
# every path that starts with "/dev/mtd" as a kernel MTD device (ioctls), so
# the file must not be named like one.
DEFAULT_FW_ENV_CONFIG = "/boot/ubootenv 0x0 0x10000 0x10000\n"
DEFAULT_UBOOT_ENV = "baudrate=115200\nbootcmd=bootm 0x82000000\nbootdelay=1\n"
DEFAULT_PID_LIST = ["main_app", "onvif_server"]
DEFAULT_FILES = {
    "/customer/device_model_file": "K1.T",
    "/home/device_model_file": "K1.T",
    "/customer/version_file": "V2.5.1",
    "/customer/arm_version_file": "ARM: [1.0.0]",
    "/etc/resolv.conf": "nameserver 8.8.8.8\n",
}


def mtd_text(table):
    """/proc/mtd text for a list of (size, erasesize, name)."""
    lines = ["dev:    size   erasesize  name"]
    for i, (size, erase, name) in enumerate(table):
        lines.append(f'mtd{i}: {size:08x} {erase:08x} "{name}"')
    return "\n".join(lines) + "\n"


def pid_list_text(names):
    return "".join(f'"{n}"\n' for n in names)


def del_list_text(paths):
    return "".join(f'"{p}"\n' for p in paths)


class CameraFiles(HostFiles):
    """The camera's root directory as the test sees it from the host. Base of
    Camera, which supplies session, root, name, _mounts and _tail()."""

    # -- root

    def path(self, camera_path):
        """Host path of a camera path ("/data/net.conf")."""
        return self.root / str(camera_path).lstrip("/")

    def _build(self, net_conf, del_list, fw_env_config, fw_env, files, stand_ins, apps, hostname):
        run(["cp", "-a", self.session.template, self.root])
        rig = self.path("/.rig")
        (rig / "hostname").write_text(hostname + "\n")
        if self.dhcp:
            (rig / "dhcp").write_text("")
        if net_conf is None:
            if self.dhcp:
                net_conf = f"dhcp=1\nmacaddr={self.mac}\n"
            else:
                net_conf = (f"dhcp=0\nipaddr={self.ip}\nnetmask=255.255.255.0\n"
                            f"gateway={self.gateway or ''}\nfdns=8.8.8.8\nmacaddr={self.mac}\n")
        layout = dict(DEFAULT_FILES)
        layout["/data/net.conf"] = net_conf
        layout["/customer/pid_list"] = pid_list_text(self.pid_list)
        layout["/customer/del_list"] = None if del_list is None else del_list_text(del_list)
        layout["/etc/fw_env.config"] = fw_env_config
        layout.update(files or {})
        for p, content in layout.items():
            self.write(p, content)
        self.set_mtd(self.mtd)
        self.set_stand_in("himm")
        self.set_stand_in("arm_upgrade", path="/customer/arm_upgrade")
        for name, answer in (stand_ins or {}).items():
            self.set_stand_in(name, **answer)
        names = list(dict.fromkeys(["ntp_client", *self.pid_list, *apps]))
        for a in names:
            if "/" in a or not a.strip():
                continue
            os.link(self.path("/.rig/bin/rig-helper"), rig / "apps" / a)
        (rig / "apps.list").write_text("".join(a + "\n" for a in names if "/" not in a and a.strip()))
        self._ensure_fw_env_file(fw_env_config)
        if fw_env:
            self.fw_setenv(**fw_env)

    def _ensure_fw_env_file(self, config):
        """Creates the file-backed environment the config names, if it is a
        plain file outside /dev (files in /dev are made at boot)."""
        if not config:
            return
        for line in config.splitlines():
            f = line.split()
            if len(f) >= 3 and not f[0].startswith("#"):
                if f[0].startswith("/dev/"):
                    continue
                p = self.path(f[0])
                size = int(f[1], 0) + int(f[2], 0)
                if not p.exists():
                    p.parent.mkdir(parents=True, exist_ok=True)
                    with open(p, "wb") as fh:
                        fh.write(b"\xff" * size)

    def write(self, camera_path, content, mode=None):
        """Writes (str or bytes) a camera file; None removes it."""
        if (str(camera_path).startswith("/dev/")
                and str(self.path("/dev")) not in self._mounts):
            raise RigError(f"{camera_path}: /dev is made fresh at each boot; "
                           "pass dev_files= or write it while the camera runs")
        super().write(camera_path, content, mode)

    def exists(self, camera_path):
        return os.path.lexists(self.path(camera_path))

    def wait_file(self, camera_path, timeout=5.0, content=None):
        """Waits until a camera file exists (and, if given, contains `content`);
        returns its bytes."""
        want = content.encode() if isinstance(content, str) else content

        def ready():
            data = self.read(camera_path)
            if data is None or (want is not None and want not in data):
                return None
            return (data,)

        found = wait_until(ready, timeout)
        if not found:
            raise AssertionError(f"{self.name}: {camera_path} did not appear"
                                 f"{'' if want is None else ' with ' + repr(want)}"
                                 f" within {timeout}s{self._tail()}")
        return found[0]

    # -- fixture setters

    def set_mtd(self, table_or_text):
        """The partition list the daemon reads as /proc/mtd."""
        text = table_or_text if isinstance(table_or_text, str) else mtd_text(table_or_text)
        if not isinstance(table_or_text, str):
            self.mtd = table_or_text
        self.write("/.rig/proc_mtd", text)

    def set_pid_list(self, names):
        self.write("/customer/pid_list", pid_list_text(names))

    def set_del_list(self, paths):
        self.write("/customer/del_list", del_list_text(paths))

    def set_net_conf(self, text):
        self.write("/data/net.conf", text)

    def set_stand_in(self, name, rc=0, out=None, delay=None, path=None):
        """Installs (with path) or re-programs a stand-in: its exit status,
        printed output and delay in seconds."""
        if path:
            shutil.copy2(self.path("/.rig/bin/stand-in"), self.path(path))
            os.chmod(self.path(path), 0o755)
        elif not any(self.exists(f"{d}/{name}") for d in ("/bin", "/usr/bin", "/customer")):
            shutil.copy2(self.path("/.rig/bin/stand-in"), self.path(f"/bin/{name}"))
        d = f"/.rig/stand-in/{name}"
        self.write(d + ".rc", f"{rc}\n")
        self.write(d + ".out", out)
        self.write(d + ".delay", None if delay is None else f"{delay}\n")

    def calls(self, name):
        """Argument lines of each call of a stand-in (himm, arm_upgrade...)."""
        text = self.read_text(f"/.rig/calls/{name}.log")
        return [] if text is None else text.splitlines()

    def control_datagrams(self):
        """Datagrams the daemon sent to 127.0.0.1:1259, in order (bytes)."""
        text = self.read_text("/.rig/calls/control.log") or ""
        return [bytes.fromhex(line.split()[1]) for line in text.splitlines()
                if len(line.split()) == 2]

    def wait_control(self, count=1, timeout=5.0):
        got = wait_until(lambda: len(self.control_datagrams()) >= count, timeout)
        if not got:
            raise AssertionError(f"{self.name}: fewer than {count} control datagrams within "
                                 f"{timeout}s: {self.control_datagrams()!r}")
        return self.control_datagrams()

    def signals(self):
        """(process name, signal number) for each caught signal of a dummy app."""
        text = self.read_text("/.rig/calls/signals.log") or ""
        return [(a, int(b)) for a, b in (line.split() for line in text.splitlines())]

    def fw_printenv(self):
        """The boot environment as a dict, read with the camera's fw_printenv."""
        p = run(["chroot", self.root, "/bin/fw_printenv"], check=False)
        env = {}
        for line in p.stdout.splitlines():
            k, sep, v = line.partition("=")
            if sep:
                env[k] = v
        return env

    def fw_setenv(self, **values):
        for k, v in values.items():
            run(["chroot", self.root, "/bin/fw_setenv", k, str(v)])
