#!/usr/bin/python3
"""Runs the built tests and adds them up: tests/run.py all|unit|system|fuzz|asan.

The last line is "N passed, N failed", with ", N skipped" behind it when some were. Status 1 when one failed or
when a part that was asked for has no test at all.
"""
import dataclasses
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parent.parent
SANITIZER_ENV = {
    "ASAN_OPTIONS": "detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:abort_on_error=0",
    "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1",
}


@dataclasses.dataclass
class Tally:
    passed: int = 0
    failed: int = 0
    skipped: int = 0

    def add(self, other):
        self.passed += other.passed
        self.failed += other.failed
        self.skipped += other.skipped

    def line(self):
        tail = f", {self.skipped} skipped" if self.skipped else ""
        return f"{self.passed} passed, {self.failed} failed{tail}"


def run_gtest(program, env):
    """One GoogleTest program. A crash counts as one failure beside what the program had reported."""
    with tempfile.TemporaryDirectory() as folder:
        report = pathlib.Path(folder, "report.json")
        command = [program, "--gtest_brief=1", f"--gtest_output=json:{report}"]
        ended = subprocess.run(command, cwd=folder, env=env, stdin=subprocess.DEVNULL, timeout=900,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace")
        tally = Tally()
        if report.exists():
            for suite in json.loads(report.read_text())["testsuites"]:
                for case in suite["testsuite"]:
                    if case.get("failures"):
                        tally.failed += 1
                    elif case.get("result") == "SKIPPED":
                        print(f"SKIPPED {program.name}: {suite['name']}.{case['name']}")
                        tally.skipped += 1
                    else:
                        tally.passed += 1
        if ended.returncode != 0 and tally.failed == 0:
            tally.failed += 1
        if ended.returncode != 0:
            print(ended.stdout[-20000:])
        print(f"{program.name}: {tally.line()}", flush=True)
        return tally


def run_unit(build, env):
    tally = Tally()
    programs = sorted(path for path in (build / "bin" / "unit").glob("*") if os.access(path, os.X_OK))
    for program in programs:
        tally.add(run_gtest(program, env))
    if not programs:
        print(f"no unit tests in {build}")
        tally.failed += 1
    return tally


def run_check(name, command):
    ended = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if ended.returncode != 0:
        print(ended.stdout[-8000:])
    tally = Tally(passed=int(ended.returncode == 0), failed=int(ended.returncode != 0))
    print(f"{name}: {tally.line()}", flush=True)
    return tally


def run_checks():
    tally = run_check("header circles", ["tests/checks/header_circles.py", "."])
    sources = subprocess.run(["git", "ls-files", "*.h", "*.cpp"], cwd=ROOT, capture_output=True, text=True)
    files = sources.stdout.split()
    if files:
        tally.add(run_check("format", ["clang-format", "--dry-run", "-Werror", *files]))
    return tally


def run_fuzz(build, env):
    """Each corpus through its target's runner, built with the sanitizers."""
    tally = Tally()
    for corpus in sorted((ROOT / "fuzz" / "corpus").glob("*")):
        runner = build / "bin" / "fuzz" / f"{corpus.name}_runner"
        inputs = sorted(str(path) for path in corpus.iterdir())
        with tempfile.TemporaryDirectory() as folder:  # a target leaves its files where it runs
            ended = subprocess.run([runner, *inputs], cwd=folder, env=env, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True, errors="replace", timeout=600)
        good = ended.returncode == 0 and inputs
        if not good:
            print(ended.stdout[-8000:])
        tally.add(Tally(passed=int(bool(good)), failed=int(not good)))
        print(f"fuzz corpus {corpus.name}: {len(inputs)} inputs, {'ok' if good else 'FAILED'}", flush=True)
    return tally


def run_system(build, env, at_a_time=3):
    with tempfile.TemporaryDirectory() as folder:
        report = pathlib.Path(folder, "report.xml")
        # The tests wait more than they work: a few files at a time, each in namespaces of its own.
        command = ["/usr/bin/python3", "-m", "pytest", "-q", "-rs", "-p", "no:cacheprovider", "-n", str(at_a_time),
                   "--dist", "loadfile", f"--junitxml={report}", str(ROOT / "tests" / "system")]
        ended = subprocess.run(command, cwd=ROOT, env={**env, "ZOL_BUILD": str(build)}, stdin=subprocess.DEVNULL)
        tally = Tally()
        if report.exists():
            for case in xml.etree.ElementTree.parse(report).getroot().iter("testcase"):
                kinds = {child.tag for child in case}
                if kinds & {"failure", "error"}:
                    tally.failed += 1
                elif "skipped" in kinds:
                    tally.skipped += 1
                else:
                    tally.passed += 1
        if ended.returncode not in (0,) and tally.failed == 0:
            tally.failed += 1
        print(f"system: {tally.line()}", flush=True)
        return tally


def main(arguments):
    what = arguments[0] if arguments else "all"
    release, asan = ROOT / "build" / "release", ROOT / "build" / "asan"
    env = dict(os.environ)
    sanitized = {**env, **SANITIZER_ENV}
    tally = Tally()
    if what in ("all", "unit"):
        tally.add(run_checks())
        tally.add(run_unit(release, env))
    if what in ("all", "fuzz"):
        tally.add(run_fuzz(asan, sanitized))
    if what in ("all", "system"):
        tally.add(run_system(release, env))
    if what == "asan":
        tally.add(run_unit(asan, sanitized))
        tally.add(run_fuzz(asan, sanitized))
        tally.add(run_system(asan, sanitized, at_a_time=2))
    print(tally.line())
    return 0 if tally.failed == 0 and tally.passed > 0 else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
