"""Pings of stations and tunnels over an emulated link, held beside what the link did to each packet."""
import re
import signal
import statistics
import struct
import threading

import pytest

import probing
from periodic import HEADER, after_report, reports
from probing import address, figures, site
from standin import conf, table
from standin.link import LEFT
from standin.wait import run_and_expect

# Sites by number: what the link does to the packets of their station.
FAST, SLOW, FAR, LOSSY, DEAD, DOUBLED, HELD, SPOILT_OUT, SPOILT_BACK, TUNNEL = range(10)
PROPERTIES = {
    FAST: {"forth": {"delay_us": 200}},
    SLOW: {"forth": {"delay_us": 5000}},
    FAR: {"forth": {"delay_us": 50000, "jitter_us": 20000}},
    LOSSY: {"both": {"delay_us": 1000, "loss": 10}},
    DEAD: {"forth": {"loss": 100}},
    DOUBLED: {"both": {"delay_us": 2000, "duplicate": 50}},
    HELD: {"back": {"delay_us": 1000, "reorder": 30, "reorder_us": 250000}},
    SPOILT_OUT: {"forth": {"corrupt": 30}},
    SPOILT_BACK: {"back": {"corrupt": 60}},
    TUNNEL: {"back": {"delay_us": 7000}},
}
SITES = [site(number, station=address(number)) for number in range(TUNNEL)] + [site(TUNNEL, tunnel=address(TUNNEL))]
SAMPLES = 24
# What scheduling may add to a latency, in microseconds: to the better quarter of the reports, to half of them, and to
# all but one. A daemon that is held up just between its look at the clock and its send adds all of that.
NEAR, USUAL, WORST = 5000, 50000, 300000


def is_near(errors, link_late_us):
    """Whether these are the errors of who measures rightly on a machine that may be busy.

    The machine's stalls also hold up packets before the link sees them; how long, its own lateness tells.
    """
    ordered = sorted(map(abs, errors))
    stall = link_late_us["p99"]
    return (ordered[len(ordered) // 4] < NEAR + stall and statistics.median(ordered) < USUAL + stall
            and ordered[-2] < WORST + stall)


def set_links(link):
    for number, ways in PROPERTIES.items():
        for way, properties in ways.items():
            link.set(address(number), way, **properties)


class Measured:
    """All reports of one run, and the truth."""

    def __init__(self, node, link):
        self.late_us = link.stop()
        records = link.records()
        self.node = node
        self.truth = {number: probing.true_latencies(link, address(number), records) for number in PROPERTIES}
        self.pings = {number: link.pings(address(number), probing.PROBE_SIZE, probing.IDS, records)
                      for number in PROPERTIES}
        self.told = {number: figures(node, number, "tunnel_monitor" if number == TUNNEL else "monitored_stations")
                     for number in PROPERTIES}


def keep_busy(node, stop):
    """The daemon's loop comes to run only now and then; once in a while it is held up longer than a probe waits."""
    pid = node.host_pid(node.monitor_pid())
    pauses = [0.2, 0.35, 1.3, 0.2, 0.3]
    for turn in range(10**6):
        for number, pause in ((signal.SIGSTOP, pauses[turn % len(pauses)]), (signal.SIGCONT, 0.1)):
            probing.signal_process(pid, number)
            if stop.wait(pause) and number == signal.SIGCONT:
                return


# Under a sanitizer a reading holds the loop for longer than the watchdog's usual patience.
READING = {"Monitoring.traffic_report_resolution_ms": 1500, "TrafficReport.enabled": True,
           "Watchdog.max_missed_threshold_ms": 60000}
CROWD = 100_000


@pytest.fixture(scope="module", params=["idle", "busy", "reading"])
def measured(request, make_module_node):
    """One run: with a loop that is idle, stopped now and then, or held by readings of a large connection table."""
    node, link = probing.start(make_module_node, SITES, [address(number) for number in PROPERTIES])
    set_links(link)
    if request.param == "reading":
        node.settings.update(READING)
        node.write_conf()
        node.write_file("log.properties", conf.LOG_PROPERTIES.replace("DEBUG", "ERROR"))
        table.send(node.network.node, [table.created(*ends, mark=0x110) for ends in table.crowd(CROWD)])
    node.start_receiver()
    node.start_watchdog()
    stop = threading.Event()
    busy = threading.Thread(target=keep_busy, args=(node, stop))
    if request.param == "busy":
        busy.start()
    try:
        run_and_expect(lambda: len(link.pings(address(FAST), probing.PROBE_SIZE)), lambda count: count >= SAMPLES,
                       timeout=300, interval=0.5)
    finally:
        stop.set()
        if busy.ident is not None:
            busy.join()
    probing.be_still(node)
    if request.param == "reading":
        assert len(node.requests("/zolEnterpriseTrafficReport")) > SAMPLES / 4
    return Measured(node, link)


@pytest.mark.parametrize("number", [number for number in PROPERTIES if number != DEAD])
def test_figures(measured, number):
    """Verifies that each report's loss and counts are the link's own, and latency and jitter near them."""
    latency, jitter = probing.errors_of(measured.told[number], measured.truth[number])
    print("latency", statistics.quantiles(latency), max(latency), "jitter", statistics.quantiles(jitter))
    assert len(latency) >= 3
    assert is_near(latency, measured.late_us) and is_near(jitter, measured.late_us)
    assert min(latency) > -1000  # nobody can be quicker than the link


def test_probes_are_whole(measured):
    """Verifies that each probe is one echo request of 68 bytes, from the local address, with an id of the pool."""
    ids = {ping.request["icmp"]["id"] for pings in measured.pings.values() for ping in pings}
    assert min(ids) == probing.FIRST_ID and max(ids) < probing.FIRST_ID + 2 * len(PROPERTIES)
    for pings in measured.pings.values():
        assert {(ping.request["bytes"], ping.request["from"], ping.request["icmp"]["seq"]) for ping in pings} == \
            {(68, LEFT, 0)}


def test_dead_link(measured):
    """Verifies that a station that is never heard of is a loss of 1 with figures of 0."""
    assert len(measured.pings[DEAD]) >= SAMPLES / 4
    told = [figure for figure in measured.told[DEAD] if figure["loss"] != 0]
    assert told
    for figure in told:
        assert figure == {"ip": address(DEAD), "source_ip": LEFT, "latency": 0, "latency_sample_count": 0, "loss": 1,
                          "jitter": 0}


def test_links_did_their_part(measured):
    """Verifies that the link lost, doubled, held back and spoilt packets, so that there was something to report."""
    assert None in measured.truth[LOSSY] and None in measured.truth[SPOILT_OUT] and None in measured.truth[SPOILT_BACK]
    assert all(sample is not None for number in (FAST, SLOW, FAR, DOUBLED, HELD, TUNNEL)
               for sample in measured.truth[number])
    assert any(len(ping.arrivals()) > 1 for ping in measured.pings[DOUBLED])
    assert any(reply["reordered"] for ping in measured.pings[HELD] for reply in ping.replies)
    # A reply that is spoilt where nobody looks is a reply.
    assert any(ping.arrivals()[0][1] is not None and ping.latency_us() is not None
               for ping in measured.pings[SPOILT_BACK] if ping.arrivals())


def test_shared_record(measured):
    """Verifies that the record for the node's other processes holds every sample, row by row."""
    name = "PN9zol_utils12SharedObjectINS_27tunnel_monitoring_results_tEEE-1.0.0_mem"
    content = probing.shared_record(measured.node, name)
    count = struct.unpack_from("<I", content, HEADER)[0]
    rows = {}
    for place in range(count):
        packed, _, _, samples, lost, total, _ = struct.unpack_from("<4sIqQQQq", content, HEADER + 8 + 48 * place)
        rows[".".join(map(str, packed))] = (samples, lost, total)
    assert set(rows) == {address(number) for number in PROPERTIES}
    for number, truth in measured.truth.items():
        samples, lost, total = rows[address(number)]
        assert (samples, lost) == (len(truth), truth.count(None))
        good = sum(figure["latency"] * figure["latency_sample_count"] for figure in measured.told[number])
        assert abs(total - good) <= samples  # a report cuts its mean


# --- beside the common tools ------------------------------------------------------------------------------------------

COUNT = 20


def run_ping(node, target):
    said = node.run("ping", "-n", "-e", "7", "-c", COUNT, "-i", "0.2", target, check=False).stdout
    found = {int(place): float(text) * 1000 for place, text in re.findall(r"icmp_seq=(\d+) .*time=([\d.]+) ms", said)}
    return [found.get(place + 1) for place in range(COUNT)]


def run_fping(node, target):
    said = node.run("fping", "-C", COUNT, "-p", "200", "-q", target, check=False).stderr
    return [None if text == "-" else float(text) * 1000 for text in said.split(":")[1].split()]


@pytest.mark.parametrize("number", [FAST, SLOW, FAR])
def test_beside_ping_and_fping(make_node, number):
    """Verifies that the daemon, ping and fping, at the same time on one link, each tell what the link did to them."""
    target = address(number)
    node, link = probing.start(make_node, [site(number, station=target)], [target])
    set_links(link)
    node.start_receiver()
    node.start_watchdog()
    run_and_expect(lambda: len(link.pings(target, probing.PROBE_SIZE)), lambda count: count >= 1)
    told = {}
    runs = [threading.Thread(target=lambda name, run: told.update({name: run(node, target)}), args=pair)
            for pair in (("ping", run_ping), ("fping", run_fping))]
    for run in runs:
        run.start()
    for run in runs:
        run.join()
    probing.be_still(node)
    late_us = link.stop()
    records = link.records()
    latency, _ = probing.errors_of(figures(node, number), probing.true_latencies(link, target, records))
    others = [ping for ping in link.pings(target, 84, records=records)]
    errors = {"daemon": latency}
    for name, mine in (("ping", [ping for ping in others if ping.request["icmp"]["id"] == 7]),
                       ("fping", [ping for ping in others if ping.request["icmp"]["id"] != 7])):
        truth = [ping.latency_us() for ping in mine]
        assert len(told[name]) == len(truth) == COUNT
        # Those programs give a reply up sooner than the link and this machine may take.
        errors[name] = [said - true for said, true in zip(told[name], truth) if said is not None and true is not None]
        assert len(errors[name]) > COUNT / 2
    print({name: statistics.median(found) for name, found in errors.items()})
    for name, found in errors.items():
        assert is_near(found, late_us), (name, found)


# --- reloads ----------------------------------------------------------------------------------------------------------

def last_figures(node):
    """Of the last report: the pinged address of each site."""
    connections = reports(node)[-1].get("vpn-info", {}).get("connections", [])
    return {int(entry["internal_id"]): entry["monitored_stations"][0]["ip"] for entry in connections
            if "monitored_stations" in entry}


def test_reload(make_node):
    """Verifies that a reload adds a target, changes one, removes one, and switches all of them off and on."""
    targets = [address(number) for number in range(3)]
    node, link = probing.start(make_node, [site(0, station=targets[0])], targets, period_ms=1000)
    node.start_receiver()
    node.start_watchdog()

    def sent():
        return [len(link.pings(target, probing.PROBE_SIZE)) for target in targets]

    run_and_expect(lambda: last_figures(node), {0: targets[0]})
    probing.reload(node, sites=(site(0, station=targets[0]), site(1, station=targets[1])))
    run_and_expect(lambda: last_figures(node), {0: targets[0], 1: targets[1]})
    run_and_expect(sent, lambda counts: counts[0] > 0 and counts[1] > 0)
    assert sent()[2] == 0
    probing.reload(node, sites=(site(0, station=targets[2]), site(1, station=targets[1])))
    run_and_expect(lambda: last_figures(node), {0: targets[2], 1: targets[1]})
    run_and_expect(sent, lambda counts: counts[2] > 0)
    probing.reload(node, sites=(site(1, station=targets[1]),))
    run_and_expect(lambda: last_figures(node), {1: targets[1]})
    before = sent()
    run_and_expect(sent, lambda counts: counts[1] > before[1] + 3)
    assert sent()[0] == before[0] and sent()[2] <= before[2] + 1
    probing.reload(node, station_monitor_freq_ms=0)
    after_report(node, 2)
    off = sent()
    assert last_figures(node) == {}
    after_report(node, 2)
    assert sent() == off
    probing.reload(node, station_monitor_freq_ms=500)
    run_and_expect(sent, lambda counts: counts[1] > off[1])
    run_and_expect(lambda: last_figures(node), {1: targets[1]})


def test_bad_stations(make_node):
    """Verifies that stations that can't be reached or make no sense are losses, and the others go on."""
    target = address(0)
    sites = [site(0, station=target), site(1, station="198.18.0.1"), site(2, station="not an address"),
             site(3, station="nowhere.zol.test")]
    node, link = probing.start(make_node, sites, [target], period_ms=1000)
    node.run("ip", "route", "add", "unreachable", "198.18.0.0/15")
    node.start_receiver()
    node.start_watchdog()
    for number in (1, 2, 3):
        run_and_expect(lambda: figures(node, number), lambda found: any(figure["loss"] == 1 for figure in found))
        assert all(figure["latency_sample_count"] == 0 for figure in figures(node, number))
    run_and_expect(lambda: figures(node, 0), lambda found: any(figure["latency"] > 0 for figure in found))
    assert link.process.is_running()
