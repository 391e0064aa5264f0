"""A middle-mile node whose sites lie behind an emulated link, and what its reports say of them."""
import math
import os
import pathlib
import statistics

from periodic import after_report, reports
from standin import network
from standin.link import LEFT, Link
from standin.node import service

FIRST_ID, IDS = 40000, range(40000, 40255)
PROBE_SIZE = 68
PATIENCE_US = 950_000
STILL_MS = 3_600_000
OTHER_VERSION = "/run/zol/instances/zol_monitor-zol-9.9.9.pid"


def address(number):
    return f"10.99.{number // 200}.{number % 200 + 10}"


def site(number, station=None, tunnel=None, **changes):
    """An element of VPNIPsec.sites: with a station to ping, or a tunnel whose far end is `tunnel`."""
    entry = {"enabled": True, "monitored": True, "ip": f"203.0.113.{100 + number % 100}", "id": f"peer-{number}",
             "psk": "secret", "priority": 1, "id_as_text": False, "zol_id_as_text": False, "mark": f"0x{number:x}"}
    if tunnel is not None:
        entry["route_based"] = {"primary": {"gw_ip": LEFT, "site_ip": f"10.98.0.{number}", "netmask": "255.255.255.252",
                                            "internal_pingable_ip": tunnel}}
    row = {"name": f"site {number}", "internal_id": str(number), "type": "site", "protocol": "ipsec", "primary": True,
           "route_based_enabled": tunnel is not None, "BGP": {"enabled": False}, "vpn_group": "group",
           "accept_connections": True, "default_gateway": True, "metadata": "", "failover_order": "",
           "entry_points": (entry,), "monitored_stations": () if station is None else (station,)}
    return {**row, **changes}


def settings(sites, interval_ms=500, period_ms=2000):
    return {
        "MiddleMileNetwork.enabled": True,
        "Monitoring.report_resolution_ms": period_ms,
        "Networking.interfaces": ({"interface": network.NODE_OUT, "external_ip": network.NODE_OUT,
                                   "is_private": False},),
        "HopData.hops": ({"hop_id": "hop-1", "is_direct": True},),
        "SharedNetworkData.routing_id": 0,
        "IPTables.rate_limit_mbps": 100.0,
        "VPNIPsec.enabled": True,
        "VPNIPsec.icmp_local_address_group": "local",
        "VPNIPsec.icmp_local_addresses": (LEFT,),
        "VPNIPsec.station_monitor_freq_ms": interval_ms,
        "VPNIPsec.sites": tuple(sites),
    }


def start(make_node, sites, addresses, seed=1, **more):
    """A node and its link. Two versions are installed, so that a reload reads the sites anew."""
    node = make_node(services=[service(1)], settings=settings(sites, **more))
    node.run("mkdir", "-p", "/run/zol/instances")
    node.run("sh", "-c", f"echo 1 >{OTHER_VERSION}; echo 1 >/run/zol/instances/zol_monitor-zol-1.0.0.pid")
    return node, Link(node, addresses, seed)


def reload(node, **changes):
    node.settings.update({f"VPNIPsec.{key}": value for key, value in changes.items()})
    node.reload()


def be_still(node):
    """No probe starts any more. Behind the second report from now on, all that was measured has been reported."""
    reload(node, station_monitor_freq_ms=STILL_MS)
    after_report(node, 3)


def figures(node, number, key="monitored_stations"):
    """What each report said of a site, oldest first."""
    found = []
    for report in reports(node):
        for connection in report.get("vpn-info", {}).get("connections", []):
            if connection["internal_id"] == str(number) and key in connection:
                found += connection[key]
    return found


def size_of(figure):
    """The number of samples behind a report's figure; None when all were lost, which doesn't tell how many."""
    if figure["loss"] == 1:
        return None
    return round(figure["latency_sample_count"] / (1 - figure["loss"]))


def true_latencies(link, target, records=None):
    """Microseconds of each probe to the address, None for a lost one, in order."""
    return [ping.latency_us(PATIENCE_US) for ping in link.pings(target, PROBE_SIZE, IDS, records)]


def jitter_of(samples):
    good = [sample for sample in samples if sample is not None]
    steps = [abs(now - then) for then, now in zip(good, good[1:])]
    return statistics.mean(steps) if steps else 0


def fits(figure, part):
    good = [sample for sample in part if sample is not None]
    loss = 1 - len(good) / len(part) if part else 0
    return len(good) == figure["latency_sample_count"] and math.isclose(figure["loss"], loss, abs_tol=1e-9)


def parts_of(told, truth):
    """The samples behind each report, all of `truth` in its order; None when the reports can't come of it."""
    if not told:
        return None if truth else []
    size = size_of(told[0])
    lost = next((place for place, sample in enumerate(truth) if sample is not None), len(truth))
    for size in [size] if size is not None else range(1, lost + 1):
        part = truth[:size]
        rest = parts_of(told[1:], truth[size:]) if len(part) == size and fits(told[0], part) else None
        if rest is not None:
            return [part, *rest]
    return None


def errors_of(told, truth):
    """How far latency and jitter of each report lie above the truth, in microseconds. Loss and counts have to fit."""
    parts = parts_of(told, truth)
    assert parts is not None, ("the reports don't come of these samples", told, truth)
    latency, jitter = [], []
    for figure, part in zip(told, parts):
        good = [sample for sample in part if sample is not None]
        if good:
            latency.append(figure["latency"] - statistics.mean(good))
            jitter.append(figure["jitter"] - jitter_of(part))
        else:
            assert figure["latency"] == figure["jitter"] == 0
    return latency, jitter


def signal_process(pid, number):
    os.kill(pid, number)


def shared_record(node, name):
    return pathlib.Path("/proc", str(node.holder_pid), "root/dev/shm", name).read_bytes()
