"""The management server failing in every way, and what the daemon does then: posts again as often as it is told to,
beats on, and is back in time for the next report."""
import subprocess

import pytest

from standin import conf, netns, network, traffic
from standin.node import SERVER_NAME, SERVER_PORT, service
from standin.wait import run_and_expect

PATH = "/zolSessionReport"
RETRIES = 2
SERVICE = service(1)
SETTINGS = {"General.hqs_http_client_timeout_sec": 2, "Monitoring.reporter_total_retries": RETRIES}


def end_one_session(node):
    """Carries one session to its end; the client's port."""
    client, target = node.traffic.session(SERVICE)
    port = client.getsockname()[1]
    client.close()
    traffic.read_to_end(target)
    target.close()
    return port


def arrived(node, port):
    return [entry for entry in node.sessions() if entry["source_port"] == port]


def attempts(node):
    return node.control(stats=True)["attempts"].get(PATH, 0)


def given_up(node):
    return node.log().count("poll_send_report: Failed to send Sessions report to HQS")


@pytest.fixture(scope="module")
def road(make_module_node):
    node = make_module_node(services=[SERVICE], settings=SETTINGS)
    return node.start()


@pytest.mark.parametrize("fault", [
    {"fault": "status", "status": 500},
    {"fault": "status", "status": 304},
    {"fault": "reset"},
    {"fault": "silent"},
    {"fault": "delay", "seconds": 5},
], ids=lambda fault: "-".join(str(value) for value in fault.values()))
def test_failed_report_is_posted_again(road, fault):
    """Verifies the number of posts of a report that keeps failing, that the loop beats on, and the next report."""
    posts, dropped, beats = attempts(road), given_up(road), road.beats()
    road.control(path=PATH, **fault)
    lost = end_one_session(road)
    run_and_expect(lambda: given_up(road), dropped + 1)
    assert attempts(road) == posts + 1 + RETRIES
    run_and_expect(road.beats, lambda count: count >= beats + 2)
    road.control(clear=True)
    port = end_one_session(road)
    run_and_expect(lambda: len(arrived(road, port)), 1)
    if fault.get("status") != 500:
        return
    assert not [entry for record in road.requests(PATH) if record["status"] == 200
                for entry in record["body"]["session_info"] if entry["source_port"] == lost]


def refused_connections(node):
    """SYNs to the server, counted by the kernel."""
    text = netns.execute(node.network.node, "iptables", "-nvxL", "SERVER_SYN")
    return int(text.splitlines()[2].split()[0])


def test_refused(road):
    """Verifies that a server that refuses is tried as often as one that fails, and found again."""
    for rule in (("-N", "SERVER_SYN"), ("-A", "SERVER_SYN", "-p", "tcp", "-j", "RETURN"),
                 ("-I", "OUTPUT", "-p", "tcp", "--syn", "--dport", str(SERVER_PORT), "-j", "SERVER_SYN")):
        netns.execute(road.network.node, "iptables", *rule)
    dropped, beats = given_up(road), road.beats()
    road.control(listen=False)
    end_one_session(road)
    run_and_expect(lambda: given_up(road), dropped + 1)
    assert refused_connections(road) == 1 + RETRIES
    run_and_expect(road.beats, lambda count: count >= beats + 2)
    road.control(listen=True)
    port = end_one_session(road)
    run_and_expect(lambda: len(arrived(road, port)), 1)


def test_retry_that_succeeds(road):
    """Verifies that a report whose second post succeeds arrives once, unchanged."""
    posts = attempts(road)
    road.control(fault="status", path=PATH, status=500, count=1)
    port = end_one_session(road)
    run_and_expect(lambda: [record["status"] for record in road.requests(PATH)
                            if any(entry["source_port"] == port for entry in record["body"]["session_info"])],
                   [500, 200])
    assert attempts(road) == posts + 2
    bodies = [record["body"] for record in road.requests(PATH)
              if any(entry["source_port"] == port for entry in record["body"]["session_info"])]
    assert bodies[0] == bodies[1]


def test_wrong_secret_is_refused(road):
    """Verifies that the receiver refuses a report signed with another secret."""
    right = road.setting("Monitoring.hmac_secret")
    made = subprocess.run([str(road.bin / "zol_secret"), "encipher", "zol.key"], cwd=road.folder, check=True,
                          capture_output=True, input=b"not the secret")
    conf.put(road.tree, "Monitoring.hmac_secret", made.stdout.decode().strip())
    road.reload()
    dropped = given_up(road)
    try:
        port = end_one_session(road)
        run_and_expect(lambda: given_up(road), dropped + 1)
        mine = [record for record in road.requests(PATH)
                if any(entry["source_port"] == port for entry in record["body"]["session_info"])]
        assert [(record["verified"], record["status"]) for record in mine] == [(False, 403)] * (1 + RETRIES)
    finally:
        conf.put(road.tree, "Monitoring.hmac_secret", right)
        road.reload()


def test_secret_that_cannot_be_deciphered(road):
    """Verifies that nothing unsigned goes out, and that the secret isn't logged."""
    right = road.setting("Monitoring.hmac_secret")
    conf.put(road.tree, "Monitoring.hmac_secret", "bm90IGEgc2VjcmV0")
    road.reload()
    posts, dropped = attempts(road), given_up(road)
    try:
        end_one_session(road)
        run_and_expect(lambda: given_up(road), dropped + 1)
        assert attempts(road) == posts
        assert "compute_hmac: Couldn't decode HMAC secret" in road.log()
        assert road.secret not in road.log() and "bm90IGEgc2VjcmV0" not in road.log()
    finally:
        conf.put(road.tree, "Monitoring.hmac_secret", right)
        road.reload()


def test_plain_and_compressed(road):
    """Verifies that a body is gzip when the setting says so, and plain when not."""
    port = end_one_session(road)
    run_and_expect(lambda: len(arrived(road, port)), 1)
    conf.put(road.tree, "Monitoring.compress_report", False)
    road.reload()
    plain = end_one_session(road)
    run_and_expect(lambda: len(arrived(road, plain)), 1)

    def encoding(wanted):
        record, = [record for record in road.requests(PATH)
                   if any(entry["source_port"] == wanted for entry in record["body"]["session_info"])]
        return {name.lower(): value for name, value in record["headers"].items()}.get("content-encoding")

    assert (encoding(port), encoding(plain)) == ("gzip", None)


def test_full_table_brings_the_report_forward(make_node):
    """Verifies that the configured number of finished sessions sends the report long before its time."""
    node = make_node(services=[SERVICE], settings={"Monitoring.session_report_resolution_ms": 2_000_000_000,
                                                   "Monitoring.session_report_max_sessions": 3})
    node.start()
    ports = {end_one_session(node) for _ in range(3)}
    found = run_and_expect(node.sessions, lambda sessions: len(sessions) == 3)
    assert {entry["source_port"] for entry in found} == ports
    assert "max_sessions_notify: Max sessions exceeded. Scheduling send report now" in node.log()


def hosts_file(node):
    return node.folder / "bin" / "zol_monitor_HQSHttpClient_persistent_hosts.txt"


def test_dead_name_server(make_node):
    """Verifies that the last good address is kept in a file, rewritten on a change only, and used without a server."""
    node = make_node(services=[SERVICE])
    node.name_server.ttl = 0
    node.start()
    port = end_one_session(node)
    run_and_expect(lambda: len(arrived(node, port)), 1)
    assert hosts_file(node).read_text() == f"{SERVER_NAME} {network.SERVER}\n"
    first = hosts_file(node).stat()
    port = end_one_session(node)
    run_and_expect(lambda: len(arrived(node, port)), 1)
    assert hosts_file(node).stat().st_mtime_ns == first.st_mtime_ns
    node.wait_log("Skipping save persistent hosts")
    node.name_server.close()
    node.cli("terminate")
    node.watchdog.wait_event("started", count=2)
    port = end_one_session(node)
    run_and_expect(lambda: len(arrived(node, port)), 1, timeout=60)
    assert "resolve_complete_cb: Failed to Resolve HQS URL. Trying to used cached result" in node.log()


def test_changed_address_is_kept(make_node):
    """Verifies that a new address of the server is added to the file."""
    node = make_node(services=[SERVICE], settings={"General.hqs_http_client_timeout_sec": 1})
    node.name_server.ttl = 0
    node.start()
    port = end_one_session(node)
    run_and_expect(lambda: len(arrived(node, port)), 1)
    node.name_server.names[SERVER_NAME] = [network.SILENT]
    end_one_session(node)
    run_and_expect(lambda: hosts_file(node).read_text().splitlines(),
                   [f"{SERVER_NAME} {network.SERVER}", f"{SERVER_NAME} {network.SILENT}"])
    run_and_expect(lambda: given_up(node), 1)


def test_no_address_at_all(make_node):
    """Verifies that a report without any address of the server is given up after its retries."""
    node = make_node(services=[SERVICE])
    node.name_server.names.pop(SERVER_NAME)
    node.start()
    end_one_session(node)
    run_and_expect(lambda: given_up(node), 1, timeout=60)
    assert node.log().count("resolve_complete_cb: No cached resolution. giving up") == 1 + RETRIES
    assert node.control(stats=True)["connections"] == 0
