"""Camera sandbox: the LAN the cameras hang off (a network namespace with a
bridge), multicast listeners, replies, the DHCP server and the loss of a bad
site (an nftables bridge table in the LAN namespace)."""

from __future__ import annotations

import contextlib
import dataclasses
import itertools
import os
import re
import select
import socket
import subprocess
import time

from rigbase import NETNS_PREFIX, SEARCH_GROUP, TCP_PORT, TOOL_PATH, in_netns, run

def search_datagram(client_id="0123456789abcdef0123456789abcdef", extra=b""):
    """A "SEARCH * " request whose bytes 28..59 hold the 32-character client ID."""
    cid = client_id.encode() if isinstance(client_id, str) else client_id
    assert len(cid) == 32, "a client ID has 32 characters"
    head = b"SEARCH * \r\nSEQ=1\r\nClient ID:"
    assert len(head) == 28
    return head + cid + extra


LOSS_TABLE = "camlab_loss"


def loss_ruleset(percent, burst_ms=0):
    """nftables commands that give every camera's port of the LAN bridge
    independent random loss: each IPv4 packet the bridge hands to a camera's
    port (from the tool or another camera) or takes from one for the tool is
    lost with `percent` % probability, the copies of one multicast datagram
    to different ports independently. `ip daddr`-level matching (not `udp`)
    so that every fragment of a large datagram counts. With `burst_ms`, a
    loss starts an outage of that port: everything to and from it is lost for
    `burst_ms` ms. 0 % takes the table away."""
    if not 0 <= percent <= 100:
        raise ValueError(f"loss {percent} % is not between 0 and 100")
    if burst_ms < 0:
        raise ValueError(f"burst {burst_ms} ms is negative")
    # Replacing is "add, flush, delete, then build": works whether or not
    # the table exists.
    lines = [f"add table bridge {LOSS_TABLE}", f"delete table bridge {LOSS_TABLE}"]
    if percent == 0:
        return "\n".join(lines) + "\n"
    parts = round(percent * 10000)  # per million
    chance = "" if parts >= 1000000 else f"numgen random mod 1000000 < {parts}"
    lines.append(f"add table bridge {LOSS_TABLE}")
    if burst_ms:
        lines.append(f"add set bridge {LOSS_TABLE} outage {{ type ifname; flags dynamic,timeout; "
                     f"timeout {int(burst_ms)}ms; }}")
    # Chain names: not nft keywords ("fwd" is one).
    for chain, hook, ports in (("to_port", "output", ("oifname",)),
                               ("between_ports", "forward", ("oifname", "iifname")),
                               ("from_port", "input", ("iifname",))):
        lines.append(f"add chain bridge {LOSS_TABLE} {chain} {{ type filter hook {hook} "
                     f"priority 0; policy accept; }}")
        rule = f"add rule bridge {LOSS_TABLE} {chain} meta protocol ip"
        if burst_ms:
            for port in ports:
                lines.append(f"{rule} {port} @outage counter drop")
            lines.append(f"{rule} {chance} add @outage {{ {ports[0]} }} counter drop")
        else:
            lines.append(f"{rule} {chance} counter drop")
    return "\n".join(lines) + "\n"


def set_loss(netns, percent, burst_ms=0):
    """Applies loss_ruleset() in the network namespace `netns` (a name)."""
    run(["ip", "netns", "exec", netns, "nft", "-f", "-"], input=loss_ruleset(percent, burst_ms))


def lost_packets(netns):
    """Packets the loss table of `netns` dropped so far (0 without one)."""
    p = run(["ip", "netns", "exec", netns, "nft", "list", "table", "bridge", LOSS_TABLE],
            check=False)
    return sum(int(n) for n in re.findall(r"counter packets (\d+)", p.stdout or ""))


@dataclasses.dataclass
class Reply:
    data: bytes
    src: tuple
    at: float  # monotonic time of arrival

    @property
    def text(self):
        return self.data.decode(errors="replace")

    def fields(self):
        """The reply's "\\r\\n"-separated fields after the keyword, as a dict
        (Key:value and KEY=value both accepted)."""
        out = {}
        for part in self.text.split("\r\n")[1:]:
            m = re.match(r"([^:=]+)[:=](.*)", part, re.S)
            if m:
                out[m.group(1)] = m.group(2)
        return out


class Listener:
    """A socket in the LAN namespace that has joined a multicast group."""

    def __init__(self, lan, group, port):
        self.lan, self.group, self.port = lan, group, port
        self.sock = lan.socket(socket.SOCK_DGRAM)
        s = self.sock
        s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        s.bind((group, port))
        mreq = socket.inet_aton(group) + socket.inet_aton(lan.ip)
        s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, mreq)
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(lan.ip))
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
        s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 1)
        self.replies = []

    def send(self, data):
        """Sends one datagram to the group from the group's port."""
        self.sock.sendto(data, (self.group, self.port))

    def collect(self, timeout=1.0, count=None, match=None, from_ip=None):
        """Receives datagrams until the timeout, or until `count` of them have
        been collected. `match` (bytes prefix or callable on a Reply) and
        `from_ip` (sender address) filter. Returns the replies collected by
        this call. Every listener on a group hears every camera's replies,
        also late answers to earlier requests: filter what a test expects."""
        got = []
        deadline = time.monotonic() + timeout
        while count is None or len(got) < count:
            left = deadline - time.monotonic()
            if left <= 0:
                break
            ready, _, _ = select.select([self.sock], [], [], left)
            if not ready:
                continue
            data, src = self.sock.recvfrom(65536)
            r = Reply(data, src, time.monotonic())
            if from_ip is not None and src[0] != from_ip:
                continue
            if match is not None:
                ok = match(r) if callable(match) else data.startswith(match)
                if not ok:
                    continue
            got.append(r)
            self.replies.append(r)
        return got

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


class Lan:
    """A network namespace with a bridge br0 (the tool's side, x.x.x.1/24)."""

    def __init__(self, session, subnet="192.168.77"):
        self.session = session
        self.name = f"{NETNS_PREFIX}{session.owner}-{session.next_id()}"
        self.subnet = subnet
        self.ip = f"{subnet}.1"
        self.ns_path = f"/run/netns/{self.name}"
        self.cameras = []
        self._sockets = []
        self._dhcpd = None
        self._next_host = itertools.count(10)
        self._next_if = itertools.count(1)
        self.up = False

    def start(self):
        run(["ip", "netns", "add", self.name])
        self.up = True
        cmds = [
            "link set lo up",
            "link add br0 type bridge",
            "link set br0 type bridge mcast_snooping 0",
            f"addr add {self.ip}/24 brd + dev br0",
            "link set br0 up",
            "route add 224.0.0.0/4 dev br0",
        ]
        run(["ip", "-n", self.name, "-batch", "-"], input="\n".join(cmds) + "\n")
        return self

    def stop(self):
        for cam in list(self.cameras):
            cam.stop()
        for s in self._sockets:
            with contextlib.suppress(OSError):
                s.close()
        self._sockets.clear()
        self.stop_dhcp_server()
        if self.up:
            run(["ip", "netns", "delete", self.name], check=False)
            self.up = False

    def set_loss(self, percent, burst_ms=0):
        """Independent random loss on every camera's port, `percent` % per
        packet and direction (see loss_ruleset; 0 switches it off). Cameras
        that join later are covered too."""
        set_loss(self.name, percent, burst_ms)

    def lost_packets(self):
        """Packets the loss switch dropped so far."""
        return lost_packets(self.name)

    def new_host_address(self):
        return f"{self.subnet}.{next(self._next_host)}"

    def new_if_index(self):
        return next(self._next_if)

    # -- sockets in the LAN

    def socket(self, kind=socket.SOCK_DGRAM, family=socket.AF_INET):
        s = in_netns(self.ns_path, lambda: socket.socket(family, kind))
        self._sockets.append(s)
        return s

    def listen(self, group=SEARCH_GROUP[0], port=SEARCH_GROUP[1]):
        """A Listener joined to the group; use as a context manager."""
        return Listener(self, group, port)

    def send(self, data, group=SEARCH_GROUP[0], port=SEARCH_GROUP[1]):
        with self.listen(group, port) as lst:
            lst.send(data)

    def request(self, data, group=SEARCH_GROUP[0], port=SEARCH_GROUP[1], timeout=1.5,
                count=None, match=None, resend=None, from_ip=None):
        """Sends data to the group and collects what arrives on it until the
        timeout (or `count` replies). With `resend` (seconds) the datagram is
        sent again at that interval while too few replies have come; only for
        idempotent requests. When resending, `count` counts distinct senders:
        a camera that answers every resend still counts once."""
        with self.listen(group, port) as lst:
            got = []
            deadline = time.monotonic() + timeout

            def enough():
                if count is None:
                    return False
                heard = len({r.src for r in got}) if resend else len(got)
                return heard >= count

            while True:
                lst.send(data)
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                need = None if count is None or resend else count - len(got)
                window = min(left, resend) if resend else left
                end = time.monotonic() + window
                while not enough() and time.monotonic() < end:
                    got += lst.collect(end - time.monotonic(), 1 if resend else need, match,
                                       from_ip)
                    if not resend:
                        break
                if enough():
                    break
                if not resend or time.monotonic() >= deadline:
                    break
            return got

    def search(self, client_id="0123456789abcdef0123456789abcdef", timeout=2.0, count=None,
               resend=0.5, from_ip=None):
        """Sends "SEARCH * " to 239.255.255.251:8005 and returns the replies
        ("REPLY OK " datagrams), resending until `count` of them came (from
        `from_ip` only, when given)."""
        return self.request(search_datagram(client_id), *SEARCH_GROUP, timeout=timeout,
                            count=count, match=b"REPLY OK ", resend=resend, from_ip=from_ip)

    def connect(self, ip, port=TCP_PORT, timeout=5.0):
        """A TCP connection from the LAN to ip:port, retried until the timeout."""
        deadline = time.monotonic() + timeout
        while True:
            s = self.socket(socket.SOCK_STREAM)
            s.settimeout(max(0.1, min(1.0, deadline - time.monotonic())))
            try:
                s.connect((ip, port))
                s.settimeout(None)
                return s
            except OSError:
                s.close()
                if time.monotonic() >= deadline:
                    raise
                time.sleep(0.05)

    def exec(self, argv, **kw):
        """Runs a host command inside the LAN namespace."""
        return run(["ip", "netns", "exec", self.name, *argv], **kw)

    # -- DHCP

    def start_dhcp_server(self, first=100, last=150, lease=3600):
        """busybox udhcpd on br0, handing out subnet.first..subnet.last."""
        d = self.session.workdir / f"{self.name}-udhcpd"
        d.mkdir(exist_ok=True)
        (d / "leases").write_bytes(b"")
        conf = d / "udhcpd.conf"
        conf.write_text(
            f"start {self.subnet}.{first}\nend {self.subnet}.{last}\ninterface br0\n"
            f"lease_file {d}/leases\npidfile {d}/udhcpd.pid\n"
            f"opt subnet 255.255.255.0\nopt router {self.ip}\nopt dns {self.ip}\n"
            f"opt lease {lease}\n")
        server = ["/usr/sbin/udhcpd"] if os.path.exists("/usr/sbin/udhcpd") else \
            ["/bin/busybox", "udhcpd"]
        self._dhcpd = subprocess.Popen(
            ["ip", "netns", "exec", self.name, *server, "-f", "-a", "100", str(conf)],
            stdin=subprocess.DEVNULL, stdout=open(d / "udhcpd.log", "wb"),
            stderr=subprocess.STDOUT, start_new_session=True,
            env={"PATH": TOOL_PATH})
        return self._dhcpd

    def stop_dhcp_server(self):
        p, self._dhcpd = self._dhcpd, None
        if p and p.poll() is None:
            p.kill()
            p.wait(5)
