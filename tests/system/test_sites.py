"""The table of sites on the whole daemon: the report's connections, remote access, matching, links and tunnels."""
import json
import re
import socket
import time

import vpn_node
from standin import ledger, netns, network, traffic
from standin.ledger import lengthen_timeouts
from standin.node import service
from standin.wait import run_and_expect
from vpn_node import EAST, NORTH, NORTH_2, SOUTH, connections, entry, published, reports, site

TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ")
FROM_TRAFFIC_LINE = "2023-11-14T22:13:20Z"


def timeless(connection):
    """Without what depends on the moment, which is looked at here."""
    rest = dict(connection)
    assert TIME.fullmatch(rest.pop("state_timestamp"))
    assert 0 <= rest.pop("connectivity_pct") <= 1
    rest.pop("incidents", None)
    return rest


def site_keys(internal_id, **changes):
    return {"internal_id": internal_id, "type": "site", "interface_ip": network.NODE_OUT,
            "name": f"{internal_id}-office", "vpn_group": "Customer", "primary": True, **changes}


# --- the connections of the periodic report ---------------------------------------------------------------------------

EXPECTED = {
    ("north", NORTH): site_keys("north", ip=NORTH, id="hub.example", state="connected", total_tunnels=2 * 1 + 2 * 1,
                                established_tunnels=3),
    ("north", NORTH_2): site_keys("north", ip=NORTH_2, id="hub.example", state="connecting",
                                  total_tunnels=2 * 1 + 2 * 1, established_tunnels=0),
    ("south", SOUTH): site_keys("south", ip=SOUTH, id="south-peer", state="connected", vpn_group="Branch",
                                total_tunnels=1, established_tunnels=1, bgp_med=70, bgp_routes=["10.60.0.0/16"]),
    ("east", EAST): site_keys("east", ip=EAST, id="east-peer", state="connected", interface_ip="", total_tunnels=3,
                              established_tunnels=0),
    ("road", "198.51.100.77"): site_keys("road", ip="198.51.100.77", id="alice", type="remote_access",
                                         state="connected", primary=False, lease_ip="10.77.0.5", total_tunnels=1,
                                         established_tunnels=0),  # a line of a client names no tunnel
}


def test_every_key_of_the_connections(make_node):
    """Verifies each key of the connections over the three protocols and of a client: all that the report tells."""
    node, programs = vpn_node.make(make_node)
    netns.execute(node.network.node, "ip", "route", "add", "10.60.0.0/16", "dev", "vti1", "table", vpn_node.TABLE)
    programs.set_ipsec(vpn_node.ipsec_up(vpn_node.NORTH_NAME, tunnels=3, peer=NORTH)
                       + vpn_node.ipsec_connecting(vpn_node.NORTH_2_NAME)
                       + vpn_node.client_up(1, "alice", "10.77.0.5", "198.51.100.77"))
    node.start()
    vpn_node.set_med(node, vpn_node.SOUTH_INNER, 70)
    run_and_expect(lambda: {key: timeless(each) for key, each in connections(node).items()}, EXPECTED, timeout=60)
    told = connections(node)
    assert told["north", NORTH]["state_timestamp"] == FROM_TRAFFIC_LINE
    assert told["road", "198.51.100.77"]["state_timestamp"] == "2023-11-14T22:13:21Z"
    assert json.loads(node.cli("vpn_info").stdout) != []
    rows = {vpn_node.NORTH_NAME: 1, vpn_node.NORTH_2_NAME: 0, vpn_node.SOUTH_NAME: 1}
    run_and_expect(lambda: {name: published(node).get(name) for name in rows}, rows)
    assert len(published(node)) == 5


def test_uptime_and_states(make_node):
    """Verifies that states follow the programs, that two connections with one identity share one uptime, and that the
    share covers the time since the report before."""
    node, programs = vpn_node.make(make_node)
    node.start()
    run_and_expect(lambda: connections(node).get(("south", SOUTH), {}).get("connectivity_pct"), 1)
    # Of the two records of one identity in each cycle, one is up.
    run_and_expect(lambda: [connections(node).get(("north", ip), {}).get("connectivity_pct") for ip in (NORTH, NORTH_2)],
                   [0.5, 0.5])
    programs.set_gre([vpn_node.gre(vpn_node.SOUTH_NAME, "Down")])
    programs.set_ipsec([])
    down = run_and_expect(lambda: connections(node),
                          lambda told: [told[key]["state"] for key in [("south", SOUTH), ("north", NORTH),
                                                                       ("north", NORTH_2)]] == ["disconnected"] * 3
                          and told["south", SOUTH]["connectivity_pct"] == 0)
    assert down["north", NORTH]["established_tunnels"] == 0
    run_and_expect(lambda: set(published(node).values()), {0, 1})  # the local one alone is up
    programs.set_gre([vpn_node.gre(vpn_node.SOUTH_NAME, "Connecting")])
    run_and_expect(lambda: connections(node)["south", SOUTH]["state"], "connecting")


def test_vpn_info_before_the_first_report(make_node):
    """Verifies that the command line's answer is an empty list as long as no report has been made."""
    node, _ = vpn_node.make(make_node, **{"Monitoring.report_resolution_ms": 2_000_000_000})
    node.start()
    run_and_expect(lambda: published(node), lambda rows: len(rows) == 4)  # a cycle has run
    assert node.cli("vpn_info").stdout == "[]\n"


def test_vpn_info_shows_the_last_report(make_node):
    """Verifies that the command line's answer is the last report's list, whatever has happened since."""
    node, programs = vpn_node.make(make_node, **{"Monitoring.report_resolution_ms": 6000})
    node.start()
    for _ in range(10):
        programs.set_gre([vpn_node.gre(vpn_node.SOUTH_NAME)])
        run_and_expect(lambda: connections(node).get(("south", SOUTH), {}).get("state"), "connected", timeout=40)
        last = reports(node)[-1]["vpn-info"]["connections"]
        programs.set_gre([])
        run_and_expect(lambda: published(node)[vpn_node.SOUTH_NAME], 0)
        answer = json.loads(node.cli("vpn_info").stdout)
        if answer == last:
            break  # no report was made between
    assert answer == last
    assert {each["internal_id"]: each["state"] for each in answer}["south"] == "connected"


def clients(node):
    return {each["id"]: each["lease_ip"] for each in connections(node).values() if each["type"] == "remote_access"}


def test_remote_access_clients(make_node):
    """Verifies that clients come with their first status line, stay over a reload without a gap, and go with it."""
    node, programs = vpn_node.make(make_node)
    alice = vpn_node.client_up(1, "alice", "10.77.0.5", "198.51.100.77")
    bob = vpn_node.client_up(2, "bob", "10.77.0.6", "198.51.100.78")
    node.start()
    run_and_expect(lambda: len(connections(node)), 4)
    assert clients(node) == {}
    programs.set_ipsec(alice + bob)
    run_and_expect(lambda: clients(node), {"alice": "10.77.0.5", "bob": "10.77.0.6"})
    before = len(reports(node))
    stamp = connections(node)["road", "198.51.100.77"]["state_timestamp"]
    node.settings["VPNIPsec.sites"] = tuple({**each, "vpn_group": "Renamed"} for each in vpn_node.the_sites())
    node.reload()
    run_and_expect(lambda: {each["vpn_group"] for each in connections(node).values()}, {"Renamed"})
    since = reports(node)[before:]
    told = [each for report in since for each in report["vpn-info"]["connections"] if each["id"] == "alice"]
    assert len(told) == len(since) > 0
    assert {each["state_timestamp"] for each in told} == {stamp}
    assert {each["state"] for each in told} == {"connected"}
    programs.set_ipsec(bob)
    run_and_expect(lambda: clients(node), {"bob": "10.77.0.6"})
    programs.set_ipsec([])
    run_and_expect(lambda: clients(node), {})
    assert len(connections(node)) == 4


def test_reload_changes_the_sites(make_node):
    """Verifies that a reload adds and removes sites, and that without any no report speaks of connections."""
    node, _ = vpn_node.make(make_node)
    node.start()
    run_and_expect(lambda: len(connections(node)), 4)
    node.settings["VPNIPsec.sites"] = (vpn_node.the_sites()[1],
                                       site("west", "gre", [entry("192.0.2.41", "west-peer")]))
    node.reload()
    run_and_expect(lambda: set(connections(node)), {("south", SOUTH), ("west", "192.0.2.41")})
    assert connections(node)["south", SOUTH]["state"] == "connected"
    node.settings["VPNIPsec.sites"] = ()
    node.reload()
    run_and_expect(lambda: "vpn-info" in reports(node)[-1], False)
    node.settings["VPNIPsec.sites"] = tuple(vpn_node.the_sites())
    node.reload()
    run_and_expect(lambda: len(connections(node)), 4)


# --- errors of the configuration --------------------------------------------------------------------------------------

def named_site(internal_id, length):
    """A site whose connection's name has that many characters."""
    row = site(internal_id, "gre", [entry("192.0.2.51", "peer")])
    rest = len("@".join(["", internal_id, "cGVlcg==", "192.0.2.51", "", "", "Customer"]))
    return {**row, "name": "n" * (length - rest)}


def test_errors_of_the_sites(make_node):
    """Verifies that a refused site and a dropped entry are told, that the others stand, and how names end up: with "@"
    inside, of 1499 and of 1500 characters."""
    lame = site("lame", "gre", [entry("192.0.2.61", "a")])
    del lame["metadata"]
    partly = site("partly", "gre", [entry("192.0.2.62", "b"), entry("192.0.2.63", "c")],
                  subnets=("10.1.0.0/16", "nonsense"))
    del partly["entry_points"][0]["priority"]
    at = site("at", "gre", [entry("192.0.2.64", "d")], name="a@b-office")
    node, programs = vpn_node.make(make_node, [lame, partly, at, named_site("fits", 1499), named_site("long", 1500)])
    at_name = vpn_node.conn_name("at", "d", "192.0.2.64", name="a@b-office")
    programs.set_gre([vpn_node.gre(at_name)])
    node.start()
    run_and_expect(lambda: {key[0] for key in connections(node)}, {"partly", "at", "fits", "long"})
    assert set(connections(node)) >= {("partly", "192.0.2.63"), ("at", "192.0.2.64")}
    assert ("partly", "192.0.2.62") not in connections(node)
    log = node.log()
    assert " vpn site VPNIPsec.sites.[0] is missing metadata key." in log
    assert re.search(r" vpn site VPNIPsec\.sites\.\[1\]\S* is missing priority key\.", log)
    assert "bad subnet format1: nonsense" in log
    assert f"Unable to extract connection name [ {at_name} ] 8 tokens" in log
    assert " Found unexpected vpn connection: " in log
    assert connections(node)["at", "192.0.2.64"]["state"] == "disconnected"
    names = run_and_expect(lambda: set(published(node)), lambda found: len(found) == 3)
    assert {len(name) for name in names} >= {1499}
    assert any(name.startswith("a@b-office@at@") for name in names)
    assert "Connection name is too long ! : nnn" in log


# --- whose an address is ----------------------------------------------------------------------------------------------

MATCHES = {
    network.NODE_IN: "to local ZOL",                        # though north's subnet has it
    "10.50.1.1": f"to entry {NORTH} by configuration",
    "10.50.8.1": f"to entry {EAST} by configuration",       # a longer prefix inside north's
    "10.50.7.1": f"to entry {NORTH} by configuration",      # though BGP has a longer one
    "10.60.1.1": f"to entry {SOUTH} by bgp",
    "10.60.9.1": "to indirect BGP route 10.60.9.0/24",      # a longer prefix inside south's
    "10.61.1.1": "to indirect BGP route 10.61.0.0/16",
    "10.62.1.1": "to WORLD",
    vpn_node.SOUTH_INNER: f"to entry {SOUTH} by configuration",
}


def test_longest_prefix(make_node):
    """Verifies which of local address, configured and learned subnets has an address that traffic goes to."""
    node, _ = vpn_node.make(make_node, **{"Monitoring.traffic_report_resolution_ms": 500})
    node.write_file("log.properties", "log4cpp.rootCategory=INFO, file\nlog4cpp.category.SiteServices=TRACE\n"
                    "log4cpp.appender.file=FileAppender\nlog4cpp.appender.file.fileName=monitor.log\n"
                    "log4cpp.appender.file.layout=PatternLayout\n"
                    "log4cpp.appender.file.layout.ConversionPattern=%d [%p] %c: %m%n\n")
    for subnet, *words in (("10.50.7.0/24", "via", network.TARGET), ("10.60.0.0/16", "dev", "vti1"),
                           ("10.60.9.0/24", "via", network.TARGET), ("10.61.0.0/16", "via", network.TARGET)):
        netns.execute(node.network.node, "ip", "route", "add", subnet, *words, "table", vpn_node.TABLE)
    netns.execute(node.network.node, "ip", "route", "add", "10.0.0.0/8", "via", network.TARGET)
    node.start()
    run_and_expect(lambda: connections(node).get(("south", SOUTH), {}).get("bgp_routes"), ["10.60.0.0/16"], timeout=60)
    client = node.traffic.keep(netns.socket_in(node.network.client, socket.SOCK_DGRAM))

    def matched():
        for address in MATCHES:
            client.sendto(b"whose", (address, 7))
        log = node.log()
        return {address: (re.findall(rf"Matching {re.escape(address)} (to .*)", log) or [""])[-1]
                for address in MATCHES}

    run_and_expect(matched, MATCHES, interval=0.5)


# --- links and tunnels ------------------------------------------------------------------------------------------------

SERVICES = [service(1), service(6)]
LINK_MARK = 0x10630  # a link byte, service 6 and both bits of the nibble, so that the rules that count know it


def traffic_reports(node):
    return [record["body"] for record in node.requests("/zolEnterpriseTrafficReport") if record["verified"]]


def link_truth(node):
    """The links from what the kernel's rules counted."""
    return ledger.link_truth(node, "north", "south", proxied=[1], forwarded=[6])


def tunnel_truth(node):
    links = link_truth(node)
    return {NORTH: (*links["north", "south"][:2], *links["south", "north"][2:]),
            SOUTH: (*links["south", "north"][:2], *links["north", "south"][2:])}


def make_linked(make_node):
    """A node that has sent its first traffic reports, with the tunnels of north and south up."""
    node, _ = vpn_node.make(make_node, **{"Monitoring.traffic_report_resolution_ms": 3000})
    node.services = SERVICES
    node.write_conf()
    node.set_rules()
    netns.execute(node.network.node, "iptables", "-t", "mangle", "-I", "PREROUTING", "-i", network.CLIENT_DEVICE, "-p",
                  "udp", "--dport", "7006", "-m", "conntrack", "--ctstate", "NEW", "-j", "CONNMARK", "--set-xmark",
                  f"{LINK_MARK:#x}/0xffffff")
    node.start()
    run_and_expect(lambda: connections(node).get(("south", SOUTH), {}).get("state"), "connected")
    run_and_expect(lambda: len(traffic_reports(node)), lambda count: count >= 2)
    return node


def link_figures(node):
    """What the reports told of links and tunnels so far, and what the kernel counted of the same."""
    bodies = traffic_reports(node)
    told = {**ledger.link_sums(bodies), **ledger.tunnel_sums(bodies)}
    counted = {**link_truth(node), **tunnel_truth(node)}
    return {key: told.get(key, (0,) * 4) for key in counted}, counted


def wait_reports(node, count=2):
    wanted = len(traffic_reports(node)) + count
    run_and_expect(lambda: len(traffic_reports(node)), lambda found: found >= wanted)


def since(before, now):
    return [{key: tuple(figure - former for figure, former in zip(each[key], earlier[key])) for key in each}
            for earlier, each in zip(before, now)]


def expect_links(node, before):
    """What the reports tell of what moved since then becomes what the kernel counted, and stays so when nothing moves."""
    def are_equal(both):
        """what was told is what the kernel counted"""
        return both[0] == both[1]

    run_and_expect(lambda: since(before, link_figures(node)), are_equal)
    wait_reports(node)
    told, counted = since(before, link_figures(node))
    assert told == counted


def exchange(node, sizes):
    """UDP between the client and the target, which answers with twice as much."""
    target = node.traffic.keep(netns.socket_in(node.network.target, socket.SOCK_DGRAM))
    target.bind((network.TARGET, 7006))
    client = node.traffic.keep(netns.socket_in(node.network.client, socket.SOCK_DGRAM))
    client.connect((network.TARGET, 7006))
    for size in sizes:
        client.send(bytes(size))
        question, peer = target.recvfrom(2000)
        assert len(question) == size
        target.sendto(bytes(2 * size), peer)
        assert len(client.recv(3000)) == 2 * size
        time.sleep(0.6)  # over several readings


def test_links_and_tunnels(make_node):
    """Verifies, to the byte, links and tunnels of proxied TCP and of forwarded UDP, both ways, over several reports."""
    node = make_linked(make_node)
    lengthen_timeouts(node)
    client, target = node.session(SERVICES[0])
    wait_reports(node)  # what is read before the next hop is known stands as a link to the world
    before = link_figures(node)
    client.sendall(bytes(150_000))
    traffic.read_exactly(target, 150_000)
    target.sendall(bytes(70_000))
    traffic.read_exactly(client, 70_000)
    exchange(node, (10, 500, 1000, 20, 300, 700))
    expect_links(node, before)
    assert link_truth(node)["north", "south"][1] > 150_000
    assert node.counted()[6, 3, "ORIGINAL"] == (6, sum((10, 500, 1000, 20, 300, 700)) + 6 * 28)
    told, = [link for report in traffic_reports(node) for link in report["links"]
             if link["src"].get("internal_id") == "north"][:1]
    assert told["src"]["type"] == "Site_Direct"
    assert {key: told["src"][key] for key in ("site_name", "site_vpn_group", "metadata", "ip", "id")} == {
        "site_name": "north-office", "site_vpn_group": "Customer", "metadata": {"floor": 3}, "ip": NORTH,
        "id": "hub.example"}
    idle = traffic_reports(node)[-1]["tunnels"]
    # Every enabled connection is there, though nothing moves; one of remote access only while it is known.
    assert sorted(tunnel["site_name"] for tunnel in idle) == ["east-office", "north-office", "north-office",
                                                              "south-office"]
    for report in traffic_reports(node):
        assert report["total_traffic"]["total-bytes"] == sum(link[end]["bytes"] for link in report["links"]
                                                             for end in ("src", "dst"))


def test_session_between_sites(make_node):
    """Verifies what the session report says of a session whose ends lie behind two sites."""
    node = make_linked(make_node)
    client, target = node.session(SERVICES[0])
    client.sendall(b"hello")
    assert traffic.read_exactly(target, 5) == b"hello"
    client.close()
    traffic.read_to_end(target)
    target.close()
    session = node.wait_sessions()[0]
    assert session["direction"] == "site_to_site"
    ends = [{key: session[end][key] for key in ("gateway_ip", "site_id", "entry_id", "metadata")}
            for end in ("in_if", "out_if")]
    assert ends == [
        {"gateway_ip": NORTH, "site_id": "north", "entry_id": "hub.example", "metadata": '{"floor": 3}'},
        {"gateway_ip": SOUTH, "site_id": "south", "entry_id": "south-peer", "metadata": ""},
    ]
