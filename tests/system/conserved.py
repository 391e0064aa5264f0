"""Waiting until the traffic reports tell what the kernel counted, and traffic for them."""
import threading

from standin import traffic
from standin.ledger import differences, entries, moved, reports
from standin.wait import PATIENCE, run_and_expect


def after_report(node, count=1):
    """Waits for that many reports more."""
    wanted = len(reports(node)) + count
    run_and_expect(lambda: len(reports(node)), lambda found: found >= wanted, timeout=PATIENCE + 20 * count)


def expect_conserved(node, *numbers, uncounted=()):
    """The reports' sums become the kernel's, and stay so when nothing more moves; these sums.

    `uncounted` are (number, stream, way) that no report may count.
    """
    run_and_expect(lambda: differences(node, numbers, uncounted), {})
    after_report(node, 2)
    assert differences(node, numbers, uncounted) == {}
    return {number: moved(entries(node, f"network-{number}")) for number in numbers}


def answer(target, size):
    thread = threading.Thread(target=target.sendall, args=(bytes(size),))
    thread.start()
    return thread


def bulk(client, target, size):
    """That many bytes each way."""
    there, back = answer(client, size), answer(target, size)
    traffic.read_exactly(target, size)
    traffic.read_exactly(client, size)
    there.join()
    back.join()
