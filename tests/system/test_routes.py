"""The kernel's routes in the daemon's reports: what it told, what it didn't, and two real BGP speakers."""
import shutil

import pytest

from probing import settings, site
from standin import netns
from standin.node import service
from standin.processes import Process
from standin.wait import run_and_expect

ROUTING_ID = 2
TABLE = str(ROUTING_ID * 2 + 1001)
PERIOD_MS = 500
HERE, PEER = "10.98.0.1", "10.98.0.2"
RESET = "Resetting fast path"
# One line of the tunnel keeper: name, site, peer, far and near end, interface, group.
KEEPER = "echo 'site@17@cGVlcg==@203.0.113.117@203.0.113.1@vti1@group: ResolvedIP: 203.0.113.117 State: Established'"


def bgp_site():
    row = site(17, protocol="gre", BGP={"enabled": True}, route_based_enabled=True)
    entry = {**row["entry_points"][0], "id": "peer", "vti": "vti1"}
    return {**row, "entry_points": (entry,)}


def start(make_node, **more):
    """A middle-mile node with one site behind the tunnel vti1, which is a pair of devices here."""
    node = make_node(services=[service(1)], settings={**settings([bgp_site()], period_ms=PERIOD_MS),
                                                      "SharedNetworkData.routing_id": ROUTING_ID, **more})
    inner, outer = node.network.node, node.network.target
    netns.run("ip", "link", "add", "vti1", "netns", inner, "type", "veth", "peer", "name", "vti1", "netns", outer)
    for name, address in ((inner, HERE), (outer, PEER)):
        netns.run("ip", "-n", name, "address", "add", f"{address}/30", "dev", "vti1")
        netns.run("ip", "-n", name, "link", "set", "vti1", "up")
    node.run("mount", "-t", "tmpfs", "none", "/opt")
    node.run("sh", "-c", f"mkdir /opt/gred && printf '#!/bin/sh\n%s\n' \"{KEEPER}\" >/opt/gred/gred.sh"
                         " && chmod 755 /opt/gred/gred.sh")
    return node


def route(node, verb, subnet, *words, table=TABLE):
    netns.execute(node.network.node, "ip", "route", verb, subnet, "table", table, *words)


def told(node):
    """The routes of the site's connection in the last report."""
    report = [record["body"] for record in node.requests("/zolReport") if record["verified"]][-1]
    connection, = report["vpn-info"]["connections"]
    return sorted(connection["bgp_routes"])


def expect_told(node, *subnets):
    run_and_expect(lambda: told(node), sorted(subnets))


def resets(node):
    return node.log().count(RESET)


def test_routes_of_a_tunnel(make_node):
    """Verifies that the report names the routes of a tunnel's interface: from before the start, added, replaced,
    deleted; those of other interfaces and of other tables not."""
    node = start(make_node)
    route(node, "add", "10.20.0.0/16", "dev", "vti1")
    route(node, "add", "10.21.0.0/16", "via", "203.0.113.2")
    route(node, "add", "10.22.0.0/16", "dev", "vti1", table="1001")
    node.start()
    expect_told(node, "10.20.0.0/16")
    route(node, "add", "10.23.0.0/24", "via", PEER)
    expect_told(node, "10.20.0.0/16", "10.23.0.0/24")
    route(node, "replace", "10.20.0.0/16", "via", "203.0.113.2")
    expect_told(node, "10.23.0.0/24")
    route(node, "replace", "10.21.0.0/16", "dev", "vti1")
    route(node, "add", "10.24.0.0/16", "nexthop", "via", PEER, "nexthop", "via", "203.0.113.2")
    expect_told(node, "10.21.0.0/16", "10.23.0.0/24")
    route(node, "del", "10.23.0.0/24")
    expect_told(node, "10.21.0.0/16")
    assert f"[{TABLE}] Got removed route for 10.23.0.0/24 via {PEER} dev vti1" in node.log()


def test_change_resets_the_fast_path(make_node):
    """Verifies that each change resets the fast path, whose file no module has made here; a round doesn't."""
    node = start(make_node)
    node.start()
    node.wait_log("BGPRoutesServices: Created successfully")
    expect_told(node)
    before = resets(node)
    route(node, "add", "10.20.0.0/16", "dev", "vti1")
    expect_told(node, "10.20.0.0/16")
    assert resets(node) == before + 1
    route(node, "add", "10.21.0.0/16", "dev", "vti1")
    expect_told(node, "10.20.0.0/16", "10.21.0.0/16")
    assert resets(node) == before + 2
    assert node.log().count("Failed to open reset fast path proc file") == resets(node)
    rounds = node.log().count(f"[{TABLE}] Got added route for 10.20.0.0/16")
    node.wait_log(f"[{TABLE}] Got added route for 10.20.0.0/16", rounds + 1)
    assert resets(node) == before + 2


def test_tunnels_go_down(make_node):
    """Verifies that the routes of devices that go down, of which the kernel tells nothing, are gone from the report
    two rounds later, and that a device without any route left resets the fast path then."""
    node = start(make_node)
    # It has no address, whose own route would stay.
    netns.execute(node.network.node, "ip", "link", "add", "vti2", "type", "veth", "peer", "name", "far2")
    for name in ("vti2", "far2"):
        netns.execute(node.network.node, "ip", "link", "set", name, "up")
    node.start()
    route(node, "add", "10.22.0.0/16", "dev", "vti2")
    route(node, "add", "10.20.0.0/16", "dev", "vti1")
    route(node, "add", "10.21.0.0/16", "via", PEER)
    expect_told(node, "10.20.0.0/16", "10.21.0.0/16")
    before = resets(node)
    for name in ("vti1", "vti2"):
        netns.execute(node.network.node, "ip", "link", "set", name, "down")
    expect_told(node)
    run_and_expect(lambda: resets(node), before + 1)


def test_flush_of_many_routes(make_node):
    """Verifies that thousands of routes come and go in one go, with the reports right behind."""
    node = start(make_node)
    node.start()
    subnets = [f"10.{50 + number // 256}.{number % 256}.0/24" for number in range(3000)]
    lines = "".join(f"route add {subnet} dev vti1 table {TABLE}\n" for subnet in subnets)
    netns.execute(node.network.node, "ip", "-batch", "-", data=lines)
    expect_told(node, *subnets)
    netns.execute(node.network.node, "ip", "route", "flush", "table", TABLE)
    expect_told(node)
    assert "Failed to receive results from netlink socket" not in node.log()


SPEAKER = """
log stderr all;
router id {own};
protocol device {{ scan time 1; }}
ipv4 table learned;
protocol static originated {{ ipv4 {{ table learned; }};
{routes} }}
protocol kernel {{ kernel table {table}; ipv4 {{ table learned; import none; export {export}; }}; }}
protocol bgp peer {{
  local {own} as {own_as};
  neighbor {peer} as {peer_as};
  hold time 6; connect retry time 1; connect delay time 1; error wait time 1, 2;
  ipv4 {{ table learned; import all; export where source = RTS_STATIC; }};
}}
"""


class Speaker:
    """A BGP speaker of its own, in one of a node's namespaces."""

    def __init__(self, node, namespace, name, **members):
        self.node, self.members = node, members
        self.conf, self.socket = (node.folder / f"{name}.{ending}" for ending in ("conf", "sock"))
        self.write(members.pop("routes"))
        command = ["ip", "netns", "exec", namespace, "bird", "-f", "-c", str(self.conf), "-s", str(self.socket), "-P",
                   str(node.folder / f"{name}.pid")]
        self.process = Process(command, node.folder / f"{name}.log")
        node.processes.append(self.process)
        run_and_expect(self.socket.exists, True)

    def write(self, routes):
        lines = "\n".join(f"  route {subnet} blackhole;" for subnet in routes)
        self.conf.write_text(SPEAKER.format(routes=lines, **self.members))

    def announce(self, *routes):
        self.write(routes)
        answer = netns.run("birdc", "-s", str(self.socket), "configure")
        assert "Reconfigured" in answer or "Reconfiguration in progress" in answer, answer


@pytest.mark.skipif(shutil.which("bird") is None, reason="needs the BGP daemon bird")
def test_two_bgp_speakers(make_node):
    """Verifies that what the peer behind the tunnel announces is told as the site's routes, that a withdrawn route
    is gone at once, and all of them when the peer dies."""
    node = start(make_node)
    node.start()
    peer = Speaker(node, node.network.target, "peer", own=PEER, own_as=65002, peer=HERE, peer_as=65001, table=999,
                   export="none", routes=["10.60.0.0/16", "10.61.0.0/16"])
    Speaker(node, node.network.node, "own", own=HERE, own_as=65001, peer=PEER, peer_as=65002, table=TABLE,
            export="where source = RTS_BGP", routes=[])
    expect_told(node, "10.60.0.0/16", "10.61.0.0/16")
    peer.announce("10.61.0.0/16", "10.62.3.0/24")
    expect_told(node, "10.61.0.0/16", "10.62.3.0/24")
    assert f"[{TABLE}] Got removed route for 10.60.0.0/16 via {PEER} dev vti1" in node.log()
    peer.process.stop()
    expect_told(node)
