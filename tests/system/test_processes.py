"""The node's processes and the machine's clock in the periodic report, against /proc and the log."""
import os
import pathlib
import re
import signal
import subprocess
import time

import pytest

from periodic import SERVICES, SETTINGS, after_report, last_info, reports, status
from standin.wait import run_and_expect

BUSY = """\
import os, resource
resource.setrlimit(resource.RLIMIT_NOFILE, (1000, 1000))
held = [os.open("/dev/null", os.O_RDONLY) for _ in range(500)]
memory = b"x" * 200_000_000
while True:
    pass
"""


KERNEL = """\
import os
source = os.open("/dev/urandom", os.O_RDONLY)
while True:
    os.read(source, 1 << 20)
"""
# Starts children by the orders that it reads, "start NAME ARGUMENT", and reaps the oldest at "reap".
TENDER = """\
import subprocess, sys
children = []
for order, *words in (line.rstrip("\\n").split("|") for line in sys.stdin):
    if order == "start":
        children.append(subprocess.Popen(["bin/" + words[0], words[1]], stdin=subprocess.DEVNULL))
    else:
        children.pop(0).wait()
"""


class Tended:
    """A node whose processes come and go by orders: a tender under the watchdog starts and reaps them."""

    def __init__(self, make_node, period_ms):
        self.node = make_node(services=SERVICES, settings={**SETTINGS, "Monitoring.report_resolution_ms": period_ms})
        folder = self.node.folder / "bin"
        folder.mkdir()
        for name, program in (("stranger", "/usr/bin/python3"), ("wanproxy0", "/usr/bin/python3"),
                              ("ydns2 old", "/usr/bin/python3"), ("ydns1", "/usr/bin/sleep"),
                              ("zol_monitor", self.node.bin / "zol_monitor")):
            (folder / name).symlink_to(program)
        for name, text in (("tender.py", TENDER), ("kernel.py", KERNEL), ("busy.py", BUSY)):
            (folder / name).write_text(text)
        os.mkfifo(self.node.folder / "orders")
        self.orders = os.open(self.node.folder / "orders", os.O_RDWR)
        script = folder / "start"
        script.write_text("#!/bin/sh\nbin/stranger bin/tender.py <orders >/dev/null &\nexec bin/zol_monitor\n")
        script.chmod(0o755)
        self.node.start_receiver()
        self.node.watchdog = self.node.spawn(self.node.bin / "zol_node", "--monitor", script, "--node",
                                             self.node.node_id, "--control", "--once", stdin=subprocess.PIPE)

    def order(self, *words):
        os.write(self.orders, "|".join(words).encode() + b"\n")

    def start(self, name, argument):
        """Its pids in the machine's own view and in the node's."""
        known = set(self.pids(name))
        self.order("start", name, argument)
        pid, = run_and_expect(lambda: set(self.pids(name)) - known, lambda found: len(found) == 1)
        status_text = pathlib.Path(f"/proc/{pid}/status").read_text()
        return pid, status_text.split("NSpid:")[1].splitlines()[0].split()[-1]

    def pids(self, name):
        return [pid for comm, pid in every_pid(self.node) if comm == name]

    def row(self, name):
        return rows_of(reports(self.node)[-1]).get(name)

    def close(self):
        os.close(self.orders)


@pytest.fixture
def tend(make_node):
    made = []
    yield lambda period_ms: made.append(Tended(make_node, period_ms)) or made[-1]
    for tended in made:
        tended.close()


def family(node):
    """A start script of the daemon that gives it children, and a service beside it: what the watchdog looks after."""
    folder = node.folder / "bin"
    folder.mkdir(exist_ok=True)
    for name, program in (("wanproxy0", "/usr/bin/python3"), ("stranger", "/usr/bin/python3"),
                          ("ydns1", "/usr/bin/sleep"), ("bird", "/usr/bin/sleep"),
                          ("zol_monitor", node.bin / "zol_monitor")):
        (folder / name).symlink_to(program)
    (folder / "busy.py").write_text(BUSY)
    (folder / "parent.py").write_text("import subprocess; subprocess.run(['bin/ydns1', '3600'])")
    script = folder / "start"
    script.write_text("#!/bin/sh\nbin/wanproxy0 bin/busy.py </dev/null >/dev/null &\n"
                      "bin/stranger bin/parent.py </dev/null >/dev/null &\nexec bin/zol_monitor\n")
    script.chmod(0o755)
    node.spawn(folder / "bird", "3600")
    node.watchdog = node.spawn(node.bin / "zol_node", "--monitor", script, "--node", node.node_id, "--control",
                               "--once", stdin=subprocess.PIPE)


def every_pid(node):
    """The processes of the node: the name and the machine's pid of each."""
    home = os.readlink(f"/proc/{node.holder_pid}/ns/pid")
    found = []
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(entry / "ns/pid") == home:
                found.append(((entry / "comm").read_text().strip(), int(entry.name)))
        except OSError:
            pass
    return found


def host_pids(node):
    return dict(every_pid(node))


def ticks_apart(pid):
    """Those of the process in its own code and in the kernel, and of the machine: all of them, and the idle ones."""
    own = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    machine = [int(word) for word in pathlib.Path("/proc/stat").read_text().split("\n")[0].split()[1:]]
    return int(own[11]), int(own[12]), sum(machine), machine[3]


def ticks(pid):
    user, kernel, total, idle = ticks_apart(pid)
    return user + kernel, total, idle


def rows_of(report):
    return {entry["process_name"]: entry for entry in report["zol-info"]["processes_stats"]}


def test_processes(make_node):
    """Verifies a tree of processes under the watchdog against /proc: a busy, a large, a nested and a lone one."""
    node = make_node(services=SERVICES, settings={**SETTINGS, "Monitoring.report_resolution_ms": 3000})
    node.start_receiver()
    family(node)
    names = {"watchdog", "zol_monitor", "wanproxy0", "ydns1", "bird", "other", "idle"}
    run_and_expect(lambda: set(rows_of(reports(node)[-1])), names)
    pids = run_and_expect(lambda: host_pids(node), lambda found: {"wanproxy0", "stranger", "ydns1"} <= set(found))
    after_report(node)
    before = ticks(pids["wanproxy0"])
    report = after_report(node)[-1]
    own, total, idle = (now - then for now, then in zip(ticks(pids["wanproxy0"]), before))
    rows, cores, info = rows_of(report), os.cpu_count(), report["zol-info"]

    busy = own / total * cores * 100
    assert rows["wanproxy0"]["cpu"] == pytest.approx(busy, abs=max(15, busy / 3)) and busy > 5
    assert rows["idle"]["cpu"] == pytest.approx(idle / total * 100, abs=20)
    mine = [entry for name, entry in rows.items() if name not in ("other", "idle")]
    assert info["cpu"] == pytest.approx(sum(entry["cpu"] for entry in mine) / cores, abs=8)
    assert rows["other"]["cpu"] + rows["idle"]["cpu"] + info["cpu"] == pytest.approx(100, abs=5)
    assert 0 < report["machine-info"]["cpu"]["total"] <= 105

    machine_kb = report["machine-info"]["ram"]["total"]
    status_text = pathlib.Path(f"/proc/{pids['wanproxy0']}/status").read_text()
    rss = int(status_text.split("VmRSS:")[1].split()[0])
    assert rss > 190_000
    assert rows["wanproxy0"]["ram"] == pytest.approx(rss / machine_kb * 100, rel=0.02)
    assert info["ram"] == pytest.approx(sum(entry["ram"] for entry in mine), rel=0.02)
    assert rows["ydns1"]["ram"] < rows["wanproxy0"]["ram"] / 10

    held = len(os.listdir(f"/proc/{pids['wanproxy0']}/fd"))
    assert held >= 500
    assert rows["wanproxy0"]["fd"] == pytest.approx((held + 2) / 1000)
    assert info["fd-max-ratio"] == max(entry["fd"] for entry in mine) == rows["wanproxy0"]["fd"]
    assert status(node, "max_fd_ratio") == pytest.approx(info["fd-max-ratio"])

    for name in ("wanproxy0", "ydns1"):
        os.kill(pids[name], signal.SIGKILL)
    run_and_expect(lambda: set(rows_of(reports(node)[-1])), names - {"wanproxy0", "ydns1"})
    assert last_info(node)["fd-max-ratio"] < 0.5


def node_share(report):
    """What the rows of the node's processes make of the machine, in percent."""
    rows = rows_of(report)
    return sum(entry["cpu"] for name, entry in rows.items() if name not in ("other", "idle")) / os.cpu_count()


def test_process_that_comes_again(tend):
    """Verifies that a process that ends takes its ticks along: the node's share is never less than its processes'."""
    tended = tend(3000)
    node = tended.node
    old, old_inner = tended.start("wanproxy0", "bin/busy.py")
    run_and_expect(lambda: tended.row("wanproxy0")["cpu"], lambda busy: busy > 5, timeout=60)
    start = len(after_report(node, 1))
    os.kill(old, signal.SIGKILL)
    tended.order("reap")
    new, _ = tended.start("wanproxy0", "bin/busy.py")
    after_report(node, 3)
    assert f"reset: Process wanproxy0({old_inner}) is not running, removing from processes list\n" in node.log()
    assert "Removing process wanproxy0: removing ticks (" in node.log()
    for report in reports(node)[start:]:
        info, rows = report["zol-info"], rows_of(report)
        assert info["cpu"] == pytest.approx(node_share(report), abs=8)
        assert rows["other"]["cpu"] + rows["idle"]["cpu"] + info["cpu"] == pytest.approx(100, abs=5)
    assert tended.row("wanproxy0")["cpu"] > 5
    os.kill(new, signal.SIGKILL)
    tended.order("reap")
    run_and_expect(lambda: tended.row("wanproxy0"), None)


def test_zombie_and_its_successor(tend):
    """Verifies that a zombie keeps its row without memory, until a process of its name that came later takes it."""
    tended = tend(1000)
    node = tended.node
    first, first_inner = tended.start("ydns1", "3600")
    run_and_expect(lambda: tended.row("ydns1")["ram"], lambda ram: ram > 0)
    os.kill(first, signal.SIGKILL)
    run_and_expect(lambda: tended.row("ydns1")["ram"], 0)
    node.wait_log(f"calculate_ram_usage: process {first_inner} is in zombie state\n")
    after_report(node)
    assert tended.row("ydns1")["ram"] == 0 and tended.row("ydns1")["cpu"] == 0
    mine = [entry["ram"] for name, entry in rows_of(reports(node)[-1]).items() if name not in ("other", "idle")]
    assert last_info(node)["ram"] == pytest.approx(sum(mine), rel=0.02)

    second, second_inner = tended.start("ydns1", "3600")
    run_and_expect(lambda: tended.row("ydns1")["ram"], lambda ram: ram > 0)
    node.wait_log(f"read_stats: process ydns1 changed PID to {second_inner}\n")
    tended.order("reap")
    run_and_expect(lambda: os.path.exists(f"/proc/{first}"), False)
    after_report(node, 2)
    told = node.log().count("read_stats: process ydns1 changed PID to ")
    after_report(node, 2)
    assert node.log().count("read_stats: process ydns1 changed PID to ") == told
    assert tended.row("ydns1")["ram"] > 0
    os.kill(second, signal.SIGKILL)
    tended.order("reap")
    run_and_expect(lambda: tended.row("ydns1"), None)


def test_name_with_a_blank(tend):
    """Verifies that a name ends at its blank, and that such a process's time in the kernel isn't seen."""
    tended = tend(3000)
    node = tended.node
    pid, _ = tended.start("ydns2 old", "bin/kernel.py")
    run_and_expect(lambda: tended.row("ydns2")["ram"], lambda ram: ram > 0, timeout=60)
    after_report(node)
    before = ticks_apart(pid)
    after_report(node)
    user, kernel, total, _ = (now - then for now, then in zip(ticks_apart(pid), before))
    cores, seen = os.cpu_count(), tended.row("ydns2")["cpu"]
    assert kernel / total * cores * 100 > seen + 5
    assert seen == pytest.approx(user / total * cores * 100, abs=4)
    assert tended.row("ydns2 old") is None
    assert tended.row("ydns2")["fd"] > 0


def test_clock_skew(make_node):
    """Verifies that a stop of the daemon is a skew of its sampler's clock, told once, and a report without samples."""
    node = make_node(settings={**SETTINGS, "Monitoring.report_resolution_ms": 400,
                               "Watchdog.max_missed_threshold_ms": 120_000})
    node.start_receiver()
    begun = time.monotonic()
    node.start_watchdog()

    def told():
        return [report["machine-info"]["cpu"]["cpu-stats"] for report in reports(node)]

    def logged():
        return [int(text) for text in re.findall(r"get_clock_skew: Clock skew detected: (\d+) msec\n", node.log())]

    after_report(node, 5)
    before = len(logged())
    node.signal_monitor(signal.SIGSTOP)
    stopped = time.monotonic()
    try:
        run_and_expect(lambda: time.monotonic() - stopped, lambda seconds: seconds >= 4)
    finally:
        node.signal_monitor(signal.SIGCONT)
    # A sample is due a second after the last one, which was in the second before the stop.
    longest = max(run_and_expect(lambda: logged()[before:], lambda found: max(found, default=0) >= 3000))
    assert longest < (time.monotonic() - begun) * 1000
    run_and_expect(lambda: max(stats["clock-skew-ms"] for stats in told()), lambda skew: skew >= longest)
    run_and_expect(lambda: (sum(stats["clock-skew-ms"] for stats in told()), sum(logged())),
                   lambda sums: sums[0] == sums[1])
    after_report(node, 3)
    assert sum(stats["num-of-samples"] for stats in told()) <= time.monotonic() - begun - 2  # none while it stood still
    without = [stats for stats in told() if stats["num-of-samples"] == 0]
    assert without and all(set(stats.values()) == {0} for stats in without)
    assert all(0 <= stats["steal-average-pc"] <= 100 and stats["steal-variance"] >= 0 for stats in told())
