"""Floods that the node's firewall dropped, in the periodic report: real packets, real chains."""
import struct
import subprocess

import pytest

from periodic import (HEADER, SERVICES, SETTINGS, STATUS, after_report, check_ratios, path_of, reports, ring, row,
                      short_session, status, summed)
from standin import netns, network
from standin.wait import run_and_expect

SYN_MISSING = "[ERROR] MonitorSystem: Failed to retrieve iptables SYN flood counters\n"
ICMP_MISSING = "[ERROR] MonitorSystem: Failed to retrieve iptables ICMP counters\n"
FLOODED_PORT = 7777
PASSED = 3  # of each flood, before the last rule of its chain drops


def flood_chains(node):
    """The firewall's chains: the second rule of the one drops, and the fourth of the other."""
    node.network.set_rules(f"""\
*filter
:syn-rate-limit - [0:0]
:ICMP_FLOOD - [0:0]
-A INPUT -p tcp --dport {FLOODED_PORT} --syn -j syn-rate-limit
-A syn-rate-limit -m limit --limit 1/day --limit-burst {PASSED} -j RETURN
-A syn-rate-limit -j DROP
-A INPUT -p icmp --icmp-type echo-request -j ICMP_FLOOD
-A ICMP_FLOOD -s 192.0.2.0/24 -j RETURN
-A ICMP_FLOOD -s 192.0.3.0/24 -j RETURN
-A ICMP_FLOOD -m limit --limit 1/day --limit-burst {PASSED} -j RETURN
-A ICMP_FLOOD -j DROP
COMMIT
""")


def flood(node, syns, pings):
    """That many SYNs and echo requests."""
    for _ in range(syns):
        with netns.socket_in(node.network.client) as connection:
            connection.setblocking(False)
            connection.connect_ex((network.NODE_IN, FLOODED_PORT))  # closed before it tries again
    if pings:
        subprocess.run(["ip", "netns", "exec", node.network.client, "ping", "-c", str(pings), "-i", "0.002", "-W", "1",
                        "-q", network.NODE_IN], stdout=subprocess.DEVNULL, check=False)


def chain_counters(node, chain):
    """Packets of each rule."""
    lines = netns.execute(node.network.node, "iptables", "-L", chain, "-nvx").splitlines()[2:]
    return [int(line.split()[0]) for line in lines]


def test_flood_counters(make_node):
    """Verifies drops of real packets by the firewall's rules: reported once, shared, zeroed and in the ratio."""
    node = make_node(services=SERVICES, settings={**SETTINGS, "Monitoring.report_resolution_ms": 3000,
                                                  "IPTables.syn_flood_limit": PASSED})
    flood_chains(node)
    node.start_receiver()
    node.start_watchdog()
    node.start_proxy()
    before = len(after_report(node))
    flood(node, syns=10, pings=0)
    short_session(node)  # right behind, so that one report has both: the ratio is one of new sessions
    flood(node, syns=0, pings=20)

    def told(key):
        return [report["zol-info"][key] for report in reports(node)[before:]]

    run_and_expect(lambda: (sum(told("syn-flood-drop")), sum(told("icmp-flood-drop"))), (10 - PASSED, 20 - PASSED))
    run_and_expect(lambda: (chain_counters(node, "syn-rate-limit"), chain_counters(node, "ICMP_FLOOD")),
                   ([0] * 2, [0] * 4))
    after_report(node, 2)
    assert sum(told("syn-flood-drop")) == 10 - PASSED and told("syn-flood-drop")[-1] == 0
    assert sum(told("icmp-flood-drop")) == 20 - PASSED and told("icmp-flood-drop")[-1] == 0
    rows = [row(node, index) for index in range(1, ring(node)[1] + 1)]
    assert sum(entry["syn_flood_drop"] for entry in rows) == 10 - PASSED
    assert SYN_MISSING not in node.log() and ICMP_MISSING not in node.log()
    assert max(report["zol-info"]["failure-ratio"] for report in reports(node)) > 0
    check_ratios(node)


def test_no_syn_flood_limit(make_node):
    """Verifies that without a limit the SYN chain isn't read, while what the record holds enters the ratio."""
    node = make_node(services=SERVICES, settings={**SETTINGS, "IPTables.syn_flood_limit": 0})
    flood_chains(node)
    node.start_receiver()
    node.start_watchdog()
    node.start_proxy()
    after_report(node)
    with path_of(node, "status").open("r+b") as file:
        file.seek(HEADER + STATUS["syn_flood_drop"][0])
        file.write(struct.pack("<I", 2))
    flood(node, syns=5, pings=0)
    before = len(reports(node))
    for _ in range(10):
        short_session(node)
    run_and_expect(lambda: summed(node, "new-sessions", before)["tcp"], 10)
    for info in (report["zol-info"] for report in after_report(node)[before:]):
        assert "syn-flood-drop" not in info
        new = info["new-sessions"]["tcp"]
        assert info["failure-ratio"] == pytest.approx(2 / (new + 2) if new else 0)
    assert chain_counters(node, "syn-rate-limit") == [PASSED, 5 - PASSED]
    assert status(node, "syn_flood_drop") == 2


@pytest.mark.parametrize("lacking", ["chains", "iptables"])
def test_no_flood_counters(make_node, lacking):
    """Verifies that without the chains, or without iptables, both figures are 0, each with its line."""
    node = make_node(services=SERVICES, settings={**SETTINGS, "IPTables.syn_flood_limit": PASSED})
    node.start_receiver()
    if lacking == "chains":
        node.start_watchdog()
    else:
        flood_chains(node)
        flood(node, syns=5, pings=5)
        tools = node.folder / "tools"
        tools.mkdir()
        for name in ("awk", "cat", "grep", "sh"):
            (tools / name).symlink_to(f"/usr/bin/{name}")
        node.watchdog = node.spawn("env", f"PATH={tools}", node.bin / "zol_node", "--monitor", node.bin / "zol_monitor",
                                   "--node", node.node_id, "--control", stdin=subprocess.PIPE)
    info = after_report(node, 2)[-1]["zol-info"]
    assert (info["syn-flood-drop"], info["icmp-flood-drop"]) == (0, 0)
    assert (status(node, "syn_flood_drop"), status(node, "icmp_flood_drop")) == (0, 0)
    node.wait_log(SYN_MISSING)
    node.wait_log(ICMP_MISSING)
    if lacking == "iptables":
        assert chain_counters(node, "syn-rate-limit") == [PASSED, 5 - PASSED]
