"""Events: from the record of another process to the post, how they merge, wait and jump, and how they end."""
import collections
import socket
import time

import pytest

from standin import conf
from standin.alarms import (ANOMALY, BGP, BLACK_HOLE, FAILOPEN, FAILURE, NEXT_HOP, anomaly, black_hole, failure,
                            send)
from standin.wait import run_and_expect

PATH = "/zolEvent"
HOUR_MS = 3600000
SUPPRESSION = "Monitoring.event_suppression_ms"
REMOVED = "was sent. Remove from queue."


def events(node, kind=None):
    """The events that the server has stored, oldest first."""
    found = [record["body"] for record in node.requests(PATH) if record["verified"]]
    return [event for event in found if kind is None or event["eventType"] == kind]


def attempts(node):
    return node.control(stats=True)["attempts"].get(PATH, 0)


def suppress(node, milliseconds):
    conf.put(node.tree, SUPPRESSION, milliseconds)
    handled = node.log().count("parse_msg: reloadconf requested by:")
    node.reload()
    node.wait_log("parse_msg: reloadconf requested by:", handled + 1)


def start(make_node, suppression, log=None, **settings):
    node = make_node(settings={"Monitoring.session_report_resolution_ms": 0, **settings})
    if log is not None:
        node.write_file("log.properties", log)
    conf.put(node.tree, SUPPRESSION, suppression)  # in the tree, since a setting of the node's can't be changed
    node.write_conf()
    node.start_receiver()
    node.start_watchdog("--once")
    node.watchdog.wait_event("beat")
    return node


@pytest.fixture(scope="module")
def eager(make_module_node):
    """A node whose events wait for nothing."""
    return start(make_module_node, 0)


KINDS = {
    "failure": (FAILURE, failure([8080, 443]), "ZOL_FAILURE",
                {"zol_failures": [{"ip": "192.0.2.1", "port": 443, "failures": 1},
                                  {"ip": "192.0.2.1", "port": 8080, "failures": 1}]}),
    "one-port-of-two": (FAILURE, failure([81, 82], count=1), "ZOL_FAILURE",
                        {"zol_failures": [{"ip": "192.0.2.1", "port": 81, "failures": 1}]}),
    "count-beyond-the-record": (FAILURE, failure([83, 84], count=255), "ZOL_FAILURE",
                                {"zol_failures": [{"ip": "192.0.2.1", "port": 83, "failures": 1},
                                                  {"ip": "192.0.2.1", "port": 84, "failures": 1}]}),
    "failopen-on": (FAILOPEN, b"\xff", "ZOL_FAILOPEN", {"zol_failopen_state": "enabled"}),
    "failopen-off": (FAILOPEN, b"\0", "ZOL_FAILOPEN", {"zol_failopen_state": "disabled"}),
    "black-hole": (BLACK_HOLE, black_hole("target.example"), "ZOL_BLACKHOLE",
                   {"zol_targets_failures": [{"target": "target.example", "failures": 1}]}),
    "text-without-an-end": (BLACK_HOLE, b"a" * 256, "ZOL_BLACKHOLE",
                            {"zol_targets_failures": [{"target": "a" * 256, "failures": 1}]}),
    "next-hop": (NEXT_HOP, b"", "ZOL_NEXT_HOP_API_FAILURE", {}),
    "anomaly": (ANOMALY, anomaly("198.51.100.9", 7, 4000000000), "ROUTING_ANOMALY_DETECTED",
                {"rtt-measurements": [{"target": "198.51.100.9", "in-target-rtt": 7,
                                       "cumulative-rtt": 4000000000}]}),
    "bgp": (BGP, socket.inet_aton("203.0.113.5"), "BGP_PROVIDER_FAIL", {"provider_bgp_failure": {"ip": "203.0.113.5"}}),
}


@pytest.mark.parametrize("name", KINDS)
def test_record_becomes_event(eager, name):
    """Verifies the event that each record makes, signed, whole, and posted once."""
    kind, body, event_type, event_body = KINDS[name]
    before = len(events(eager, event_type))
    send(eager, kind, body)
    event = run_and_expect(lambda: events(eager, event_type), lambda found: len(found) == before + 1)[-1]
    assert event["eventBody"] == event_body
    assert event["id"] == eager.node_id and event["ip"] == eager.setting("General.external_ip")
    assert set(event) == {"timestamp", "id", "ip", "eventType", "eventBody"}


def test_failure_that_is_none(eager):
    """Verifies that a record with a status makes no event and charges nothing, and one without ports no event."""
    posts, uncharged = attempts(eager), eager.log().count("charge_send_events: not charged")
    run_and_expect(lambda: eager.log().count("HTTP request completed successfully."), posts)  # none is on its way
    send(eager, FAILURE, failure([80], status=1))
    send(eager, FAILURE, failure([80], count=0))
    eager.wait_log("charge_send_events: not charged", uncharged + 1)
    assert eager.log().count("charge_send_events: not charged") == uncharged + 1
    assert attempts(eager) == posts


def test_metadata(make_node):
    """Verifies that the operator's metadata goes along when it is asked for."""
    node = start(make_node, 0, **{"Monitoring.send_meta_data_on_events": True,
                                  "Monitoring.hqs_meta_data": '{"rack": 4}'})
    send(node, NEXT_HOP)
    event, = run_and_expect(lambda: events(node), lambda found: len(found) == 1)
    assert event["metadata"] == {"rack": 4}


def test_waiting_and_merging(make_node):
    """Verifies that like failures gather while they wait, and that fail-open goes before them at once."""
    node = start(make_node, HOUR_MS)
    for ports in ([80], [80, 81], [80]):
        send(node, FAILURE, failure(ports))
    for target in ("one", "two", "one"):
        send(node, BLACK_HOLE, black_hole(target))
    send(node, FAILOPEN, b"\1")
    node.wait_log("poll_send_events: event", 1)
    first, = run_and_expect(lambda: events(node), lambda found: len(found) == 1)
    assert first["eventBody"] == {"zol_failopen_state": "enabled"}
    node.wait_log(REMOVED)
    assert node.log().count("invoke: Pushing new event") == 3
    suppress(node, 0)
    send(node, FAILURE, failure([80]))  # charges the timer anew
    rest = run_and_expect(lambda: events(node)[1:], lambda found: len(found) == 2)
    bodies = {event["eventType"]: event["eventBody"] for event in rest}
    assert bodies == {
        "ZOL_FAILURE": {"zol_failures": [{"ip": "192.0.2.1", "port": 80, "failures": 4},
                                         {"ip": "192.0.2.1", "port": 81, "failures": 1}]},
        "ZOL_BLACKHOLE": {"zol_targets_failures": [{"target": "one", "failures": 2},
                                                   {"target": "two", "failures": 1}]}}


def test_second_event_during_a_post(make_node):
    """Verifies that a failure during the post of another waits for a post of its own."""
    node = start(make_node, 0)
    node.control(fault="silent", path=PATH)
    send(node, FAILURE, failure([80]))
    run_and_expect(lambda: attempts(node), 1)
    suppress(node, HOUR_MS)
    send(node, FAILURE, failure([80]))
    node.wait_log("invoke: Pushing new event", 2)
    assert "invoke: Event already exists. Updating." not in node.log()
    assert attempts(node) == 1
    send(node, FAILURE, failure([80]))
    node.wait_log("invoke: Event already exists. Updating.")
    node.control(clear=True)


STORM = 10_000
STORM_SENDER = """\
import os, socket, struct, sys, time
own = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
own.connect(sys.argv[1])
header = struct.pack("<H25si25s", 7, b"wanproxy", os.getpid(), b"zol_monitor")
begin, count = time.monotonic(), int(sys.argv[2])
for n in range(count):
    own.send(header + bytes((192, 0, 2, n % 50)) + struct.pack("<HHBI", 1000 + n % 3, 2000, 2, 0))
    if n % 100 == 99:
        time.sleep(max(0, begin + n / count - time.monotonic()))
"""


def test_storm_of_failures(make_node):
    """Verifies that 10,000 failures in a second make a post each second that hold all of them, and the beat goes on."""
    node = start(make_node, 1000, log=conf.LOG_PROPERTIES.replace("DEBUG", "INFO"))
    came = []
    node.watchdog.watchers.append(lambda line: came.append(time.monotonic()) if '"beat"' in line else None)
    began = time.monotonic()
    node.run("python3", "-c", STORM_SENDER, f"/run/zol/{node.node_id}/zol_monitor", STORM)
    expected = collections.Counter()
    for n in range(STORM):
        expected.update({(f"192.0.2.{n % 50}", 1000 + n % 3): 1, (f"192.0.2.{n % 50}", 2000): 1})

    def told():
        sums = collections.Counter()
        for event in events(node, "ZOL_FAILURE"):
            sums.update({(entry["ip"], entry["port"]): entry["failures"]
                         for entry in event["eventBody"]["zol_failures"]})
        return sums

    run_and_expect(told, expected)
    assert len(events(node)) <= 2 + (time.monotonic() - began)  # seconds, a post each
    run_and_expect(lambda: len(came), lambda count: count >= 3)
    assert attempts(node) == len(events(node))
    assert max(later - earlier for earlier, later in zip([began, *came], came)) < 4  # one a second is usual
    assert not node.watchdog.select("beats-missed")


@pytest.mark.parametrize("status", [500, 404])
def test_any_answer_ends_an_event(make_node, status):
    """Verifies that an event that the server has answered isn't posted again, though it may be."""
    node = start(make_node, 0)
    node.control(fault="status", path=PATH, status=status)
    send(node, NEXT_HOP)
    node.wait_log(REMOVED)
    beats = node.beats()
    run_and_expect(node.beats, lambda count: count >= beats + 2)
    assert attempts(node) == 1


@pytest.mark.parametrize("fault", ["refused", "reset", "silent"])
def test_no_answer(make_node, fault):
    """Verifies that what the server doesn't answer is posted again when it may be, and dropped when not."""
    node = start(make_node, 100, **{"General.hqs_http_client_timeout_sec": 1})
    node.control(**({"listen": False} if fault == "refused" else {"fault": fault, "path": PATH}))
    send(node, FAILURE, failure([80]))
    node.wait_log(REMOVED)
    send(node, BGP, socket.inet_aton("203.0.113.5"))
    node.wait_log('"eventType": "BGP_PROVIDER_FAIL"', 3)
    assert node.log().count(REMOVED) == 1
    node.control(**({"listen": True} if fault == "refused" else {"clear": True}))
    run_and_expect(lambda: [record["status"] for record in node.requests(PATH)
                            if record["body"]["eventType"] == "BGP_PROVIDER_FAIL"], lambda found: 200 in found)
    node.wait_log(REMOVED, 2)
    posts = node.log().count("Sending event ")
    beats = node.beats()
    run_and_expect(node.beats, lambda count: count >= beats + 2)
    assert node.log().count("Sending event ") == posts
    assert node.log().count('"eventType": "ZOL_FAILURE"') == 1


@pytest.mark.parametrize(("key", "text"), [
    ("General.external_ip", "Couldn't read the ZOL-IP from configuration file "),
    ("General.zol_id", "Couldn't read the ZOLID from configuration file "),
])
def test_missing_identity_is_fatal(make_node, key, text):
    """Verifies that an event that can't name its node ends the process with its line."""
    node = start(make_node, 0)
    node.expect_clean = False
    conf.put(node.tree, key, None)
    node.reload()
    send(node, FAILOPEN, b"\1")
    assert node.watchdog.wait_event("exited")["status"] == 1
    assert f"[ERROR] ZOLEvents: {text}\n" in node.log()
    assert f"[ERROR] Monitor: {text}\n" in node.log()
    assert "[ERROR] Monitor: Aborting.\n" in node.log()


def test_end_with_events(make_node):
    """Verifies that the process ends in order with an event on its way and others waiting."""
    node = start(make_node, HOUR_MS, **{"General.hqs_http_client_timeout_sec": 60})
    node.control(fault="silent", path=PATH)
    send(node, FAILURE, failure([80]))
    send(node, FAILOPEN, b"\1")
    run_and_expect(lambda: attempts(node), 1)
    node.cli("terminate")
    assert node.watchdog.wait_event("exited")["status"] == 0


def test_loop_rests_while_a_jumper_is_on_its_way(make_node):
    """Verifies that an event that is held back doesn't turn the loop while fail-open is being posted."""
    node = start(make_node, HOUR_MS, **{"General.hqs_http_client_timeout_sec": 60})
    node.control(fault="silent", path=PATH)
    send(node, FAILOPEN, b"\1")
    run_and_expect(lambda: attempts(node), 1)
    send(node, FAILURE, failure([80]))
    node.wait_log("invoke: Pushing new event", 2)
    polls, beats = node.log().count("poll_send_events: event"), node.beats()
    run_and_expect(node.beats, lambda count: count >= beats + 2)
    assert node.log().count("poll_send_events: event") - polls < 2000  # two events, 50 polls a second


def test_cores(make_node):
    """Verifies that a core file is reported, is marked by the post, and that a missing place has its line."""
    node = make_node(settings={"Monitoring.session_report_resolution_ms": 0, SUPPRESSION: 0})
    conf.put(node.tree, "IPTables.ssh_ports", [2022])
    node.write_conf()
    node.run("mount", "-t", "tmpfs", "tmpfs", "/var/log")
    node.run("sh", "-c", "cd /var/log && echo dump > wanproxy.core && touch other && chmod 644 wanproxy.core other")
    node.start_receiver()
    node.start_watchdog("--once")
    event, = run_and_expect(lambda: events(node, "ZOL_CORES"), lambda found: len(found) == 1, timeout=60)
    crash, = event["eventBody"]["crashes"]
    assert set(crash) == {"timestamp", "filename", "dirname", "version", "sshPort"}
    assert (crash["filename"], crash["dirname"], crash["sshPort"]) == ("wanproxy.core", "/var/log", 2022)
    assert node.run("stat", "-c", "%a", "/var/log/wanproxy.core", "/var/log/other").stdout.split() == ["4000", "644"]
    assert "New core file found at /var/log/wanproxy.core !!" in node.log()
    assert ("Failed to open folder /var/crash : " in node.log()) == (
        node.run("test", "-d", "/var/crash", check=False).returncode != 0)
