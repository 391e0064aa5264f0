"""Network namespaces by name, and sockets made inside them.

A socket belongs to the namespace in which it was created. So a test drives both ends of a connection from one
process: it steps into a namespace only to create the socket.
"""
import contextlib
import ctypes
import os
import pathlib
import re
import socket
import subprocess

CLONE_NEWNS = 0x00020000
CLONE_NEWPID = 0x20000000
CLONE_NEWNET = 0x40000000
PR_SET_PDEATHSIG = 1

libc = ctypes.CDLL(None, use_errno=True)
NAMES = pathlib.Path("/run/netns")


def check(result, what):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")


def run(*command, data=None):
    """Runs a command to its end and gives its standard output; a failure raises with what it said."""
    ended = subprocess.run(command, input=data, capture_output=True, text=True)
    if ended.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: status {ended.returncode}: {ended.stderr.strip()}")
    return ended.stdout


@contextlib.contextmanager
def inside(name):
    """The calling thread is in the namespace `name` for the length of the block."""
    home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    try:
        there = os.open(NAMES / name, os.O_RDONLY)
        try:
            check(libc.setns(there, CLONE_NEWNET), f"entering {name}")
        finally:
            os.close(there)
        try:
            yield
        finally:
            check(libc.setns(home, CLONE_NEWNET), f"leaving {name}")
    finally:
        os.close(home)


def socket_in(name, kind=socket.SOCK_STREAM, family=socket.AF_INET, protocol=0):
    with inside(name):
        return socket.socket(family, kind, protocol)


def execute(name, *command, data=None):
    return run("ip", "netns", "exec", name, *command, data=data)


def exists(name):
    return (NAMES / name).exists()


def add(name):
    run("ip", "netns", "add", name)


def delete(name):
    if exists(name):
        run("ip", "netns", "del", name)


def sweep(prefix):
    """Removes the namespaces <prefix>-<pid>-... whose process has gone without cleaning up."""
    pattern = re.compile(re.escape(prefix) + r"-(\d+)-")
    for entry in list(NAMES.iterdir()) if NAMES.exists() else []:
        found = pattern.match(entry.name)
        if found and not pathlib.Path("/proc", found.group(1)).exists():
            with contextlib.suppress(RuntimeError):
                delete(entry.name)


def die_with_parent():
    """For a child process: it ends when the thread that started it does."""
    libc.prctl(PR_SET_PDEATHSIG, 9, 0, 0, 0)
