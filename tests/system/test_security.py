"""Keyed cameras on the LAN: a site key made by the release signer, packages
signed by it or by camtool, and what a keyed camera refuses.

camtool runs inside the LAN namespace (never on the host's network).
"""

import base64
import ctypes
import json
import os
import shutil
import subprocess
import time

import pytest

import camera as rig
from power import PowerOn
from test_camtool import camtool, camtool_bin  # noqa: F401  (fixtures)

NO_FLAG = {"/customer/upgrade_finish_flag": None}

pytestmark = pytest.mark.skipif(shutil.which("minisign") is None, reason="needs minisign")


def json_lines(text):
    return [json.loads(line) for line in text.splitlines() if line.strip()]


@pytest.fixture
def site_key(tmp_path):
    """A key pair made by the release signer: (public key text, secret key path)."""
    pub, sec = tmp_path / "site.pub", tmp_path / "site.key"
    subprocess.run(["minisign", "-G", "-W", "-p", pub, "-s", sec], check=True,
                   capture_output=True)
    return pub.read_text(), sec


def test_keyed_camera_installs_only_what_the_site_key_signed(start_camera, camtool, tmp_path,
                                                             site_key):
    pub, sec = site_key
    keyed = start_camera(files={**NO_FLAG, "/customer/keys/site.pub": pub})
    plain = start_camera(files=NO_FLAG)
    payload = os.urandom(200_000)
    fw = tmp_path / "app_V2.6.0.zip"
    fw.write_bytes(rig.zip_package({"customer/version_file": "V2.6.0",
                                    "customer/payload.bin": payload}))

    # Unsigned: '6' and a reboot, nothing unpacked, and no second round.
    with PowerOn([keyed]) as power:
        p = camtool("upgrade", fw, "--mode", 1, "--to", keyed.device_id, "--json", timeout=300)
    assert not power.failures, power.failures
    assert p.returncode == 1, p.stdout + p.stderr
    j = json_lines(p.stdout)[0]
    assert j["acks"] == ["06"] and j["outcome"].startswith("signature refused"), p.stdout
    assert not keyed.exists("/customer/payload.bin")
    assert keyed.boots == 2

    # Signed by the release signer: the keyed camera and one without keys,
    # in one stream.
    subprocess.run(["minisign", "-S", "-W", "-s", sec, "-m", fw], check=True,
                   capture_output=True)
    with PowerOn([keyed, plain]) as power:
        p = camtool("upgrade", fw, "--mode", 1, "--to", f"{keyed.device_id},{plain.device_id}",
                    "--signature", f"{fw}.minisig", "--json", timeout=300)
    assert not power.failures, power.failures
    assert p.returncode == 0, p.stdout + p.stderr
    for cam in (keyed, plain):
        assert cam.read("/customer/payload.bin") == payload
        assert cam.read_text("/customer/version_file").strip() == "V2.6.0"


def test_keys_reach_a_camera_and_unsigned_changes_stop(start_camera, camtool, tmp_path):
    cam = start_camera(files={"/customer/upgrade.conf": "partner=1\n"})
    cam.wait_line("init search_mira succeed")
    for name in ("old", "new"):
        p = camtool("key", "new", tmp_path / name, "--no-passphrase")
        assert p.returncode == 0, p.stderr
    key_id = {n: (tmp_path / f"{n}.pub").read_text().split()[-2] for n in ("old", "new")}

    # The first key needs no signature; after it, only a key holder changes keys.
    p = camtool("key", "install", cam.device_id, tmp_path / "old.pub")
    assert p.returncode == 0 and "installed" in p.stdout, p.stdout + p.stderr
    p = camtool("key", "install", cam.ip, tmp_path / "new.pub")
    assert p.returncode == 2 and "--key" in p.stderr, p.stdout + p.stderr
    p = camtool("key", "install", cam.ip, tmp_path / "new.pub", "--key", tmp_path / "new.key")
    assert p.returncode == 1 and "refused" in p.stdout, p.stdout + p.stderr
    p = camtool("key", "install", cam.ip, tmp_path / "new.pub", "--key", tmp_path / "old.key")
    assert p.returncode == 0, p.stdout + p.stderr
    p = camtool("key", "remove", cam.ip, key_id["old"], "--key", tmp_path / "new.key")
    assert p.returncode == 0, p.stdout + p.stderr
    assert sorted(os.listdir(cam.path("/customer/keys"))) == [f"{key_id['new']}.pub"]

    # The partner's frames carry no signature: a set changes nothing.
    before = cam.read_text("/data/net.conf")
    p = camtool("partner", "set", cam.device_id, "--dhcp", "on", "--timeout", 2)
    assert p.returncode == 1, p.stdout + p.stderr
    assert cam.running and cam.read_text("/data/net.conf") == before
    cam.wait_line("partner network set refused")


def wait_boots(cam, n, timeout=60):
    """Waits until the camera has booted `n` times and serves again."""
    end = time.monotonic() + timeout
    while not (cam.boots >= n and cam.running):
        assert time.monotonic() < end, f"{cam.name} did not boot {n} times"
        time.sleep(0.2)
    cam.wait_line("init socket succeed", timeout=30)


def signed_command(key_file, command, challenge):
    """The command signed as a keyed camera checks it, written here from the
    key file's layout and libsodium alone (not by camtool)."""
    blob = base64.b64decode(key_file.read_text().splitlines()[1])
    key_id, secret = blob[54:62], blob[62:126]
    sodium = ctypes.CDLL("libsodium.so.23")
    assert sodium.sodium_init() >= 0
    msg = f"{command}\r\nChallenge:{challenge}".encode()
    sig = ctypes.create_string_buffer(64)
    sodium.crypto_sign_detached(sig, None, msg, ctypes.c_ulonglong(len(msg)), secret)
    return f"{command}\r\nSig:{base64.b64encode(b'Ed' + key_id + sig.raw).decode()}".encode()


def test_signed_commands_are_taken_once(start_camera, lan, camtool, tmp_path):
    camtool("key", "new", tmp_path / "site", "--no-passphrase")
    cam = start_camera(files={"/customer/keys/site.pub": (tmp_path / "site.pub").read_text()})
    challenge = lan.search(count=1)[0].fields()["CHALLENGE"]
    assert len(challenge) == 32

    p = camtool("confignet", cam.ip, "--dns", "9.9.9.9")
    assert p.returncode == 2 and "--key" in p.stderr, p.stdout + p.stderr
    command = (f"CONFIGNET\r\nDevice ID:{cam.device_id}\r\nClient ID:{'c' * 32}"
               f"\ndhcp=0\nipaddr={cam.ip}\nnetmask=255.255.255.0\nfdns=1.1.1.1")
    unsigned = lan.request(command.encode(), match=b"SUCCEED", timeout=2)
    assert not unsigned and "8.8.8.8" in cam.read_text("/etc/resolv.conf")
    with PowerOn([cam]) as power:
        signed = signed_command(tmp_path / "site.key", command, challenge)
        assert lan.request(signed, match=b"SUCCEED", timeout=3)
        wait_boots(cam, 2)
        assert "1.1.1.1" in cam.read_text("/etc/resolv.conf")
        # The same bytes again: the challenge they were signed over is gone.
        # (Sent once, so only after the listener has joined its group again.)
        cam.write("/etc/resolv.conf", "nameserver 8.8.8.8\n")
        assert lan.search(count=1, from_ip=cam.ip, timeout=10)
        assert not lan.request(signed, match=b"SUCCEED", timeout=2)
        cam.wait_line("command refused")
        assert "8.8.8.8" in cam.read_text("/etc/resolv.conf")
        # camtool signs with the new challenge.
        p = camtool("confignet", cam.ip, "--dns", "9.9.9.9", "--key", tmp_path / "site.key")
        assert p.returncode == 0 and "accepted" in p.stdout, p.stdout + p.stderr
        wait_boots(cam, 3)
    assert not power.failures, power.failures
