# SPDX-License-Identifier: MIT
"""Slow peers, and very many of them, cost the server neither its clients nor its memory."""
import itertools
import os
import re
import socket
import threading
import time
import unittest

import hosts
import zarvo
from hosts import OTHER_HOST, entry, reply
from hostile import SLOW, HostileCase, Latencies

# The time limit of a query, and by how much a busy machine may exceed it, in seconds.
EXCHANGE = 15
MARGIN = 12


class Delay(HostileCase):
    """Slow peers. Each test waits once for the time limit of a query."""

    def hold(self, raw):
        hosts.wait_hang_up(raw)

    def drip(self, data, pause):
        """Sends byte by byte, which takes longer than the time limit."""
        def send(stream):
            for byte in data:
                stream.sendall(bytes([byte]))
                if self.ended.wait(pause):
                    return
        return send

    def setUp(self):
        super().setUp()
        self.ended = threading.Event()
        self.addCleanup(self.ended.set)

    def full_queue(self):
        """A port where connections never complete, because its backlog is full."""
        listener = socket.socket()
        self.addCleanup(listener.close)
        listener.bind((OTHER_HOST, 0))
        listener.listen(0)
        port = listener.getsockname()[1]
        for _ in range(3):
            filler = socket.socket()
            self.addCleanup(filler.close)
            filler.setblocking(False)
            filler.connect_ex((OTHER_HOST, port))
        return listener, port

    def slow_handshake(self, raw):
        """Passes the server's handshake to a good peer, and the answer back byte by byte."""
        with socket.create_connection((OTHER_HOST, self.behind.port), zarvo.DEADLINE) as good:
            good.sendall(raw.recv(65536))
            self.drip(good.recv(65536), 0.05)(raw)

    def endless(self, tls):
        """Sends the largest frame without ever ending it, so there is always something to read."""
        self.drip(itertools.chain(b"65536:", itertools.repeat(0x20)), 0.002)(tls)

    def test_peers_that_never_finish_time_out(self):
        self.behind = self.answering(reply(None))
        whole = reply([entry("1" * 32)])
        _, full = self.full_queue()
        silent = self.service(self.hold)
        slow = self.service(self.slow_handshake)
        mute = self.service(hosts.with_query(*self.pair, self.hold))
        dripping = self.service(hosts.with_query(*self.pair, self.drip(whole, 0.2)))
        greedy = self.service(hosts.with_query(*self.pair, self.endless))
        late = self.service(hosts.with_query(*self.pair, lambda tls: (tls.sendall(whole[:-1]), self.hold(tls))))
        waiting = {port: f'{what} "{OTHER_HOST}" port "{port}": .+' for what, port in (
            ("Failed to connect to", full), ("Failed to connect to", silent.port), ("Failed to connect to", slow.port),
            ("Failed to read from", mute.port), ("Failed to read from", dripping.port),
            ("Failed to read from", greedy.port), ("Failed to read from", late.port))}
        taken = {}
        with Latencies(self.instance) as latencies:
            begin = time.monotonic()
            for port in waiting:
                self.say({"Method": "UPDATE", "Port": port, "User": self.instance.user})
            # Everything else goes on: requests, sessions, and good peers.
            session = zarvo.new_id()
            self.client.call("Live.Start", [session, "xterm", "800x600"])
            self.client.call("Live.Terminate", [session])
            self.assert_still_listens()
            self.assertLess(time.monotonic() - begin, EXCHANGE - 2, "waited for a peer")

            def look():
                for port, message in waiting.items():
                    if port not in taken and self.warning_counts(message):
                        taken[port] = time.monotonic() - begin
                return len(taken) == len(waiting)
            zarvo.wait_until(look, "the end of all exchanges")
        self.assertLess(max(latencies), SLOW)
        for port, seconds in taken.items():
            with self.subTest(peer=waiting[port]):
                self.assertGreater(seconds, EXCHANGE - 0.5)
                self.assertLess(seconds, EXCHANGE + MARGIN)
        self.assertEqual(len(self.warnings()), len(waiting))

    def test_server_ends_with_queries_in_flight(self):
        """There are more queries than run at a time. The end does not wait for the queued ones."""
        silent = self.silent_hosts(6, "UPDATE", 10)
        zarvo.wait_until(lambda: sum(host.accepted for host in silent) >= 32, "the queries")
        self.assert_serves(self.instance)
        begin = time.monotonic()
        self.assertEqual(self.instance.stop(deadline=EXCHANGE + MARGIN), 0)
        self.assertLess(time.monotonic() - begin, EXCHANGE + MARGIN)
        self.assertLess(sum(host.accepted for host in silent), 60)
        self.assertFalse(os.path.exists(self.instance.pid_file))
        self.assertFalse(os.path.exists(self.instance.port_file))
        self.assertIn(": Info: Exiting the server\n", self.instance.log())

    def test_flood_of_greetings_does_not_disturb_clients(self):
        """A silent host gets as many queries as its address may have at once, and sends more greetings than that."""
        with Latencies(self.instance) as latencies:
            silent, = self.silent_hosts(1, "HELLO", 10000)
            zarvo.wait_until(lambda: silent.accepted >= 10, "the queries")
            begin = time.monotonic()
            session = zarvo.new_id()
            self.client.call("Live.Start", [session, "xterm", "800x600"])
            self.client.call("Live.Terminate", [session])
            self.assert_still_listens("127.0.0.9")
            self.assertLess(time.monotonic() - begin, EXCHANGE - 2, "waited for a peer")
        self.assertLess(max(latencies), SLOW)
        with open(f"/proc/{self.instance.pid}/status", encoding="ascii") as status:
            threads = int(re.search(r"Threads:\s+(\d+)", status.read()).group(1))
        self.assertLess(threads, 60, "a thread for each announcement")
        self.instance.stop(9)  # another test checks its end


class Growth(HostileCase):
    ROUND = 50
    advances = True

    def measure(self):
        with open(f"/proc/{self.instance.pid}/status", encoding="ascii") as status:
            threads = int(re.search(r"Threads:\s+(\d+)", status.read()).group(1))
        return len(self.instance.held()), threads, self.instance.resident()

    def ask(self, peers, rounds):
        """Causes so many queries to each peer, one at a time."""
        for number in range(1, rounds + 1):
            for peer in peers:
                peer.goal = peer.accepted + 1
                self.say(self.message(peer))
            zarvo.wait_until(lambda: all(peer.accepted >= peer.goal for peer in peers), f"the queries, round {number}")

    def refused(self):
        """A port where nobody listens. It is bound, so that no other program listens there."""
        holder = socket.socket()
        self.addCleanup(holder.close)
        holder.bind((OTHER_HOST, 0))
        return holder.getsockname()[1]

    def test_many_queries_leave_nothing_behind(self):
        peers = [self.answering(reply([entry(f"{digit:032x}")] * 20)) for digit in range(3)]
        peers.append(self.answering(b"nonsense"))
        peers.append(self.service(lambda raw: raw.sendall(b"no TLS")))
        closed = self.refused()
        message = hosts.announcement("UPDATE", closed, self.instance.user)

        def quiet():
            """Waits until no query is in flight."""
            return zarvo.wait_until(lambda: self.measure() if not any(peer.open for peer in peers) else None, "the end")

        def load(rounds):
            self.ask(peers, rounds)
            for _ in range(rounds):
                self.advance()
                self.pour([message] * 5)
        load(self.ROUND // 2)  # fills the pools and caches
        first = quiet()
        load(self.ROUND)
        for _ in range(2):
            load(self.ROUND)

        # The pool keeps its threads, but has no more of them than queries that run at a time.
        zarvo.wait_until(lambda: self.measure()[0] <= first[0], "the descriptors to be closed")
        _, threads, resident = quiet()
        self.assertLessEqual(threads, 32 + max(4, os.cpu_count()) + 8)
        # A sanitizer keeps freed memory for a while, and its own books.
        allowed = (8 << 20) + self.instance.instrumentation()
        self.assertLess(resident - first[2], allowed, "bytes more after many queries")


if __name__ == "__main__":
    unittest.main()
