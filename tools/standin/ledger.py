"""What traffic reports told, beside what iptables rules counted at the hooks of the kernel's connection tracking."""
import collections

from . import netns

# How long an ended connection stays in the table: longer than the period of the reports, or its last bytes are lost.
TIMEOUTS = ("time_wait", "close", "last_ack")
STREAMS = [(stream, way) for stream in ("client-to-server", "server-to-client") for way in ("incoming", "outgoing")]


def lengthen_timeouts(node, seconds=60):
    netns.execute(node.network.node, "sysctl", "-q", "-w",
                  *(f"net.netfilter.nf_conntrack_tcp_timeout_{state}={seconds}" for state in TIMEOUTS))


def reports(node):
    return [record["body"] for record in node.requests("/zolTrafficReport") if record["verified"]]


def entries(node, network_id):
    return [entry for body in reports(node) for entry in body["logical-networks"]
            if entry["logical-network-id"] == network_id]


def moved(objects):
    """The sums of `traffic` of some objects: (stream, way) to (packets, bytes)."""
    sums = {}
    for stream, way in STREAMS:
        parts = [entry["traffic"][stream] for entry in objects if "traffic" in entry]
        sums[stream, way] = (sum(part[f"{way}-packets"] for part in parts), sum(part[f"{way}-bytes"] for part in parts))
    return sums


def truth(node, number):
    """The same from the kernel's rules. A forwarded connection shows its answer as what the client sent."""
    counted = collections.defaultdict(lambda: (0, 0), node.counted())

    def total(*keys):
        found = [counted[(number, *key)] for key in keys]
        return tuple(map(sum, zip(*found)))

    return {
        ("client-to-server", "incoming"): total((1, "ORIGINAL"), (10, "REPLY"), (3, "REPLY")),
        ("client-to-server", "outgoing"): total((2, "ORIGINAL"), (9, "REPLY"), (3, "REPLY")),
        ("server-to-client", "incoming"): total((2, "REPLY"), (9, "ORIGINAL"), (3, "ORIGINAL")),
        ("server-to-client", "outgoing"): total((1, "REPLY"), (10, "ORIGINAL"), (3, "ORIGINAL")),
    }


def differences(node, numbers, uncounted=()):
    """What the reports' sums of those networks have too much or too little: empty when every byte is there once."""
    wrong = {}
    for number in numbers:
        told = moved(entries(node, f"network-{number}"))
        for key, kernels in truth(node, number).items():
            packets, size = (0, 0) if (number, *key) in uncounted else kernels
            if told[key] != (packets, size):
                wrong[number, *key] = f"{told[key][0] - packets:+} packets, {told[key][1] - size:+} bytes"
    return wrong
