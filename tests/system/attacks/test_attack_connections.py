# SPDX-License-Identifier: MIT
"""A stranger fills the server's TLS port with connections that are never admitted."""
import contextlib
import resource
import socket
import threading
import time

import accounts
import zarvo

CROWD = 1100
# A sanitizer makes the server several times slower.
SECONDS, SLOW_SECONDS = 1, 8
# 94 kB for each connection were seen, 103 MB together.
MAX_GROWTH = 40 << 20
REPETITIONS = 5

crowd = []


def setUpModule():
    accounts.need_accounts()


def connected(port):
    """A connection that is being made. It does not wait, because the server may be slow."""
    raw = socket.socket()
    raw.setblocking(False)
    raw.connect_ex(("127.0.0.1", port))
    return raw


def knock(port, first):
    """Makes new connections without end, and keeps the last CROWD. Sends the first bytes of each a while later."""
    speakers = []
    while True:
        for _ in range(10):
            with contextlib.suppress(OSError):
                crowd.append(connected(port))
                speakers.append(crowd[-1])
        if len(crowd) > CROWD:
            crowd.pop(0).close()
        while first and len(speakers) > 50:
            with contextlib.suppress(OSError):
                speakers.pop(0).send(first)
        for old in crowd[:len(crowd) - CROWD]:
            old.close()
        del crowd[:len(crowd) - CROWD]
        time.sleep(0.002)


def fill(port, first, goes_on):
    """Makes CROWD connections, and lets a thread make more of them if wished."""
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    for _ in range(CROWD):
        crowd.append(connected(port))
        time.sleep(0.0005)
    for raw in crowd:
        with contextlib.suppress(OSError):
            raw.send(first)
    if goes_on:
        threading.Thread(target=knock, args=(port, first), daemon=True).start()


def ask(port, certificate, key):
    """How many seconds it takes to get in and to be answered."""
    context = zarvo.client_context(certificate, key)
    begin = time.monotonic()
    with zarvo.Client(port, context=context) as client:
        client.call("Live.ListSessions")
    return time.monotonic() - begin


class Crowd(accounts.AccountTestCase):
    def setUp(self):
        super().setUp()
        self.instance = self.server(account=self.owner)
        before = self.sockets()
        self.assert_serves(self.instance)
        zarvo.wait_until(lambda: self.sockets() == before, "the end of the first client")
        self.limit = SLOW_SECONDS if self.instance.instrumentation() else SECONDS

    def seconds_of_the_owner(self):
        return self.owner.call(ask, self.instance.port, self.instance.certificate, self.instance.key)

    def sockets(self):
        return sum(target.startswith("socket:") for target in self.instance.descriptors().values())

    def assert_owner_gets_in(self):
        found = [self.seconds_of_the_owner() for _ in range(REPETITIONS)]
        self.assertLess(max(found), self.limit)

    def test_owner_gets_in_while_a_stranger_holds_idle_connections(self):
        before, sockets = self.instance.resident(), self.sockets()
        self.held(self.stranger, fill, self.instance.port, b"", False)
        self.assert_owner_gets_in()
        self.assertLess(self.instance.resident() - before, MAX_GROWTH + self.instance.instrumentation())
        self.assertLess(self.sockets() - sockets, 300)

    def test_owner_gets_in_while_a_stranger_keeps_connecting(self):
        before = self.instance.peak()
        self.held(self.stranger, fill, self.instance.port, b"", True)
        self.assert_owner_gets_in()
        self.assertLess(self.instance.peak() - before, MAX_GROWTH + self.instance.instrumentation())

    def test_owner_gets_in_while_a_stranger_begins_handshakes(self):
        before = self.instance.peak()
        # The head of a greeting. The server waits for the rest of it.
        self.held(self.stranger, fill, self.instance.port, bytes.fromhex("16030100c8010000c40303"), True)
        self.assert_owner_gets_in()
        self.assertLess(self.instance.peak() - before, MAX_GROWTH + self.instance.instrumentation())

    def test_stranger_below_the_limit_stays(self):
        def come(port):
            crowd.extend(socket.create_connection(("127.0.0.1", port), zarvo.DEADLINE) for _ in range(30))
        before = self.sockets()
        self.held(self.stranger, come, self.instance.port)
        zarvo.wait_until(lambda: self.sockets() == before + 30, "the connections")
        self.assert_owner_gets_in()
        self.assertEqual(self.sockets(), before + 30)
