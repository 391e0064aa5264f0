"""The periodic report: every key, the period that ends with it, and the records that it leaves."""
import os
import pathlib
import signal
import socket
import struct
import time

import pytest

from periodic import (BLACK_HOLES, BY_ID, DIAGNOSTICS, ERRORS, HEADER, MAX_HOPS, MAX_ROWS, ROW_FIELDS, SERVICES,
                      SETTINGS, STATUS, after_report, black_hole, check_ratios, hops, last_info, listed, path_of,
                      reports, ring, row, send, short_session, start, status, summed, totals)
from standin import conf, netns, network, table, traffic
from standin.wait import run_and_expect


@pytest.fixture(scope="module")
def road(make_module_node):
    return start(make_module_node)


# --- the tree ---------------------------------------------------------------------------------------------------------

def shape(value):
    """Keys and kinds, lists by what they hold."""
    if isinstance(value, dict):
        return {key: shape(member) for key, member in value.items()}
    if isinstance(value, list):
        return [shape(value[0])] if value else []
    return "number" if isinstance(value, (int, float)) and not isinstance(value, bool) else type(value).__name__


HOP_LIST = [{"ip": "str", "count": "number"}]
TREE = {
    "version": "str",
    "timestamp": "str",
    "machine-info": {
        "id": "str", "ip_address": "str",
        "cpu": {"total": "number", "num-of-cores": "number", "cores": [],
                "cpu-stats": {"steal-average-pc": "number", "steal-variance": "number", "clock-skew-ms": "number",
                              "num-of-samples": "number"}},
        "ram": {"total": "number", "used": "number"},
    },
    "zol-info": {
        "id": "str", "version": "str", "state": "str",
        "cpu": "number", "ram": "number", "fd-max-ratio": "number",
        "syn-flood-drop": "number", "netlink-drop-counters": "number", "icmp-flood-drop": "number",
        "open-sessions-count": "number", "active-sessions-count": "number",
        "session-error-counters": {key: "number" for key in ERRORS},
        "black-hole-counters": {key: "number" for key in BLACK_HOLES},
        "write-waiting-time-ms": {"in-write-waiting-ms": "number", "out-write-waiting-ms": "number"},
        "failure-ratio": "number",
        "open-session-count-per-next-hop": HOP_LIST,
        "active-session-count-per-next-hop": HOP_LIST,
        "new-sessions": {"traffic": "number", "tcp": "number", "udp": "number"},
        "processes_stats": [{"process_name": "str", "ram": "number", "cpu": "number", "fd": "number"}],
    },
}


def test_every_key(make_node):
    """Verifies the whole tree of a report of a node that has something to say under each key, and who it is."""
    node = start(make_node, **{"IPTables.syn_flood_limit": 10, "Monitoring.send_meta_data_on_periodic_report": True,
                               "Monitoring.hqs_meta_data": '{"rack": 4}'})
    client, target = node.traffic.session(BY_ID[1])

    def busy_report():
        client.sendall(b"x")
        traffic.read_exactly(target, 1)
        return reports(node)[-1]

    report = run_and_expect(busy_report, lambda found: found["zol-info"]["active-sessions-count"] == 1)
    assert shape(report) == {**TREE, "metadata": {"rack": "number"}}
    assert report["version"] == "1.0"
    assert abs(time.time() - time.mktime(time.strptime(report["timestamp"], "%Y-%m-%dT%H:%M:%SZ")) + time.timezone) < 60
    info, machine = report["zol-info"], report["machine-info"]
    assert (info["id"], info["version"], info["state"]) == (node.node_id, "1.0.0", "normal")
    assert (machine["id"], machine["ip_address"]) == (node.node_id, network.NODE_OUT)
    assert machine["cpu"]["num-of-cores"] == os.cpu_count()
    memory = dict(line.split(":") for line in pathlib.Path("/proc/meminfo").read_text().splitlines())
    kb = {key: int(value.split()[0]) for key, value in memory.items()}
    assert machine["ram"]["total"] == kb["MemTotal"]
    used = kb["MemTotal"] - kb["MemFree"] - kb["Cached"] - kb["Buffers"]
    assert abs(machine["ram"]["used"] - used) < 0.2 * kb["MemTotal"]


def test_state_follows_the_record(make_node):
    """Verifies that the node's state is that of the shared byte, and normal where shared memory is off."""
    node = start(make_node)
    after_report(node)
    for value, text in ((1, "failopen"), (0, "normal")):
        with path_of(node, "status").open("r+b") as file:
            file.seek(HEADER + STATUS["failopen"][0])
            file.write(bytes([value]))
        run_and_expect(lambda: last_info(node)["state"], text)
    off = make_node(services=SERVICES, settings=SETTINGS)
    off.run("sh", "-c", "mkdir -p /run/zol && touch /run/zol/no_shared_memory")
    off.start_receiver()
    off.start_watchdog()
    off.watchdog.wait_event("records")
    with path_of(off, "status").open("r+b") as file:
        file.seek(HEADER + STATUS["failopen"][0])
        file.write(b"\1")
    assert after_report(off)[-1]["zol-info"]["state"] == "normal"
    assert ring(off) == (0, 0)


def test_missing_id_ends_the_daemon(make_node):
    """Verifies that a report that can't name its node ends the process with its line."""
    node = start(make_node, "--once")
    node.expect_clean = False
    after_report(node)
    conf.put(node.tree, "General.zol_id", None)
    node.write_conf()
    node.cli("reloadconf")
    node.watchdog.wait_event("exited")
    node.wait_log("[ERROR] ZolInfo: Couldn't find ZOLID configuration parameter.\n")


# --- sessions and hops ------------------------------------------------------------------------------------------------

def expect_last(node, **expected):
    """Waits until the last report's keys, dashes for underscores, have these values."""
    wanted = {key.replace("_", "-"): value for key, value in expected.items()}
    return run_and_expect(lambda: {key: last_info(node)[key] for key in wanted}, wanted)


def test_open_and_active_sessions(road):
    """Verifies numbers of sessions by what stands and by what moves, in the report, the record and its row."""
    expect_last(road, open_sessions_count=0, active_sessions_count=0)
    before = len(reports(road))
    pairs = [road.traffic.session(BY_ID[1]) for _ in range(5)]
    expect_last(road, open_sessions_count=5)

    def moving():
        for client, target in pairs[:2]:
            client.sendall(b"x")
            traffic.read_exactly(target, 1)
        info = last_info(road)
        return (info["open-sessions-count"], info["active-sessions-count"],
                listed(info, "open-session-count-per-next-hop"),
                listed(info, "active-session-count-per-next-hop"), status(road, "open"), status(road, "active"),
                hops(road, "next_hop_open"), hops(road, "next_hop_active"), hops(road, "prv_hop_open"),
                hops(road, "prv_hop_active"), row(road, ring(road)[1])["open"], row(road, ring(road)[1])["active"])

    there, here = network.TARGET, network.CLIENT
    run_and_expect(moving, (5, 2, {there: 5}, {there: 2}, 5, 2, ({there: 5}, 1), ({there: 2}, 1), ({here: 5}, 1),
                            ({here: 2}, 1), 5, 2))
    run_and_expect(lambda: summed(road, "new-sessions", before), {"traffic": 5, "tcp": 5, "udp": 0})
    for client, target in pairs:
        client.close()
        target.close()
    expect_last(road, open_sessions_count=0, active_sessions_count=0, open_session_count_per_next_hop=[])
    run_and_expect(lambda: hops(road, "prv_hop_open"), ({}, 0))
    assert summed(road, "new-sessions", before) == {"traffic": 5, "tcp": 5, "udp": 0}


def legs(count, mark, outward):
    """Entries for that many hops, the n-th with n % 3 + 1 connections, and what a map of hops makes of them."""
    entries, by_hop = [], {}
    for n in range(1, count + 1):
        hop = f"10.20.{n >> 8}.{n & 255}"
        by_hop[hop] = n % 3 + 1
        for port in range(20000, 20000 + by_hop[hop]):
            ends = (network.NODE_OUT, port, hop, 5901) if outward else (hop, port, network.NODE_IN, 5001)
            entries.append((*ends, mark))
    return entries, by_hop


def expect_tables(node, open_hops, previous):
    """The report lists every next hop, the record holds 50 of each, in order of their texts, and a count."""
    def in_record(by_hop):
        first = dict(sorted(by_hop.items())[:MAX_HOPS])
        return first, len(by_hop) if len(by_hop) <= MAX_HOPS else MAX_HOPS - 1

    run_and_expect(lambda: (listed(last_info(node), "open-session-count-per-next-hop"), hops(node, "next_hop_open"),
                            hops(node, "prv_hop_open")), (open_hops, in_record(open_hops), in_record(previous)))
    assert listed(last_info(node), "active-session-count-per-next-hop") == {}
    assert hops(node, "next_hop_active") == hops(node, "prv_hop_active") == ({}, 0)


def test_hop_tables(make_node):
    """Verifies tables of 0, 50 and 51 hops: all in the report, 50 in the record, and the count of a full one."""
    node = start(make_node)
    after_report(node, 2)
    expect_tables(node, {}, {})
    next_legs, next_hops = legs(50, 0x120, outward=True)
    prv_legs, prv_hops = legs(51, 0x110, outward=False)
    table.send(node.network.node, [table.created(*leg[:4], mark=leg[4]) for leg in next_legs + prv_legs])
    expect_tables(node, next_hops, prv_hops)
    more_legs, more_hops = legs(51, 0x120, outward=True)
    gone = [leg for leg in prv_legs if leg[0] == "10.20.0.51"]
    table.send(node.network.node, [table.created(*leg[:4], mark=leg[4]) for leg in more_legs if leg not in next_legs])
    table.send(node.network.node, [table.deleted(*leg[:4]) for leg in gone])
    del prv_hops["10.20.0.51"]
    expect_tables(node, more_hops, prv_hops)
    table.send(node.network.node, [table.deleted(*leg[:4]) for leg in more_legs + prv_legs if leg not in gone])
    expect_tables(node, {}, {})


# --- failures ---------------------------------------------------------------------------------------------------------

def fail(node, resolution=0, timeout=0, refused=0, invalid=0, failopen=0, recovered=0, black_holes=0):
    for number, count in ((4, resolution), (3, timeout), (2, refused)):
        for _ in range(count):
            node.traffic.connect_in_vain(8000 + number)
    for _ in range(invalid):
        node.cli("invalid_public_host")
    for number, count in ((5, failopen), (6, recovered)):
        for _ in range(count):
            short_session(node, number)
    black_hole(node, black_holes)


def test_failures_are_reported_once(road):
    """Verifies that each failure counts under its reason in one report, and in the record's total for good."""
    before, totals_before = len(reports(road)), totals(road)
    fail(road, resolution=1, timeout=2, refused=3, invalid=4, failopen=5, recovered=2, black_holes=3)
    errors = dict(zip(ERRORS, (1, 2, 3, 4, 5 + 2)))  # a session that came back had gone through fail-open
    holes = dict(zip(BLACK_HOLES, (2, 3)))

    def counted():
        return summed(road, "session-error-counters", before), summed(road, "black-hole-counters", before)

    run_and_expect(counted, (errors, holes))
    after_report(road, 2)
    assert counted() == (errors, holes)
    assert {key: count - totals_before[key] for key, count in totals(road).items()} == {**errors, **holes}
    idle = last_info(road)
    assert set(idle["session-error-counters"].values()) == set(idle["black-hole-counters"].values()) == {0}


def test_rows_add_up(road):
    """Verifies that the ring's rows have, in sum, the failures that the reports had, each with its time."""
    def both():
        count = len(reports(road))
        rows = [row(road, index) for index in range(1, ring(road)[1] + 1)]
        assert len(reports(road)) == len(rows) == count, "a report came in between"
        return rows

    def settled():
        try:
            return both()
        except AssertionError:
            return None

    fail(road, refused=1, black_holes=1)
    after_report(road, 2)
    rows = run_and_expect(settled, lambda found: found is not None, interval=0.01)
    errors, holes = summed(road, "session-error-counters"), summed(road, "black-hole-counters")
    names = ("resolution_failures", "peer_timeouts", "conn_refused", "invalid_host", "failopen")
    assert {key: sum(entry[name] for entry in rows) for key, name in zip(ERRORS, names)} == errors
    assert errors["conn-refused-counter"] > 0
    assert sum(entry["recovered"] for entry in rows) == holes["recovered"]
    assert sum(entry["failed_to_target"] for entry in rows) == holes["failed-to-target"] > 0
    stamps = [entry["timestamp"] for entry in rows]
    assert stamps == sorted(stamps) and abs(stamps[-1] - time.time()) < 60
    assert row(road, 0) == dict.fromkeys(ROW_FIELDS, 0)


def test_ratio(road):
    """Verifies the ratio of every report by its own counters: failures alone, some, and more than sessions."""
    before = len(reports(road))
    black_hole(road, 2)
    run_and_expect(lambda: summed(road, "black-hole-counters", before)["failed-to-target"], 2)
    assert all(report["zol-info"]["failure-ratio"] == 0 for report in reports(road)[before:])

    def provoke(sessions, holes):
        for _ in range(sessions):
            short_session(road)
        black_hole(road, holes)
        return last_info(road)["failure-ratio"]

    run_and_expect(lambda: provoke(4, 1), lambda found: 0 < found < 1, interval=0)
    logged = road.log().count("Failure ratio is greater than 1: ")
    found = run_and_expect(lambda: provoke(1, 3), lambda found: found > 1, interval=0)
    road.wait_log("[NOTICE] ZolInfo: Failure ratio is greater than 1: ", logged + 1)
    assert found in {report["zol-info"]["failure-ratio"] for report in reports(road)}
    check_ratios(road)


def test_period_ends_when_the_report_is_built(make_node):
    """Verifies that what a report held that never arrived is in no later one, while the totals keep it."""
    node = start(make_node, **{"Monitoring.reporter_total_retries": 0})
    after_report(node)
    black_hole(node, 1)
    run_and_expect(lambda: summed(node, "black-hole-counters")["failed-to-target"], 1)
    node.control(fault="status", path="/zolReport", status=500)
    _, built = ring(node)
    run_and_expect(lambda: ring(node)[1], lambda last: last >= built + 2)
    black_hole(node, 5)
    node.cli("invalid_public_host")
    run_and_expect(lambda: (totals(node)["failed-to-target"], totals(node)["invalid-host-counter"]), (6, 1))
    _, built = ring(node)
    run_and_expect(lambda: ring(node)[1], lambda last: last >= built + 2)  # the last of them has been refused
    node.control(clear=True)
    after_report(node, 2)
    arrived = [record for record in node.requests("/zolReport") if record["verified"] and record["status"] == 200]
    held = [record["body"]["zol-info"]["black-hole-counters"]["failed-to-target"] for record in arrived]
    assert sum(held) == 1
    assert sum(record["body"]["zol-info"]["session-error-counters"]["invalid-host-counter"] for record in arrived) == 0
    assert (totals(node)["failed-to-target"], totals(node)["invalid-host-counter"]) == (6, 1)


# --- the proxy's figures ----------------------------------------------------------------------------------------------

def diagnostics(outbound, port, session, congestion_ms, retransmissions):
    info = bytes(100) + struct.pack("<I", retransmissions)
    return struct.pack("<B4s16sH104sII", outbound, socket.inet_aton(network.CLIENT), bytes.fromhex(session),
                       socket.htons(port), info, 0, congestion_ms)


def test_write_waiting_and_retransmissions(road):
    """Verifies that both sums of waiting times and the retransmissions that the proxy tells are reported once."""
    client, target = road.traffic.session(BY_ID[1])
    port = client.getsockname()[1]
    opened, = run_and_expect(lambda: [event for event in road.proxy.select("session")
                                      if event["client"].endswith(f":{port}")], lambda found: found)
    session = opened["session"].replace("-", "")
    before = len(reports(road))

    def retransmitted():
        return sum(record["body"]["total_traffic"]["total-retransmissions"]
                   for record in road.requests("/zolTrafficReport"))

    known = retransmitted()
    for outbound, waited in ((0, 100), (1, 2000), (0, 30), (1, 7)):
        send(road, DIAGNOSTICS, diagnostics(outbound, port, session, waited, 4))
    expected = {"in-write-waiting-ms": 130, "out-write-waiting-ms": 2007}
    run_and_expect(lambda: summed(road, "write-waiting-time-ms", before), expected)
    run_and_expect(retransmitted, known + 16)
    after_report(road, 2)
    assert summed(road, "write-waiting-time-ms", before) == expected
    assert retransmitted() == known + 16
    client.close()
    target.close()


def test_retransmissions_of_a_lossy_link(road):
    """Verifies that segments that the proxy had to send again are in the totals of the traffic reports."""
    def retransmitted():
        return sum(record["body"]["total_traffic"]["total-retransmissions"]
                   for record in road.requests("/zolTrafficReport"))

    client, target = road.traffic.session(BY_ID[1])
    known, port = retransmitted(), target.getpeername()[1]
    lossy = ("INPUT", "-p", "tcp", "--sport", str(port), "-j", "DROP")
    netns.execute(road.network.target, "iptables", "-I", *lossy)
    client.sendall(b"question")

    def sent_again():
        text = netns.execute(road.network.node, "ss", "-Htin", "sport", "=", f":{port}")
        return int(text.split(" retrans:")[1].split("/")[1].split()[0])

    run_and_expect(sent_again, lambda count: count >= 2)
    netns.execute(road.network.target, "iptables", "-D", *lossy)
    assert traffic.read_exactly(target, 8) == b"question"
    again = sent_again()
    client.close()
    assert traffic.read_to_end(target) == b""
    target.close()
    run_and_expect(lambda: retransmitted() - known, lambda more: more >= again >= 2)


# --- the ring ---------------------------------------------------------------------------------------------------------

def test_ring_over_its_end(make_node):
    """Verifies that the 2880th row takes the first place and drops the oldest, and that a restart goes on there."""
    node = start(make_node)
    run_and_expect(lambda: ring(node), lambda found: found[0] == 0 and found[1] >= 1)
    after_report(node)
    with path_of(node, "aggregated").open("r+b") as file:
        file.seek(HEADER)
        file.write(struct.pack("<ii", 0, MAX_ROWS - 3))
    expected = [(0, MAX_ROWS - 3), (0, MAX_ROWS - 2), (0, MAX_ROWS - 1), *((row + 1, row) for row in range(100))]
    seen = []

    def watch():
        seen.append(ring(node))
        return seen[-1]

    run_and_expect(watch, lambda found: 4 <= found[0] < 100, interval=0.02)
    places = [expected.index(found) for found in seen]  # one that was too short to be seen is passed over
    assert places == sorted(places) and seen[0][0] == 0
    newest = [row(node, index)["timestamp"] for index in (MAX_ROWS - 2, MAX_ROWS - 1, 0, 1, 2, 3)]
    assert newest == sorted(newest) and newest[0] > 0
    node.expect_clean = False
    first = node.monitor_pid()
    node.signal_monitor(signal.SIGKILL)
    run_and_expect(node.monitor_pid, lambda pid: pid != first)
    run_and_expect(lambda: ring(node), lambda found: found[1] > 5 and found[0] == found[1] + 1)


# --- drops of the netlink socket --------------------------------------------------------------------------------------

def of_socket(node, column):
    """That column of the daemon's socket in /proc/net/netlink of the node."""
    heading, *lines = [line.split() for line in node.run("cat", "/proc/net/netlink").stdout.splitlines()]
    for words in lines:
        row = dict(zip(heading, words))
        if row["Pid"] == str(node.monitor_pid()):
            return int(row[column])
    raise LookupError("the daemon has no socket")


def drops(node):
    return of_socket(node, "Drops")


def test_netlink_drops_stay(make_node):
    """Verifies the kernel's own count of events that a stopped daemon couldn't take, also after its restart."""
    node = start(make_node, **{"Watchdog.max_missed_threshold_ms": 120_000})
    node.write_file("log.properties", (node.folder / "log.properties").read_text().replace("DEBUG", "WARN"))
    after_report(node)
    assert (last_info(node)["netlink-drop-counters"], drops(node), status(node, "netlink_drops")) == (0, 0, 0)
    crowd = table.crowd(60_000)
    node.signal_monitor(signal.SIGSTOP)
    table.send(node.network.node, [table.created(*ends, mark=0) for ends in crowd])
    table.send(node.network.node, [table.deleted(*ends) for ends in crowd])
    assert drops(node) > 0
    node.signal_monitor(signal.SIGCONT)
    run_and_expect(lambda: of_socket(node, "Rmem"), 0)  # until then the kernel drops whatever comes
    lost = drops(node)
    run_and_expect(lambda: (last_info(node)["netlink-drop-counters"], status(node, "netlink_drops")), (lost, lost))
    assert drops(node) == lost
    node.expect_clean = False
    first = node.monitor_pid()
    node.signal_monitor(signal.SIGKILL)
    run_and_expect(node.monitor_pid, lambda pid: pid != first)
    run_and_expect(lambda: drops(node), 0)
    assert [report["zol-info"]["netlink-drop-counters"] for report in after_report(node, 3)[-2:]] == [lost, lost]
