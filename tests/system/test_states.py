"""Counting by the memory of connection states: the kernel's counters stay as they are, and a restart loses nothing."""
import os
import pathlib
import re
import signal
import socket

import pytest

from conserved import after_report, bulk, expect_conserved
from standin import netns, network, table
from standin.ledger import entries, lengthen_timeouts, moved, reports, truth
from standin.node import service
from standin.wait import run_and_expect

PERIOD_MS = 1500
SERVICES = [service(1), service(2)]
DUMP = "/tmp/ct_states_shm.dmp-1.0.0"
PRIMED = " existing connections on startup"
FULL = "Too many open connections, can't save entry state"
HEADER, ENTRY_SIZE = 48, 80  # of the record, bytes


@pytest.fixture
def still_node(make_node):
    """A node that hasn't been started."""
    node = make_node(services=SERVICES, settings={
        "Monitoring.traffic_report_resolution_ms": PERIOD_MS, "Monitoring.conntrack_states_enabled": True,
        "Watchdog.max_missed_threshold_ms": 120_000})  # a large table holds the loop up, longest under a sanitizer
    lengthen_timeouts(node)
    return node


@pytest.fixture
def node(still_node):
    still_node.start()
    # What a connection carries before the first reading with the memory is counted by nobody.
    still_node.wait_log(PRIMED)
    return still_node


def kernel_bytes(node, port):
    """What `conntrack -L` shows of the In leg from that client port: original and reply bytes."""
    listed = netns.execute(node.network.node, "conntrack", "-L", "-p", "tcp", "--orig-port-src", str(port))
    return tuple(map(int, re.findall(r"bytes=(\d+)", listed)))


def restarted(node, old):
    return run_and_expect(node.monitor_pid, lambda pid: pid != old)


def port_of(connection):
    return connection.getsockname()[1]


def test_counters_stay_in_the_kernel(node):
    """Verifies the sums over several readings, while another reader still sees all that the connection moved."""
    client, target = node.traffic.session(SERVICES[0])
    for _ in range(3):
        bulk(client, target, 100_000)
        after_report(node)
    expected = expect_conserved(node, 1)[1]
    assert kernel_bytes(node, port_of(client)) == (expected["client-to-server", "incoming"][1],
                                                   expected["server-to-client", "outgoing"][1])
    assert kernel_bytes(node, port_of(client))[0] > 300_000


def test_ended_connections_leave_the_memory(node):
    """Verifies that connections that ended are counted whole and that their ports may be used again."""
    for round_ in range(2):
        after_report(node)
        for port in range(15000, 15010):
            client, target = node.traffic.session(SERVICES[0], source_port=port)
            bulk(client, target, 1000)
            client.close()
            assert target.recv(1) == b""
            target.close()
        expect_conserved(node, 1)
        netns.execute(node.network.node, "conntrack", "-D", "-p", "tcp", "--mark", "0x100/0xff00")


def remembered(node, source):
    """How many UDP flows from that address have an entry in the record."""
    record = pathlib.Path("/proc", str(node.holder_pid), "root/dev/shm",
                          "PN9zol_utils12SharedObjectINS_15ConntrackStatesEEE-1.0.0_mem").read_bytes()
    begin = b"11" + socket.inet_aton(source)[::-1].hex().encode()
    return sum(record.startswith(begin, place) for place in range(HEADER, len(record), ENTRY_SIZE))


def test_uncounted_flows_leave_the_memory(still_node):
    """Verifies that flows of nobody, which a reading remembers like all others, are forgotten when they end."""
    node = still_node
    node.settings["IPTables.udp.enabled"] = True
    node.write_conf()
    node.start()
    for port in range(20_000, 20_050):
        with netns.socket_in(node.network.client, socket.SOCK_DGRAM) as client:
            client.bind((network.CLIENT, port))
            client.sendto(b"unmarked", (network.NODE_IN, 7))
    run_and_expect(lambda: remembered(node, network.CLIENT), 50)
    netns.execute(node.network.node, "conntrack", "-D", "-p", "udp")
    run_and_expect(lambda: remembered(node, network.CLIENT), 0)


def test_killed_between_two_readings(node):
    """Verifies that a kill -9 loses nothing and counts nothing twice, also what moved while the daemon was away."""
    client, target = node.traffic.session(SERVICES[0])
    bulk(client, target, 100_000)
    after_report(node, 2)
    bulk(client, target, 50_000)
    first = node.monitor_pid()
    node.expect_clean = False
    after_report(node)  # a report that is on its way would be lost
    node.signal_monitor(signal.SIGKILL)
    bulk(client, target, 70_000)
    restarted(node, first)
    bulk(client, target, 30_000)
    expect_conserved(node, 1)


def stop_within_a_reading(node, pid):
    """The daemon stands still between two connections of a reading."""
    log = node.folder / "monitor.log"

    def last_lines(size):
        with log.open("rb") as stream:
            stream.seek(max(0, log.stat().st_size - size))
            return stream.read()

    def stopped():
        run_and_expect(lambda: b"dump_parser" in last_lines(2000), False)
        run_and_expect(lambda: b"dump_parser" in last_lines(2000), True, interval=0.005)
        os.kill(pid, signal.SIGSTOP)
        run_and_expect(lambda: process_state(pid), "T")
        if b"dump_parser" in last_lines(200):
            return True
        os.kill(pid, signal.SIGCONT)  # the reading was over before
        return False

    run_and_expect(stopped, True)


def process_state(pid):
    return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0]


def test_killed_in_the_middle_of_a_reading(node):
    """Verifies that what was counted before isn't counted again, with 20,000 more connections to read."""
    client, target = node.traffic.session(SERVICES[0])
    bulk(client, target, 100_000)
    expect_conserved(node, 1)
    crowd = [table.created(*ends, mark=0x210) for ends in table.crowd(20_000)]
    table.send(node.network.node, crowd)
    first = node.monitor_pid()
    pid = node.host_pid(first)
    node.expect_clean = False
    stop_within_a_reading(node, pid)
    known = len(reports(node))
    os.kill(pid, signal.SIGKILL)
    node.watchdog.wait_event("exited", pid=first)
    assert len(reports(node)) == known, "the reading had ended"
    restarted(node, first)
    bulk(client, target, 30_000)
    expect_conserved(node, 1)


def test_stopped_in_order(node):
    """Verifies the road over the dump file: written at the end, taken and removed at the start, nothing lost."""
    client, target = node.traffic.session(SERVICES[0])
    bulk(client, target, 100_000)
    first = node.monitor_pid()
    after_report(node)  # a report that is on its way would be lost
    node.cli("terminate")
    node.watchdog.wait_event("exited", pid=first)
    assert f"Conntrack states were written successfully to {DUMP}" in node.log()
    bulk(client, target, 60_000)
    restarted(node, first)
    node.wait_log("Conntrack states dump file was read successfully")
    assert node.run("ls", DUMP, check=False).returncode != 0
    bulk(client, target, 30_000)
    expect_conserved(node, 1)


@pytest.mark.parametrize("content, text", [
    (b"short", "Conntrack states dump file was read successfully"),
    (None, "Could not open conntrack states dump file"),
])
def test_bad_dump_file(still_node, content, text):
    """Verifies that a file that is short or unreadable is told and doesn't disturb the counting."""
    node = still_node
    if content is None:
        node.run("ln", "-s", DUMP, DUMP)  # opens for nobody, root neither
    else:
        node.run("sh", "-c", f"printf {content.decode()} > {DUMP}")
    node.start()
    node.wait_log(text)
    node.wait_log(PRIMED)
    client, target = node.traffic.session(SERVICES[0])
    bulk(client, target, 20_000)
    expect_conserved(node, 1)


def test_dump_file_of_another_version(still_node):
    """Verifies that another version's file stays where it is."""
    node = still_node
    other = "/tmp/ct_states_shm.dmp-0.9.9"
    node.run("sh", "-c", f"printf other > {other}")
    node.start()
    after_report(node)
    assert node.run("cat", other).stdout == "other"
    assert "dump file was read successfully" not in node.log()


def test_switched_off_and_on(node):
    """Verifies that the setting changes hands at a quiet moment without a byte lost or counted twice."""
    client, target = node.traffic.session(SERVICES[0])
    bulk(client, target, 100_000)
    expect_conserved(node, 1)
    node.settings["Monitoring.conntrack_states_enabled"] = False
    node.reload()
    node.wait_log("Conntrack States is not active!")
    run_and_expect(lambda: kernel_bytes(node, port_of(client)), (0, 0))  # by a reading that counts for nobody
    bulk(client, target, 50_000)
    expect_conserved(node, 1)
    node.settings["Monitoring.conntrack_states_enabled"] = True
    node.reload()
    node.wait_log(PRIMED, count=2)
    bulk(client, target, 300_000)  # beyond what was remembered before
    expect_conserved(node, 1)


def test_full_memory(still_node):
    """Verifies the limit of 100,000 connections, its warning, and the recovery once there is room again."""
    node = still_node
    if int(netns.execute(node.network.node, "sysctl", "-n", "net.netfilter.nf_conntrack_max")) < 120_000:
        pytest.skip("the kernel's connection table holds less than 120,000 entries here")
    node.write_file("log.properties", (node.folder / "log.properties").read_text().replace("DEBUG", "WARN"))
    node.start()
    after_report(node)
    crowd = table.crowd(100_050)
    table.send(node.network.node, [table.created(*ends, mark=0x210) for ends in crowd])
    node.wait_log(FULL, count=50, timeout=60)
    client, target = node.traffic.session(SERVICES[0])
    bulk(client, target, 20_000)
    after_report(node, 3)
    # Not remembered: its absolute counters are counted again at each reading.
    counted = moved(entries(node, "network-1"))["client-to-server", "incoming"][1]
    assert counted >= 2 * truth(node, 1)["client-to-server", "incoming"][1] > 40_000
    table.send(node.network.node, [table.deleted(*ends) for ends in crowd[:1000]])
    after_report(node, 3)
    before = moved(entries(node, "network-1")), truth(node, 1)
    bulk(client, target, 20_000)
    after_report(node, 3)
    after = moved(entries(node, "network-1")), truth(node, 1)
    for stream in before[0]:
        assert after[0][stream][1] - before[0][stream][1] == after[1][stream][1] - before[1][stream][1]
