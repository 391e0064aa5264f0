"""The node's firewall rules, which write what the monitoring daemon reads: the connection mark.

Bits 8 to 15 hold the service id, bits 4 to 7 the In/Out nibble: 1 for a connection that arrives from a client or
a previous hop, 2 for one that the proxy opens onward. Its bit 3, which says that the kernel's original direction
runs against the session's, stays clear: the client opens the In leg and the proxy the Out leg. Bits 24, 25 and 26
are added by real segments: a FIN that this node received, an RST that it received, an RST that it sent.

Behind them stand rules that only count: the bytes and packets of each service, nibble and direction, at the hooks at
which the kernel's connection tracking counts them. They are the independent truth beside the daemon's figures.

An In leg is known by the port that it came in on. An Out leg is known by the packet mark that the proxy gives its
sockets, service id << 8, since two services may share a target.
"""
import re

IN_LEG = 0x10
OUT_LEG = 0x20
FIN_RECEIVED = 0x1000000
RST_RECEIVED = 0x2000000
RST_SENT = 0x4000000
DIRECTIONS = ("ORIGINAL", "REPLY")
COUNTED = re.compile(r"\[(\d+):(\d+)\] -A .* --comment counted-(\d+)-(\d+)-(\w+)")


def mangle(services, client_device, extra=()):
    """The mangle table as iptables-restore reads it; `extra` rules stand before those that count."""
    lines = ["*mangle"]
    new = "-m conntrack --ctstate NEW"
    for service in services:
        number = service["service_id"] << 8
        for port in sorted({service["external_port_in"], service["internal_port"]} - {0}):
            lines.append(f"-A PREROUTING -i {client_device} -p tcp --dport {port} {new} "
                         f"-j CONNMARK --set-xmark {number | IN_LEG:#x}/0xffff")
        lines.append(f"-A OUTPUT -p tcp -m mark --mark {number:#x}/0xff00 {new} "
                     f"-j CONNMARK --set-xmark {number | OUT_LEG:#x}/0xffff")
    marked = "-m connmark ! --mark 0x0/0xff00"
    for chain, flag, bit in (("PREROUTING", "FIN", FIN_RECEIVED), ("PREROUTING", "RST", RST_RECEIVED),
                             ("POSTROUTING", "RST", RST_SENT)):
        lines.append(f"-A {chain} -p tcp --tcp-flags {flag} {flag} {marked} "
                     f"-j CONNMARK --set-xmark {bit:#x}/{bit:#x}")
    return "\n".join([*lines, *extra, *counting(services), "COMMIT", ""])


def counting(services):
    """Rules without a target, one for each service, nibble and direction of the kernel's own."""
    lines = []
    for service in services:
        for nibble in (1, 2, 3, 9, 10):
            mark = service["service_id"] << 8 | nibble << 4
            for chain in ("PREROUTING", "OUTPUT"):
                for direction in DIRECTIONS:
                    lines.append(f"-A {chain} -m connmark --mark {mark:#x}/0xfff0 -m conntrack --ctdir {direction} "
                                 f"-m comment --comment counted-{service['service_id']}-{nibble}-{direction}")
    return lines


def counted(saved):
    """Of what `iptables-save -c` printed: (service, nibble, direction) to (packets, bytes)."""
    sums = {}
    for packets, size, service, nibble, direction in COUNTED.findall(saved):
        key = int(service), int(nibble), direction
        before = sums.get(key, (0, 0))
        sums[key] = before[0] + int(packets), before[1] + int(size)
    return sums
