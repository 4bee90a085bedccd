"""The NORM transfer in the camera sandbox, the camera's side: a tool that
offers it in its announcement gets a '0' with the camera's node ID and sends
the file with the lab's NORM sender (norm_file, libnorm); the real daemon
receives it into /dev, checks its md5 and installs it. A tool that vanishes,
or sends more than it announced, ends the session with '2' and a reboot."""

import hashlib
import os
import secrets
from pathlib import Path

import pytest

import camera as rig
from camera import Transfer
from transfer import announcement

GROUP, PORT = "239.255.255.253", 8010
OFFER = f"\r\nTransfer:NORM {GROUP}:{PORT}".encode()
TOP = Path(__file__).resolve().parents[2]


@pytest.fixture
def norm_file():
    env = os.environ.get("NORM_FILE")
    found = [Path(env)] if env else sorted(TOP.glob("build/*/bench/norm_file"))
    if not found or not found[-1].is_file():
        pytest.fail("no norm_file: set NORM_FILE or build the 'norm_file' target")
    return found[-1]


def offer(t, cams, size=None):
    t.send(announcement([c.device_id for c in cams], t.session, t.name, t.md5,
                        t.size if size is None else size, t.mode, t.client) + OFFER)


def norm_send(lan, norm_file, path, session, nodes, timeout=60):
    """Sends path as the session's object to the cameras' node IDs; the
    sender's summary (key=value) once it ends."""
    p = lan.exec([norm_file, "send", "--iface", "br0", "--addr", GROUP, "--port", PORT,
                  "--file", path, "--name", session, "--rate", 20e6,
                  "--acks", ",".join(map(str, nodes)), "--timeout", timeout], check=False,
                 timeout=timeout + 30)
    line = (p.stdout.strip().splitlines() or [""])[-1]
    return dict(kv.split("=", 1) for kv in line.split() if "=" in kv)


def answers(t, cam, count, timeout=30.0):
    """cam's first `count` answers, each counted once (a camera in a NORM
    session sends every answer three times)."""
    got = []
    n = count
    while True:
        got = []
        for r in t.replies(cam, n, timeout):
            if not got or r.data != got[-1].data:
                got.append(r)
        if len(got) >= count:
            return got[:count]
        n += 1


def nodes_of(t, cams):
    """Each camera's '0' carries its node ID: the replies' Transfer fields."""
    out = []
    for cam in cams:
        r = answers(t, cam, 1)[0]
        assert r.fields().get("Ack") == "0"
        word, node = r.fields().get("Transfer", " ").split(" ", 1)
        assert word == "NORM", r.text
        out.append(int(node))
    return out


def test_file_over_norm_at_three_percent_loss_is_installed(start_camera, lan, norm_file,
                                                         tmp_path):
    cams = [start_camera(pid_list=[]) for _ in range(3)]
    rig.wait_ready(lan, cams)
    pkg = rig.zip_package({"customer/app.conf": b"level=3\n",
                           "usr/share/app/blob.bin": secrets.token_bytes(600_000)})
    src = tmp_path / "app_V2.7.zip"
    src.write_bytes(pkg)
    lan.set_loss(3)
    with Transfer(lan, cams, pkg, name=src.name, mode=1) as t:
        offer(t, cams)
        nodes = nodes_of(t, cams)
        # Each node ID is the camera's address.
        assert sorted(nodes) == sorted(int.from_bytes(bytes(map(int, c.ip.split("."))), "big")
                                       for c in cams)
        # Today's packets of the session change nothing at a NORM camera.
        t.send(rig.packet("b", t.session, b"not the file"))
        got = norm_send(lan, norm_file, src, t.session, nodes)
        assert got.get("ok") == "1", got
        for cam in cams:
            assert [r.fields().get("Ack") for r in answers(t, cam, 3)] == ["0", "5", "7"]
    lan.set_loss(0)
    for cam in cams:
        cam.wait_reboot(timeout=30)
        assert cam.read("/customer/app.conf") == b"level=3\n"
        h = hashlib.sha256(cam.read("/usr/share/app/blob.bin")).hexdigest()
        assert h == hashlib.sha256(zip_member(pkg, "usr/share/app/blob.bin")).hexdigest()


def zip_member(pkg, name):
    import io
    import zipfile
    with zipfile.ZipFile(io.BytesIO(pkg)) as z:
        return z.read(name)


def test_vanished_tool_and_oversized_file_end_in_two_and_a_reboot(start_camera, lan, norm_file,
                                                                  tmp_path):
    cam = start_camera(pid_list=[], files={"/customer/upgrade.conf": "transfer_silence=2\n"})
    rig.wait_ready(lan, [cam])
    dev_before = set(os.listdir(cam.path("/dev")))
    # The tool announces, gets its '0' and is never heard again.
    with Transfer(lan, [cam], b"x" * 4000, name="gone.zip", mode=1) as t:
        offer(t, [cam])
        assert nodes_of(t, [cam])
        r = answers(t, cam, 2)[1]
        assert (r.fields().get("Ack"), r.fields().get("Reason")) == ("2", "silence")
        # Nothing is left in /dev but the emptied scratch files, logs and the
        # daemon's own copies: not the file, not libnorm's temporary.
        scratch = {f"{k}{i}.{e}" for k, e in (("video", "mp4"), ("photo", "jpg"))
                   for i in range(1, 5)} | {"busybox", "fw_setenv"}
        left = set(os.listdir(cam.path("/dev"))) - dev_before - scratch
        assert not [n for n in left if not n.endswith(".log")], left
    cam.wait_reboot(timeout=30)

    cam.restart()
    rig.wait_ready(lan, [cam])
    big = tmp_path / "big.zip"
    big.write_bytes(os.urandom(300_000))
    with Transfer(lan, [cam], big.read_bytes(), name="big.zip", mode=1) as t:
        offer(t, [cam], size=100_000)  # less than is sent
        nodes = nodes_of(t, [cam])
        norm_send(lan, norm_file, big, t.session, nodes, timeout=10)
        r = answers(t, cam, 2)[1]
        assert (r.fields().get("Ack"), r.fields().get("Reason")) == ("2", "size")
        assert "big.zip" not in os.listdir(cam.path("/dev"))
    cam.wait_reboot(timeout=30)
