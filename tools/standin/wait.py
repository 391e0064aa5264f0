"""Waiting for a state of the world."""
import time

PATIENCE = 90  # seconds; only what has failed takes so long, on whatever machine


def run_and_expect(fn, expected, timeout=PATIENCE, interval=0.05):
    """Calls `fn` until it gives `expected`, or until `expected(result)` is true when that is callable.

    Gives the result. An AssertionError names the last result when the limit, which is there only to end a test that
    has failed, is over. A lookup that raises because the state isn't there yet counts as not there.
    """
    limit = time.monotonic() + timeout
    while True:
        try:
            result, error = fn(), None
        except (LookupError, OSError, TypeError, ValueError) as problem:
            result, error = None, problem
        good = error is None and (expected(result) if callable(expected) else result == expected)
        if good:
            return result
        if time.monotonic() > limit:
            wanted = getattr(expected, "__doc__", None) if callable(expected) else repr(expected)
            raise AssertionError(f"not within {timeout} s: wanted {wanted or 'the condition'}, "
                                 f"last was {error if error is not None else result!r}")
        time.sleep(interval)
