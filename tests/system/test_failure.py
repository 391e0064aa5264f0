"""Fail-open and black holes: from a process of the node that meets them, through the shared record and the daemon,
to the server."""
import struct
import subprocess

import periodic
import pytest
from standin import alarms, conf
from standin.wait import run_and_expect

NEIGHBOUR = "192.0.2.7"
PORT = 9001
HOUR_S = 3600
SETTINGS = {
    "Monitoring.session_report_resolution_ms": 0,
    "Monitoring.report_resolution_ms": 500,
    "IPTables.internal_base_port": PORT,
    "HighAvailability.enabled": True,
    "Failopen.threshold": 3,
    "Failopen.return_wait_period": HOUR_S,
    "BlackHole.enabled": True,
    "BlackHole.hqs_notification": True,
}
FIELDS = {"count": (24, "<Q"), "suspended": (32, "B"), "failopen": (33, "B"), "black_hole": (34, "B")}


class Carrier:
    """A process that carries traffic and meets failures."""

    def __init__(self, node, name="zol"):
        self.process = node.spawn(node.bin / "failure_process", node.node_id, name, stdin=subprocess.PIPE)
        self.process.wait_event("ready")

    def tell(self, *words):
        done = len(self.process.select("done", command=words[0]))
        self.process.write(" ".join(map(str, words)))
        self.process.wait_event("done", done + 1, command=words[0])

    def fail(self, count=1):
        for _ in range(count):
            self.tell("notify", NEIGHBOUR, PORT, 1, 0)

    def told(self):
        return [event["active"] for event in self.process.select("failopen")]


def state(node, field):
    offset, form = FIELDS[field]
    return struct.unpack_from(form, periodic.path_of(node, "status").read_bytes(), periodic.HEADER + offset)[0]


def events(node, kind):
    return [record["body"]["eventBody"] for record in node.requests("/zolEvent")
            if record["verified"] and record["body"]["eventType"] == kind]


def failopen_events(node):
    return [body["zol_failopen_state"] for body in events(node, "ZOL_FAILOPEN")]


def reported_state(node):
    """Of a report that was made from now on."""
    return periodic.after_report(node, 2)[-1]["zol-info"]["state"]


@pytest.fixture
def node(make_node):
    made = make_node(settings=dict(SETTINGS))
    conf.put(made.tree, "Monitoring.event_suppression_ms", 0)
    made.write_conf()
    made.start_receiver()
    made.start_watchdog("--once")
    made.watchdog.wait_event("beat")
    return made


def test_failopen_from_beginning_to_end(node):
    """Verifies that failures lead to fail-open, which everybody learns of, and that it ends by its time."""
    carrier = Carrier(node)
    carrier.fail(2)
    assert (state(node, "failopen"), state(node, "count"), carrier.told()) == (0, 2, [])
    assert reported_state(node) == "normal"
    carrier.fail()
    assert (state(node, "failopen"), state(node, "count"), carrier.told()) == (1, 0, [True])
    node.watchdog.wait_event("message", type=2, source="zol", destination="watchdog", size=56)
    run_and_expect(lambda: failopen_events(node), ["enabled"])
    run_and_expect(lambda: sum(entry["failures"] for body in events(node, "ZOL_FAILURE")
                               for entry in body["zol_failures"]
                               if (entry["ip"], entry["port"]) == (NEIGHBOUR, PORT)), 3)
    assert reported_state(node) == "failopen"

    node.settings["Failopen.return_wait_period"] = 0
    node.write_conf()
    carrier.tell("reload")
    run_and_expect(carrier.told, [True, False])  # by the timer
    run_and_expect(lambda: failopen_events(node), ["enabled", "disabled"])
    assert state(node, "failopen") == 0
    node.watchdog.wait_event("message", 2, type=2, source="zol")
    assert len(node.watchdog.select("message", type=2, source="zol")) == 2
    assert reported_state(node) == "normal"


def test_another_process_learns_of_it(node):
    """Verifies that a process hears of fail-open that another one has begun with its next reload, and that two
    processes count the node's failures together."""
    first, second = Carrier(node), Carrier(node, "zol2")
    first.fail(2)
    second.fail(1)
    assert (state(node, "failopen"), first.told(), second.told()) == (1, [], [True])
    first.tell("reload")
    assert first.told() == [True]
    first.tell("state")
    assert first.process.select("state")[-1]["failopen"] is True


def test_reload_asks_for_the_processes(node):
    """Verifies that a reload has the watchdog start the daemon and the agent, at the records' full size."""
    Carrier(node).tell("reload")
    asked = [node.watchdog.wait_event("message", count, type=10, source="zol", size=3519) for count in (1, 2)]
    names = [bytes.fromhex(message["hex"])[56:81].rstrip(b"\0") for message in asked]
    assert sorted(names) == [b"zol_ha_agent", b"zol_monitor"]


def test_reload_without_the_switch(node):
    """Verifies that a reload without a critical setting is an exception for who asked, who goes on."""
    carrier = Carrier(node)
    node.settings["HighAvailability.enabled"] = None
    node.write_conf()
    carrier.process.write("reload")
    thrown = carrier.process.wait_event("thrown")
    assert thrown["text"] == "ERROR couldn't find the critical parameter of monitor-enabled "
    carrier.tell("state")


def test_suspension(node):
    """Verifies that failures don't count while suspended, though the server is told of them."""
    carrier = Carrier(node)
    carrier.tell("suspend", HOUR_S)
    assert state(node, "suspended") == 1
    carrier.fail(5)
    assert (state(node, "failopen"), state(node, "count")) == (0, 0)
    run_and_expect(lambda: bool(events(node, "ZOL_FAILURE")), True)
    carrier.tell("resume")
    assert state(node, "suspended") == 0
    carrier.fail(3)
    assert state(node, "failopen") == 1


@pytest.mark.parametrize("close_ports", [False, True])
def test_black_hole(node, close_ports):
    """Verifies that a black hole becomes an event, and the node's state when ports are closed for it."""
    node.settings["BlackHole.close_service_ports"] = close_ports
    node.write_conf()
    carrier = Carrier(node)
    carrier.tell("blackhole", "target.example")
    assert carrier.process.select("blackhole") == [
        {"event": "blackhole", "target": "target.example", "handled": close_ports}]
    run_and_expect(lambda: events(node, "ZOL_BLACKHOLE"),
                   [{"zol_targets_failures": [{"target": "target.example", "failures": 1}]}])
    assert state(node, "black_hole") == int(close_ports)


def test_message_alone_is_an_event_alone(node):
    """Verifies that fail-open that is told by a message makes an event, and that the daemon leaves the state as it
    is: the record stays, and nothing goes to the watchdog."""
    alarms.send(node, alarms.FAILOPEN, b"\1")
    run_and_expect(lambda: failopen_events(node), ["enabled"])
    assert reported_state(node) == "normal"
    assert (state(node, "failopen"), state(node, "count")) == (0, 0)
    assert not node.watchdog.select("message", type=2)
    assert "Failopen" not in node.log()
