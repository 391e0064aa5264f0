"""The programs beside the daemon: the watchdog's stand-in, the command line, the shared records' tool."""
import signal

import pytest

from standin import conf
from standin.wait import run_and_expect

ALL_RECORDS = ("status", "report", "services", "states", "aggregated", "tunnels", "meds", "latencies", "vrrp")


@pytest.fixture
def node(make_node):
    return make_node()


def test_ended_daemon_is_started_again(node):
    """Verifies that a killed daemon is told as killed, started again, and beats again."""
    node.expect_clean = False
    node.start_watchdog()
    node.watchdog.wait_event("beat", count=2)
    first = node.monitor_pid()
    node.signal_monitor(signal.SIGKILL)
    assert node.watchdog.wait_event("exited")["signal"] == signal.SIGKILL
    second = node.watchdog.wait_event("started", count=2)
    assert second["pid"] != first and second["start"] == 2
    node.watchdog.wait_event("beat", pid=second["pid"])


def test_silent_daemon_is_replaced(make_node):
    """Verifies that a daemon whose beats stop for the configured time is killed and started again."""
    node = make_node(settings={"Watchdog.max_missed_threshold_ms": 2500})
    node.expect_clean = False
    node.start_watchdog()
    node.watchdog.wait_event("beat")
    node.signal_monitor(signal.SIGSTOP)
    node.watchdog.wait_event("beats-missed")
    node.watchdog.wait_event("started", count=2)


def test_once_does_not_start_again(node):
    """Verifies that with --once an ended daemon stays ended."""
    node.start_watchdog("--once")
    node.watchdog.wait_event("beat")
    node.cli("terminate")
    assert node.watchdog.wait_event("exited")["status"] == 0
    assert len(node.watchdog.select("started")) == 1
    with pytest.raises(LookupError):
        node.monitor_pid()


def test_stop_ends_both_in_order(node):
    """Verifies that SIGTERM for the watchdog ends the daemon by message, and then the watchdog."""
    node.start_watchdog()
    node.watchdog.wait_event("beat")
    assert node.watchdog.stop(signal.SIGTERM) == 0
    names = [event["event"] for event in node.watchdog.events if event["event"] != "beat"]
    assert names == ["records", "started", "stopping", "exited"]
    assert node.watchdog.events[-1]["status"] == 0


def test_stop_of_a_daemon_that_has_just_been_started(node):
    """Verifies that a daemon without a socket yet is asked until it hears, and ends in order."""
    node.start_watchdog()
    assert node.watchdog.stop(signal.SIGTERM) == 0
    assert node.watchdog.events[-1]["status"] == 0
    assert not node.watchdog.select("killed")


def test_records_on_command(node):
    """Verifies that the records are there after the command, of their sizes, and gone after the opposite one."""
    node.start_watchdog("--records-on-command")
    tool = node.bin / "zol_shm"
    assert all(node.run(tool, "dump", name, check=False).returncode == 1 for name in ALL_RECORDS)
    node.watchdog.write("records")
    node.watchdog.wait_event("records")
    assert all(len(node.run(tool, "dump", name).stdout) > 2 * 48 for name in ALL_RECORDS)
    node.watchdog.write("no-records")
    node.watchdog.wait_event("no-records")
    assert node.run(tool, "dump", "status", check=False).returncode == 1


def test_lock_of_a_record(node):
    """Verifies that a lock keeps others out for its time, and that one whose holder died keeps them out."""
    node.start_watchdog()
    tool = node.bin / "zol_shm"
    first = node.spawn(tool, "lock", "report", 1)
    run_and_expect(lambda: first.lines, ["locked"])
    second = node.spawn(tool, "lock", "report", 0)
    run_and_expect(lambda: second.lines, ["locked"])
    assert not first.is_running() or first.popen.wait(10) == 0
    run_and_expect(lambda: node.spawn(tool, "die", "report").popen.wait(10), 0)
    third = node.spawn(tool, "lock", "report", 0)
    with pytest.raises(AssertionError):
        run_and_expect(lambda: third.lines, ["locked"], timeout=1)


def test_raw_messages(node):
    """Verifies that any bytes can be sent, with a header and without."""
    node.start_watchdog()
    node.watchdog.wait_event("beat")
    node.cli("raw", 8, "-", data="")
    node.wait_log("parse_msg: invalid message size: 56 for type: failopen")
    node.cli("raw", 4711, "-", data="00")
    node.wait_log("handle_ipc_msg: unsupported message type: 4711")
    node.cli("raw-bytes", "-", data="01" * 55)
    node.wait_log("handle_ipc_msg: incoming message size (55) is too small.")
    assert node.cli("raw-bytes", "-", data="0g", check=False).returncode == 1


def test_answered_message(node):
    """Verifies that an answer over IPC is printed."""
    node.start_watchdog()
    node.watchdog.wait_event("beat")
    assert node.cli("vpn_info").stdout == "[]\n"


def test_message_to_the_watchdog_is_shown(node):
    """Verifies that what comes for the watchdog is printed whole, and what is to be passed on is passed on."""
    node.start_watchdog()
    node.watchdog.wait_event("beat")
    node.cli("--to", "watchdog", "raw", 9, "-", data="abcd")
    shown = node.watchdog.wait_event("message", type=9)
    assert (shown["source"], shown["destination"], shown["size"]) == ("zol_cli", "watchdog", 58)
    assert shown["hex"].endswith("abcd")
    inner = (777).to_bytes(2, "little") + b"zol_cli".ljust(25, b"\0") + bytes(4) + b"zol_monitor".ljust(25, b"\0")
    node.cli("--to", "watchdog", "raw", 40, "-", data=inner.hex())
    assert node.watchdog.wait_event("forwarded", type=777)["result"] == 0
    node.wait_log("handle_ipc_msg: unsupported message type: 777")


def test_burst_arrives_whole(make_node):
    """Verifies that 100,000 identification records reach the daemon, none lost and each session its own."""
    node = make_node(settings={"Watchdog.max_missed_threshold_ms": 60000})  # the dump holds the loop up
    node.write_file("log.properties", conf.LOG_PROPERTIES.replace("DEBUG", "INFO"))
    node.start_watchdog()
    node.watchdog.wait_event("beat")
    node.run(node.bin / "zol_cli", "--node", node.node_id, "burst", 100000, timeout=120)
    node.cli("dump_session_info")
    node.wait_log("By Session-ID Address", timeout=60)
    run_and_expect(lambda: len({line.split()[1] for line in node.log().splitlines() if line.startswith("ID: ")}),
                   100000, timeout=60, interval=1)
