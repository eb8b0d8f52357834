# SPDX-License-Identifier: MIT
"""Many connections at once, and floods of strangers. ZARVO_LONG=1 makes the flood last for 30 seconds."""
import contextlib
import os
import random
import resource
import socket
import ssl
import threading
import time
import unittest

import zarvo

CONNECTIONS = 1000
SECONDS = 30 if os.environ.get("ZARVO_LONG") else 5
STRANGERS = 6


def allow_descriptors(count):
    """Raises the limit for this process and the servers that it starts."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < count:
        if hard != resource.RLIM_INFINITY and hard < count:
            raise unittest.SkipTest(f"only {hard} descriptors are allowed here")
        resource.setrlimit(resource.RLIMIT_NOFILE, (count, hard))


class Stranger(threading.Thread):
    """Connects again and again until it is told to stop, and is never admitted."""

    def __init__(self, port, stop, seed):
        super().__init__(daemon=True)
        self.port, self.stop = port, stop
        self.random = random.Random(seed)
        self.context = zarvo.client_context()
        self.count = 0

    def run(self):
        while not self.stop.is_set():
            act = self.random.choice((self.shake, self.shake, self.knock, self.babble, self.break_off))
            with contextlib.suppress(OSError, EOFError):
                act()
            self.count += 1

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), zarvo.DEADLINE)

    def shake(self):
        with zarvo.Client(self.port, context=self.context) as client:
            client.wait_closed()

    def knock(self):
        self.connect().close()

    def babble(self):
        with self.connect() as raw:
            raw.sendall(self.random.randbytes(2000))
            raw.shutdown(socket.SHUT_WR)
            while raw.recv(4096):
                pass

    def break_off(self):
        """Disconnects within the handshake."""
        with self.connect() as raw:
            raw.sendall(hello(self.context)[:self.random.randrange(1, 300)])


def hello(context):
    """The first flight of a handshake."""
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    with contextlib.suppress(ssl.SSLWantReadError):
        context.wrap_bio(incoming, outgoing).do_handshake()
    return outgoing.read()


def sockets(server):
    return sum(target.startswith("socket:") for target in server.descriptors().values())


class ManyConnections(zarvo.TestCase):
    def test_thousand_connections_half_of_them_idle(self):
        allow_descriptors(CONNECTIONS * 2 + 200)
        server = self.server()
        before = sockets(server)
        context = zarvo.client_context(server.certificate, server.key)
        clients = [server.client(context=context) for _ in range(CONNECTIONS)]
        busy = clients[::2]
        slowest = 0
        for _ in range(3):
            begin = time.monotonic()
            pending = [client.begin("Live.GetVersion") for client in busy]
            for client, request in zip(busy, pending):
                self.assertEqual(client.finish(request), zarvo.VERSION)
            slowest = max(slowest, time.monotonic() - begin)
        session = zarvo.new_id()
        busy[0].call("Live.Start", [session, "xterm", "800x600"])
        for client in clients:
            client.wait_notification(lambda params: session in str(params), "the session")
        busy[0].call("Live.Terminate", [session])
        print(f"{CONNECTIONS} connections: {len(busy)} requests at once answered in {slowest:.2f} s, "
              f"{server.resident() / CONNECTIONS / 1024:.0f} KiB of memory for each")
        for client in clients:
            client.close()
        zarvo.wait_until(lambda: sockets(server) <= before, "the sockets to be closed")
        self.assert_serves(server)

    def test_handshakes_that_stall_at_any_byte(self):
        server = self.server()
        whole = hello(zarvo.client_context())
        before = sockets(server)
        stalled = []
        for length in range(0, len(whole) + 1, 8):
            raw = socket.create_connection(("127.0.0.1", server.port), zarvo.DEADLINE)
            self.addCleanup(raw.close)
            raw.sendall(whole[:length])
            stalled.append(raw)
        session = zarvo.new_id()
        with server.client() as client:
            client.call("Live.Start", [session, "xterm", "800x600"])
            client.call("Live.Terminate", [session])
        self.assertGreaterEqual(sockets(server), before + len(stalled))
        for raw in stalled:
            raw.close()
        zarvo.wait_until(lambda: sockets(server) <= before, "the sockets to be closed")

    def test_client_is_served_during_a_flood_of_strangers(self):
        server = self.server({"LogLevel": "Critical"})
        session = zarvo.new_id()
        client = server.client()
        client.call("Live.Start", [session, "xterm", "800x600"])
        before, memory = sockets(server), server.resident()
        stop = threading.Event()
        strangers = [Stranger(server.port, stop, number) for number in range(STRANGERS)]
        self.addCleanup(stop.set)
        first = time.monotonic()
        for stranger in strangers:
            stranger.start()
        delays = []

        def is_over():
            """Waits until there were enough strangers, and the client had enough answers."""
            return (time.monotonic() - first >= SECONDS and len(delays) > 2 * SECONDS
                    and sum(stranger.count for stranger in strangers) > 20 * SECONDS)
        while not is_over():
            begin = time.monotonic()
            self.assertLess(begin - first, SECONDS + zarvo.DEADLINE, f"{len(delays)} answers")
            self.assertEqual([entry["id"] for entry in client.listing()], [session])
            delays.append(time.monotonic() - begin)
        # A new client is admitted as well.
        self.assert_serves(server)
        stop.set()
        seconds = time.monotonic() - first
        for stranger in strangers:
            stranger.join(2 * zarvo.DEADLINE)
            self.assertFalse(stranger.is_alive())
        count = sum(stranger.count for stranger in strangers)
        delays.sort()
        print(f"{count} strangers in {seconds:.0f} s; meanwhile {len(delays)} requests, the median took "
              f"{delays[len(delays) // 2] * 1000:.0f} ms, the longest {delays[-1] * 1000:.0f} ms")
        zarvo.wait_until(lambda: sockets(server) <= before, "the sockets to be closed")
        self.assertLess(server.resident() - memory, (16 << 20) + server.instrumentation())
        client.call("Live.Terminate", [session])
        self.assertEqual(server.stop(), 0)

    def test_clients_that_read_nothing_cost_one_notification_each(self):
        server = self.server()
        client = server.client()
        sessions = [zarvo.new_id() for _ in range(10)]
        for session in sessions:
            client.call("Live.Start", [session, "x" * 60000, "800x600"])
        silent = [self.silent_client(server) for _ in range(10)]
        zarvo.wait_until(lambda: sockets(server) >= 12, "the subscribers")
        watcher = server.client()
        memory = server.resident()
        path = os.path.join(server.records, "C-" + sessions[0], "reply")
        for number in range(15):
            date = f"2020-01-02T03:04:{number:02d}"
            zarvo.write(path + "~", f'{{"Clients":0,"LastConnect":"{date}"}}')
            os.rename(path + "~", path)
            watcher.wait_notification(lambda params, date=date: date in str(params), "the change")
        # 9 MB were due to each of them. The system's buffers hold some of that.
        growth = server.resident() - memory
        self.assertLess(growth, (32 << 20) + server.instrumentation())
        # When one of them reads, it gets the newest state.
        newest = next(iter(silent))
        buffer = b""
        while date.encode() not in buffer:
            data = newest.recv(65536)
            self.assertTrue(data)
            buffer = buffer[-100:] + data
        self.assert_serves(server)

    def silent_client(self, server):
        """Makes the system's buffer for unread data small."""
        raw = socket.socket()
        raw.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        raw.settimeout(zarvo.DEADLINE)
        raw.connect(("127.0.0.1", server.port))
        connection = zarvo.client_context(server.certificate, server.key).wrap_socket(raw)
        self.addCleanup(connection.close)
        return connection


if __name__ == "__main__":
    unittest.main()
