"""The records that the node's processes share, read as raw bytes beside the daemon that writes them."""
import json
import pathlib
import signal
import struct
import subprocess
import time

import pytest

from standin.node import service
from standin.wait import run_and_expect

HEADER = 48
OWNER, LAST_UPDATE = 32, 40
LAST_SUCCESSFUL_REPORT = HEADER + 888
TCP_POOL = HEADER + 1016
TOTAL_RETRANSMISSIONS = HEADER + 1904
REPORT, MAX_REPORT, TERMINATOR = HEADER, 12288, 12336
BLOCK_SIZE = 4096
TYPES = {"status": "13ZolStatusData", "report": "13ZolReportData", "services": "19ZolHistoricServices"}
ALL_TYPES = {**TYPES, "states": "15ConntrackStates", "aggregated": "15AggregatedStats",
             "vrrp": "13vrrp_status_t", "tunnels": "19vpn_tunnel_states_t", "meds": "20tunnel_med_results_t",
             "latencies": "27tunnel_monitoring_results_t"}
OPEN_FAILED = "FATAL: Failed to open SharedObject shm"
UUID = "00112233445566778899aabbccddeeff"


def locking_failed(caller, record):
    return f"{caller}: Failed locking shared memory for N9zol_utils{TYPES[record]}E object"


def path_of(node, record):
    """The file of a record in the node's own /dev/shm, seen from here."""
    name = f"PN9zol_utils12SharedObjectINS_{ALL_TYPES[record]}EEE-1.0.0_mem"
    return pathlib.Path("/proc", str(node.holder_pid), "root/dev/shm", name)


def number(node, record, offset, form="<Q"):
    return struct.unpack_from(form, path_of(node, record).read_bytes(), offset)[0]


def pool_totals(node):
    return struct.unpack_from("<6Q", path_of(node, "status").read_bytes(), TCP_POOL)


def send_pool(node, *counters):
    """The proxy's message of six counters, each added to its total."""
    node.cli("raw", 28, "-", data=struct.pack("<6I", *counters).hex())


def send_retransmissions(node, count):
    """TCP figures of an In leg with that many retransmissions: tcpi_total_retrans at offset 100 of tcp_info."""
    info = bytes(100) + struct.pack("<I", count)
    body = struct.pack("<B4s16sH104sII", 0, bytes([192, 0, 2, 1]), bytes.fromhex(UUID), 80, info, 0, 0)
    node.cli("raw", 17, "-", data=body.hex())


def wait_beats(node, more=2):
    node.watchdog.wait_event("beat", node.beats() + more)


def start(make_node, *options, **more):
    node = make_node(**more)
    node.start_watchdog("--once", *options)
    node.watchdog.wait_event("beat")
    return node


def in_record(node):
    """The text of the periodic report as it stands in the record."""
    content = path_of(node, "report").read_bytes()
    assert content[TERMINATOR] == 0
    return content[REPORT:TERMINATOR].split(b"\0")[0].decode()


def last_body(node):
    return node.requests("/zolReport")[-1]["body"]


def test_records_that_come_late(make_node):
    """Verifies that the daemon runs without the records, says so, and opens them when they are there."""
    node = make_node(settings={"Monitoring.report_resolution_ms": 200})
    node.start_receiver()
    node.start_watchdog("--once", "--records-on-command")
    node.watchdog.wait_event("beat")
    run_and_expect(lambda: len(node.requests("/zolReport")), lambda count: count >= 2)
    assert f"[ERROR] SharedObject: {OPEN_FAILED}\n" in node.log()
    assert not list(path_of(node, "status").parent.iterdir()), "the daemon made a record by itself"
    wait_beats(node)

    started = int(time.time())
    node.watchdog.write("records")
    node.watchdog.wait_event("records")
    run_and_expect(lambda: number(node, "status", LAST_SUCCESSFUL_REPORT, "<q"), lambda stamp: stamp >= started)
    assert number(node, "status", LAST_SUCCESSFUL_REPORT, "<q") <= time.time()
    send_pool(node, 1, 2, 3, 4, 5, 6)
    run_and_expect(lambda: pool_totals(node), (1, 2, 3, 4, 5, 6))
    failures = node.log().count(OPEN_FAILED)
    wait_beats(node)
    assert node.log().count(OPEN_FAILED) == failures


def test_sizes_of_the_files(make_node):
    """Verifies that each record has its file under its name, large enough for its last field."""
    node = start(make_node)
    sizes = {record: path_of(node, record).stat().st_size for record in ALL_TYPES}
    assert sizes["status"] == HEADER + 1912
    assert sizes["report"] > TERMINATOR
    assert sizes["services"] == HEADER + BLOCK_SIZE
    assert (sizes["states"], sizes["aggregated"]) == (8000048, 230456)
    assert len(list(path_of(node, "status").parent.iterdir())) == len(ALL_TYPES)


def test_periodic_report_in_its_record(make_node):
    """Verifies that the text of the last periodic report stands in its record, ended by zeros."""
    node = make_node(settings={"Monitoring.report_resolution_ms": 200})
    node.start_receiver()
    node.start_watchdog("--once")
    node.watchdog.wait_event("records")
    report, _ = run_and_expect(lambda: (json.loads(in_record(node)), last_body(node)), lambda both: both[0] == both[1])
    assert report["version"] == "1.0" and report["machine-info"]["id"] == node.node_id
    content = path_of(node, "report").read_bytes()
    assert content[REPORT:REPORT + 2] == b"{\n" and not content[content.index(b"\0", REPORT):].strip(b"\0")
    assert number(node, "report", OWNER, "<i") == node.monitor_pid()


def test_long_report_is_cut(make_node):
    """Verifies that a report longer than its record is cut there and sent whole."""
    padding = "0123456789" * 1500
    node = make_node(settings={"Monitoring.report_resolution_ms": 200,
                               "Monitoring.send_meta_data_on_periodic_report": True,
                               "Monitoring.hqs_meta_data": json.dumps({"padding": padding})})
    node.start_receiver()
    node.start_watchdog("--once")
    run_and_expect(lambda: len(node.requests("/zolReport")), lambda count: count >= 1)
    assert last_body(node)["metadata"] == {"padding": padding}
    text = in_record(node)
    assert len(text) == MAX_REPORT
    assert text.startswith("{\n") and text.count("0123456789") > 500


def test_counters_of_the_proxy(make_node):
    """Verifies that pool counters and retransmissions are added up at their offsets, and nothing beside them."""
    node = start(make_node)
    send_pool(node, 1, 20, 300, 4000, 50000, 0xffffffff)
    send_pool(node, 1, 1, 1, 1, 1, 1)
    run_and_expect(lambda: pool_totals(node), (2, 21, 301, 4001, 50001, 0x100000000))
    send_retransmissions(node, 7)
    send_retransmissions(node, 5)
    run_and_expect(lambda: number(node, "status", TOTAL_RETRANSMISSIONS, "<I"), 12)
    assert number(node, "status", OWNER, "<i") == node.monitor_pid()
    assert abs(number(node, "status", LAST_UPDATE, "<q") - time.time()) < 60
    content = path_of(node, "status").read_bytes()
    beside = content[TCP_POOL - 8:TCP_POOL] + content[TCP_POOL + 48:TCP_POOL + 56] + content[TOTAL_RETRANSMISSIONS + 4:]
    assert not any(beside)


def hold(node, record):
    """Another process that has the record's lock until it is stopped, and dies with it then."""
    holder = node.spawn(node.bin / "zol_shm", "lock", record, 3600)
    run_and_expect(lambda: holder.lines, ["locked"])
    return holder


HOLDER = """\
import ctypes, mmap, os, sys
libc = ctypes.CDLL(None, use_errno=True)
with open(sys.argv[1], "r+b") as file:
    record = mmap.mmap(file.fileno(), 48)
lock = ctypes.c_void_p(ctypes.addressof(ctypes.c_char.from_buffer(record)))
if libc.sem_wait(lock) != 0:
    sys.exit("sem_wait")
record[32:36] = os.getpid().to_bytes(4, "little")
print("locked", flush=True)
sys.stdin.readline()
if libc.sem_post(lock) != 0:
    sys.exit("sem_post")
"""


def test_lock_that_another_holds(make_node):
    """Verifies that an update is skipped while another process has the lock, that beats go on, and later updates."""
    node = start(make_node)
    send_pool(node, 1, 1, 1, 1, 1, 1)
    run_and_expect(lambda: pool_totals(node), (1,) * 6)
    holder = node.spawn("python3", "-c", HOLDER, "/dev/shm/" + path_of(node, "status").name, stdin=subprocess.PIPE)
    run_and_expect(lambda: holder.lines, ["locked"])
    failed = f"[ERROR] SharedObject: {locking_failed('wanp_tcp_pool_stats', 'status')}\n"
    assert failed not in node.log()
    send_pool(node, 10, 10, 10, 10, 10, 10)
    node.wait_log(failed)
    assert pool_totals(node) == (1,) * 6
    assert "Shared memory out of sync" not in node.log()
    wait_beats(node, 2)
    holder.write("enough")
    assert holder.popen.wait(30) == 0
    send_pool(node, 100, 100, 100, 100, 100, 100)
    run_and_expect(lambda: pool_totals(node), (101,) * 6)
    assert node.log().count(failed) == 1
    assert "taken over" not in node.log()


@pytest.mark.parametrize("record, caller", [("report", "create_report"),
                                            ("status", "save_last_successful_report_sent")])
def test_report_while_its_record_is_locked(make_node, record, caller):
    """Verifies that reports go out, and beats too, while another process has the lock of a record of theirs."""
    node = start(make_node, settings={"Monitoring.report_resolution_ms": 500})
    holder = hold(node, record)
    content = path_of(node, record).read_bytes()
    node.start_receiver()
    node.wait_log(locking_failed(caller, record), 2)
    run_and_expect(lambda: len(node.requests("/zolReport")), lambda count: count >= 2)
    assert path_of(node, record).read_bytes()[HEADER:] == content[HEADER:]
    wait_beats(node, 3)
    holder.stop()
    run_and_expect(lambda: path_of(node, record).read_bytes()[HEADER:], lambda now: now != content[HEADER:])


def test_reload_while_the_historical_services_are_locked(make_node):
    """Verifies that a reload goes on while another process has the lock, and that the next one stores it all."""
    node = start(make_node)
    holder = hold(node, "services")
    kept = node.services
    node.services = kept[:1]
    node.reload()
    node.wait_log(locking_failed("reconfigure", "services"))
    assert not any(path_of(node, "services").read_bytes()[HEADER:])
    wait_beats(node)
    holder.stop(signal.SIGKILL)
    node.reload()
    run_and_expect(lambda: path_of(node, "services").read_bytes()[HEADER:], block_of(kept[1]))


def block_of(*rows):
    """The block of historical services, as other processes read it."""
    block = struct.pack("<I", len(rows))
    for row in rows:
        texts = (row["logical_network_id"], row["host"], row["public_host"])
        block += struct.pack("<BH", row["service_id"], row["external_port_in"])
        block += b"".join(text.encode() + b"\0" for text in texts)
    return block.ljust(BLOCK_SIZE, b"\0")


def test_block_of_historical_services(make_node):
    """Verifies that removed services stand in the block in order of their ids, and leave it when they come back."""
    rows = [service(9), service(2), service(200, host="target.zol.test"), service(4)]
    node = start(make_node, services=rows)
    run_and_expect(lambda: path_of(node, "services").read_bytes()[HEADER:], block_of())
    node.services = rows[3:]
    node.reload()
    run_and_expect(lambda: path_of(node, "services").read_bytes()[HEADER:], block_of(rows[1], rows[0], rows[2]))
    node.services = rows[:1] + rows[3:]
    node.reload()
    run_and_expect(lambda: path_of(node, "services").read_bytes()[HEADER:], block_of(rows[1], rows[2]))


@pytest.mark.parametrize("how", ["while it held it", "at once"])
def test_holder_that_died(make_node, how):
    """Verifies that the lock of a process that died with it is taken over, with one line, and updates go on."""
    node = start(make_node)
    if how == "at once":
        assert node.run(node.bin / "zol_shm", "die", "status").stdout == "locked\n"
        skipped = 0
    else:
        holder = hold(node, "status")
        send_pool(node, 9, 9, 9, 9, 9, 9)
        node.wait_log(locking_failed("wanp_tcp_pool_stats", "status"))
        holder.stop(signal.SIGKILL)
        skipped = 1
    dead = number(node, "status", OWNER, "<i")
    assert dead != node.monitor_pid()
    send_pool(node, 1, 2, 3, 4, 5, 6)
    run_and_expect(lambda: pool_totals(node), (1, 2, 3, 4, 5, 6))
    send_pool(node, 1, 2, 3, 4, 5, 6)
    run_and_expect(lambda: pool_totals(node), (2, 4, 6, 8, 10, 12))
    taken = f"Shared memory lock taken over from process {dead}, which is gone\n"
    assert node.log().count(taken) == 1 and node.log().count("taken over") == 1
    assert node.log().count("Failed locking shared memory") == skipped
    assert number(node, "status", OWNER, "<i") == node.monitor_pid()
    wait_beats(node)
    assert node.run(node.bin / "zol_shm", "lock", "status", 0).stdout == "locked\n", "the lock isn't free again"


def test_lock_that_is_held_for_long(make_node):
    """Verifies that a record without an update for more than a minute, and locked, is called out of sync."""
    node = start(make_node)
    holder = hold(node, "status")
    for age, lines in ((50, 0), (62, 1)):
        with open(path_of(node, "status"), "r+b") as file:
            file.seek(LAST_UPDATE)
            file.write(struct.pack("<q", int(time.time()) - age))
        send_pool(node, 1, 1, 1, 1, 1, 1)
        node.wait_log(locking_failed("wanp_tcp_pool_stats", "status"), lines + 1)
        assert node.log().count("[FATAL] SharedObject: Shared memory out of sync\n") == lines
    assert pool_totals(node) == (0,) * 6
    holder.stop(signal.SIGKILL)


def test_shared_memory_switched_off(make_node):
    """Verifies that a node without shared memory is left without it: no record is opened, though it is there."""
    node = make_node(settings={"Monitoring.report_resolution_ms": 200})
    node.run("sh", "-c", "mkdir -p /run/zol && touch /run/zol/no_shared_memory")
    node.start_receiver()
    node.start_watchdog("--once")
    node.watchdog.wait_event("beat")
    send_pool(node, 1, 1, 1, 1, 1, 1)
    for record in TYPES:
        node.wait_log(f"[DEBUG] SharedObject: Shared memory disabled for: N9zol_utils{TYPES[record]}E\n")
    run_and_expect(lambda: len(node.requests("/zolReport")), lambda count: count >= 2)
    assert "Open shared memory object" not in node.log()
    assert not any(any(path_of(node, record).read_bytes()[HEADER:]) for record in TYPES)


def test_daemon_that_is_killed_at_its_work(make_node):
    """Verifies that a daemon that is started again finds the records with what its predecessor left."""
    node = make_node()
    node.expect_clean = False  # killed on purpose
    node.start_watchdog()
    node.watchdog.wait_event("beat")
    send_pool(node, 1, 2, 3, 4, 5, 6)
    run_and_expect(lambda: pool_totals(node), (1, 2, 3, 4, 5, 6))
    node.signal_monitor(signal.SIGKILL)
    second = node.watchdog.wait_event("started", 2)["pid"]
    node.watchdog.wait_event("beat", pid=second)
    send_pool(node, 1, 1, 1, 1, 1, 1)
    run_and_expect(lambda: pool_totals(node), (2, 3, 4, 5, 6, 7))
    assert number(node, "status", OWNER, "<i") == second
