"""The three namespaces of a stand-in network and what joins them.

    client 198.51.100.2 --- 198.51.100.1 node 203.0.113.1 --- 203.0.113.2 target

The target's namespace has two more addresses: one for the management server, and one that takes packets and answers
none. In the node, connection tracking counts bytes, sends events from the start, and forgets ended connections
within seconds, so that nobody waits minutes for the end of a session.
"""
import contextlib
import itertools
import os

from . import netns

PREFIX = "zol"
CLIENT = "198.51.100.2"
NODE_IN = "198.51.100.1"
NODE_OUT = "203.0.113.1"
TARGET = "203.0.113.2"
SERVER = "203.0.113.3"
SILENT = "203.0.113.9"
CLIENT_DEVICE = "client0"
TARGET_DEVICE = "target0"

_numbers = itertools.count(1)

SYSCTLS = {
    "net.netfilter.nf_conntrack_acct": 1,
    "net.netfilter.nf_conntrack_events": 1,
    "net.ipv4.ip_forward": 1,
    "net.ipv6.conf.all.disable_ipv6": 1,
    "net.netfilter.nf_conntrack_tcp_timeout_time_wait": 1,
    "net.netfilter.nf_conntrack_tcp_timeout_close": 1,
    "net.netfilter.nf_conntrack_tcp_timeout_last_ack": 1,
    "net.netfilter.nf_conntrack_tcp_timeout_close_wait": 60,
    "net.netfilter.nf_conntrack_tcp_timeout_fin_wait": 60,
}


class Network:
    """Made at construction; `close` removes everything, also what a failed construction left."""

    def __init__(self):
        stem = f"{PREFIX}-{os.getpid()}-{next(_numbers)}"
        self.client, self.node, self.target = (f"{stem}-{role}" for role in ("client", "node", "target"))
        try:
            self._make()
        except BaseException:
            self.close()
            raise

    def _make(self):
        for name in (self.client, self.node, self.target):
            netns.add(name)
            netns.run("ip", "-n", name, "link", "set", "lo", "up")
        self._join(self.client, CLIENT_DEVICE, NODE_IN, [CLIENT])
        self._join(self.target, TARGET_DEVICE, NODE_OUT, [TARGET, SERVER, SILENT])
        with contextlib.suppress(RuntimeError, OSError):
            netns.run("modprobe", "nf_conntrack")  # where it is no module it is there
        values = [f"{key}={value}" for key, value in SYSCTLS.items()]
        netns.execute(self.node, "sysctl", "-q", "-w", *values)
        for name in (self.client, self.target):
            netns.execute(name, "sysctl", "-q", "-w", "net.ipv6.conf.all.disable_ipv6=1")
        netns.execute(self.target, "iptables", "-A", "INPUT", "-d", SILENT, "-j", "DROP")

    def _join(self, namespace, device, node_address, addresses):
        """A pair of devices: `device` in the node, eth0 at the other end, with a default route back."""
        netns.run("ip", "link", "add", device, "netns", self.node, "type", "veth", "peer", "name", "eth0", "netns",
                  namespace)
        netns.run("ip", "-n", self.node, "addr", "add", f"{node_address}/24", "dev", device)
        netns.run("ip", "-n", self.node, "link", "set", device, "up")
        for address in addresses:
            netns.run("ip", "-n", namespace, "addr", "add", f"{address}/24", "dev", "eth0")
        netns.run("ip", "-n", namespace, "link", "set", "eth0", "up")
        netns.run("ip", "-n", namespace, "route", "add", "default", "via", node_address)

    def set_rules(self, table):
        """`table` as iptables-restore reads it; it replaces that table."""
        netns.execute(self.node, "iptables-restore", data=table)

    def device_counters(self, namespace, device="eth0"):
        """Bytes and packets of a device since it was made: what was really on the wire, link headers included."""
        base = f"/sys/class/net/{device}/statistics/"
        names = ("rx_bytes", "rx_packets", "tx_bytes", "tx_packets")
        values = netns.execute(namespace, "cat", *(base + name for name in names)).split()
        return dict(zip(names, map(int, values)))

    def close(self):
        for name in (self.client, self.node, self.target):
            netns.delete(name)
