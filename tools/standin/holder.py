#!/usr/bin/python3
"""Holds a node's own process and mount namespaces, inside the network namespace that it was started in.

    holder.py WORKDIR [FOLDER...]

Everything that a node keeps outside of its working directory is private here: /run, /dev/shm, /tmp, /var/log,
/var/crash, and of /etc the resolv.conf and hosts of WORKDIR/etc. The folders stay visible though they lie in /tmp. Prints "ready PID" with the
pid of the holding process as the starter sees it; others join by that pid. The holding process is the first of its
process namespace: when it ends, the kernel ends all others in it. It ends with its starter, or when its standard input
is closed.
"""
import ctypes
import os
import pathlib
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from standin.netns import CLONE_NEWNS, CLONE_NEWPID, check, die_with_parent, libc  # noqa: E402

MS_BIND = 4096
MS_MOVE = 8192
MS_REC = 16384
MS_PRIVATE = 1 << 18


def mount(source, target, kind=None, flags=0):
    def text(value):
        return ctypes.c_char_p(None if value is None else str(value).encode())

    check(libc.mount(text(source), text(target), text(kind), ctypes.c_ulong(flags), None), f"mounting {target}")


def own_tmp(folders):
    """An empty /tmp that still shows the folders of this list that lie in it."""
    fresh = folders[0] / ".tmp"
    fresh.mkdir(exist_ok=True)
    mount("tmpfs", fresh, "tmpfs")
    for folder in folders:
        if folder.is_relative_to("/tmp"):
            inner = fresh / folder.relative_to("/tmp")
            inner.mkdir(parents=True, exist_ok=True)
            mount(folder, inner, None, MS_BIND)
    mount(fresh, "/tmp", None, MS_MOVE)


def own_files(workdir):
    """/etc is the machine's, but for what WORKDIR/etc has; binds of files show later changes of them."""
    for path in (workdir / "etc").iterdir():
        target = pathlib.Path("/etc", path.name).resolve()
        mount(path, target, None, MS_BIND)


def own_mounts(folders):
    mount("none", "/", None, MS_REC | MS_PRIVATE)
    mount("proc", "/proc", "proc")
    own_files(folders[0])
    # After /etc: its files may be links into /run.
    mount("tmpfs", "/dev/shm", "tmpfs")
    for cores in ("/var/log", "/var/crash"):  # the daemon marks the core files that it finds there
        if pathlib.Path(cores).is_dir():
            mount("tmpfs", cores, "tmpfs")
    if not pathlib.Path("/etc/resolv.conf").resolve().is_relative_to("/run"):
        mount("tmpfs", "/run", "tmpfs")
    else:
        pathlib.Path("/run/zol").mkdir(exist_ok=True)
        mount("tmpfs", "/run/zol", "tmpfs")
    own_tmp(folders)


def hold(folders, ready):
    """The first process of the namespace: it reaps what loses its parent there."""
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGCHLD})
    own_mounts(folders)
    os.write(ready, b"1")
    os.close(ready)
    while True:
        signal.sigwait({signal.SIGCHLD})
        try:
            while os.waitpid(-1, os.WNOHANG)[0] != 0:
                pass
        except ChildProcessError:
            pass


def main():
    folders = [pathlib.Path(argument).resolve() for argument in sys.argv[1:]]
    die_with_parent()
    check(libc.unshare(CLONE_NEWNS | CLONE_NEWPID), "unshare")
    wait_ready, ready = os.pipe()
    child = os.fork()
    if child == 0:
        os.close(wait_ready)
        die_with_parent()
        try:
            hold(folders, ready)
        except OSError as error:
            print(error, file=sys.stderr, flush=True)
            os._exit(1)
    os.close(ready)
    if os.read(wait_ready, 1) != b"1":
        sys.exit("the namespace could not be set up")
    print(f"ready {child}", flush=True)
    sys.stdin.buffer.read()
    os.kill(child, signal.SIGKILL)
    os.waitpid(child, 0)


if __name__ == "__main__":
    main()
