"""The kernel's connection table, as `conntrack` prints it."""
import dataclasses
import re
import subprocess

from . import netns


@dataclasses.dataclass
class Connection:
    protocol: str
    state: str
    source: str
    source_port: int
    destination: str
    destination_port: int
    mark: int

    @property
    def service_id(self):
        return self.mark >> 8 & 0xFF

    @property
    def nibble(self):
        return self.mark >> 4 & 0xF


LINE = re.compile(r"(?P<protocol>\w+)\s+\d+\s+\d+\s+(?P<state>[A-Z_0-9]+ )?\s*src=(?P<source>\S+) "
                  r"dst=(?P<destination>\S+) sport=(?P<sport>\d+) dport=(?P<dport>\d+)")


def parse(text):
    connections = []
    for line in text.splitlines():
        found = LINE.match(line.strip())
        if found is None:
            continue
        mark = re.search(r"\bmark=(\d+)", line)
        state = (found["state"] or "").strip()
        connections.append(Connection(found["protocol"], state, found["source"], int(found["sport"]),
                                      found["destination"], int(found["dport"]), int(mark[1]) if mark else 0))
    return connections


LIST = ("conntrack", "-L", "-p", "tcp")


def connections(namespace):
    """The TCP entries."""
    return parse(netns.execute(namespace, *LIST))


def sweep(namespace):
    """Reading the table makes the kernel let go of those whose time is over."""
    subprocess.run(["ip", "netns", "exec", namespace, *LIST], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                   check=False)
