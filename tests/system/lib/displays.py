# SPDX-License-Identifier: MIT
"""Display numbers that no other test uses."""
import os
import random
import socket


class Displays:
    """A range of display numbers that no other test uses, in this process or any other one, of any user."""

    def __init__(self, count):
        # From 20000 on, both ports of a display lie outside the range from which the system takes outgoing ports. The
        # first thousand belong to the unit tests: close() of a server here would remove their sockets.
        bases = list(range(21000, 24480 - count, 20))
        random.shuffle(bases)
        self.locks = []
        for base in bases:
            if self.take(base, count):
                self.base, self.count = base, count
                return
        raise AssertionError("no free range of display numbers")

    def take(self, base, count):
        self.locks = []
        try:
            for block in range(base, base + count, 20):
                lock = socket.socket(socket.AF_UNIX)
                self.locks.append(lock)
                lock.bind(f"\0zarvo-test-displays-{block}")  # the kernel drops it with this process
            for number in range(base, base + count):
                for port in (6000 + number, 41000 + number):
                    with socket.socket() as probe:
                        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                        probe.bind(("127.0.0.1", port))
                if any(map(os.path.lexists, (f"/tmp/.X{number}-lock", f"/tmp/.X11-unix/X{number}",
                                             f"/tmp/Xrdp_{number}.sock"))):
                    raise OSError
        except OSError:
            self.close()
            return False
        return True

    def close(self):
        for lock in self.locks:
            lock.close()
