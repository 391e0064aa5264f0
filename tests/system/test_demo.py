"""The demo, run as a user runs it: both shapes, and that whatever ends it nothing stays behind."""
import json
import os
import pathlib
import re
import signal
import subprocess
import tempfile

import pytest

from standin import netns
from standin.node import ROOT, build_folder
from standin.wait import run_and_expect

LIMIT_S = 150


def environment(build):
    """Over the release build the demo has to build for itself, as it does for a user: there is nothing left to do."""
    others = {name: value for name, value in os.environ.items() if name != "ZOL_BUILD"}
    return others if build == ROOT / "build" / "release" else {**others, "ZOL_BUILD": str(build)}


class Demo:
    """A running demo. Its output goes to a file, so that nobody has to read while it runs."""

    def __init__(self, folder, *options, build=None):
        self.output = folder / "output.txt"
        with open(self.output, "wb") as file:
            self.popen = subprocess.Popen([ROOT / "demo", *map(str, options)], stdout=file, stderr=subprocess.STDOUT,
                                          env=environment(build or build_folder()))

    def text(self):
        return self.output.read_text(errors="replace")

    def wait(self):
        return self.popen.wait(LIMIT_S)

    def has_ended(self):
        return self.popen.poll() is not None

    def left(self):
        """What is there of it: namespaces, folders and processes, which all carry the demo's pid in a name."""
        pid = self.popen.pid
        names = [*pathlib.Path("/run/netns").glob(f"zol-{pid}-*"),
                 *pathlib.Path(tempfile.gettempdir()).glob(f"zol-run-{pid}-*")]
        marks = [f"zol-run-{pid}-".encode(), f"zol-{pid}-".encode()]
        for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
            try:
                command = path.read_bytes()
            except OSError:
                continue
            if any(mark in command for mark in marks):
                names.append((path.parent.name, command))
        return names


def records():
    """The shared records of the programs' version in the machine's own place, where a node's must not be."""
    return {name for name in os.listdir("/dev/shm") if name.endswith("-1.0.0_mem")}


@pytest.fixture
def run(tmp_path):
    made = []

    def start(*options, **more):
        made.append(Demo(tmp_path, *options, **more))
        return made[-1]

    yield start
    for demo in made:
        if not demo.has_ended():
            demo.popen.terminate()
            demo.wait()
        print(demo.text()[-5000:])


def stored(folder, path):
    found = [json.loads(file.read_text()) for file in sorted(folder.glob("[0-9]*.json"))]
    return [record["body"] for record in found if record["path"] == path and record["verified"]]


def number_of(text):
    return int(text.replace(",", ""))


def pairs(text, pattern):
    """What was told and what was counted, of each line's figures."""
    return [(number_of(told), number_of(counted))
            for line in re.findall(pattern, text) for told, counted in re.findall(r"([\d,]*\d) and ([\d,]*\d)", line)]


@pytest.mark.parametrize("shape, reports", [("gxs", "/zolTrafficReport"), ("gxe", "/zolEnterpriseTrafficReport")])
def test_demo(run, tmp_path, shape, reports):
    """Verifies that the demo ends well, that its files hold the reports and the truth, and that nothing stays."""
    out, before = tmp_path / "out", records()
    demo = run("--shape", shape, "--seconds", 3, "--out", out)
    assert demo.wait() == 0
    text = demo.text()
    assert "problem:" not in text and "NOT VERIFIED" not in text
    truth = json.loads((out / "truth.json").read_text())
    assert truth["shape"] == shape and truth["totals"]["target_sent"] > 0
    ports = {session["client_port"] for session in truth["sessions"]}
    assert ports == {session["source_port"] for body in stored(out, "/zolSessionReport")
                     for session in body["session_info"]}
    assert stored(out, "/zolReport") and stored(out, reports)
    assert {body["eventType"] for body in stored(out, "/zolEvent")} == {"ZOL_FAILURE", "ZOL_BLACKHOLE", "ZOL_FAILOPEN"}
    assert demo.left() == [] and records() <= before


def test_sites_of_the_demo(run, tmp_path):
    """Verifies that the middle-mile demo shows the tunnel that goes and comes, the route, the pair, and figures of
    links and pings that are the truth's."""
    demo = run("--shape", "gxe", "--seconds", 3, "--out", tmp_path / "out")
    assert demo.wait() == 0
    text = demo.text()
    states = re.findall(r"north 192\.0\.2\.11: (\w+)", text)
    changes = [state for place, state in enumerate(states) if state not in states[place - 1:place]]
    assert changes[-2:] == ["disconnected", "connected"]  # on a busy machine no report may have shown it up before
    assert text.count("The peer does not answer (STATE_MAIN_I1: 60 second timeout)") == 1
    assert "status changed from connected to disconnected The peer does not answer\n" in text
    assert re.search(r"south 192\.0\.2\.21: connected.*; route 10\.60\.0\.0/16", text)
    assert "east 192.0.2.31: connected" in text
    assert "pair: 203.0.113.10 active, 1 change; north active here, 1 change\n" in text
    figures = pairs(text, r"\n    (?:north|south|WORLD) -> \w+: .* and .*")
    missing = re.findall(r"\n([\d,]+) bytes are missing there", text)
    assert len(figures) >= 8 and all(told > 0 and counted > 0 for told, counted in figures[:8])
    assert sum(counted - told for told, counted in figures) == sum(map(number_of, missing))
    pings = re.findall(r"on the link (\d+) pings, (\d+) answered after ([\d.]+) ms; told (\d+) .* ([\d.]+) ms", text)
    assert len(pings) == 2
    for _, answered, true_ms, told, told_ms in pings:
        assert int(told) == int(answered) > 0
        assert float(told_ms) >= float(true_ms) - 0.2


@pytest.mark.parametrize("shape", ["gxs", "gxe"])
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_signal_ends_the_demo(run, shape, number):
    """Verifies that a signal in the middle ends it at once and takes everything along."""
    before = records()
    demo = run("--shape", shape, "--seconds", 600)
    run_and_expect(lambda: demo.has_ended() or demo.text().count("traffic report, verified") > 0, True, timeout=60)
    assert demo.left()
    demo.popen.send_signal(number)
    assert demo.wait() == 128 + number
    assert demo.left() == [] and records() <= before


def test_figures_that_do_not_fit(run):
    """Verifies that the demo says so, with a status of 1, when its reports and the kernel's rules differ."""
    demo = run("--seconds", 4)
    run_and_expect(lambda: demo.has_ended() or "network-1: " in demo.text(), True, timeout=60)
    netns.execute(f"zol-{demo.popen.pid}-1-node", "iptables", "-t", "mangle", "-Z")
    assert demo.wait() == 1
    assert "problem: the reports have not told what really happened\n" in demo.text()
    assert demo.left() == []


def test_failure_in_the_middle(run, tmp_path):
    """Verifies that a demo that can't go on says why, ends with a status of its own, and leaves nothing."""
    (tmp_path / "build" / "bin").mkdir(parents=True)
    for program in (build_folder() / "bin").iterdir():
        if program.is_file() and program.name != "zol_proxy":
            (tmp_path / "build" / "bin" / program.name).symlink_to(program)
    before = records()
    demo = run("--shape", "gxe", build=tmp_path / "build")
    assert demo.wait() == 1
    assert "zol_proxy" in demo.text()
    assert demo.left() == [] and records() <= before
