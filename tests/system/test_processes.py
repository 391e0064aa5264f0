"""The node's processes in the periodic report, against /proc as the test reads it."""
import os
import pathlib
import signal
import subprocess

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


def host_pids(node):
    """The processes of the node by name: the machine's pid of each."""
    home = os.readlink(f"/proc/{node.holder_pid}/ns/pid")
    found = {}
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(entry / "ns/pid") == home:
                found[(entry / "comm").read_text().strip()] = int(entry.name)
        except OSError:
            pass
    return found


def ticks(pid):
    """Those of the process, and of the machine: all of them, and the idle ones."""
    own = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    machine = [int(word) for word in pathlib.Path("/proc/stat").read_text().split("\n")[0].split()[1:]]
    return int(own[11]) + int(own[12]), sum(machine), machine[3]


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
