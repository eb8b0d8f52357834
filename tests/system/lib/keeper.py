# SPDX-License-Identifier: MIT
"""Starts one program, reports how its processes end, and kills what it leaves behind.

usage: keeper.py REPORT_FD STDIN_FILE PROGRAM

It is init for the program: a daemon is an orphan, and only the process that adopts orphans gets its exit status. The
first line on REPORT_FD is "started PID". Then there is a line "PID STATUS" for each child that ends; the status of a
signal is negative. Standard output and error are the program's. Standard input comes from the test: when it ends, also
because the test was killed, the keeper kills every process below it and ends.
"""
import ctypes
import os
import select
import signal
import sys
import time

PR_SET_CHILD_SUBREAPER = 36


def children():
    own = os.getpid()
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open(f"/proc/{entry}/stat", "rb") as stat:
                    fields = stat.read().rpartition(b")")[2].split()
            except OSError:
                continue
            if int(fields[1]) == own and fields[0] != b"Z":
                yield int(entry)


def reap(report):
    while True:
        try:
            pid, status = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return False
        if pid == 0:
            return True
        try:
            os.write(report, b"%d %d\n" % (pid, os.waitstatus_to_exitcode(status)))
        except OSError:
            pass


def program_environment():
    """ZARVO_PRELOAD is LD_PRELOAD for the program. The keeper itself must not load it."""
    environment = dict(os.environ)
    if "ZARVO_PRELOAD" in environment:
        environment["LD_PRELOAD"] = environment.pop("ZARVO_PRELOAD")
    return environment


def main():
    report, stdin, program = int(sys.argv[1]), sys.argv[2], sys.argv[3]
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        sys.exit("cannot adopt orphans")
    os.set_inheritable(report, False)
    wake, signalled = os.pipe()
    os.set_blocking(signalled, False)
    signal.set_wakeup_fd(signalled, warn_on_full_buffer=False)
    # The test gets a signal of the terminal too. Its end is what makes the keeper clean up.
    for number in (signal.SIGCHLD, signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: None)

    pid = os.fork()
    if pid == 0:
        os.dup2(os.open(stdin, os.O_RDONLY), 0)
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)
        try:
            os.execve(program, [program], program_environment())
        finally:
            os._exit(127)
    os.write(report, b"started %d\n" % pid)
    null = os.open("/dev/null", os.O_WRONLY)
    os.dup2(null, 1)
    os.dup2(null, 2)

    poll = select.poll()
    poll.register(0, select.POLLIN)
    poll.register(wake, select.POLLIN)
    alive = True
    while alive:
        for descriptor, _ in poll.poll():
            if descriptor == wake:
                os.read(wake, 4096)
                reap(report)
            elif not os.read(0, 4096):
                alive = False
    # A killed child's own children become ours, so go on until there is none.
    while reap(report):
        for child in children():
            os.kill(child, signal.SIGKILL)
        time.sleep(0.005)


main()
