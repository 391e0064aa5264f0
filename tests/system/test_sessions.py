"""Sessions from end to end: client, proxy, target, the kernel's connection tracking, and the report at the server."""
import collections
import re
import ssl

import pytest

from standin import netns, network, traffic
from standin.node import service
from standin.wait import run_and_expect

NEXT_HOP = "hop2.zol.test"
SERVICES = [
    service(1),
    service(2, external_port_out=9999),                   # nobody listens
    service(3, host=network.SILENT),                      # packets are dropped
    service(4, host="nowhere.zol.test"),                  # has no address
    service(5, host="named.zol.test"),
    service(6, external_port_out=5906),                   # the next hop is another node
    service(7),                                           # told as gone through fail-open
    service(8),                                           # and as recovered
    service(9, host=network.SERVER, aux_host=network.TARGET),  # the first target refuses
]
BY_ID = {row["service_id"]: row for row in SERVICES}
PROXY_OPTIONS = ("--connect-timeout-ms", "500", "--ignore-domain", "ignored.test", "--failopen", "7", "--recover", "8",
                 "--hop-order", "2")


@pytest.fixture(scope="module")
def road(make_module_node):
    """One node for all of this file; each test looks at its own session."""
    node = make_module_node(services=SERVICES, settings={"TrafficReport.next_hop": NEXT_HOP},
                            names={"named.zol.test": [network.TARGET], NEXT_HOP: [network.TARGET]})
    return node.start(proxy_options=PROXY_OPTIONS)


def reported(node, client_port):
    """The one report of the session of that client port."""
    def mine():
        return [entry for entry in node.sessions() if entry["source_port"] == client_port]

    entry, = run_and_expect(mine, lambda found: len(found) >= 1, timeout=40, interval=0.1)
    return entry


def port_of(connection):
    return connection.getsockname()[1]


def ends(entry):
    return entry["in_if"]["termination_type"], entry["out_if"]["termination_type"]


def talk(client, target, question=b"question", answer=b"answer"):
    client.sendall(question)
    assert traffic.read_exactly(target, len(question)) == question
    target.sendall(answer)
    assert traffic.read_exactly(client, len(answer)) == answer


def test_fin_from_client(road):
    """Verifies every field of a session that the client ends."""
    client, target = road.session(BY_ID[1])
    port = port_of(client)
    talk(client, target)
    client.close()
    assert traffic.read_to_end(target) == b""
    target.close()
    entry = reported(road, port)
    assert ends(entry) == ("FIN Received", "FIN Sent")
    opened, = [event for event in road.proxy.select("session") if event["client"].endswith(f":{port}")]
    connected, = road.proxy.select("connected", session=opened["session"])
    fixed = {key: entry[key] for key in entry if key not in ("in_if", "out_if", "start_time", "end_time")}
    assert fixed == {
        "session_id": opened["session"], "ip_proto": 6, "direction": "internet_to_internet",
        "next_hop": network.TARGET, "next_hop_cname": "", "hop_location": "INOUT", "next_hop_ip": network.TARGET,
        "ip": network.CLIENT, "source_port": port, "domain_name": "unknown", "vbn_id": "network-1",
        "service_port": 8001, "hop_order": 3, "failopen": False, "connection_recover": False, "retries_count": 0,
        "zol_version": "zol-1.0.0",
    }
    assert entry["in_if"]["destination_ip"] == network.NODE_IN
    assert entry["out_if"]["source_port"] == int(connected["source"].split(":")[1])
    stamp = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z")
    assert stamp.fullmatch(entry["start_time"]) and stamp.fullmatch(entry["end_time"])
    assert entry["start_time"] <= entry["end_time"]


def test_fin_from_target(road):
    """Verifies the texts when the target ends the session."""
    client, target = road.session(BY_ID[1])
    port = port_of(client)
    talk(client, target)
    target.close()
    assert traffic.read_to_end(client) == b""
    client.close()
    assert ends(reported(road, port)) == ("FIN Sent", "FIN Received")


def test_reset_by_client(road):
    """Verifies the texts when the client resets."""
    client, target = road.session(BY_ID[1])
    port = port_of(client)
    talk(client, target)
    traffic.reset(client)
    with pytest.raises(ConnectionResetError):
        target.recv(1)
    assert ends(reported(road, port)) == ("RST Received", "RST Sent")


def test_reset_by_target(road):
    """Verifies the texts when the target resets."""
    client, target = road.session(BY_ID[1])
    port = port_of(client)
    talk(client, target)
    traffic.reset(target)
    with pytest.raises(ConnectionResetError):
        client.recv(1)
    assert ends(reported(road, port)) == ("RST Sent", "RST Received")


def test_reset_after_fin(road):
    """Verifies that an RST overrules the FIN that came before it."""
    client, target = road.session(BY_ID[1])
    port = port_of(client)
    client.shutdown(traffic.socket.SHUT_WR)
    assert traffic.read_to_end(target) == b""
    traffic.reset(target)
    with pytest.raises(ConnectionResetError):
        client.recv(1)
    assert ends(reported(road, port)) == ("RST Sent", "RST Received")


@pytest.mark.parametrize("number, in_text, out_text, next_hop_ip", [
    (2, "RST Sent", "Connection Refused", network.TARGET),
    (3, "FIN Sent", "Connection TimeOut", network.SILENT),
    (4, "FIN Sent", "Resolution Failure", "0.0.0.0"),
])
def test_no_way_onward(road, number, in_text, out_text, next_hop_ip):
    """Verifies the session of a client whose target couldn't be reached."""
    port, ended_by = road.traffic.connect_in_vain(8000 + number)
    assert f"{ended_by} Sent" == in_text
    entry = reported(road, port)
    assert ends(entry) == (in_text, out_text)
    assert (entry["next_hop_ip"], entry["vbn_id"], entry["out_if"]["source_port"]) == \
        (next_hop_ip, f"network-{number}", 0)


def test_target_by_name(road):
    """Verifies that a target given by name is reported by its name and its address."""
    client, target = road.traffic.session(BY_ID[5])
    port = port_of(client)
    client.close()
    traffic.read_to_end(target)
    target.close()
    entry = reported(road, port)
    assert (entry["next_hop"], entry["next_hop_ip"]) == ("named.zol.test", network.TARGET)


@pytest.mark.parametrize("number, entry_port, location, next_hop", [
    (1, 8001, "INOUT", network.TARGET),
    (1, 5001, "OUT", network.TARGET),
    (6, 8006, "IN", NEXT_HOP),
    (6, 5006, "MID", NEXT_HOP),
])
def test_hop_location(road, number, entry_port, location, next_hop):
    """Verifies the node's place in the chain, by the ports on which a session comes in and goes out."""
    out_port = BY_ID[number]["external_port_out"]
    road.traffic.listen(out_port)
    client = road.traffic.connect(entry_port)
    port = port_of(client)
    target = road.traffic.accept(out_port)
    client.close()
    traffic.read_to_end(target)
    target.close()
    entry = reported(road, port)
    assert (entry["hop_location"], entry["next_hop"], entry["vbn_id"]) == (location, next_hop, f"network-{number}")


def test_domain_and_user_agent_of_http(road):
    """Verifies that the request's host and user agent are reported."""
    client, target = road.traffic.session(BY_ID[1])
    port = port_of(client)
    question = b"GET /a HTTP/1.1\r\nHost: Shop.Example.test\r\nUser-Agent: probe/1.0\r\n\r\n"
    talk(client, target, question, b"HTTP/1.1 204 No Content\r\n\r\n")
    client.close()
    traffic.read_to_end(target)
    target.close()
    entry = reported(road, port)
    assert (entry["domain_name"], entry["user_agent"]) == ("shop.example.test", "probe/1.0")


def test_domain_of_tls(road):
    """Verifies that the server name of a TLS greeting is the domain, and that no user agent is made up."""
    greeting = ssl.MemoryBIO()
    context = ssl.create_default_context()
    with pytest.raises(ssl.SSLWantReadError):
        context.wrap_bio(ssl.MemoryBIO(), greeting, server_hostname="secure.example.test").do_handshake()
    client, target = road.traffic.session(BY_ID[1])
    port = port_of(client)
    talk(client, target, greeting.read())
    client.close()
    traffic.read_to_end(target)
    target.close()
    entry = reported(road, port)
    assert entry["domain_name"] == "secure.example.test"
    assert "user_agent" not in entry


def socket_figures(node, local_port, peer_port):
    """What the kernel says of one of the proxy's sockets."""
    text = netns.execute(node.network.node, "ss", "-Htin", "sport", "=", f":{local_port}", "and", "dport", "=",
                         f":{peer_port}")
    scales = re.search(r"wscale:(\d+),(\d+)", text)
    return {"received_window_scale": int(scales[1]), "sent_window_scale": int(scales[2]),
            "mss": int(re.search(r"\bmss:(\d+)", text)[1]), "congestion_window": int(re.search(r"cwnd:(\d+)", text)[1])}


def test_tcp_figures(road):
    """Verifies that both legs report the kernel's own figures, with a round-trip time that a slow peer shows."""
    client, target = road.session(BY_ID[1])
    port = port_of(client)
    quickly = traffic.socket.TCP_QUICKACK
    for _ in range(8):  # a peer that has nothing to say acknowledges late
        target.setsockopt(traffic.socket.IPPROTO_TCP, quickly, 0)
        client.sendall(b"x")
        traffic.read_exactly(target, 1)
        out_port = target.getpeername()[1]
        run_and_expect(lambda: netns.execute(road.network.node, "ss", "-Htin", "sport", "=", f":{out_port}"),
                       lambda text: "unacked:" not in text, timeout=5, interval=0.01)
    wanted_in = socket_figures(road, 8001, port)
    wanted_out = socket_figures(road, out_port, 9001)
    traffic.reset(client)  # a FIN and its answer would move the figures once more
    with pytest.raises(ConnectionResetError):
        target.recv(1)
    entry = reported(road, port)
    for leg, wanted in (("in_if", wanted_in), ("out_if", wanted_out)):
        assert {key: entry[leg][key] for key in wanted} == wanted
        assert (entry[leg]["retransmissions"], entry[leg]["unacked"]) == (0, 0)
    assert entry["out_if"]["rtt"] >= 1


def test_second_session_on_a_reused_port(road):
    """Verifies that two sessions of one client address and port are two reports."""
    port = 45678
    for _ in range(2):
        closed = road.log().count("Connection close reason")
        client, target = road.traffic.session(BY_ID[1], source_port=port)
        talk(client, target)
        traffic.reset(client)
        with pytest.raises(ConnectionResetError):
            target.recv(1)
        # The kernel and the proxy tell on different roads: the port is free again once the daemon knows of the end.
        road.wait_log("Connection close reason", closed + 2)
    found = run_and_expect(lambda: [entry for entry in road.sessions() if entry["source_port"] == port],
                           lambda entries: len(entries) == 2, timeout=40)
    assert len({entry["session_id"] for entry in found}) == 2
    assert [ends(entry) for entry in found] == [("RST Received", "RST Sent")] * 2


def test_failopen_and_recover(road):
    """Verifies that a session through fail-open says so, and one that came back says that too."""
    entries = {}
    for number in (7, 8):
        client, target = road.traffic.session(BY_ID[number])
        port = port_of(client)
        client.close()
        traffic.read_to_end(target)
        target.close()
        entries[number] = reported(road, port)
    assert (entries[7]["failopen"], entries[7]["connection_recover"]) == (True, False)
    assert (entries[8]["failopen"], entries[8]["connection_recover"]) == (True, True)


def test_retry_with_the_second_target(road):
    """Verifies that a session that reached its second target counts the retry."""
    client, target = road.traffic.session(BY_ID[9])
    port = port_of(client)
    client.close()
    traffic.read_to_end(target)
    target.close()
    entry = reported(road, port)
    assert (entry["retries_count"], entry["next_hop_ip"]) == (1, network.TARGET)


def test_ignored_session(road):
    """Verifies that an ignored session never arrives, though a later one does."""
    ports = []
    for host in (b"ignored.test", b"seen.test"):
        earlier = len(road.proxy.select("session"))
        client, target = road.traffic.session(BY_ID[1])
        ports.append(port_of(client))
        talk(client, target, b"GET / HTTP/1.1\r\nHost: " + host + b"\r\n\r\n")
        client.close()
        traffic.read_to_end(target)
        target.close()
        if host == b"ignored.test":
            session = run_and_expect(lambda: road.proxy.select("session")[earlier:], lambda new: new)[-1]["session"]
            road.wait_log(f"Session - {session} will be ignored")
            run_and_expect(lambda: [entry for entry in road.connections() if entry.source_port == ports[0]], [])
    assert reported(road, ports[1])["domain_name"] == "seen.test"
    assert not [entry for entry in road.sessions() if entry["source_port"] == ports[0]]


def test_many_at_once(road):
    """Verifies that of many sessions that end together each arrives once."""
    earlier = {event["session"] for event in road.proxy.select("session")}
    pairs = [road.traffic.session(BY_ID[1]) for _ in range(100)]
    ports = {port_of(client) for client, _ in pairs}  # which earlier sessions may have had too
    for client, target in pairs:
        client.close()
        target.close()

    def told():
        return {event["session"] for event in road.proxy.select("session")
                if int(event["client"].split(":")[1]) in ports} - earlier

    wanted = run_and_expect(told, lambda ids: len(ids) == len(pairs))
    run_and_expect(lambda: {entry["session_id"] for entry in road.sessions()}, lambda ids: wanted <= ids, timeout=60)


def test_each_arrived_once(road):
    """Verifies that no session of this file was reported twice, and that every report was signed."""
    counts = collections.Counter(entry["session_id"] for entry in road.sessions())
    assert counts and set(counts.values()) == {1}
    assert all(record["verified"] for record in road.requests())
