"""bench/norm_file on a namespace LAN (root): the file arrives whole at every
receiver and is acknowledged, lost packets are repaired by NORM, and a
receiver refuses what it must not store and gives up on a silent sender
without leaving a partial file.

    NORM_FILE=build/host-release/bench/norm_file python3 -m pytest tests/bench -q
"""

import hashlib
import os
import shutil
import sys
import time
from pathlib import Path

import pytest

TOP = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "bench"))

import lossy_norm  # noqa: E402

RECEIVERS = 3


def keyvals(text):
    lines = text.strip().splitlines()
    return lossy_norm.keyvals(lines[-1]) if lines else {}


@pytest.fixture(scope="module")
def norm_file():
    if os.geteuid() != 0:
        pytest.skip("network namespaces need root")
    if not shutil.which("nft"):
        pytest.skip("nftables is not installed")
    env = os.environ.get("NORM_FILE")
    found = [Path(env)] if env else sorted((TOP / "build").glob("*/bench/norm_file"),
                                            key=lambda p: p.stat().st_mtime)
    if not found or not found[-1].is_file():
        pytest.skip("no norm_file build (host-release preset with libnorm-dev)")
    return found[-1]


@pytest.fixture(scope="module")
def lan(norm_file):
    net = lossy_norm.Lan(RECEIVERS)
    try:
        net.start()
        yield net
    finally:
        net.close()
        assert not [n for n in lossy_norm.run("ip", "netns", "list").stdout.split()
                    if n.startswith(net.prefix)]


@pytest.fixture
def site(lan, norm_file, tmp_path):
    """A file to send, one directory per receiver, and helpers to start both
    ends; loss is off unless a test sets it."""
    lan.set_loss(0)

    class Site:
        src = tmp_path / "site.pkg"
        dirs = []

        def recv(self, i, name="site.pkg", size=None, *extra):
            d = tmp_path / f"r{i}"
            d.mkdir(exist_ok=True)
            self.dirs.append(d)
            return lan.spawn(lan.rx[i - 1], [
                norm_file, "recv", "--iface", "eth0", "--addr", lossy_norm.GROUP,
                "--port", lossy_norm.PORT, "--dir", d, "--name", name,
                "--size", self.src.stat().st_size if size is None else size, "--id", i,
                "--silence", 5, "--linger", 1, *extra])

        def send(self, acks, *extra):
            return lan.spawn(lan.lan, [
                norm_file, "send", "--iface", "br0", "--addr", lossy_norm.GROUP,
                "--port", lossy_norm.PORT, "--file", self.src, "--name", "site.pkg",
                "--rate", 20e6, "--acks", acks, "--timeout", 30, *extra])

        def finish(self, p, timeout=40):
            lan.wait(p, timeout)
            out, _ = lan.stop(p)
            return p.returncode, keyvals(out)

    s = Site()
    s.src.write_bytes(os.urandom(512 * 1024 + 777))  # not a whole number of segments
    return s


def digest(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


class TestDelivery:
    def test_every_receiver_has_the_file_and_acknowledged_it(self, site):
        recvs = [site.recv(i) for i in range(1, RECEIVERS + 1)]
        time.sleep(0.3)
        rc, s = site.finish(site.send(f"1-{RECEIVERS}"))
        assert (rc, s["ok"], s["acked"], s["missing"]) == (0, "1", f"{RECEIVERS}/{RECEIVERS}", "-")
        for p, d in zip(recvs, site.dirs):
            rc, r = site.finish(p)
            assert (rc, r["outcome"], r["info"]) == (0, "complete", "site.pkg")
            assert sorted(f.name for f in d.iterdir()) == ["site.pkg"]  # no temporary left
            assert digest(d / "site.pkg") == digest(site.src)

    def test_lost_packets_are_repaired_by_parity_and_nacks(self, site, lan):
        lan.set_loss(50)  # 5 % per port
        recvs = [site.recv(i) for i in range(1, RECEIVERS + 1)]
        time.sleep(0.3)
        rc, s = site.finish(site.send(f"1-{RECEIVERS}"))
        c = lan.counters()
        assert (rc, s["acked"]) == (0, f"{RECEIVERS}/{RECEIVERS}")
        assert c["dropped"][0] > 0 and c["rx_nack"][0] > 0
        segments = -(-site.src.stat().st_size // lossy_norm.SEGMENT)
        assert c["tx_data"][0] > segments  # repairs went out beyond the file's own segments
        for p, d in zip(recvs, site.dirs):
            assert site.finish(p)[1]["outcome"] == "complete"
            assert digest(d / "site.pkg") == digest(site.src)

    def test_segments_fit_the_lan_without_ip_fragments(self, site, lan):
        recv = site.recv(1)
        time.sleep(0.3)
        assert site.finish(site.send("1"))[1]["ok"] == "1"
        site.finish(recv)
        c = lan.counters()
        assert c["tx_data"][0] > 0 and c["tx_frag"][0] == 0
        assert c["tx_data"][1] / c["tx_data"][0] <= 1500


class TestReceiverRefuses:
    def test_an_object_larger_than_announced_is_not_stored(self, site):
        recv = site.recv(1, "site.pkg", site.src.stat().st_size - 1)
        time.sleep(0.3)
        snd = site.send("1", "--robust", 5, "--ack-rounds", 1)
        rc, r = site.finish(recv)
        assert (rc, r["outcome"], r["stored"]) == (1, "too_large", "-1")
        assert int(r["refused_size"]) == site.src.stat().st_size
        assert list(site.dirs[0].iterdir()) == []  # neither the file nor a temporary
        rc, s = site.finish(snd)
        assert (rc, s["ok"], s["missing"]) == (1, "0", "1")

    @pytest.mark.parametrize("name", ["../site.pkg", "a/b", "..", ".", "bad\nname", ""])
    def test_a_name_that_is_not_plain_is_refused_before_anything_is_received(self, site, name):
        recv = site.recv(1, name)
        rc, r = site.finish(recv, timeout=5)
        assert rc == 2 and r == {}
        assert list(site.dirs[0].iterdir()) == []


class TestReceiverGivesUp:
    def test_no_sender_ends_after_the_silence(self, site):
        t0 = time.monotonic()
        rc, r = site.finish(site.recv(1, "site.pkg", None, "--silence", 1))
        assert (rc, r["outcome"], r["stored"]) == (1, "silence", "-1")
        assert time.monotonic() - t0 < 4

    def test_a_sender_that_vanishes_leaves_no_partial_file(self, site, lan):
        site.src.write_bytes(os.urandom(2 << 20))
        recv = site.recv(1, "site.pkg", None, "--silence", 1.5)
        time.sleep(0.3)
        snd = site.send("1", "--rate", 2e6)  # 2 MiB at 2 Mbit/s: 8 s
        time.sleep(1.5)
        lan.stop(snd)
        rc, r = site.finish(recv)
        assert (rc, r["outcome"], r["stored"]) == (1, "silence", "-1")
        assert list(site.dirs[0].iterdir()) == []


class TestAcknowledgement:
    def test_a_listed_receiver_that_never_answers_is_reported_missing(self, site):
        recvs = [site.recv(i) for i in (1, 2)]
        time.sleep(0.3)
        rc, s = site.finish(site.send("1-3", "--robust", 5, "--ack-rounds", 2))
        assert (rc, s["ok"], s["acked"], s["missing"], s["ack_rounds"]) == (1, "0", "2/3", "3", "2")
        for p in recvs:
            assert site.finish(p)[1]["outcome"] == "complete"

    def test_without_acknowledgements_the_sender_ends_after_a_quiet_flush(self, site):
        recv = site.recv(1)
        time.sleep(0.3)
        rc, s = site.finish(site.send("none", "--robust", 5))
        assert (rc, s["ok"], s["acked"]) == (0, "1", "0/0")
        assert site.finish(recv)[1]["outcome"] == "complete"
        assert digest(site.dirs[0] / "site.pkg") == digest(site.src)


class TestOptions:
    @pytest.mark.parametrize("extra", [
        ["--acks", "0"], ["--acks", "3-1"], ["--acks", "1-x"],
        ["--auto-parity", "40", "--parity", "32"], ["--block", "240", "--parity", "32"],
        ["--rate", "fast"], ["--file", "/nonexistent"], ["--probe", "loud"], ["stray"]])
    def test_a_bad_sender_option_ends_before_anything_is_sent(self, site, lan, extra):
        rc, s = site.finish(site.send("1", *extra), timeout=5)
        assert (rc, s) == (2, {})
        assert lan.counters()["tx_all"][0] == 0

    @pytest.mark.parametrize("extra", [["--size", "-1"], ["--id", "0"], ["--silence", "soon"]])
    def test_a_bad_receiver_option_ends_at_once(self, site, extra):
        rc, r = site.finish(site.recv(1, "site.pkg", None, *extra), timeout=5)
        assert (rc, r) == (2, {})
        assert list(site.dirs[0].iterdir()) == []


class TestLossyLan:
    def test_loss_is_per_port_at_the_configured_rate_and_only_when_asked(self, site, lan):
        for per_mille, low, high in ((0, 0, 0), (100, 0.07, 0.13)):
            lan.set_loss(per_mille)
            rc, _ = site.finish(site.send("none", "--robust", 3))
            c = lan.counters()
            copies = c["tx_data"][0] * RECEIVERS  # one copy of each packet per port
            assert rc == 0 and low <= c["dropped"][0] / copies <= high
