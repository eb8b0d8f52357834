# SPDX-License-Identifier: MIT
"""Closed connections and ended sessions leave nothing in the server: no descriptor, no thread, no zombie.

ZARVO_LONG=1 tests 10,000 connections and 200 sessions.
"""
import contextlib
import os
import re
import socket
import unittest

import zarvo

CONNECTIONS, LIVES = (10000, 200) if os.environ.get("ZARVO_LONG") else (600, 10)
AT_ONCE = 5


class Leaks(zarvo.TestCase):
    def setUp(self):
        self.instance = self.server({"LogLevel": "Critical"})
        self.context = zarvo.client_context(self.instance.certificate, self.instance.key)
        self.stranger = zarvo.client_context()
        # First make all that the server makes once and keeps.
        self.live(2)
        self.connect(40)

    def connect(self, count):
        """Connections of every kind, one after the other."""
        kinds = (self.call, self.call, self.refused, self.knock, self.babble, self.half_frame, self.bad_frame,
                 self.vanish)
        for number in range(count):
            kind = kinds[number % len(kinds)]
            # The server may close first, because these connections are bad.
            with contextlib.suppress(*(() if kind == self.call else (OSError, EOFError))):
                kind()

    def client(self):
        return zarvo.Client(self.instance.port, context=self.context)

    def call(self):
        with self.client() as client:
            client.listing("Live.ListSessions")

    def refused(self):
        with zarvo.Client(self.instance.port, context=self.stranger) as client:
            client.wait_closed()

    def knock(self):
        socket.create_connection(("127.0.0.1", self.instance.port), zarvo.DEADLINE).close()

    def babble(self):
        with socket.create_connection(("127.0.0.1", self.instance.port), zarvo.DEADLINE) as raw:
            raw.sendall(b"GET / HTTP/1.0\r\n\r\n")
            raw.shutdown(socket.SHUT_WR)
            while raw.recv(4096):
                pass

    def half_frame(self):
        with self.client() as client:
            client.send_raw(b"60000:" + b" " * 1000)

    def bad_frame(self):
        with self.client() as client:
            client.send_raw(b"no frame at all")
            client.wait_closed()

    def vanish(self):
        """Disconnects before the answer."""
        with self.client() as client:
            client.begin("system.describe")

    def live(self, count):
        """Whole lives of sessions, some side by side."""
        with self.client() as client:
            for _ in range(0, count, AT_ONCE):
                sessions = [zarvo.new_id() for _ in range(min(count, AT_ONCE))]
                for session in sessions:
                    answer = client.call("Live.Start", [session, "xterm", "800x600"])
                    viewer = self.instance.viewer(answer["port"], answer["password"])
                    self.instance.clients.remove(viewer)
                    viewer.close()
                for session in sessions:
                    client.call("Live.Terminate", [session])

    def counted(self):
        """What the server has, in /proc."""
        everything = self.instance.descriptors()
        held = [target for target in everything.values() if target != zarvo.THREAD_EVENT]
        threads = len(os.listdir(f"/proc/{self.instance.pid}/task"))
        # Each thread opens an event when it first needs one, and keeps it. Qt has one or two of its own.
        self.assertLessEqual(len(everything) - len(held), threads + 3)
        return {"descriptors": sorted(re.sub(r":.*", "", target) for target in held), "threads": threads,
                "children": len(self.instance.children())}

    def assert_same(self, before, what):
        with contextlib.suppress(AssertionError):
            zarvo.wait_until(lambda: self.counted() == before, "the same")
        self.assertEqual(self.counted(), before, what)
        print(f"after {what}: {len(before['descriptors'])} descriptors, {before['threads']} threads, "
              f"{before['children']} children as before; {self.instance.resident() >> 20} MiB")

    def test_connections_leave_nothing(self):
        self.settle()
        before, memory = self.counted(), self.instance.resident()
        self.connect(CONNECTIONS)
        self.assert_same(before, f"{CONNECTIONS} connections")
        self.assertLess(self.instance.resident() - memory, (8 << 20) + self.instance.instrumentation())
        self.assertEqual(self.instance.stop(), 0)

    def test_sessions_leave_nothing(self):
        self.settle()
        before, memory = self.counted(), self.instance.resident()
        self.live(LIVES)
        self.assert_same(before, f"{LIVES} sessions")
        self.assertLess(self.instance.resident() - memory, (8 << 20) + self.instance.instrumentation())
        self.assertEqual(os.listdir(self.instance.sessions), [])
        self.assertEqual(self.instance.stop(), 0)

    def settle(self):
        """Waits until the connections of the preparation are closed: only listeners and files are left."""
        def sockets():
            return [target for target in self.instance.descriptors().values() if target.startswith("socket:")]
        zarvo.wait_until(lambda: len(sockets()) <= 3 and not self.instance.children(), "the server to be at rest")


if __name__ == "__main__":
    unittest.main()
