"""Processes of a node, started inside its namespaces."""
import contextlib
import json
import signal
import subprocess
import threading

from . import netns
from .wait import PATIENCE, run_and_expect


class Process:
    """A program of the node. Its standard output is read line by line into `lines`, and as JSON into `events`."""

    def __init__(self, command, errors, stdin=subprocess.DEVNULL):
        self.lines = []
        self.events = []
        self.watchers = []  # called with each line as it comes, in the reader's thread
        with open(errors, "ab") as error_file:
            self.popen = subprocess.Popen(command, stdin=stdin, stdout=subprocess.PIPE, stderr=error_file,
                                          preexec_fn=netns.die_with_parent, start_new_session=True)
        self.errors = errors
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.popen.stdout:
            text = line.decode("utf-8", "replace").rstrip("\n")
            self.lines.append(text)
            if text.startswith("{"):
                with contextlib.suppress(ValueError):
                    self.events.append(json.loads(text))
            for watcher in self.watchers:
                watcher(text)

    def select(self, event, **members):
        """The events of that name whose members have these values, oldest first."""
        wanted = {"event": event, **members}
        return [entry for entry in list(self.events) if all(entry.get(key) == value for key, value in wanted.items())]

    def wait_event(self, event, count=1, timeout=PATIENCE, **members):
        """The count-th event of that kind, when it has come."""
        def arrived():
            if self.popen.poll() is not None and not self.reader.is_alive():
                found = self.select(event, **members)
                if len(found) < count:
                    raise RuntimeError(f"{self.describe()} ended before '{event}'")
                return found
            return self.select(event, **members)

        return run_and_expect(arrived, lambda found: len(found) >= count, timeout)[count - 1]

    def describe(self):
        with open(self.errors, encoding="utf-8", errors="replace") as file:
            said = file.read()[-2000:]
        return f"{self.popen.args} (status {self.popen.poll()}, said: {said!r})"

    def write(self, line):
        self.popen.stdin.write(line.encode() + b"\n")
        self.popen.stdin.flush()

    def is_running(self):
        return self.popen.poll() is None

    def stop(self, number=signal.SIGTERM, timeout=15):
        """Ends it, by SIGKILL when it doesn't go; gives its status."""
        if self.popen.poll() is None:
            self.popen.send_signal(number)
            try:
                self.popen.wait(timeout)
            except subprocess.TimeoutExpired:
                self.popen.kill()
                self.popen.wait()
        self.reader.join(5)
        for stream in (self.popen.stdin, self.popen.stdout):
            if stream is not None:
                with contextlib.suppress(OSError):
                    stream.close()
        return self.popen.returncode
