"""The demo's ordinary node: networks of services, and what goes wrong on it."""
from . import alarms, ledger


class Events:
    """What the node's processes tell: a port that failed twice, a target that swallows packets, fail-open."""
    TEXT = "the processes tell of a failed port, a target that swallows packets, and fail-open"
    TYPES = {"ZOL_FAILURE", "ZOL_BLACKHOLE", "ZOL_FAILOPEN"}

    def __init__(self, node, reader):
        self.node = node
        self.reader = reader

    def cause(self):
        for _ in range(2):
            alarms.send(self.node, alarms.FAILURE, alarms.failure([8443]), name="failures")
        alarms.send(self.node, alarms.BLACK_HOLE, alarms.black_hole("shop.example.test"), name="failures")
        alarms.send(self.node, alarms.FAILOPEN, b"\1", name="failures")

    def act(self):
        return self.TEXT, self.cause, lambda: self.reader.events >= self.TYPES


class Networks:
    """`acts` are (text, what to do, whether the reports show it)."""
    services = ()
    settings = {}

    def __init__(self, node, reader):
        self.node = node
        self.acts = [Events(node, reader).act()]

    def be_still(self):
        """Nothing goes on when the sessions have ended."""

    def figures(self):
        """(network, stream, way) to bytes as the traffic reports told, and as the kernel's rules counted."""
        found = {}
        for row in self.node.services:
            network = row["logical_network_id"]
            told = ledger.moved(ledger.entries(self.node, network))
            for key, counted in ledger.truth(self.node, row["service_id"]).items():
                found[network, *key] = told[key][1], counted[1]
        return found

    def left_out(self):
        """Bytes that the daemon says it didn't count."""
        return ledger.uncounted(self.node, failed=(3, 4))

    def is_whole(self):
        """Whether the reports have told of every byte of the networks whose targets are there."""
        gaps = [counted - told for (network, *_), (told, counted) in self.figures().items()
                if network in ("network-1", "network-2")]
        return min(gaps) >= 0 and sum(gaps) == self.left_out()

    def truth(self):
        """What belongs to the truth beside the sessions."""
        return {}

    def print_end(self, totals):
        """What the reports told of each network beside what the kernel's rules counted."""
        print("bytes told by the traffic reports, and counted by the kernel's rules at the same hooks:")
        for (network, stream, way), (told, counted) in self.figures().items():
            print(f"    {network} {stream} {way}: {told:,} and {counted:,}")
