"""An emulated link between two namespaces, and what is true of the pings that went over it.

    with Link(node, folder, ["10.99.0.10"]) as link:
        link.set("10.99.0.10", "forth", delay_us=5000)
        ...
        for ping in link.pings("10.99.0.10", size=68): ping.latency_us

The left end is in the node, the right one in the target's namespace, where the kernel answers for each address.
"""
import dataclasses
import itertools
import json
import subprocess

from . import netns
from .processes import Process
from .wait import run_and_expect

LEFT = "10.99.0.1"
PREFIX = 16
LEFT_DEVICE = "link0"
RIGHT_DEVICE = "link1"
IP_HEADER = 20
ECHO_REQUEST, ECHO_REPLY = 8, 0
TYPE_BYTE, CODE_BYTE, CHECKSUM_BYTES, ID_BYTES, SEQ_BYTES = 20, 21, (22, 23), (24, 25), (26, 27)


def byte_of(copy):
    """The spoilt byte of a copy, or None."""
    return None if copy["corrupt_bit"] < 0 else copy["corrupt_bit"] // 8


@dataclasses.dataclass
class Ping:
    """One echo request and what came back of it, by the emulator's record."""
    request: dict
    replies: list  # the records of the packets back

    @property
    def is_answerable(self):
        """Whether a request reached the far kernel, which drops each that was spoilt."""
        return any(copy["left_ns"] >= 0 and byte_of(copy) is None for copy in self.request["copies"])

    def arrivals(self):
        """(microseconds after the request, spoilt byte or None) of each reply, as they reach the pinging kernel."""
        found = [((reply["at_ns"] + copy["left_ns"] - self.request["at_ns"]) / 1000, byte_of(copy))
                 for reply in self.replies for copy in reply["copies"] if copy["left_ns"] >= 0]
        return sorted(found, key=lambda arrival: arrival[0])

    def latency_us(self, patience_us=None, refuses=()):
        """Of the first reply that a pinging program takes for its own; None when there is none.

        The kernel drops a reply whose IP header is spoilt and one that is no echo reply any more, and a changed id
        belongs to nobody. A changed sequence number is the end for a program that has one request under way.
        `refuses` are further bytes that the program looks at.
        """
        for late_us, byte in self.arrivals():
            if patience_us is not None and late_us > patience_us:
                return None
            if byte is None or (byte >= CODE_BYTE and byte not in ID_BYTES and byte not in SEQ_BYTES
                                and byte not in refuses):
                return late_us
            if byte in SEQ_BYTES:
                return None
        return None


class Link:
    """`addresses` are those of the far end. `options` go to the program as they are."""

    def __init__(self, node, addresses, seed=1, options=("--realtime",), left_device=LEFT_DEVICE):
        self.node = node
        self.log = node.folder / "link.log"
        command = [str(node.bin / "link_emulator"), "--left", f"{node.network.node}:{left_device}", "--right",
                   f"{node.network.target}:{RIGHT_DEVICE}", "--seed", str(seed), "--log", str(self.log), *options]
        self.process = Process(command, node.folder / "link_emulator.err", subprocess.PIPE)
        node.processes.append(self.process)
        self.process.wait_event("ready")
        for name, device, first in ((node.network.node, left_device, [LEFT]),
                                    (node.network.target, RIGHT_DEVICE, addresses)):
            batch = "".join(f"addr add {address}/{PREFIX} dev {device}\n" for address in first)
            netns.run("ip", "-n", name, "-batch", "-", data=batch)
            netns.run("ip", "-n", name, "link", "set", device, "mtu", "1400", "up")
        self.commands = itertools.count(1)

    def set(self, address, way="both", **properties):
        """Replaces what was set for the address and way."""
        words = " ".join(f"{key}={value}" for key, value in properties.items())
        self.process.write(f"link {address} {way} {words}")
        done = next(self.commands)
        run_and_expect(lambda: len(self.process.select("set")) + len(self.process.select("error")), done)
        assert not self.process.select("error"), properties

    def stop(self):
        """Ends the program, the link with it; how late packets left, in microseconds."""
        self.process.stop()
        return self.process.select("done")[-1]["late_us"]

    def records(self):
        """All packets that are through, in the order of their arrival."""
        lines = self.log.read_text().splitlines(keepends=True)
        found = [json.loads(line) for line in lines if line.endswith("\n")]
        return sorted(found, key=lambda record: record["n"])

    def pings(self, address, size=None, ids=range(65536), records=None):
        """The echo requests to an address of that many bytes and with such ids, each with its replies."""
        found, last = [], {}
        for record in records if records is not None else self.records():
            echo = record.get("icmp")
            if echo is None or echo["id"] not in ids or (size is not None and record["bytes"] != size):
                continue
            key = (echo["id"], echo["seq"])
            if echo["type"] == ECHO_REQUEST and record["to"] == address:
                last[key] = Ping(record, [])
                found.append(last[key])
            elif echo["type"] == ECHO_REPLY and record["from"] == address and key in last:
                last[key].replies.append(record)
        return found
