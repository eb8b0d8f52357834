# SPDX-License-Identifier: MIT
"""One start of a server, and how its processes ended."""
import contextlib
import os
import select
import subprocess
import sys
import time

from basics import BINARY, DEADLINE, HERE, wait_until


class Launch:
    """One start of the server under a keeper: what it printed, and how it and its children ended."""

    def __init__(self, environment, stdin="/dev/null", descriptors=(), account=None, binary=BINARY, library=HERE,
                 python=sys.executable):
        report, report_out = os.pipe()
        stdout, stdout_out = os.pipe()
        stderr, stderr_out = os.pipe()
        self.keeper = subprocess.Popen(
            [python, "-ISB", os.path.join(library, "keeper.py"), str(report_out), stdin, binary],
            stdin=subprocess.PIPE, stdout=stdout_out, stderr=stderr_out, pass_fds=(report_out, *descriptors),
            env=environment, **(account.identity() if account else {}))
        for descriptor in (report_out, stdout_out, stderr_out):
            os.close(descriptor)
        os.set_blocking(report, False)
        self.report, self.report_text = report, b""
        self.exits = {}
        self.parent = None
        try:
            self.stdout, self.stderr = self.drain(stdout, stderr)
            self.status = self.wait_exit(self.parent_pid())
        except BaseException:
            self.close()
            raise

    @staticmethod
    def drain(*descriptors):
        """Reads all of them to their end, as the caller of a daemon does."""
        texts = {descriptor: b"" for descriptor in descriptors}
        left = set(descriptors)
        end = time.monotonic() + DEADLINE
        try:
            while left:
                ready = select.select(left, [], [], max(0, end - time.monotonic()))[0]
                if not ready:
                    raise AssertionError(f"the server did not let go of its caller; printed so far: {texts}")
                for descriptor in ready:
                    data = os.read(descriptor, 65536)
                    texts[descriptor] += data
                    if not data:
                        left.remove(descriptor)
        finally:
            for descriptor in descriptors:
                os.close(descriptor)
        return [texts[descriptor].decode() for descriptor in descriptors]

    def poll(self):
        with contextlib.suppress(BlockingIOError):
            while data := os.read(self.report, 65536):
                self.report_text += data
        *lines, self.report_text = self.report_text.split(b"\n")
        for line in lines:
            first, second = line.split()
            if first == b"started":
                self.parent = int(second)
            else:
                self.exits[int(first)] = int(second)

    def parent_pid(self):
        def known():
            self.poll()
            return self.parent
        return wait_until(known, "the start of the server")

    def wait_exit(self, pid, deadline=DEADLINE):
        """Waits for the exit status of the process. It is negative for a signal."""
        def ended():
            self.poll()
            return pid in self.exits
        wait_until(ended, f"the end of process {pid}", deadline)
        return self.exits[pid]

    def wait_daemon_exit(self, deadline=DEADLINE):
        """The same for the daemon of a failed start. Its pid is unknown, so it is the only other process."""
        def others():
            self.poll()
            return [status for pid, status in self.exits.items() if pid != self.parent]
        statuses = wait_until(others, "the end of the daemon", deadline)
        if len(statuses) != 1:
            raise AssertionError(f"more than the daemon ended: {self.exits}")
        return statuses[0]

    def close(self):
        """Kills all that is left of this start."""
        if self.keeper.stdin.closed:
            return
        self.keeper.stdin.close()
        self.keeper.wait(DEADLINE)
        os.close(self.report)
