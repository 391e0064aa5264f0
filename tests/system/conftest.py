"""What the system tests share: a node of their own for each, removed whatever happens, its logs shown on failure."""
import contextlib
import os
import pathlib
import shutil
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools"))
pytest.register_assert_rewrite("standin.wait")
from standin import leftovers  # noqa: E402
from standin.node import Node  # noqa: E402

SANITIZER_WORDS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:", "WARNING: ThreadSanitizer")


def pytest_sessionstart(session):
    if os.geteuid() == 0:
        leftovers.sweep()


def pytest_collection_modifyitems(items):
    if os.geteuid() != 0:
        for item in items:
            item.add_marker(pytest.mark.skip(reason="namespaces need root"))


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    report = (yield).get_result()
    if report.failed:
        item.has_failed = True
        module = item.getparent(pytest.Module)
        if module is not None:
            module.has_failed = True


def show_logs(node):
    for path in sorted([*node.folder.glob("*.err"), node.folder / "monitor.log"]):
        if path.exists() and path.stat().st_size > 0:
            print(f"--- {path.name} ---")
            print(path.read_text(errors="replace")[-6000:])
    for process in (node.watchdog, node.proxy):
        if process is not None:
            print("--- events ---", *process.lines[-60:], sep="\n")


def complaints(node):
    """What a node's programs did wrong at their end; a test that kills on purpose sets expect_clean to False."""
    found = []
    for path in node.folder.glob("*.err"):
        text = path.read_text(errors="replace")
        found += [f"{path.name}: {word}" for word in SANITIZER_WORDS if word in text]
    if node.watchdog is not None and getattr(node, "expect_clean", True):
        found += [f"the daemon ended so: {event}" for event in node.watchdog.select("exited")
                  if event.get("status") != 0]
    return found


@contextlib.contextmanager
def nodes(item):
    """A function that makes nodes; each ends with the block, and is looked at then."""
    made = []
    with contextlib.ExitStack() as stack:
        def make(**options):
            folder = leftovers.make_folder()
            stack.callback(shutil.rmtree, folder, ignore_errors=True)
            node = Node(folder, **options)
            made.append(node)
            stack.callback(finish, node, item)
            return node.__enter__()
        yield make


def finish(node, item):
    node.close()
    wrong = complaints(node)
    if wrong or getattr(item, "has_failed", False):
        show_logs(node)
    assert not wrong, wrong


@pytest.fixture
def make_node(request):
    with nodes(request.node) as make:
        yield make


@pytest.fixture(scope="module")
def make_module_node(request):
    with nodes(request.node) as make:
        yield make
