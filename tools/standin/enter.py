#!/usr/bin/python3
"""Runs a command inside a node's namespaces: enter.py HOLDER_PID DIR COMMAND...

The command is a process of the node's own process namespace. Signals that end or stir a program are passed on to
it, it dies with this one, and this one ends as it did.
"""
import os
import pathlib
import signal
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from standin.netns import CLONE_NEWNET, CLONE_NEWNS, CLONE_NEWPID, check, die_with_parent, libc  # noqa: E402

PASSED_ON = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2)


def join(holder):
    spaces = [(CLONE_NEWNET, "net"), (CLONE_NEWPID, "pid"), (CLONE_NEWNS, "mnt")]
    handles = [(kind, os.open(f"/proc/{holder}/ns/{name}", os.O_RDONLY)) for kind, name in spaces]
    for kind, handle in handles:
        check(libc.setns(handle, kind), "setns")
        os.close(handle)


def end_like(status):
    if os.WIFSIGNALED(status):
        number = os.WTERMSIG(status)
        signal.pthread_sigmask(signal.SIG_UNBLOCK, PASSED_ON)
        if number not in (signal.SIGKILL, signal.SIGSTOP):
            signal.signal(number, signal.SIG_DFL)
        os.kill(os.getpid(), number)
    os._exit(os.WEXITSTATUS(status))


def main():
    holder, folder, command = sys.argv[1], sys.argv[2], sys.argv[3:]
    join(holder)
    signal.pthread_sigmask(signal.SIG_BLOCK, {*PASSED_ON, signal.SIGCHLD})
    child = os.fork()
    if child == 0:
        die_with_parent()
        signal.pthread_sigmask(signal.SIG_UNBLOCK, {*PASSED_ON, signal.SIGCHLD})
        try:
            os.chdir(folder)
            os.execvp(command[0], command)
        except OSError as error:
            print(f"{command[0]}: {error}", file=sys.stderr)
            os._exit(127)
    for stream in (0, 1):  # the command's alone now: its reader sees the end when the command ends
        os.close(stream)
    while True:
        number = signal.sigwait({*PASSED_ON, signal.SIGCHLD})
        if number == signal.SIGCHLD:
            done, status = os.waitpid(child, os.WNOHANG)
            if done == child:
                end_like(status)
        else:
            os.kill(child, number)


if __name__ == "__main__":
    main()
