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
    # (The daemon's short-lived forks for shell commands carry its name too.)
    procs = camera.processes()
    init = next(p for p in procs if p.comm == "init")
    assert init.pid == 1
    daemon = next(p for p in procs if p.pid == camera.daemon_pid)
    assert daemon.comm == "upgrade" and daemon.pid > 1
    ppid = re.search(r"^PPid:\s+(\d+)", open(f"/proc/{daemon.host_pid}/status").read(), re.M)
    assert int(ppid.group(1)) == init.host_pid
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
    # The daemon keeps its identity; the uptime counts from this boot: less
    # than a second of the clock is carried over, and the daemon's sysinfo
    # rounds up to whole seconds.
    [reply] = lan.search(count=1, from_ip=cam.ip)
    assert reply.fields()["Device ID"] == uuid_before.decode()
    assert int(reply.fields()["Uptime"]) <= time.monotonic() - restarted + 2


def test_daemon_exit_is_reported_not_taken_for_a_reboot(start_camera):
    cam = start_camera(word="VERSION", ready=None)
    assert cam.wait_end(timeout=5) == "daemon exited with 0"
    assert not cam.rebooted
    assert cam.lines("stdout") == ["upgrade version: v3.1.34"]


def test_camera_fixtures_and_stand_ins(start_camera):
    # What the daemon's own tests take for granted (control datagrams, the
    # boot environment, the pty, flash images, md5sum and unzip) is checked
    # there; here the fixtures only users and the rig itself lean on.
    cam = start_camera(pid_list=["main_app", "hid"], dev_size="8m", usb={"fw_K1.img": b"image"},
                       stand_ins={"himm": {"rc": 3, "out": "0x12345678\n", "delay": 0.3}})
    ex = cam.exec

    # /bin/cat maps /proc/mtd alone (also when changed while running) and is
    # busybox cat for everything else; procfs is the camera's.
    cam.set_mtd([(0x40000, 0x10000, "u-boot")])
    p = ex("echo in | /bin/cat /etc/resolv.conf - /proc/mtd; /bin/cat /proc/nope")
    assert p.stdout.startswith("nameserver 8.8.8.8\nin\ndev:    size")
    assert p.stdout.endswith('mtd0: 00040000 00010000 "u-boot"\n') and "/proc/nope" in p.stderr
    assert "kthreadd" not in ex("/bin/cat /proc/1/status").stdout

    # Stand-ins record their arguments and answer as told, late if told.
    t = time.monotonic()
    p = ex("himm 0x120C0000 0x1; echo rc=$?; /customer/arm_upgrade /dev/ttyS1 a.bin; echo rc=$?")
    assert time.monotonic() - t >= 0.3
    assert p.stdout == "0x12345678\nrc=3\nrc=0\n"
    assert cam.calls("himm") == ["0x120C0000 0x1"]
    assert cam.calls("arm_upgrade") == ["/dev/ttyS1 a.bin"]
    cam.set_stand_in("arm_upgrade", rc=1)
    assert ex("/customer/arm_upgrade; echo $?").stdout == "1\n"

    # Dummy applications: ps and killall find them; SIGKILL leaves no line.
    assert "/.rig/apps/hid" in ex('ps | grep "hid" | grep -v grep').stdout
    ex("killall -2 main_app; killall -9 hid")
    assert rig.wait_until(lambda: not {"main_app", "hid"} & {p.comm for p in cam.processes()}, 3)
    assert cam.signals() == [("main_app", 2)]

    # /dev is a tmpfs of the size asked for; the USB disk is mounted as far
    # as "mount" can tell.
    assert ex("df -k /dev | tail -1").stdout.split()[1] == "8192"
    assert "/mnt/usb" in ex("mount | grep /mnt/usb").stdout
    assert ex("cat /mnt/usb/fw_K1.img").stdout == "image"


def test_cameras_share_one_lan_and_replies_are_filtered(start_camera, lan):
    cams = [start_camera(), start_camera(), start_camera(gateway=None)]
    assert len({c.ip for c in cams}) == 3 and len({c.mac for c in cams}) == 3
    for c in cams:
        ifc = c.exec("ifconfig").stdout
        assert ifc.startswith("eth0") and f"HWaddr {c.mac}".upper() in ifc.upper()
        assert f"inet addr:{c.ip}  Bcast:192.168.77.255  Mask:255.255.255.0" in ifc

    # Multicast from a camera reaches the LAN, and collect keeps only what
    # the test asks for: the last camera's reply, not its other datagram nor
    # the others' replies sent before it.
    group, port = rig.SEARCH_GROUP
    with lan.listen(group, port) as rx:
        for c in cams:
            with c.socket() as s:
                s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(c.ip))
                s.sendto(b"OTHER", (group, port))
                s.sendto(b"REPLY OK " + c.name.encode(), (group, port))
        got = rx.collect(timeout=2, count=1, from_ip=cams[2].ip, match=b"REPLY OK ")
    assert [r.text for r in got] == [f"REPLY OK {cams[2].name}"]


FRESH = ["--mount", "--net", "--pid", "--uts", "--fork"]


def answered_searches(lan, cams, count, every):
    """Sends `count` searches on the batch group, `every` seconds apart,
    each with its own client ID; returns {camera ip: [answered?, ...]}."""
    ids = [f"{i:032x}" for i in range(count)]
    got = set()
    with lan.listen(*rig.BATCH_GROUP) as lst:
        for cid in ids:
            lst.send(rig.search_datagram(cid))
            got |= {(r.src[0], r.fields()["Client ID"]) for r in lst.collect(timeout=every)}
        got |= {(r.src[0], r.fields()["Client ID"]) for r in lst.collect(timeout=1.0)}
    return {c.ip: [(c.ip, cid) in got for cid in ids] for c in cams}


def test_loss_switch_loses_independently_per_camera_and_in_bursts(start_camera, lan):
    cams = [start_camera(), start_camera()]
    assert len(lan.search(count=2, timeout=10)) >= 2

    lan.set_loss(100)
    assert lan.search(timeout=1.5) == [] and lan.lost_packets() > 0
    lan.set_loss(0)
    assert lan.lost_packets() == 0
    assert len(lan.search(count=2, timeout=10)) >= 2

    # 30 % each way: about half the searches answered, by each camera its own half.
    lan.set_loss(30)
    answered = answered_searches(lan, cams, 120, 0.01)
    a, b = answered.values()
    assert 0 < sum(a) < 120 and 0 < sum(b) < 120, (sum(a), sum(b))
    assert a != b

    # Bursts: a loss silences the port for 300 ms, so losses come in runs.
    lan.set_loss(2, burst_ms=300)
    answered = answered_searches(lan, cams, 150, 0.02)

    def longest_gap(flags):
        run = best = 0
        for ok in flags:
            run = 0 if ok else run + 1
            best = max(best, run)
        return best

    assert max(longest_gap(f) for f in answered.values()) >= 3, answered
    lan.set_loss(0)


@pytest.mark.parametrize("flags", [FRESH, None, *([f for f in FRESH if f != d] for d in FRESH)],
                         ids=["fresh", "no-unshare", *(f"no-{d[2:]}" for d in FRESH)])
def test_launcher_starts_init_only_in_fresh_namespaces(tmp_path, flags):
    # A root whose init only leaves a marker: what the launcher would start.
    root = tmp_path / "root"
    (root / "bin").mkdir(parents=True)
    (root / ".rig").mkdir()
    shutil.copy2("/bin/busybox", root / "bin/busybox")
    os.symlink("busybox", root / "bin/sh")
    (root / ".rig/init").write_text("#!/bin/sh\necho started > /.rig/started\n")
    os.chmod(root / ".rig/init", 0o755)
    launch = ["/bin/sh", str(rig.LAUNCH), str(root), *rig.outside_namespaces()]
    argv = launch if flags is None else ["unshare", *flags, "--propagation", "private", *launch]
    p = subprocess.run(argv, capture_output=True, text=True, timeout=10,
                       env={"PATH": rig.TOOL_PATH})
    if flags == FRESH:
        assert p.returncode == 0, p.stderr
        assert (root / ".rig/started").read_text() == "started\n"
    else:
        assert p.returncode == 97 and "refusing" in p.stderr, p.stderr
        assert not (root / ".rig/started").exists()


def test_teardown_leaves_nothing_or_keeps_the_root_with_its_dev(rig_session):
    lan = rig.Lan(rig_session).start()
    gone, kept = rig.Camera(rig_session, lan), rig.Camera(rig_session, lan)
    try:
        with pytest.raises(rig.RigError):
            kept.write("/dev/early", "x")  # /dev only exists once booted
        gone.start()
        kept.start()
        kept.write("/dev/note", "kept")
        gone.reboot()
        gone.wait_reboot(timeout=5)
        inits = [gone.init_pid, kept.init_pid]
        assert lan.name in rig.run(["ip", "netns", "list"]).stdout
        assert rig.leftovers(rig_session.owner)["mounts"]
    finally:
        gone.teardown()
        kept.teardown(keep=True)
        lan.stop()
    rig_session.kept.remove(kept.root)
    try:
        assert rig.leftovers(rig_session.owner) == {"netns": [], "mounts": [], "processes": []}
        assert not any(os.path.exists(f"/proc/{pid}") and
                       rig.ns_link(pid, "pid") not in rig.outside_namespaces() for pid in inits)
        assert not gone.root.exists() and not kept.running
        assert (kept.root / ".rig/dev-at-stop/note").read_text() == "kept"
        assert "init socket succeed" in (kept.root / ".rig/console/stdout").read_text()
    finally:
        shutil.rmtree(kept.root)


def comm_of(pid):
    """The process's name; None once it has ended (the camera's short-lived
    shell commands may end between the listing and the read)."""
    try:
        return open(f"/proc/{pid}/comm").read().strip()
    except OSError:
        return None


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
            comm_of(pid) for pid, _o, _c in left["processes"]}
    finally:
        run.kill()
        run.wait()
    rig.sweep_stale()
    assert rig.wait_until(lambda: not any(rig.leftovers(run.pid).values()), 5), \
        rig.leftovers(run.pid)
    shutil.rmtree(workdir)
