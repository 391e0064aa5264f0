"""What traffic reports told, beside what iptables rules counted at the hooks of the kernel's connection tracking."""
import collections
import re

from . import netns

# How long an ended connection stays in the table: longer than the period of the reports, or its last bytes are lost.
TIMEOUTS = ("time_wait", "close", "last_ack")
CONNECTION = re.compile(r" ConntrackStats: dump_parser  \[.* mark (\d+) net .* io (\d) ")
LEFT_OUT = re.compile(r" ConntrackStats: dump_parser: Not counting bytes net \S+ tx bytes (\d+) rx bytes (\d+)")
COUNTED = re.compile(r" ConntrackStats: dump_parser: Adding to net (\S+) tx bytes (\d+) rx bytes (\d+)")
UNIDENTIFIED = "Failed to locate user identification!"
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


def uncounted(node, failed=()):
    """Bytes of connections that ended before the daemon knew whose they were, by its log: it counts them for nobody.
    Onward connections of `failed` services are never anybody's, and aren't in the sum."""
    total, of_service, is_onward = 0, 0, False
    for line in node.log().splitlines():
        if found := CONNECTION.search(line):
            of_service, is_onward = int(found[1]) >> 8 & 0xff, found[2] == "2"
        elif (found := LEFT_OUT.search(line)) and not (is_onward and of_service in failed):
            total += int(found[1]) + int(found[2])
    return total


def of_no_client(node, network_id):
    """Bytes of that network in onward connections that were read before the daemon knew whose they were, by its log:
    no client has them."""
    total, is_onward, is_known = 0, False, True
    for line in node.log().splitlines():
        if found := CONNECTION.search(line):
            is_onward, is_known = found[2] == "2", True
        elif UNIDENTIFIED in line:
            is_known = False
        elif (found := COUNTED.search(line)) and found[1] == network_id and is_onward and not is_known:
            total += int(found[2]) + int(found[3])
    return total


# --- the links and tunnels of a middle-mile node ----------------------------------------------------------------------

def added(*figures):
    return tuple(map(sum, zip(*figures)))


def link_sums(bodies):
    """(from, to) to (packets in, bytes in, packets out, bytes out) over all reports; ends are a site's id or a type."""
    sums = collections.defaultdict(lambda: (0,) * 4)
    for body in bodies:
        for link in body.get("links", []):
            key = tuple(link[end].get("internal_id", link[end]["type"]) for end in ("src", "dst"))
            sums[key] = added(sums[key], (link["src"]["packets"], link["src"]["bytes"],
                                          link["dst"]["packets"], link["dst"]["bytes"]))
    return dict(sums)


def tunnel_sums(bodies):
    """A tunnel's ip to (packets up, bytes up, packets down, bytes down)."""
    sums = collections.defaultdict(lambda: (0,) * 4)
    for body in bodies:
        for tunnel in body.get("tunnels", []):
            sums[tunnel["ip"]] = added(sums[tunnel["ip"]], [tunnel[way][figure] for way in ("upload", "download")
                                                            for figure in ("total_packets", "total")])
    return dict(sums)


def link_truth(node, near, far, proxied=(), forwarded=(), failed=()):
    """The links from `near`, whose clients open the connections, to `far` and back, by what the kernel's rules counted
    of these services. Of `failed` ones, whose way onward isn't there, the client's connection alone counts."""
    counted = collections.defaultdict(lambda: (0, 0), node.counted())

    def total(nibble, direction, services):
        return added((0, 0), *(counted[number, nibble, direction] for number in services))

    def both_legs(direction):
        between = total(3, direction, forwarded)
        return (added(total(1, direction, [*proxied, *failed]), between),
                added(total(2, direction, proxied), between))

    (from_near, to_far), (to_near, from_far) = both_legs("ORIGINAL"), both_legs("REPLY")
    return {(near, far): from_near + to_far, (far, near): from_far + to_near}
