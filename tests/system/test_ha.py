"""The high-availability pair in the periodic report, its roles written as by the scripts that keepalived runs."""
import pathlib
import struct

import pytest

from standin import network
from standin.wait import run_and_expect

FLOATING = "203.0.113.10"
OTHER_FLOATING = "203.0.113.20"
DYNAMIC, TUNNELS = "high_availability", "primary_secondary_active_tunnel"
HEADER, COUNT, ENTRIES, ENTRY = 48, 48, 52, struct.Struct("<64sII")
RECORD = "PN9zol_utils12SharedObjectINS_13vrrp_status_tEEE-1.0.0_mem"
ROLES = {"unknown": 0, "master": 1, "backup": 2}
LOCKING_FAILED = "load_states: Failed locking shared memory for N9zol_utils13vrrp_status_tE object"
SHAPES = {"gxs": {}, "gxe": {"MiddleMileNetwork.enabled": True}}


def path_of(node):
    return pathlib.Path("/proc", str(node.holder_pid), "root/dev/shm", RECORD)


def entries(node):
    """The record's instances, read as raw bytes: name to role and count of changes; free slots left out."""
    content = path_of(node).read_bytes()
    count = struct.unpack_from("<I", content, COUNT)[0]
    found = [ENTRY.unpack_from(content, ENTRIES + slot * ENTRY.size) for slot in range(count)]
    return {name.split(b"\0")[0].decode(): (role, changes) for name, role, changes in found if name[0]}


def write_entries(node, *instances):
    """Writes the record as a program that knows its layout alone: (name, role, changes) each."""
    with open(path_of(node), "r+b") as file:
        file.seek(ENTRIES)
        for name, role, changes in instances:
            file.write(ENTRY.pack(name.encode(), role, changes))
        file.seek(COUNT)
        file.write(struct.pack("<I", len(instances)))


def set_role(node, instance, role):
    """What keepalived's script for a change of an instance does."""
    node.run(node.bin / "zol_shm", "role", instance, role)


def hop(mode, *floating):
    return [{"hop_id": "hop-1", "ha_mode": mode, "floating_ips": list(floating)}]


def start(make_node, *options, shape="gxs", **settings):
    own = {"interface": network.NODE_OUT, "external_ip": network.NODE_OUT, "is_private": False}
    node = make_node(settings={"Monitoring.report_resolution_ms": 200,
                               "Monitoring.session_report_resolution_ms": 60000,
                               "Networking.interfaces": [own], **SHAPES[shape], **settings})
    node.start_receiver()
    node.start_watchdog("--once", *options)
    node.watchdog.wait_event("beat")
    return node


def reports(node):
    return [record["body"] for record in node.requests("/zolReport") if record["verified"]]


def blocks(node):
    """Both blocks of the next report that was begun from now on."""
    wanted = len(reports(node)) + 2
    report = run_and_expect(lambda: reports(node), lambda found: len(found) >= wanted, interval=0.02)[wanted - 1]
    return report.get(DYNAMIC), report.get(TUNNELS)


def expect_blocks(node, dynamic, tunnels):
    """Waits for a report with both blocks; None for one that is absent."""
    run_and_expect(lambda: [(report.get(DYNAMIC), report.get(TUNNELS)) for report in reports(node)[-1:]],
                   [(dynamic, tunnels)], interval=0.05)


def tunnel(site, active, changes):
    return {"site_id": site, "active_tunnel": active, "state_changes_amount": changes}


def dynamic(state, changes, ip=FLOATING):
    return {"ip": ip, "state": state, "state_changes_amount": changes}


def reload(node):
    """Has the daemon take the configuration, and waits until it has: a listener's log line shows that it has begun,
    and it answers nobody before it is through."""
    done = node.log().count("Need reconf: 1 SVC enabled: 0 Is running: ")
    node.reload()
    node.wait_log("Need reconf: 1 SVC enabled: 0 Is running: ", done + 1)
    node.cli("vpn_info")


@pytest.mark.parametrize("shape", SHAPES)
def test_node_without_a_pair(make_node, shape):
    """Verifies that a node without instances reports neither block, also none that is empty."""
    node = start(make_node, shape=shape)
    blocks(node)
    for report in reports(node):
        assert DYNAMIC not in report and TUNNELS not in report
    assert path_of(node).stat().st_size == 73784
    assert entries(node) == {}


@pytest.mark.parametrize("shape", SHAPES)
def test_roles_of_sites(make_node, shape):
    """Verifies that each site's role and count of changes is in the next report, as its script wrote it."""
    node = start(make_node, shape=shape)
    set_role(node, "site-2", "master")
    set_role(node, "site-1", "backup")
    expect_blocks(node, None, {"tunnels": [tunnel("site-1", False, 1), tunnel("site-2", True, 1)]})
    assert entries(node) == {"site-2": (ROLES["master"], 1), "site-1": (ROLES["backup"], 1)}
    set_role(node, "site-2", "backup")
    set_role(node, "site-1", "master")
    set_role(node, "site-1", "master")
    expect_blocks(node, None, {"tunnels": [tunnel("site-1", True, 2), tunnel("site-2", False, 2)]})
    set_role(node, "site-1", "unknown")
    expect_blocks(node, None, {"tunnels": [tunnel("site-1", False, 3), tunnel("site-2", False, 2)]})


@pytest.mark.parametrize("shape", SHAPES)
def test_role_of_the_floating_address(make_node, shape):
    """Verifies the block of the node's own floating address, beside the address itself."""
    node = start(make_node, shape=shape, **{"HopData.hops": hop("autonomous", OTHER_FLOATING, FLOATING)})
    set_role(node, "dynamic", "backup")
    expect_blocks(node, dynamic("standby", 1), None)
    set_role(node, "dynamic", "master")
    set_role(node, "site-1", "master")
    expect_blocks(node, dynamic("active", 2), {"tunnels": [tunnel("site-1", True, 1)]})
    assert reports(node)[-1]["floating_ip"] == FLOATING


def test_record_by_its_layout(make_node):
    """Verifies that a record written byte by byte is read: names up to 64 bytes, any number as a role, free slots."""
    node = start(make_node)
    full_name = "n" * 64
    write_entries(node, ("site-1", 1, 0xffffffff), ("", 1, 1), (full_name, 2, 0), ("site-3", 77, 5), ("dynamic", 1, 6))
    expect_blocks(node, {"ip": "", "state": "active", "state_changes_amount": 6},
                  {"tunnels": [tunnel(full_name, False, 0), tunnel("site-1", True, 0xffffffff),
                               tunnel("site-3", False, 5)]})


def test_record_with_any_count(make_node):
    """Verifies that a count beyond the record's end is cut to what is there."""
    node = start(make_node)
    write_entries(node, ("site-1", 1, 1))
    with open(path_of(node), "r+b") as file:
        file.seek(COUNT)
        file.write(b"\xff" * 4)
    expect_blocks(node, None, {"tunnels": [tunnel("site-1", True, 1)]})


def test_record_that_comes_late(make_node):
    """Verifies that without the record reports go on without the blocks, and have them when it is there."""
    node = start(make_node, "--records-on-command")
    assert blocks(node) == (None, None)
    assert "[DEBUG] SharedObject: Shared memory disabled" not in node.log()
    assert "Shared memory disabled for: N9zol_utils13vrrp_status_tE" in node.log()
    node.watchdog.write("records")
    node.watchdog.wait_event("records")
    set_role(node, "site-1", "master")
    expect_blocks(node, None, {"tunnels": [tunnel("site-1", True, 1)]})


def test_record_that_is_locked(make_node):
    """Verifies that a record that somebody sits on costs its news, not the reports; they come when it is free."""
    node = start(make_node)
    set_role(node, "site-1", "master")
    expect_blocks(node, None, {"tunnels": [tunnel("site-1", True, 1)]})
    holder = node.spawn(node.bin / "zol_shm", "lock", "vrrp", 600)
    run_and_expect(lambda: list(holder.lines), ["locked"])
    write_entries(node, ("site-1", ROLES["backup"], 2))
    node.wait_log(LOCKING_FAILED, 2)
    assert blocks(node) == (None, {"tunnels": [tunnel("site-1", True, 1)]})
    holder.stop()
    expect_blocks(node, None, {"tunnels": [tunnel("site-1", False, 2)]})


def test_reload_keeps_the_roles(make_node):
    """Verifies that a reload loses no role: the sites' instances stay, and the node enters one of its own."""
    node = start(make_node, **{"HopData.hops": hop("autonomous", FLOATING)})
    set_role(node, "site-1", "master")
    set_role(node, "dynamic", "master")
    expect_blocks(node, dynamic("active", 1), {"tunnels": [tunnel("site-1", True, 1)]})
    for changes in (1, 1):
        reload(node)
        assert blocks(node) == (dynamic("active", changes), {"tunnels": [tunnel("site-1", True, 1)]})
    assert "read_conf: Autonomous floating ip is found\n" in node.log()
    assert "create_state: Creating new state for Autonomous floating ip\n" in node.log()
    assert entries(node) == {"site-1": (1, 1), "dynamic": (1, 1)}
    set_role(node, "dynamic", "backup")
    expect_blocks(node, dynamic("standby", 2), {"tunnels": [tunnel("site-1", True, 1)]})


@pytest.mark.parametrize("first", ["autonomous", "managed"])
def test_mode_that_changes(make_node, first):
    """Verifies that one reload is enough to enter the node's own instance, or to take it out, whatever it was."""
    node = start(make_node, **{"HopData.hops": hop(first, FLOATING)})
    set_role(node, "site-1", "backup")
    blocks(node)
    reload(node)
    run_and_expect(lambda: "dynamic" in entries(node), first == "autonomous")
    for mode in ("managed", "autonomous", "none", "autonomous"):
        node.settings["HopData.hops"] = hop(mode, FLOATING)
        reload(node)
        run_and_expect(lambda: sorted(entries(node)),
                       ["dynamic", "site-1"] if mode == "autonomous" else ["site-1"])
        run_and_expect(lambda: blocks(node)[0] is not None, mode == "autonomous")


def test_outgoing_address(make_node):
    """Verifies that the floating address is the one of outgoing traffic from the reload on at which the node has it."""
    node = start(make_node, **{"HopData.hops": hop("autonomous", FLOATING)})
    saved = "read_configuration: Saving outgoing interface ips "
    node.wait_log(f"{saved}{network.NODE_OUT} -> ")
    set_role(node, "dynamic", "master")
    blocks(node)
    assert node.log().count(saved) == 1
    reload(node)
    node.wait_log(f"{saved}{FLOATING} -> {FLOATING}\n")
    set_role(node, "dynamic", "backup")
    reload(node)
    node.wait_log(f"{saved}{network.NODE_OUT} -> ", 2)


@pytest.mark.parametrize("shape", SHAPES)
def test_change_on_a_dual_installation(make_node, shape):
    """Verifies that a role that has changed makes the next reload flush the caches, once, with a second version only."""
    node = start(make_node, shape=shape)
    flushing = "High availability state changed! flushing caches\n"
    set_role(node, "site-1", "master")
    blocks(node)
    reload(node)
    set_role(node, "site-1", "backup")
    reload(node)
    assert flushing not in node.log()
    node.run("sh", "-c", "mkdir -p /run/zol/instances && touch /run/zol/instances/zol_monitor-9.9.9.pid")
    reload(node)
    node.wait_log(flushing)
    node.wait_log("Clearing caches  !\n")
    run_and_expect((node.folder / "zol_node.err").read_text,
                   lambda text: "/proc/xt_udp_tunnel/reset_fastpath" in text)
    reload(node)
    assert node.log().count(flushing) == 1
    assert node.log().count("Clearing caches") == 1
    assert not node.watchdog.select("exited")
