"""Tests of the camera sandbox itself, and the first system test of the daemon."""

import os
import re
import shutil
import socket
import subprocess
import sys
import time

import pytest

import camera as rig


def test_daemon_boots_answers_tcp_and_reboot_is_seen(camera, lan):
    # Start-up lines on standard output, nothing on standard error.
    out = camera.lines("stdout")
    assert any("read pid_config succeed" in line for line in out)
    assert any("init socket succeed" in line for line in out)
    assert all(line.startswith(("DBG_INFO:", "DBG_ERR:")) for line in out), out
    assert not any(line.startswith("DBG_INFO:") for line in camera.lines("stderr"))

    # The daemon is a child of the camera's init, never PID 1 itself.
    procs = {p.comm: p for p in camera.processes()}
    assert procs["init"].pid == 1
    daemon = procs["upgrade"]
    assert daemon.pid > 1 and daemon.pid == camera.daemon_pid
    ppid = re.search(r"^PPid:\s+(\d+)", open(f"/proc/{daemon.host_pid}/status").read(), re.M)
    assert int(ppid.group(1)) == procs["init"].host_pid
    for kind in rig.NS_KINDS:
        assert rig.ns_link(daemon.host_pid, kind) not in rig.outside_namespaces()

    with lan.connect(camera.ip, 5555, timeout=5) as conn:
        assert conn.getpeername() == (camera.ip, 5555)

    # Reboot as the daemon does it: reboot(2) from a process of the camera.
    t0 = time.monotonic()
    camera.reboot()
    after = camera.wait_reboot(timeout=5)
    assert camera.rebooted and camera.end_reason() == "rebooted"
    assert 0 < after < time.monotonic() - camera.started_at + 0.01
    assert time.monotonic() - t0 < 3
    assert camera.processes() == []


def test_busybox_reboot_signals_init_and_restart_keeps_flash_data(start_camera, lan):
    cam = start_camera(flash={0: 0x10000})
    uuid_before = cam.read("/data/uuid_file")
    cam.write("/dev/scratch", "gone after a reboot")
    cam.exec("echo written | dd of=/dev/mtd0 conv=notrunc 2>/dev/null")
    cam.reboot(how="busybox")
    cam.wait_reboot(timeout=5)
    assert cam.end_reason() == "rebooted (busybox, init signal TERM)"

    restarted = time.monotonic()
    cam.restart()
    assert cam.boots == 2
    assert not cam.exists("/dev/scratch")
    assert cam.read("/dev/mtd0") == b"written\n" + b"\xff" * (0x10000 - 8)
    assert cam.read("/data/uuid_file") == uuid_before
    assert cam.exists("/.rig/console/stdout.boot1")
    assert cam.wait_line("init socket succeed")
    # The uptime counts from this boot: less than a second of the clock is
    # carried over, and the daemon's sysinfo rounds up to whole seconds.
    [reply] = lan.search(count=1, from_ip=cam.ip)
    assert int(reply.fields()["Uptime"]) <= time.monotonic() - restarted + 2


def test_daemon_exit_is_reported_not_taken_for_a_reboot(start_camera):
    cam = start_camera(word="VERSION", ready=None)
    assert cam.wait_end(timeout=5) == "daemon exited with 0"
    assert not cam.rebooted
    assert cam.lines("stdout") == ["upgrade version: v3.1.34"]


def test_camera_fixtures_and_stand_ins(start_camera):
    cam = start_camera(
        pid_list=["main_app", "hid"],
        stand_ins={"himm": {"rc": 3, "out": "0x12345678\n"}},
        dev_size="8m", flash={0: 0x10000, 1: 0x20000}, usb={"fw_K1.img": b"image"})
    ex = cam.exec

    # The partition list the daemon reads, through the /bin/cat wrapper.
    p = ex("/bin/cat /proc/mtd | grep mtd")
    assert p.stdout.splitlines()[0] == 'mtd0: 00080000 00010000 "boot"'
    assert len(p.stdout.splitlines()) == len(rig.DEFAULT_MTD)
    cam.set_mtd([(0x40000, 0x10000, "u-boot")])
    assert ex("/bin/cat /proc/mtd").stdout.endswith('mtd0: 00040000 00010000 "u-boot"\n')
    assert "kthreadd" not in ex("/bin/cat /proc/1/status").stdout  # procfs is the camera's

    # Stand-ins record their arguments and answer as told.
    p = ex("himm 0x120C0000 0x1; echo rc=$?; /customer/arm_upgrade /dev/ttyS1 a.bin; echo rc=$?")
    assert p.stdout == "0x12345678\nrc=3\nrc=0\n"
    assert cam.calls("himm") == ["0x120C0000 0x1"]
    assert cam.calls("arm_upgrade") == ["/dev/ttyS1 a.bin"]
    cam.set_stand_in("arm_upgrade", rc=1)
    assert ex("/customer/arm_upgrade; echo $?").stdout == "1\n"

    # Dummy applications: ps and killall find them; caught signals are logged.
    assert "/.rig/apps/hid" in ex('ps | grep "hid" | grep -v grep').stdout
    ex("killall -2 main_app; killall -9 hid")
    assert rig.wait_until(lambda: not {"main_app", "hid"} & {p.comm for p in cam.processes()}, 3)
    assert cam.signals() == [("main_app", 2)]

    # Control datagrams to 127.0.0.1:1259 inside the camera are recorded.
    with cam.socket() as s:
        s.sendto(bytes.fromhex("880b01aaff"), ("127.0.0.1", rig.CONTROL_PORT))
        s.sendto(bytes.fromhex("810a020102ff"), ("127.0.0.1", rig.CONTROL_PORT))
    assert cam.wait_control(2) == [bytes.fromhex("880b01aaff"), bytes.fromhex("810a020102ff")]

    # The boot environment: the daemon's copy of fw_setenv, read back outside.
    assert ex("/dev/fw_setenv dfu_upgrade_flag 1").returncode == 0
    assert cam.fw_printenv()["dfu_upgrade_flag"] == "1"
    assert cam.fw_printenv()["bootdelay"] == "1"

    # /dev: sized tmpfs, sparse /dev/mem, flash images, the pty on ttyS1.
    assert ex("df -k /dev | tail -1").stdout.split()[1] == "8192"
    assert os.path.getsize(cam.path("/dev/mem")) == 1 << 32
    assert cam.read("/dev/mtd1") == b"\xff" * 0x20000
    ex("echo hello > /dev/ttyS1")
    assert b"hello" in os.read(cam.serial, 100)
    assert ex("ls /usr/bin/md5sum /usr/bin/unzip /bin/fw_setenv").returncode == 0

    # A USB disk: mounted at /mnt/usb as far as "mount" can tell.
    assert "/mnt/usb" in ex("mount | grep /mnt/usb").stdout
    assert ex("cat /mnt/usb/fw_K1.img").stdout == "image"


def test_three_cameras_share_one_lan(start_camera, lan):
    cams = [start_camera(), start_camera(), start_camera(gateway=None)]
    assert len({c.ip for c in cams}) == 3 and len({c.mac for c in cams}) == 3

    for c in cams:
        ifc = c.exec("ifconfig").stdout
        assert ifc.startswith("eth0")
        assert f"HWaddr {c.mac}".upper() in ifc.upper()
        assert f"inet addr:{c.ip}  Bcast:192.168.77.255  Mask:255.255.255.0" in ifc
        with lan.connect(c.ip, 5555):
            pass

    # Multicast both ways: each camera answers a request on the group.
    # (A responder in each camera's network namespace stands in for the
    # discovery service, so this checks the plumbing only.)
    group, port = rig.BATCH_GROUP
    responders = []
    for c in cams:
        s = c.socket()
        s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        s.bind((group, port))
        s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                     socket.inet_aton(group) + socket.inet_aton(c.ip))
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(c.ip))
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
        responders.append((c, s))
    with lan.listen(group, port) as rx:
        rx.send(b"PING")
        for c, s in responders:
            s.settimeout(2)
            data, src = s.recvfrom(100)
            assert (data, src[0]) == (b"PING", lan.ip)
            s.sendto(b"PONG " + c.name.encode(), (group, port))
        replies = rx.collect(timeout=2, count=3)
    assert sorted(r.src[0] for r in replies) == sorted(c.ip for c in cams)
    assert {r.text for r in replies} == {f"PONG {c.name}" for c in cams}


def test_dhcp_variant(start_camera, lan):
    lan.start_dhcp_server(first=100, last=110)
    cam = start_camera(dhcp=True)
    ip = cam.wait_dhcp(timeout=10)
    assert re.fullmatch(r"192\.168\.77\.1(0\d|10)", ip)
    assert cam.exists("/dev/dhcp_ok")
    assert "dhcp=1" in cam.read_text("/data/net.conf")
    assert f"inet addr:{ip}" in cam.exec("ifconfig eth0").stdout
    assert "default via 192.168.77.1" in cam.exec("ip route").stdout
    with lan.connect(ip, 5555):
        pass


def _dummy_root(tmp_path):
    """A root whose init only leaves a marker: what the launcher would start."""
    root = tmp_path / "root"
    (root / "bin").mkdir(parents=True)
    (root / ".rig").mkdir()
    shutil.copy2("/bin/busybox", root / "bin/busybox")
    os.symlink("busybox", root / "bin/sh")
    (root / ".rig/init").write_text("#!/bin/sh\necho started > /.rig/started\n")
    os.chmod(root / ".rig/init", 0o755)
    return root


@pytest.mark.parametrize("flags", [
    None,
    ["--mount", "--net", "--uts", "--fork"],
    ["--mount", "--net", "--pid", "--uts"],
    ["--net", "--pid", "--uts", "--fork"],
    ["--mount", "--pid", "--uts", "--fork"],
    ["--mount", "--net", "--pid", "--fork"],
], ids=["no-unshare", "no-pid", "no-fork", "no-mount", "no-net", "no-uts"])
def test_launcher_refuses_outside_fresh_namespaces(tmp_path, flags):
    root = _dummy_root(tmp_path)
    launch = ["/bin/sh", str(rig.LAUNCH), str(root), *rig.outside_namespaces()]
    argv = launch if flags is None else ["unshare", *flags, "--propagation", "private", *launch]
    p = subprocess.run(argv, capture_output=True, text=True, timeout=10,
                       env={"PATH": rig.TOOL_PATH})
    assert p.returncode == 97, p.stderr
    assert "refusing" in p.stderr
    assert not (root / ".rig/started").exists()


def test_launcher_starts_init_in_fresh_namespaces(tmp_path):
    root = _dummy_root(tmp_path)
    p = subprocess.run(["unshare", "--mount", "--net", "--pid", "--uts", "--fork",
                        "--propagation", "private", "/bin/sh", str(rig.LAUNCH), str(root),
                        *rig.outside_namespaces()], capture_output=True, text=True,
                       timeout=10, env={"PATH": rig.TOOL_PATH})
    assert p.returncode == 0, p.stderr
    assert (root / ".rig/started").read_text() == "started\n"


def test_teardown_leaves_nothing_behind(rig_session):
    lan = rig.Lan(rig_session).start()
    cams = []
    try:
        cams = [rig.Camera(rig_session, lan) for _ in range(3)]
        for c in cams:
            c.start()
        cams[0].reboot()
        cams[0].wait_reboot(timeout=5)
        inits = [c.init_pid for c in cams]
        assert lan.name in rig.run(["ip", "netns", "list"]).stdout
        assert rig.leftovers(rig_session.owner)["mounts"]
    finally:
        for c in cams:
            c.teardown()
        lan.stop()
    left = rig.leftovers(rig_session.owner)
    assert left == {"netns": [], "mounts": [], "processes": []}
    assert not any(os.path.exists(f"/proc/{pid}") and
                   rig.ns_link(pid, "pid") not in rig.outside_namespaces() for pid in inits)
    assert not any(c.root.exists() for c in cams)


def test_sweep_cleans_up_after_a_killed_run(upgrade_bin):
    script = (
        "import sys, time\n"
        f"sys.path.insert(0, {str(rig.HERE)!r})\n"
        "import camera as rig\n"
        f"s = rig.Session({str(upgrade_bin)!r})\n"
        "lan = rig.Lan(s).start()\n"
        "lan.start_dhcp_server()\n"
        "rig.Camera(s, lan).start()\n"
        "print(s.workdir, flush=True)\n"
        "time.sleep(60)\n")
    run = subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE, text=True)
    try:
        workdir = run.stdout.readline().strip()
        assert workdir, "the run did not start its camera"
        left = rig.leftovers(run.pid)
        assert left["netns"] and left["mounts"]
        assert {"init", "upgrade", "unshare", "udhcpd"} <= {
            open(f"/proc/{pid}/comm").read().strip() for pid, _o, _c in left["processes"]}
    finally:
        run.kill()
        run.wait()
    rig.sweep_stale()
    assert rig.wait_until(lambda: not any(rig.leftovers(run.pid).values()), 5), \
        rig.leftovers(run.pid)
    shutil.rmtree(workdir)


def test_request_helpers_and_reply_fields():
    d = rig.search_datagram("ab" * 16)
    assert d.startswith(b"SEARCH * ") and d[28:60] == b"ab" * 16 and len(d) == 60
    r = rig.Reply(b"REPLY OK \r\nClient ID:x\r\nIP=1.2.3.4\r\nLUM_Serial_No=\r\nodd", ("h", 1), 0)
    assert r.fields() == {"Client ID": "x", "IP": "1.2.3.4", "LUM_Serial_No": ""}
    # The daemon's list readers: a quoted name plus exactly one line-end byte.
    assert rig.pid_list_text(["a", "b c"]) == '"a"\n"b c"\n'
    assert rig.mtd_text([(0x80000, 0x10000, "boot")]).splitlines()[1] == \
        'mtd0: 00080000 00010000 "boot"'


def test_replies_filtered_by_sender_and_content(start_camera, lan):
    cams = [start_camera(), start_camera()]
    group, port = rig.SEARCH_GROUP
    senders = []
    for c in cams:
        s = c.socket()
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(c.ip))
        senders.append(s)
    with lan.listen(group, port) as rx:
        for c, s in zip(cams, senders):
            s.sendto(b"REPLY OK " + c.name.encode(), (group, port))
            s.sendto(b"OTHER", (group, port))
        got = rx.collect(timeout=2, count=1, from_ip=cams[1].ip, match=b"REPLY OK ")
        rest = rx.collect(timeout=0.3)
    assert [r.text for r in got] == [f"REPLY OK {cams[1].name}"]
    assert len(rest) <= 3 and all(r.src[0] in (cams[0].ip, cams[1].ip) for r in rest)


def test_cat_wrapper_only_maps_proc_mtd_and_stand_in_waits(start_camera):
    cam = start_camera(stand_ins={"himm": {"delay": 0.3}})
    p = cam.exec("echo in | /bin/cat /etc/resolv.conf - /proc/mtd; /bin/cat /proc/nope")
    assert p.stdout.startswith("nameserver 8.8.8.8\nin\ndev:    size")
    assert "/proc/nope" in p.stderr
    t = time.monotonic()
    cam.exec("himm 1")
    assert time.monotonic() - t >= 0.3


def test_failed_test_keeps_root_with_dev_copy(rig_session, lan):
    cam = rig.Camera(rig_session, lan)
    with pytest.raises(rig.RigError):
        cam.write("/dev/early", "x")  # /dev only exists once booted
    cam.start()
    cam.write("/dev/note", "kept")
    cam.teardown(keep=True)
    rig_session.kept.remove(cam.root)
    try:
        assert not cam.running and rig.leftovers(rig_session.owner)["mounts"] == []
        assert (cam.root / ".rig/dev-at-stop/note").read_text() == "kept"
        assert "init socket succeed" in (cam.root / ".rig/console/stdout").read_text()
    finally:
        shutil.rmtree(cam.root)
