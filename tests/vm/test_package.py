"""The camera archive on a virtual camera: the camera was installed from it
(every test of this folder runs that daemon), its init script started the
daemon at boot, and brings it back when it dies."""

import vmcam


def test_init_script_starts_the_daemon_and_starts_it_again_after_a_kill(start_vm, lan):
    cam = start_vm()
    status, out = cam.exec("/etc/init.d/S90upgrade status")
    assert status == 0 and "running" in out, out
    _s, version = cam.exec("/bin/upgrade VERSION")
    assert version.startswith("upgrade version: v"), version
    assert lan.search(count=1, from_ip=cam.ip, timeout=30.0), "no answer before the kill"

    _s, pid = cam.exec("cat /var/run/upgrade.pid")
    ready_lines = sum(vmcam.READY in line for line in cam.lines())
    cam.exec(f"kill -9 {pid.strip()}", check=True)
    ended = "upgrade: ended with status 137"
    cam.wait_line(ended, timeout=60.0)
    # The same boot: started again, ready again, answering again.
    after = max(i for i, line in enumerate(cam.lines()) if ended in line)
    cam.wait_line(vmcam.READY, timeout=120.0, after=after)
    assert sum(vmcam.READY in line for line in cam.lines()) == ready_lines + 1
    _s, new_pid = cam.exec("cat /var/run/upgrade.pid")
    assert new_pid.strip() != pid.strip()
    assert lan.search(count=1, from_ip=cam.ip, timeout=30.0), "no answer after the restart"

    status, out = cam.exec("/etc/init.d/S90upgrade stop")
    assert status == 0, out
    status, out = cam.exec("/etc/init.d/S90upgrade status")
    assert status == 3 and "stopped" in out, out
    assert cam.exec("pidof upgrade")[0] != 0, "a daemon left after stop"
    assert cam.boots == 1
