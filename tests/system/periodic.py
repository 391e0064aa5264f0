"""What periodic reports told, and the records that they leave, read as raw bytes."""
import collections
import pathlib
import socket
import struct

import pytest

from standin import alarms, network, traffic
from standin.node import service
from standin.wait import run_and_expect

PERIOD_MS = 1000
DIAGNOSTICS = 17
HEADER = 48
MAX_ROWS, ROW = 2880, struct.Struct("<qIIIIIIIIIIQQQi4x")
ROW_FIELDS = ("timestamp", "recovered", "failed_to_target", "syn_flood_drop", "open", "active", "resolution_failures",
              "peer_timeouts", "conn_refused", "invalid_host", "failopen", "packets", "bytes", "new", "interval")
MAX_HOPS = 50
HOPS = {"next_hop_active": 56, "next_hop_open": 460, "prv_hop_open": 1064, "prv_hop_active": 1468}
STATUS = {"max_fd_ratio": (8, "<d"), "failopen": (33, "B"), "syn_flood_drop": (40, "<I"), "icmp_flood_drop": (44, "<I"),
          "active": (48, "<I"), "open": (52, "<I"), "netlink_drops": (1008, "<Q")}
ERRORS = ("resolution-failure-counter", "peer-timeout-counter", "conn-refused-counter", "invalid-host-counter",
          "failopen-connection-counter")
BLACK_HOLES = ("recovered", "failed-to-target")
UUID = "00112233445566778899aabbccddeeff"
SERVICES = [
    service(1),
    service(2, external_port_out=9999),   # nobody listens
    service(3, host=network.SILENT),      # packets are dropped
    service(4, host="nowhere.zol.test"),  # has no address
    service(5),                           # told as gone through fail-open
    service(6),                           # and as recovered
]
BY_ID = {row["service_id"]: row for row in SERVICES}
PROXY_OPTIONS = ("--connect-timeout-ms", "300", "--failopen", "5", "--recover", "6")
SETTINGS = {"Monitoring.report_resolution_ms": PERIOD_MS, "Monitoring.traffic_report_resolution_ms": PERIOD_MS}


# --- what the reports and the records say -----------------------------------------------------------------------------

def reports(node):
    return [record["body"] for record in node.requests("/zolReport") if record["verified"]]


def last_info(node):
    return reports(node)[-1]["zol-info"]


def after_report(node, count=1):
    """Waits for that many reports more; all of them."""
    wanted = len(reports(node)) + count
    return run_and_expect(lambda: reports(node), lambda found: len(found) >= wanted, interval=0.02)


def summed(node, block, start=0):
    """The sums of a block of counters over all reports from that one on."""
    sums = collections.Counter()
    for report in reports(node)[start:]:
        sums.update(report["zol-info"][block])
    return {key: sums[key] for key in sums}


def path_of(node, record):
    names = {"status": "13ZolStatusData", "aggregated": "15AggregatedStats"}
    name = f"PN9zol_utils12SharedObjectINS_{names[record]}EEE-1.0.0_mem"
    return pathlib.Path("/proc", str(node.holder_pid), "root/dev/shm", name)


def status(node, field):
    offset, form = STATUS[field]
    return struct.unpack_from(form, path_of(node, "status").read_bytes(), HEADER + offset)[0]


def totals(node):
    """Period and total of each failure: as offsets 896 to 1007 of the record have them."""
    content = path_of(node, "status").read_bytes()
    return dict(zip(ERRORS, struct.unpack_from("<5Q", content, HEADER + 936))) | \
        dict(zip(BLACK_HOLES, struct.unpack_from("<2Q", content, HEADER + 992)))


def hops(node, field):
    """A hop table of the record: address to count for the entries that aren't zero, and the count beside them."""
    content = path_of(node, "status").read_bytes()
    entries = struct.iter_unpack("<4sI", content[HEADER + HOPS[field]:][:8 * MAX_HOPS])
    filled = {socket.inet_ntoa(address): count for address, count in entries if address != bytes(4)}
    return filled, struct.unpack_from("<i", content, HEADER + HOPS[field] + 8 * MAX_HOPS)[0]


def ring(node):
    """The indexes of the oldest and the newest row."""
    return struct.unpack_from("<ii", path_of(node, "aggregated").read_bytes(), HEADER)


def row(node, index):
    content = path_of(node, "aggregated").read_bytes()
    return dict(zip(ROW_FIELDS, ROW.unpack_from(content, HEADER + 8 + index * ROW.size)))


def listed(info, key):
    return {entry["ip"]: entry["count"] for entry in info[key]}


def send(node, kind, body=b""):
    alarms.send(node, kind, body, name="zol_cli")


def black_hole(node, count=1):
    for _ in range(count):
        send(node, alarms.BLACK_HOLE, alarms.black_hole("target.example"))


def short_session(node, number=1):
    client, target = node.traffic.session(BY_ID[number])
    client.close()
    traffic.read_to_end(target)
    target.close()


def start(make_node, *options, services=SERVICES, **settings):
    node = make_node(services=services, settings={**SETTINGS, **settings})
    node.start_receiver()
    node.start_watchdog(*options)
    node.start_proxy(*PROXY_OPTIONS)
    return node


def ratio(info):
    """What the ratio of a report has to be by the report's own counters."""
    dropped = info.get("syn-flood-drop", 0)
    failed = sum(info["black-hole-counters"].values()) + \
        info["session-error-counters"]["failopen-connection-counter"] + dropped
    new = info["new-sessions"]["traffic"]
    return failed / (new + dropped) if new else 0


def check_ratios(node):
    for report in reports(node):
        assert report["zol-info"]["failure-ratio"] == pytest.approx(ratio(report["zol-info"]), abs=1e-9)
