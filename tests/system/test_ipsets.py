"""The other nodes' addresses in the kernel's set, from the configuration, through the program ipset."""
import os
import signal

import pytest

from standin import network
from standin.wait import run_and_expect

IPSET = "/usr/sbin/ipset"
SET = "other_zol_ips"
RESTORE = "About to execute 'timeout 2 /usr/sbin/ipset restore -file ./ipset_set'"
FAILED = "status : {} response: '{}', Failed !"
OWN_HOP = {"hop_id": "hop-1", "zol_ips": [network.NODE_OUT, "192.0.2.1"]}

pytestmark = pytest.mark.skipif(not os.access(IPSET, os.X_OK), reason="needs the program ipset")


def hop(name, *addresses):
    return {"hop_id": name, "zol_ips": list(addresses)}


def make(make_node, *hops):
    return make_node(settings={
        "HopData.hops": [OWN_HOP, *hops],
        "Networking.interfaces": [{"interface": network.NODE_OUT, "external_ip": "192.0.2.1", "is_private": False}],
    })


def members(node):
    """What the kernel's set holds; None without the set."""
    ended = node.run(IPSET, "list", SET, check=False)
    return sorted(ended.stdout.split("Members:\n")[1].split()) if ended.returncode == 0 else None


def start(node):
    node.start_watchdog("--once")
    node.watchdog.wait_event("beat")


def set_hops(node, *hops):
    """What the daemon has taken when this ends."""
    taken = node.log().count("was set with ips") + node.log().count("Wiping hop map")
    node.settings["HopData.hops"] = [OWN_HOP, *hops]
    node.reload()
    run_and_expect(lambda: node.log().count("was set with ips") + node.log().count("Wiping hop map"),
                   lambda count: count > taken)


def replace_ipset(node, script):
    """Inside the node, that shell script is the program ipset from now on."""
    path = node.folder / "fake_ipset"
    path.write_text(f"#!/bin/sh\n{script}\n")
    path.chmod(0o755)
    node.run("mount", "--bind", str(path), IPSET)


def wait_beats(node, more=3):
    node.watchdog.wait_event("beat", node.beats() + more)


def test_set_follows_the_configuration(make_node):
    """Verifies that the set holds the other nodes' addresses at the start and after each change of them."""
    node = make(make_node, hop("hop-2", "192.0.2.2", "192.0.2.3"), hop("hop-3", "192.0.2.4"))
    start(node)
    assert members(node) == ["192.0.2.2", "192.0.2.3", "192.0.2.4"]
    set_hops(node, hop("hop-2", "192.0.2.2"), hop("hop-9", "198.51.100.9"))
    assert run_and_expect(lambda: members(node), ["192.0.2.2", "198.51.100.9"])
    run_and_expect(lambda: node.run(IPSET, "list", "-n").stdout.split(), [SET])  # nothing of the swap is left
    set_hops(node)
    run_and_expect(lambda: members(node), [])
    assert "create other_zol_ips_tmp hash:net family inet -exist\n" in (node.folder / "ipset_set").read_text()


def test_unchanged_addresses(make_node):
    """Verifies that a reload without a change of addresses runs nothing and writes nothing."""
    node = make(make_node, hop("hop-2", "192.0.2.2"))
    start(node)
    assert node.log().count(RESTORE) == 1
    written = (node.folder / "ipset_set").stat().st_mtime_ns
    set_hops(node, hop("hop-7", "192.0.2.2"))
    node.wait_log("other_zol_ips was set with ips '192.0.2.2' there is no change")
    assert node.log().count(RESTORE) == 1
    assert (node.folder / "ipset_set").stat().st_mtime_ns == written


def test_restart_restores(make_node):
    """Verifies that a daemon that starts with the same addresses puts them into force once more."""
    node = make(make_node, hop("hop-2", "192.0.2.2"))
    node.expect_clean = False
    node.start_watchdog()
    node.watchdog.wait_event("beat")
    node.run(IPSET, "flush", SET)
    assert members(node) == []
    node.signal_monitor(signal.SIGKILL)
    node.watchdog.wait_event("started", 2)
    wait_beats(node, 1)
    assert members(node) == ["192.0.2.2"]
    assert node.log().count(RESTORE) == 2


def test_broken_hop_data(make_node):
    """Verifies that broken hop data leaves the set as it is: no node is locked out by it."""
    node = make(make_node, hop("hop-2", "192.0.2.2"))
    start(node)
    set_hops(node, {"zol_ips": ["192.0.2.7"]})
    assert members(node) == ["192.0.2.2"]
    assert node.log().count(RESTORE) == 1


def test_without_hop_data(make_node):
    """Verifies that a node that knows no other node touches no set."""
    node = make_node()
    start(node)
    assert members(node) is None
    assert not (node.folder / "ipset_set").exists()


def test_smuggled_rules(make_node):
    """Verifies that an address that holds more than an address brings no rule of its own along."""
    node = make(make_node, hop("hop-2", "192.0.2.2", "192.0.2.3\ncreate smuggled hash:net", "0.0.0.0/0"))
    start(node)
    assert members(node) == ["192.0.2.2"]
    assert node.run(IPSET, "list", "-n").stdout.split() == [SET]


def test_failing_ipset(make_node):
    """Verifies that an ipset that fails is tried twice and told, while the daemon goes on; the next change works."""
    node = make(make_node, hop("hop-2", "192.0.2.2"))
    replace_ipset(node, "echo broken; exit 1")
    start(node)
    node.wait_log(FAILED.format(1, "broken\n"))
    assert node.log().count("', heart beat and trying again") == 1
    node.run("umount", IPSET)
    node.run(IPSET, "create", SET, "hash:net")
    set_hops(node, hop("hop-2", "192.0.2.3"))
    run_and_expect(lambda: members(node), ["192.0.2.3"])


def test_hanging_ipset(make_node):
    """Verifies that an ipset that hangs holds the daemon up for its time limit, and no longer."""
    node = make(make_node, hop("hop-2", "192.0.2.2"))
    start(node)
    replace_ipset(node, "exec sleep 600")
    node.settings["HopData.hops"] = [OWN_HOP, hop("hop-2", "192.0.2.3")]
    node.reload()
    node.wait_log(FAILED.format(124, ""))
    wait_beats(node)
    node.run("umount", IPSET)
    assert members(node) == ["192.0.2.2"]
    set_hops(node, hop("hop-2", "192.0.2.4"))
    run_and_expect(lambda: members(node), ["192.0.2.4"])
