"""The daemon's life: its start, its beats, its signals, its reloads and its end."""
import os
import select
import signal
import time

import pytest

from standin import conf, traffic
from standin.node import service
from standin.wait import run_and_expect

HOUR_MS = 3600000
RELOAD_FAILED = "Exception caught reloading configuration file: "
QUIET_LOG = conf.LOG_PROPERTIES.replace("DEBUG", "INFO")


def start_daemon(node, *options):
    """The daemon under its watchdog, at its first beat; gives its pid in the node."""
    node.start_watchdog("--once", *options)
    return node.watchdog.wait_event("beat")["pid"]


def wait_beats(node, more=2):
    """Waits for so many beats from now on."""
    node.watchdog.wait_event("beat", node.beats() + more)


def terminate(node):
    node.cli("terminate")
    return node.watchdog.wait_event("exited")


def is_alive(node, pid):
    return node.run("kill", "-0", pid, check=False).returncode == 0


def test_beats_each_second(make_node):
    """Verifies that a health beat reaches the watchdog each second, from the daemon's own pid."""
    node = make_node()
    node.start_watchdog("--once")
    times = []
    for count in range(1, 8):
        node.watchdog.wait_event("beat", count)
        times.append(time.monotonic())
    assert 4 <= times[6] - times[0] <= 20, f"the beats came at {times}"
    beats = node.watchdog.select("beat", pid=node.monitor_pid())
    assert [beat["count"] for beat in beats[:7]] == list(range(1, 8))
    assert not node.watchdog.select("message"), "the daemon sent the watchdog something else"


def test_sigterm_is_ignored(make_node):
    """Verifies that SIGTERM changes nothing: the same process goes on beating."""
    node = make_node()
    pid = start_daemon(node)
    for _ in range(3):
        node.signal_monitor(signal.SIGTERM)
        wait_beats(node)
    assert node.monitor_pid() == pid
    assert {beat["pid"] for beat in node.watchdog.select("beat")} == {pid}


def test_terminate(make_node):
    """Verifies that "terminate" ends the daemon with status 0 and leaves neither a leak nor a file of its own."""
    node = make_node(settings={"Monitoring.report_resolution_ms": 100, "Monitoring.traffic_report_resolution_ms": 100})
    node.start_receiver()
    node.start_proxy()
    pid = start_daemon(node)
    node.traffic.session(node.services[0])  # it stays open, and so in the table, to the end
    node.wait_log("Saving in session 0x")
    assert node.run("sh", "-c", f"ls /run/zol/{node.node_id} /run/zol/instances").stdout.count("zol_monitor") == 2
    ended = terminate(node)
    assert (ended["pid"], ended.get("status")) == (pid, 0)
    node.wait_log("Monitoring terminating ...")
    assert "zol_monitor" not in node.run("sh", "-c", f"ls /run/zol/{node.node_id} /run/zol/instances").stdout
    said = (node.folder / "zol_node.err").read_text(encoding="utf-8")
    assert "AddressSanitizer" not in said and "LeakSanitizer" not in said and "runtime error" not in said


def test_parents_death_kills(make_node):
    """Verifies that the daemon doesn't outlive its parent."""
    node = make_node()
    pid = start_daemon(node)
    parent = int(node.run("ps", "-o", "ppid=", "-p", pid).stdout)
    handle = os.pidfd_open(node.host_pid(pid))
    try:
        assert not select.select([handle], [], [], 0)[0]
        node.run("kill", "-9", parent)
        assert select.select([handle], [], [], 30)[0], "the daemon lives on"
    finally:
        os.close(handle)
    run_and_expect(lambda: is_alive(node, pid), False)


def expect_failed_start(node, *texts):
    """The daemon ends with status 1, and these texts are in its log or on its standard error, in this order."""
    node.expect_clean = False
    node.start_watchdog("--once")
    ended = node.watchdog.wait_event("exited")
    assert ended.get("status") == 1, ended
    said = node.log() + (node.folder / "zol_node.err").read_text(encoding="utf-8")
    at = 0
    for text in (*texts, "Aborting."):
        assert text in said[at:], f"{text!r} is missing after {said[:at][-200:]!r}, in {said!r}"
        at = said.index(text, at) + len(text)
    assert node.beats() == 0


def test_no_configuration(make_node):
    """Verifies that a missing zol.conf ends the start, and that the log on standard error names the file."""
    node = make_node()
    (node.folder / "zol.conf").unlink()
    expect_failed_start(node, "Unhandled exception caught:", "Could not open configuration file - zol.conf\n")


def test_broken_configuration(make_node):
    """Verifies that a zol.conf with a syntax error ends the start with the error."""
    node = make_node()
    node.write_file("zol.conf", "General = { zol_id = ; };\n")
    expect_failed_start(node, "Unhandled exception caught:", "ParseException")


RESOLUTION_MISSING = "ERROR couldn't find the critical report resolution parameter\n"


@pytest.mark.parametrize("key, text", [
    ("General.zol_id", "Couldn't read the ZOLID from configuration file \n"),
    ("Monitoring.reporter_total_retries", "ERROR couldn't find parameter total allowed attempts for HTTP request\n"),
    ("Monitoring.report_resolution_ms", RESOLUTION_MISSING),
    ("Monitoring.traffic_report_resolution_ms", RESOLUTION_MISSING),
    ("Monitoring.session_report_resolution_ms", RESOLUTION_MISSING),
])
def test_critical_key_missing(make_node, key, text):
    """Verifies that a start without a critical key ends with status 1 and its text."""
    node = make_node(settings={key: None})
    expect_failed_start(node, "Starting Monitoring process ...", "Unhandled exception caught:\n", text)


def test_node_id_missing_is_logged_twice(make_node):
    """Verifies that a missing node id has an error line of its own before the one of the abort."""
    node = make_node(settings={"General.zol_id": None})
    expect_failed_start(node, "[ERROR] Monitor: Couldn't read the ZOLID from configuration file \n",
                        "Unhandled exception caught:", "Couldn't read the ZOLID from configuration file \n")


def test_polling_rate_missing_at_run_time(make_node):
    """Verifies that a polling rate that isn't there when a report is under way ends the process in order."""
    node = make_node(settings={"Monitoring.report_resolution_ms": 100, "Monitoring.polling_rate_ms": None})
    expect_failed_start(node, "Unhandled exception caught:",
                        "ERROR couldn't find parameter polling rate that critical for monitoring\n")


def test_ipc_sleep_time_missing(make_node):
    """Verifies that a missing pause between IPC writes is logged and costs nothing more, at start and at reload."""
    node = make_node(settings={"General.ipc_write_sleep_time_us": None})
    start_daemon(node)
    line = "couldn't find the critical parameter ipc_sleep_time_us.\n"
    assert node.log().count(line) == 1
    node.reload()
    node.wait_log(line, 2)
    wait_beats(node)
    assert node.log().count(line) == 2


def arrived(node):
    return len(node.requests("/zolReport"))


def test_reload_takes_a_changed_period(make_node):
    """Verifies that a report that was off comes at the period that a reload gives it, and at each later one."""
    node = make_node()
    node.start_receiver()
    start_daemon(node)
    wait_beats(node)
    assert "Reporter Periodic is disabled" in node.log() and arrived(node) == 0
    node.settings["Monitoring.report_resolution_ms"] = 100
    node.reload()
    run_and_expect(lambda: arrived(node), lambda count: count >= 10)
    before, periods = arrived(node), 5
    wait_beats(node, periods)
    assert arrived(node) - before > periods, "the reports come as if the period were longer"

    node.settings["Monitoring.report_resolution_ms"] = HOUR_MS
    node.reload()
    wait_beats(node, 4)  # the charge that was running when the reload came, and the report that it brings
    before = arrived(node)
    wait_beats(node, 3)
    assert arrived(node) == before


def test_reload_switches_a_report_off(make_node):
    """Verifies that a period of 0 at a reload ends the reports, with one line, and a later one brings them back."""
    node = make_node(settings={"Monitoring.report_resolution_ms": 100})
    node.start_receiver()
    start_daemon(node)
    run_and_expect(lambda: arrived(node), lambda count: count >= 2)
    assert "Reporter Periodic is disabled" not in node.log()
    node.settings["Monitoring.report_resolution_ms"] = 0
    node.reload()
    node.wait_log("Reporter Periodic is disabled ")
    wait_beats(node, 3)  # behind that line the report that was due is still made and sent
    before = arrived(node)
    wait_beats(node, 3)
    assert arrived(node) == before
    node.settings["Monitoring.report_resolution_ms"] = 100
    node.reload()
    run_and_expect(lambda: arrived(node), lambda count: count >= before + 2)


def test_reports_resume_by_themselves(make_node):
    """Verifies that a version that another one stands in for reports nothing, and goes on when it is the active one
    again, though nobody has it reload."""
    node = make_node(settings={"Monitoring.report_resolution_ms": 100})
    node.start_receiver()
    node.run("sh", "-c", "mkdir -p /run/zol && echo zol-9.9.9 >/run/zol/active_version")
    start_daemon(node)
    node.wait_log("update_dual_zol_state: Reports are now disabled")
    wait_beats(node, 3)
    assert arrived(node) == 0
    node.run("rm", "/run/zol/active_version")
    run_and_expect(lambda: arrived(node), lambda count: count >= 2)
    assert node.log().count("update_dual_zol_state: Reports are now re-enabled") == 1


def provoke_debug_line(node, name):
    """A message that is logged at debug level, and behind it one that is logged at info."""
    before = node.log().count("ZOL Sessions Dump")
    node.cli("--name", name, "invalid_public_host")
    wait_beats(node, 1)
    node.cli("dump_session_info")
    node.wait_log("ZOL Sessions Dump", before + 1)
    return f"requested by: [ {name} ]." in node.log()


def test_reload_takes_another_log_file(make_node):
    """Verifies that a reload takes the log's settings from the file that the configuration names then."""
    node = make_node()
    node.write_file("log.properties", QUIET_LOG)
    start_daemon(node)
    assert not provoke_debug_line(node, "quiet")
    assert "[DEBUG]" not in node.log()
    node.write_file("loud.properties", conf.LOG_PROPERTIES)
    wait_beats(node, 1)
    assert "[DEBUG]" not in node.log(), "a file that nobody has named was read"
    node.settings["Monitoring.log_config_file"] = "loud.properties"
    node.reload()
    node.wait_log("log settings taken from loud.properties")
    assert provoke_debug_line(node, "loud")


def test_changed_log_file_is_taken(make_node):
    """Verifies that a change of the log's settings is taken as it happens, and that a broken one is refused."""
    node = make_node()
    node.write_file("log.properties", QUIET_LOG)
    start_daemon(node)
    assert not provoke_debug_line(node, "quiet")
    node.write_file("log.properties", conf.LOG_PROPERTIES)
    node.wait_log("log settings taken from log.properties", 2)
    assert provoke_debug_line(node, "loud")
    node.write_file("log.properties", "log4cpp.rootCategory=NOLEVEL, file\n")
    node.wait_log("the log settings stay as they were")
    assert provoke_debug_line(node, "stillloud")


ROAD_SERVICES = [service(1), service(2), service(3)]


def short_session(node, number):
    """A session of that service from its start to its report."""
    row = next(row for row in ROAD_SERVICES if row["service_id"] == number)
    client, target = node.traffic.session(row)
    port = client.getsockname()[1]
    client.close()
    traffic.read_to_end(target)
    target.close()
    found = run_and_expect(lambda: [entry for entry in node.sessions() if entry["source_port"] == port],
                           lambda entries: len(entries) == 1, timeout=40, interval=0.1)
    return found[0]


def start_road(make_node, first):
    """Proxy and rules know all services from the start; the daemon only `first`."""
    node = make_node(services=ROAD_SERVICES, settings={"Monitoring.session_report_resolution_ms": 200,
                                                       "Monitoring.unmarked_target": "nowhere.zol.test"})
    node.start_receiver()
    node.start_proxy()
    node.services = first
    node.write_conf()
    return node


def test_reload_takes_the_service_table(make_node):
    """Verifies that a reload brings a new service its network, and that a removed one keeps its own over a restart."""
    node = start_road(make_node, ROAD_SERVICES[:2])
    node.start_watchdog()
    first = node.watchdog.wait_event("beat")["pid"]
    assert short_session(node, 2)["vbn_id"] == "network-2"
    assert short_session(node, 3)["vbn_id"] == ""
    node.services = [ROAD_SERVICES[0], ROAD_SERVICES[2]]
    node.reload()
    node.wait_log("Need reconf: ")
    assert short_session(node, 3)["vbn_id"] == "network-3"
    assert short_session(node, 2)["vbn_id"] == "network-2"
    assert short_session(node, 1)["vbn_id"] == "network-1"

    node.expect_clean = False  # killed on purpose
    node.signal_monitor(signal.SIGKILL)
    second = node.watchdog.wait_event("started", 2)["pid"]
    node.watchdog.wait_event("beat", pid=second)
    assert second != first
    assert short_session(node, 2)["vbn_id"] == "network-2"
    assert short_session(node, 3)["vbn_id"] == "network-3"
    assert terminate(node).get("signal") == signal.SIGKILL  # of the first
    run_and_expect(lambda: node.watchdog.select("exited", pid=second, status=0), lambda found: len(found) == 1)


@pytest.mark.parametrize("spoil, error", [
    (lambda node: node.write_file("zol.conf", "Monitoring = { report_resolution_ms = 5; \n"), "ParseException"),
    (lambda node: (node.folder / "zol.conf").unlink(), "Could not open configuration file - zol.conf"),
], ids=["broken", "gone"])
def test_failed_reload_changes_nothing(make_node, spoil, error):
    """Verifies that a reload that can't read the file is logged, keeps every setting, and can be made good."""
    node = start_road(make_node, ROAD_SERVICES[:1])
    pid = start_daemon(node)
    assert short_session(node, 1)["vbn_id"] == "network-1"
    spoil(node)
    node.cli("reloadconf")
    node.wait_log(RELOAD_FAILED)
    assert f"[ERROR] AConfigurator: {RELOAD_FAILED}{error}\n" in node.log()
    wait_beats(node)
    assert node.monitor_pid() == pid
    assert "Need reconf: " not in node.log(), "a listener heard of the failed reload"
    assert short_session(node, 1)["vbn_id"] == "network-1"  # the table, the server's address and the period stand
    node.services = ROAD_SERVICES[1:]
    node.reload()
    node.wait_log("Need reconf: ")
    assert short_session(node, 2)["vbn_id"] == "network-2"
    assert node.log().count(RELOAD_FAILED) == 1


def test_sigusr2_logs_the_memory(make_node):
    """Verifies that each SIGUSR2 logs the process's memory lines and the allocator's report, and nothing else."""
    node = make_node()
    pid = start_daemon(node)
    for count in (1, 2):
        node.signal_monitor(signal.SIGUSR2)
        node.wait_log("<malloc version=", count)
        node.wait_log("</malloc>", count)
        assert node.log().count("VmRSS:") == count
    wait_beats(node)
    assert node.monitor_pid() == pid


TWO_CHILDREN = """\
#!/bin/sh
cat gate > /dev/null &
cat gate > /dev/null &
exec bin/zol_monitor
"""


def children(node, pid):
    """The states of a process's children, as ps has them."""
    listed = node.run("ps", "-o", "stat=", "--ppid", pid, check=False)
    return [line.strip()[0] for line in listed.stdout.splitlines()]


def test_two_children_ending_together(make_node):
    """Verifies that two children whose ends make one SIGCHLD are both reaped."""
    node = make_node()
    os.mkfifo(node.folder / "gate")
    script = node.folder / "with_children"
    script.write_text(TWO_CHILDREN, encoding="ascii")
    script.chmod(0o755)
    pid = start_daemon(node, "--monitor", script)
    assert node.run("ps", "-o", "comm=", "-p", pid).stdout.strip() == "zol_monitor"
    assert len(children(node, pid)) == 2
    node.signal_monitor(signal.SIGSTOP)
    try:
        with open(node.folder / "gate", "wb"):  # its end is the end of both
            pass
        run_and_expect(lambda: children(node, pid), ["Z", "Z"])
    finally:
        node.signal_monitor(signal.SIGCONT)
    run_and_expect(lambda: children(node, pid), [])
    wait_beats(node)
