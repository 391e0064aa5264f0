"""The demo's middle-mile node: three sites, and what happens to them while one looks.

    north   ipsec by a script; the client's network lies behind it; a station of it is pinged
    south   gre over vti1, which is an emulated link; the target lies behind it; its far end is pinged; BGP
    east    lan: it is up while the kernel's ARP table has the address of the management server

The client also sends datagrams to FAR, an address that is south's while a route of the node's table says so.
"""
import socket

from . import ledger, netns, network, sites
from .link import LEFT, RIGHT_DEVICE, Link
from .node import service
from .show_networks import Events

NORTH, SOUTH, EAST = "192.0.2.11", "192.0.2.21", "192.0.2.31"
SOUTH_INNER, STATION = "10.99.0.2", "10.99.0.10"
FAR, FAR_SUBNET = "10.60.1.1", "10.60.0.0/16"
FLOATING = "203.0.113.10"
ROUTING_ID = 2
TABLE = sites.route_table(ROUTING_ID)
PERIODIC, LINKS = "/zolReport", "/zolEnterpriseTrafficReport"
PROXIED, REFUSED, SILENT = (1, 2), (3,), (4,)  # services of clients: the targets of the first three are behind south
TO_SOUTH, TO_WORLD = 6, 7        # services of the datagrams, by where they go; their ports are 7000 more
LINKED = 0x10030                 # a link byte, and a connection that the node forwards
STILL_MS = 3_600_000
PATIENCE_US = 950_000
# What the emulated link does to the pings of each address: there, back, in words.
PROPERTIES = {
    STATION: ({"delay_us": 20_000, "jitter_us": 5000}, {"loss": 20}, "20 ms +/- 5, every 5th lost"),
    SOUTH_INNER: ({"delay_us": 3000}, {"delay_us": 4000}, "7 ms"),
}
NORTH_NAME = sites.conn_name("north", "@hub.example", NORTH)
SOUTH_NAME = sites.conn_name("south", "south-peer", SOUTH, "vti1", group="Branch")
DATAGRAMS = (100, 1200, 500)


def the_sites():
    return [
        sites.site("north", "ipsec", [sites.entry(NORTH, "hub.example", id_as_text=True)],
                   subnets=("198.51.100.0/24",), monitored_stations=(STATION,)),
        sites.site("south", "gre", [sites.entry(SOUTH, "south-peer", vti="vti1", monitored=True, route_based=sites.way(
            SOUTH_INNER, LEFT, internal_pingable_ip=SOUTH_INNER))],
            subnets=(f"{network.TARGET}/32",), route_based_enabled=True, BGP={"enabled": True}, vpn_group="Branch"),
        sites.site("east", "lan", [sites.entry(EAST, "east-peer", route_based=sites.way(
            network.SERVER, network.NODE_OUT))], subnets=("10.51.0.0/16",)),
    ]


HOP = {"hop_id": "hop-1", "is_direct": True, "ha_mode": "autonomous", "floating_ips": [FLOATING]}


class Sites:
    """Made before the node's processes start. `acts` are (text, what to do, whether the reports show it)."""
    services = (service(TO_SOUTH), service(TO_WORLD))
    settings = {**sites.settings(the_sites(), ROUTING_ID, network.NODE_IN), "HopData.hops": (HOP,),
                "VPNIPsec.station_monitor_freq_ms": 500}

    def __init__(self, node, reader):
        self.node = node
        self.reader = reader
        self.moved = {TO_SOUTH: [0, 0], TO_WORLD: [0, 0]}  # bytes sent by the client and by the target
        self.programs = sites.Programs(node)
        self.programs.set_reason("STATE_MAIN_I1: 60 second timeout", "The peer does not answer")
        self.programs.set_gre([sites.gre(SOUTH_NAME, SOUTH)])
        self.set_north(True)
        self.link = Link(node, [SOUTH_INNER, STATION], left_device="vti1")
        for address, (there, back, _) in PROPERTIES.items():
            self.link.set(address, "forth", **there)
            self.link.set(address, "back", **back)
        self._lay_roads()
        marks = [f"-A PREROUTING -i {network.CLIENT_DEVICE} -p udp --dport {7000 + number} -m conntrack --ctstate NEW "
                 f"-j CONNMARK --set-xmark {LINKED | number << 8:#x}/0xffffff" for number in self.moved]
        node.set_rules(extra=marks)
        self.acts = [
            ("the tunnel to north goes down", lambda: self.set_north(False), self.shows_north_down),
            ("the tunnel to north comes back", lambda: self.set_north(True), self.shows_north_up),
            ("keepalived says: master here, for north and for the floating address", self.be_master, self.shows_master),
            (f"a route comes: {FAR_SUBNET} over vti1, and {FAR} is south's", self.add_route, self.shows_route),
            (f"datagrams to {FAR}", lambda: self.exchange(TO_SOUTH), lambda: self.shows_link("south")),
            (f"the route goes, and {FAR} is anywhere", self.remove_route, self.shows_no_route),
            (f"datagrams to {FAR}", lambda: self.exchange(TO_WORLD), lambda: self.shows_link("WORLD")),
            Events(node, reader).act(),
        ]

    def _lay_roads(self):
        """FAR is behind both roads: the tunnel, where the route table with BGP's routes has one, and the plain one."""
        node, target = self.node.network.node, self.node.network.target
        netns.run("ip", "-n", node, "rule", "add", "lookup", TABLE, "priority", "1000")
        netns.run("ip", "-n", node, "route", "add", "10.0.0.0/8", "via", network.TARGET)
        netns.run("ip", "-n", target, "address", "add", f"{FAR}/32", "dev", "lo")
        netns.run("ip", "-n", target, "route", "add", "198.51.100.0/24", "dev", RIGHT_DEVICE)

    # --- what happens -------------------------------------------------------------------------------------------------

    def set_north(self, is_up):
        self.programs.set_ipsec(sites.ipsec_up(NORTH_NAME, peer=NORTH) if is_up else [])

    def be_master(self):
        for instance in ("north", "dynamic"):
            self.node.run(self.node.bin / "zol_shm", "role", instance, "master")

    def add_route(self):
        netns.run("ip", "-n", self.node.network.node, "route", "add", FAR_SUBNET, "dev", "vti1", "table", TABLE)

    def remove_route(self):
        netns.run("ip", "-n", self.node.network.node, "route", "del", FAR_SUBNET, "dev", "vti1", "table", TABLE)

    def exchange(self, number):
        """Datagrams from the client, each answered with half as much."""
        target = self.node.traffic.keep(netns.socket_in(self.node.network.target, socket.SOCK_DGRAM))
        target.bind((FAR, 7000 + number))
        client = self.node.traffic.keep(netns.socket_in(self.node.network.client, socket.SOCK_DGRAM))
        client.connect((FAR, 7000 + number))
        for size in DATAGRAMS:
            client.send(bytes(size))
            question, peer = target.recvfrom(2000)
            target.sendto(question[:size // 2], peer)
            answer = client.recv(2000)
            self.moved[number][0] += size
            self.moved[number][1] += len(answer)

    def be_still(self):
        """No ping starts any more, so that the next report has the last of them."""
        self.node.settings["VPNIPsec.station_monitor_freq_ms"] = STILL_MS
        self.node.reload()

    # --- whether the reports show it ----------------------------------------------------------------------------------

    def told(self, site):
        """What each report since the last act said of a site, oldest first."""
        return [each for body in self.reader.since_mark(PERIODIC)
                for each in body.get("vpn-info", {}).get("connections", []) if each["internal_id"] == site]

    def shows_north_down(self):
        told = self.told("north")
        return any(each["state"] == "disconnected" for each in told) and any(each.get("incidents") for each in told)

    def shows_north_up(self):
        return [each["state"] for each in self.told("north")[-1:]] == ["connected"]

    def shows_master(self):
        last = self.reader.since_mark(PERIODIC)[-1:]
        tunnels = [body.get("primary_secondary_active_tunnel", {}).get("tunnels", []) for body in last]
        return [body.get("high_availability", {}).get("state") for body in last] == ["active"] and \
            [each["active_tunnel"] for each in tunnels[0]] == [True]

    def shows_route(self):
        return [each["bgp_routes"] for each in self.told("south")[-1:]] == [[FAR_SUBNET]]

    def shows_no_route(self):
        return [each["bgp_routes"] for each in self.told("south")[-1:]] == [[]]

    def shows_link(self, end):
        """Whether something forwarded went from north to there."""
        return ledger.link_sums(self.reader.since_mark(LINKS)).get(("north", end), (0,) * 4)[0] >= len(DATAGRAMS)

    # --- the end ------------------------------------------------------------------------------------------------------

    def links(self):
        """Of each link between two ends: what the reports told, and what the kernel's rules counted."""
        told = ledger.link_sums(self.reader.bodies[LINKS])
        truth = {**ledger.link_truth(self.node, "north", "south", PROXIED, [TO_SOUTH], REFUSED),
                 **ledger.link_truth(self.node, "north", "WORLD", [], [TO_WORLD], SILENT)}
        return {key: (told.get(key, (0,) * 4), truth.get(key, (0,) * 4)) for key in {**truth, **told}}

    def pings(self):
        """Of each pinged address: (answered, mean in microseconds) as told, and the same and the number of pings that
        went over the link by its own record."""
        records = self.link.records()
        found = {}
        for address in PROPERTIES:
            figures = [figure for body in self.reader.bodies[PERIODIC]
                       for connection in body.get("vpn-info", {}).get("connections", [])
                       for key in ("monitored_stations", "tunnel_monitor") for figure in connection.get(key, [])
                       if figure["ip"] == address]
            count = sum(figure["latency_sample_count"] for figure in figures)
            mean = sum(figure["latency"] * figure["latency_sample_count"] for figure in figures) / max(1, count)
            pings = [ping.latency_us(PATIENCE_US) for ping in self.link.pings(address, records=records)]
            good = [late for late in pings if late is not None]
            found[address] = (count, mean), (len(good), sum(good) / max(1, len(good))), len(pings)
        return found

    def left_out(self):
        """Bytes that the daemon says it didn't count."""
        return ledger.uncounted(self.node, failed=REFUSED + SILENT)

    def is_whole(self):
        """Whether the reports have told of every byte and every ping. A connection that is looked at before its
        session is known counts as one with WORLD, so that the sum over all links alone is certain."""
        gaps = [truth[place] - told[place] for told, truth in self.links().values() for place in (1, 3)]
        return sum(gaps) == self.left_out() and \
            all(told[0] == true[0] for told, true, _ in self.pings().values())

    def truth(self):
        """What belongs to the truth beside the sessions."""
        return {"datagrams": {port: dict(zip(("client_sent", "target_sent"), moved)) for port, moved in
                              ((7000 + number, self.moved[number]) for number in self.moved)},
                "pings": {address: {"sent": count, "answered": true[0], "latency_us": round(true[1])}
                          for address, (_, true, count) in self.pings().items()}}

    def print_end(self, totals):
        print("links, as the traffic reports told and as the kernel's rules counted (bytes in, bytes out):")
        for (first, second), (told, truth) in self.links().items():
            print(f"    {first} -> {second}: {told[1]:,} and {truth[1]:,}, {told[3]:,} and {truth[3]:,}")
        if any(told != truth for told, truth in self.links().values()):
            print("    (what is looked at before its session is known counts as between its site and WORLD)")
        sent = [totals[f"{end}_sent"] + sum(moved[place] for moved in self.moved.values())
                for place, end in enumerate(("client", "target"))]
        print(f"    the client sent {sent[0]:,} bytes of its own, the target {sent[1]:,}; the rest is headers")
        tunnels = ledger.tunnel_sums(self.reader.bodies[LINKS])
        print("tunnels, as told while they were up: " + "; ".join(
            f"{name} {tunnels[address][1]:,} bytes up, {tunnels[address][3]:,} down"
            for name, address in (("north", NORTH), ("south", SOUTH)) if address in tunnels))
        print("pings:")
        for address, (told, true, count) in self.pings().items():
            print(f"    {address}: set {PROPERTIES[address][2]}; on the link {count} pings, {true[0]} answered after "
                  f"{true[1] / 1000:.1f} ms; told {told[0]} answered after {told[1] / 1000:.1f} ms")
        print("the connection log (zol_cli vpn_log):")
        for line in self.node.cli("vpn_log").stdout.strip().splitlines():
            print("    " + line)
