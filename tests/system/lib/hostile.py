# SPDX-License-Identifier: MIT
"""A server among hostile or broken peers.

The tests play them from 127.0.0.2. No interface has this address, and no privileges are needed.
"""
import contextlib
import re
import threading
import time

import clock
import hosts
import zarvo
from hosts import OTHER_HOST, entry, reply

# A slower answer, in seconds, is too slow. It takes milliseconds, more on a busy machine, and 15 s when it waits
# for a peer.
SLOW = 10


class HostileCase(hosts.NeighbourCase):
    # Whether the server's clock goes a second forward before each announcement. So a test can cause more queries of one
    # peer than the server allows in a second. Not for tests of timeouts.
    advances = False

    def setUp(self):
        super().setUp()
        self.instance.settings["LogLevel"] = "Info"
        self.instance.write_settings()
        self.shift = clock.shifting(self, self.instance) if self.advances else None
        self.seconds = 0
        self.start()

    def say(self, content, ear=None):
        self.advance()
        super().say(content, ear)

    def advance(self):
        if self.shift:
            self.seconds += 1
            self.shift(0, self.seconds)

    @property
    def pair(self):
        return self.instance.certificate, self.instance.key

    def service(self, behave, **how):
        return hosts.Service(self, behave, **how)

    def answering(self, *pieces):
        """A peer that answers every query with these pieces."""
        return self.service(hosts.answering(*self.pair, *pieces))

    def pour(self, datagrams):
        """Sends them as fast as the server reads them, and returns when it has read all."""
        dropped = hosts.pour(self.ear, ("127.0.0.1", self.udp_port), datagrams)
        self.assertEqual(dropped, 0, "the system dropped datagrams before the server saw them")

    def wait_listed(self, sessions):
        zarvo.wait_until(lambda: self.listed() == sessions, "the peer's sessions")

    def assert_still_listens(self, address=OTHER_HOST):
        """Checks that the server asks a well-behaved peer and lists its session."""
        session = entry(zarvo.new_id())
        peer = self.service(hosts.answering(*self.pair, reply([session])), address=address)
        self.say(self.message(peer), self.datagrams(address, 0))
        zarvo.wait_until(lambda: session in (self.listed() or []), "the session of a good peer")

    def silent_hosts(self, count, method, each):
        """Lets count hosts announce themselves, each so many times, and never answer. Returns their services."""
        silent = [self.service(hosts.wait_hang_up, address=f"127.0.0.{number}") for number in range(2, 2 + count)]
        for service in silent:
            content = hosts.announcement(method, service.port, self.instance.user)
            dropped = hosts.pour(self.datagrams(service.address, 0), ("127.0.0.1", self.udp_port),
                                 (content for _ in range(each)))
            self.assertEqual(dropped, 0, "the system dropped datagrams before the server saw them")
        return silent

    def told(self, text):
        """How many lines of this kind there were, written or only counted. Call it after the end of the server."""
        more = re.findall(rf": Warning: (\d+) more in the last minute: {re.escape(text)}\n", self.instance.log())
        return self.warnings().count(text) + sum(map(int, more))

    def warning_counts(self, pattern):
        return sum(re.fullmatch(pattern, line) is not None for line in self.warnings())


class Latencies:
    """Measures how long a client waits for its answers while the context lasts."""

    def __init__(self, server):
        self.server = server
        self.found = []
        self.failure = None
        self.done = threading.Event()

    def __enter__(self):
        self.client = self.server.client()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()
        return self.found

    def run(self):
        try:
            while not self.done.is_set():
                begin = time.monotonic()
                with contextlib.suppress(zarvo.RpcError):  # a session ended while it was being listed
                    self.client.call("Live.ListSessions")
                self.found.append(time.monotonic() - begin)
                self.done.wait(0.02)
        except Exception as failure:
            self.failure = failure

    def __exit__(self, kind, *_):
        try:
            if kind is None:  # on a busy machine ten answers take their time
                zarvo.wait_until(lambda: self.failure or len(self.found) >= 10, "answers to judge by")
        finally:
            self.done.set()
            self.thread.join()
            self.client.close()
        if kind is None and self.failure:
            raise self.failure
