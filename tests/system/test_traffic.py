"""The traffic report against the kernel's own count: what iptables rules counted at the hooks of connection tracking."""
import socket
import time

import pytest

from conserved import after_report, bulk, expect_conserved
from standin import netns, network, tracking, traffic
from standin.ledger import entries, lengthen_timeouts, moved, of_no_client, reports, truth
from standin.node import service
from standin.wait import run_and_expect

PERIOD_MS = 1500
SERVICES = [
    service(1),
    service(2),
    service(3, external_port_out=9999),   # nobody listens
    service(4, external_port_out=5904),   # the next hop is another node
    service(5),                           # what the node forwards
    service(6),                           # what runs against the session
]
BY_ID = {row["service_id"]: row for row in SERVICES}
SETTINGS = {
    "Monitoring.traffic_report_resolution_ms": PERIOD_MS,
    "Monitoring.domain_level_traffic": True,
    "Monitoring.DetectedIPsReport.enabled": True,
    "Monitoring.traffic_report_diagnostics_enabled": True,
}
FORWARDED_MARK = 0x530
UDP_MARK = 0x630


def make_road(make_node, **settings):
    node = make_node(services=SERVICES, settings={**SETTINGS, **settings})
    lengthen_timeouts(node)
    return node.start()


@pytest.fixture(scope="module")
def road(make_module_node):
    return make_road(make_module_node)


def mark_new(node, device, protocol, port, mark):
    """New connections that come in there to that port get the mark, before any other rule."""
    netns.execute(node.network.node, "iptables", "-t", "mangle", "-I", "PREROUTING", "-i", device, "-p", protocol,
                  "--dport", str(port), "-m", "conntrack", "--ctstate", "NEW", "-j", "CONNMARK", "--set-xmark",
                  f"{mark:#x}/0xffff")


def request(domain, path="/"):
    return f"GET {path} HTTP/1.1\r\nHost: {domain}\r\n\r\n".encode()


def short_session(node, number, domain, end):
    """It goes on when the daemon knows both legs: one that is closing when it is first read, and of no session yet,
    counts for nobody."""
    client, target = node.session(BY_ID[number])
    question = request(domain)
    client.sendall(question)
    traffic.read_exactly(target, len(question))
    target.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")
    client.recv(100)
    first, last = (client, target) if end.startswith("client") else (target, client)
    if end.endswith("RST"):
        traffic.reset(first)
    else:
        first.close()
    try:
        traffic.read_to_end(last)
    except ConnectionResetError:
        pass
    last.close()


def all_bytes(sums):
    return sum(size for _, size in sums.values())


ENDS = ("client FIN", "target FIN", "client RST", "target RST")


def test_every_byte_is_counted_once(road):
    """Verifies, to the byte, networks, domains and clients: bulk across readings, many short ones, a refused target."""
    after_report(road)
    client, target = road.traffic.session(BY_ID[1])
    before = len(reports(road))
    while len(reports(road)) < before + 3:
        bulk(client, target, 100_000)
        time.sleep(0.05)  # so that bulk isn't a load test
    after_report(road)
    for number in range(80):
        short_session(road, 2, "many.example.test", ENDS[number % 4])
    road.traffic.connect_in_vain(8003)
    client.close()
    target.close()
    # The refused Out leg is closed when it is first read, and no session knows it: it counts for nobody.
    expected = expect_conserved(road, 1, 2, 3, uncounted=[(3, "client-to-server", "outgoing"),
                                                          (3, "server-to-client", "incoming")])
    assert truth(road, 3)["client-to-server", "outgoing"] == (1, 60)
    assert expected[1]["client-to-server", "incoming"][1] > 900_000
    assert all(packets > 0 for packets, _ in expected[2].values())
    for number in (1, 2, 3):
        own = entries(road, f"network-{number}")
        domains = [domain for entry in own for domain in entry["domain-info"]]
        assert moved(domains) == expected[number]
        clients = [user for entry in own for user in entry["user-info"]["direct"]]
        assert {user["ip"] for user in clients} == {network.CLIENT}
        told, early = moved(clients), of_no_client(road, f"network-{number}")
        assert all_bytes(told) + early == all_bytes(expected[number])
        assert early > 0 or told == expected[number]
    many = [domain for entry in entries(road, "network-2") for domain in entry["domain-info"]]
    assert "many.example.test" in {domain["domain-name"] for domain in many}


@pytest.mark.parametrize("stamped", [0, 1])
def test_many_connections_that_stay(make_node, stamped):
    """Verifies that no counter is lost where the kernel ends a piece of a resetting dump, whatever an entry's length."""
    node = make_road(make_node)
    netns.execute(node.network.node, "sysctl", "-q", "-w", f"net.netfilter.nf_conntrack_timestamp={stamped}")
    pairs = [node.traffic.session(BY_ID[number]) for number in (1, 2) for _ in range(75)]
    for _ in range(3):
        after_report(node)
        for client, target in pairs:
            bulk(client, target, 2000)
    assert len(tracking.connections(node.network.node)) >= 2 * len(pairs)
    expect_conserved(node, 1, 2)


def test_hop_of_the_overlay_is_indirect(road):
    """Verifies that a leg to an internal port counts under indirect-public alone, and its In leg under direct."""
    after_report(road)
    short_session(road, 4, "hop.example.test", "client FIN")
    expected = expect_conserved(road, 4)[4]
    own = entries(road, "network-4")
    direct = moved([{"traffic": entry["direct"]} for entry in own if "direct" in entry])
    indirect = moved([{"traffic": entry["indirect-public"]} for entry in own if "indirect-public" in entry])
    assert direct["client-to-server", "incoming"] == expected["client-to-server", "incoming"]
    assert direct["client-to-server", "outgoing"] == (0, 0)
    assert indirect["client-to-server", "outgoing"] == expected["client-to-server", "outgoing"]
    assert indirect["client-to-server", "incoming"] == (0, 0)
    assert not any("indirect-private" in entry for entry in own)


def test_connections_older_than_the_daemon(make_node):
    """Verifies that a restart loses nothing: the kernel keeps what no reading has taken."""
    node = make_road(make_node)
    after_report(node)
    client, target = node.traffic.session(BY_ID[1])
    bulk(client, target, 200_000)
    first = node.monitor_pid()
    after_report(node)  # a report that is on its way would be lost
    node.cli("terminate")
    node.watchdog.wait_event("exited", pid=first)
    bulk(client, target, 300_000)
    run_and_expect(node.monitor_pid, lambda pid: pid != first)
    bulk(client, target, 100_000)
    expect_conserved(node, 1)


def test_forwarded_connection(road):
    """Verifies a connection that the node forwards, with both bits of the nibble: what it moved shows on both sides."""
    mark_new(road, network.CLIENT_DEVICE, "tcp", 7005, FORWARDED_MARK)
    listener = road.traffic.listen(7005)
    client = road.traffic.connect(7005, address=network.TARGET)
    target = road.traffic.keep(listener.accept()[0])
    bulk(client, target, 50_000)
    expected = expect_conserved(road, 5)[5]  # while it is open: no session knows it
    assert expected["client-to-server", "incoming"] == expected["client-to-server", "outgoing"]
    assert expected["client-to-server", "incoming"][1] > 50_000


def test_udp_both_ways(make_node):
    """Verifies that forwarded UDP counts, each direction on both sides of its stream, when it is switched on."""
    node = make_road(make_node, **{"IPTables.udp.enabled": True})
    mark_new(node, network.CLIENT_DEVICE, "udp", 7006, UDP_MARK)
    target = node.traffic.keep(netns.socket_in(node.network.target, socket.SOCK_DGRAM))
    target.bind((network.TARGET, 7006))
    client = node.traffic.keep(netns.socket_in(node.network.client, socket.SOCK_DGRAM))
    client.connect((network.TARGET, 7006))
    for size in (10, 500, 1000):
        client.send(bytes(size))
        question, peer = target.recvfrom(2000)
        assert len(question) == size
        target.sendto(bytes(2 * size), peer)
        assert len(client.recv(3000)) == 2 * size
    counted = node.counted()
    there, back = counted[6, 3, "ORIGINAL"], counted[6, 3, "REPLY"]
    assert there == (3, 10 + 500 + 1000 + 3 * 28)
    expected = {("client-to-server", "incoming"): there, ("client-to-server", "outgoing"): there,
                ("server-to-client", "incoming"): back, ("server-to-client", "outgoing"): back}
    run_and_expect(lambda: moved(entries(node, "network-6")), expected)
    after_report(node, 2)
    assert moved(entries(node, "network-6")) == expected


def test_udp_switched_off(road):
    """Verifies that UDP with a service id and no In or Out bit counts for nobody."""
    mark_new(road, network.CLIENT_DEVICE, "udp", 7007, 0x600)
    target = road.traffic.keep(netns.socket_in(road.network.target, socket.SOCK_DGRAM))
    target.bind((network.TARGET, 7007))
    client = road.traffic.keep(netns.socket_in(road.network.client, socket.SOCK_DGRAM))
    client.connect((network.TARGET, 7007))
    client.send(b"nobody's")
    assert target.recv(100) == b"nobody's"
    after_report(road, 2)
    assert entries(road, "network-6") == []


def test_reversed_connection(road):
    """Verifies an In leg whose kernel direction runs against the session's: what the target opened is the server's."""
    mark_new(road, network.TARGET_DEVICE, "tcp", 7008, 0x6A0)
    listener = road.traffic.keep(netns.socket_in(road.network.client))
    listener.bind((network.CLIENT, 7008))
    listener.listen()
    opener = road.traffic.keep(netns.socket_in(road.network.target))
    opener.connect((network.CLIENT, 7008))
    accepted = road.traffic.keep(listener.accept()[0])
    bulk(opener, accepted, 30_000)
    expected = expect_conserved(road, 6)[6]
    assert expected["client-to-server", "outgoing"] == (0, 0)
    assert expected["client-to-server", "incoming"][1] > 30_000


def test_closing_connection_without_session(make_node):
    """Verifies that a connection that nobody announced and that is closing counts for nobody, with the warning."""
    node = make_road(make_node)
    node.proxy.stop()
    after_report(node)
    listener = node.traffic.keep(netns.socket_in(node.network.node))
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind((network.NODE_IN, 8001))
    listener.listen()
    client = node.traffic.connect(8001)
    accepted = node.traffic.keep(listener.accept()[0])
    bulk(client, accepted, 5_000)
    client.close()
    accepted.close()
    node.wait_log(": Not counting bytes net network-1 tx bytes ")
    after_report(node, 2)
    assert moved(entries(node, "network-1"))["client-to-server", "incoming"] == (0, 0)


def test_open_connection_without_session(make_node):
    """Verifies that an open connection that nobody announced counts, for the unknown domain and its own source."""
    node = make_road(make_node)
    node.proxy.stop()
    listener = node.traffic.keep(netns.socket_in(node.network.node))
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind((network.NODE_IN, 8001))
    listener.listen()
    client = node.traffic.connect(8001)
    accepted = node.traffic.keep(listener.accept()[0])
    bulk(client, accepted, 5_000)
    expected = expect_conserved(node, 1)[1]
    assert expected["client-to-server", "incoming"][1] > 5_000
    domains = [domain for entry in entries(node, "network-1") for domain in entry["domain-info"]]
    assert {domain["domain-name"] for domain in domains} == {"unknown"}


MESSAGES = {"requests": ("get", "post", "other"), "responses": ("2xx", "3xx", "4xx", "5xx")}


def messages(objects):
    """The sums of `http` of the direct class of some objects."""
    told = [entry["direct"]["http"] for entry in objects if "http" in entry.get("direct", {})]
    return {side: {kind: sum(part[side][kind] for part in told) for kind in kinds} for side, kinds in MESSAGES.items()}


def test_counts_of_an_interval(make_node):
    """Verifies new sessions, HTTP messages and target failures, and that each is told once, in whichever report."""
    node = make_road(make_node)
    after_report(node)
    client, target = node.traffic.session(BY_ID[1])
    question = request("counted.example.test")
    client.sendall(question)
    traffic.read_exactly(target, len(question))
    answered = b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"
    target.sendall(answered)
    traffic.read_exactly(client, len(answered))
    for _ in range(3):
        node.traffic.connect_in_vain(8003)
    after_report(node)
    bulk(client, target, 1000)  # what was told after its bytes had been read waits for traffic of its domain
    expected = {"requests": {"get": 1, "post": 0, "other": 0}, "responses": {"2xx": 0, "3xx": 0, "4xx": 1, "5xx": 0}}
    run_and_expect(lambda: messages(entries(node, "network-1")), expected)
    expect_conserved(node, 1)
    own = entries(node, "network-1")
    assert messages(own) == expected
    assert messages([domain for entry in own for domain in entry["domain-info"]
                     if domain["domain-name"] == "counted.example.test"]) == expected
    assert sum(entry["new-sessions-count"] for entry in own) == 1
    assert sum(entry["direct"]["new-sessions-count"] for entry in own if "direct" in entry) == 1
    failures = [entry["direct"].get("target-connect-error-count", 0) for entry in entries(node, "network-3")
                if "direct" in entry]
    assert sum(failures) == 3
    assert sum(entry["new-sessions-count"] for entry in entries(node, "network-3")) == 3
    users = [user for entry in own for user in entry["user-info"]["direct"]]
    assert sum(user["count"] for user in users) == 1
    for user in users:
        assert user["ip"] == network.CLIENT
        assert set(user) == {"ip", "count", "active-sessions-count", "traffic", "diagnostics"}
        assert set(user["diagnostics"]) == {"client", "server"}
        for side in user["diagnostics"].values():
            assert set(side) == {"average-rtt", "total-retransmit", "incoming-fin", "outgoing-fin", "incoming-rst",
                                 "outgoing-rst"}


def test_hop_and_its_metadata(make_node):
    """Verifies the three keys of the next hop, the third of which is the hop's metadata itself."""
    metadata = '{"site": "north", "rack": 7}'
    hops = [{"hop_id": "hop-2", "fqdn": "next.zol.test", "metadata": metadata, "zol_ips": ["192.0.2.9"]}]
    node = make_node(services=[service(1, host="next.zol.test")], names={"next.zol.test": [network.TARGET]},
                     settings={**SETTINGS, "HopData.hops": hops, "TrafficReport.next_hop": "",
                               "TrafficReport.enabled": False})
    node.start()
    client, target = node.traffic.session(BY_ID[1])
    bulk(client, target, 1000)
    entry = run_and_expect(lambda: entries(node, "network-1"), lambda found: found)[0]
    assert entry["next-hop"] == entry["next-hop-ip"] == "next.zol.test"
    assert entry[metadata] == {"site": "north", "rack": 7}
    assert set(entry) == {"logical-network-id", "next-hop-ip", "next-hop", metadata, "new-sessions-count",
                          "active-sessions-count", "domain-info", "user-info"}
    domain, = entry["domain-info"]
    assert set(domain) == {"domain-name", "new-sessions-count", "active-sessions-count"}


def test_service_that_was_removed(make_node):
    """Verifies that connections of a removed service keep their network, and the rest of the table is unharmed."""
    node = make_road(make_node)
    client, target = node.traffic.session(BY_ID[2])
    bulk(client, target, 10_000)
    expect_conserved(node, 2)
    node.services = [row for row in SERVICES if row["service_id"] != 2]
    node.reload()
    bulk(client, target, 20_000)
    expect_conserved(node, 2)


def throughput_seconds(bodies):
    """Over how long the throughputs of some reports are; an interval below a second has none."""
    totals = [body["total_traffic"] for body in bodies]
    return [total["total-bytes"] * 8 / total["total-throughput"] for total in totals
            if total["total-bytes"] and "total-throughput" in total]


def test_totals_of_the_node(road):
    """Verifies total_traffic: the last interval's sum over all networks, and the throughput over its whole seconds."""
    after_report(road)
    client, target = road.traffic.session(BY_ID[2])
    before = len(reports(road))

    def seconds_of_traffic():
        bulk(client, target, 40_000)
        after_report(road)
        return throughput_seconds(reports(road)[before:])

    run_and_expect(seconds_of_traffic, lambda found: found)
    after_report(road, 2)
    for body in reports(road):
        totals = body["total_traffic"]
        streams = [entry["traffic"][stream] for entry in body["logical-networks"]
                   for stream in ("client-to-server", "server-to-client")]
        assert totals["total-bytes"] == sum(s["incoming-bytes"] + s["outgoing-bytes"] for s in streams)
        assert totals["total-packets"] == sum(s["incoming-packets"] + s["outgoing-packets"] for s in streams)
        assert totals["total-bytes"] or not totals.get("total-throughput")
    seconds = throughput_seconds(reports(road))
    assert seconds == pytest.approx([max(round(length), 1) for length in seconds], rel=1e-6)
    assert sum(body["total_traffic"]["total-bytes"] for body in reports(road)) > 80_000


def test_accounting_switched_off(make_node):
    """Verifies the warning for each connection without counters, and the line at the start that says what to do."""
    node = make_node(services=SERVICES, settings=SETTINGS)
    netns.execute(node.network.node, "sysctl", "-q", "-w", "net.netfilter.nf_conntrack_acct=0")
    node.start()
    node.wait_log("net.netfilter.nf_conntrack_acct is off: no bytes can be counted; "
                  "sysctl -w net.netfilter.nf_conntrack_acct=1 puts it on")
    client, target = node.traffic.session(BY_ID[1])
    bulk(client, target, 1000)
    node.wait_log("Failed to read counters. net.netfilter.nf_conntrack_acct may be zero", count=2)
    after_report(node)
    assert moved(entries(node, "network-1"))["client-to-server", "incoming"] == (0, 0)
