# SPDX-License-Identifier: MIT
"""Clients that flood, and clients that do not read, neither grow the server nor hold up others."""
import json
import select
import ssl
import time
import unittest

import zarvo

MEBIBYTE = 1048576
PATIENCE = 100


class Stream:
    """Sends and receives at the same time. Makes the connection non-blocking."""

    def __init__(self, client):
        self.socket = client.socket
        self.socket.setblocking(False)
        self.unsent = memoryview(b"")
        self.sent = 0

    def send(self):
        """Writes as much as the connection takes. Returns the number of bytes."""
        count = 0
        while self.unsent:
            try:
                written = self.socket.send(self.unsent[:65536])
            except (ssl.SSLWantWriteError, ssl.SSLWantReadError):
                break
            self.unsent = self.unsent[written:]
            count += written
        self.sent += count
        return count

    def receive(self):
        """Returns what can be read now, perhaps nothing. Raises EOFError at the end."""
        pieces = []
        while True:
            try:
                data = self.socket.recv(262144)
            except ssl.SSLWantReadError:
                return b"".join(pieces)
            if not data:
                raise EOFError
            pieces.append(data)

    def wait(self, seconds, write=True):
        return select.select([self.socket], [self.socket] if write else [], [], seconds)


class Frames:
    """Cuts the received bytes into frames, and drops notifications."""

    def __init__(self):
        self.buffer = b""

    def take(self, data):
        self.buffer += data
        position, frames = 0, []
        while True:
            colon = self.buffer.find(b":", position, position + 12)
            if colon < 0:
                break
            end = colon + 1 + int(self.buffer[position:colon])
            if len(self.buffer) <= end:
                break
            if self.buffer[end:end + 1] != b",":
                raise AssertionError("no comma behind a frame")
            payload = self.buffer[colon + 1:end]
            if b'"UpdateSessions"' not in payload:
                frames.append(payload)
            position = end + 1
        self.buffer = self.buffer[position:]
        return frames


class Flow(zarvo.TestCase):
    def pipeline(self, server, requests, answer_of):
        """Sends all requests as fast as possible while it reads answers. Returns the server's growth in bytes."""
        stream, frames = Stream(server.client()), Frames()
        stream.unsent = memoryview(b"".join(requests))
        base = top = server.resident()
        answered, looked = 0, 0.0
        end = time.monotonic() + PATIENCE
        while answered < len(requests):
            self.assertLess(time.monotonic(), end, f"only {answered} answers in time")
            stream.wait(1, write=bool(stream.unsent))
            stream.send()
            for payload in frames.take(stream.receive()):
                self.assertEqual(payload, answer_of(answered))
                answered += 1
            if time.monotonic() - looked > 0.05:
                looked = time.monotonic()
                top = max(top, server.resident())
        self.assertEqual(frames.buffer, b"")
        return max(top, server.resident()) - base

    def test_pipelined_frames_are_answered_in_order_in_bounded_memory(self):
        server = self.server()
        # Far more bytes than the bound below, so a server that buffers all of them fails.
        filler = b" " * 1400
        requests = [zarvo.frame(b'{"id":%d,"jsonrpc":"2.0","method":"x"}%s' % (i, filler)) for i in range(100000)]
        expected = b'{"error":{"code":-32601,"message":"Method not found."},"id":%d,"jsonrpc":"2.0"}\n'
        growth = self.pipeline(server, requests, lambda number: expected % number)
        self.assertLess(growth, 16 * MEBIBYTE + server.instrumentation())
        self.assert_serves(server)

    def test_pipelined_large_frames_in_bounded_memory(self):
        server = self.server()
        requests = [zarvo.frame((b'{"id":%d,"jsonrpc":"2.0","method":"Live.GetVersion"}' % i).ljust(65536))
                    for i in range(3000)]
        version = zarvo.VERSION.encode()
        growth = self.pipeline(server, requests,
                               lambda number: b'{"id":%d,"jsonrpc":"2.0","result":"%s"}\n' % (number, version))
        self.assertLess(growth, 24 * MEBIBYTE + server.instrumentation())

    def test_server_stops_reading_from_a_client_that_reads_nothing(self):
        server = self.server()
        # An answer is a hundred times as long as its request.
        batch = [{"id": i, "jsonrpc": "2.0", "method": "system.describe"} for i in range(400)]
        request = zarvo.frame(batch)
        with server.client() as client:
            client.send(batch)
            answer = len(client.answer_bytes())
        self.assertGreater(answer, 500000)
        base, bound = server.resident(), 64 * MEBIBYTE + server.instrumentation()
        stream = Stream(server.client())
        stream.unsent = memoryview(request * 2000)
        end = time.monotonic() + PATIENCE
        while True:
            self.assertLess(server.resident() - base, bound)
            self.assertLess(time.monotonic(), end, "the client never had to wait")
            if not select.select([], [stream.socket], [], 3)[1]:
                break  # back-pressure: the server takes no more
            stream.send()
            self.assertTrue(stream.unsent, "the server took everything in")
        self.assert_serves(server)
        # The server is idle: it does not go on with the requests that it has already read.
        zarvo.wait_until(lambda: self.processor_time(server, 0.5) < 0.2, "the server to rest")
        self.assertLess(server.resident() - base, bound)
        self.assert_serves(server)

        # When the client reads again, it gets every answer in whole frames.
        # Finish the frame that is partly sent. TLS wants the same bytes again, and not fewer of them.
        keep = (-stream.sent) % len(request) + (65536 // len(request) + 1) * len(request)
        stream.unsent = stream.unsent[:keep]
        complete = (stream.sent + len(stream.unsent)) // len(request)
        frames, count = Frames(), 0
        end = time.monotonic() + PATIENCE
        while count < complete:
            self.assertLess(time.monotonic(), end, f"{count} of {complete} answers")
            stream.wait(1, write=bool(stream.unsent))
            stream.send()
            for payload in frames.take(stream.receive()):
                if count % 16 == 0:
                    self.assertEqual([element["id"] for element in json.loads(payload)], list(range(400)))
                count += 1
                end = time.monotonic() + PATIENCE  # for each answer anew, because there may be many
        self.assertLess(server.resident() - base, bound)

    @staticmethod
    def processor_time(server, seconds):
        """The processor time that the server uses in this time, in seconds."""
        def used():
            fields = zarvo.read(f"/proc/{server.pid}/stat").rpartition(")")[2].split()
            return (int(fields[11]) + int(fields[12])) / 100
        before = used()
        time.sleep(seconds)  # the length of a measurement, not a wait
        return used() - before

    def test_others_are_served_while_one_client_floods(self):
        server = self.server()
        stream = Stream(server.client())
        request = zarvo.frame(b'{"id":1,"jsonrpc":"2.0","method":"x"}') * 20000
        other = server.client()
        other.socket.settimeout(zarvo.DEADLINE)
        stream.unsent = memoryview(request)
        for number in range(50):
            stream.send()
            stream.receive()
            if not stream.unsent:
                stream.unsent = memoryview(request)
            self.assertEqual(other.request({"id": number, "jsonrpc": "2.0", "method": "Live.GetVersion"})["id"], number)

    def test_client_that_stops_within_a_frame_costs_no_processor_time(self):
        server = self.server()
        self.assert_serves(server)
        base, bound = server.resident(), 64 * MEBIBYTE + server.instrumentation()
        clients = [server.client() for _ in range(20)]
        for client in clients:
            client.send_raw(b"65536:" + b" " * 60000)
        self.assert_serves(server)
        self.assertLess(server.resident() - base, bound)
        for client in clients:
            client.send_raw(b" " * 5536 + b",")
        for client in clients:
            self.assertEqual(client.answer()["error"]["code"], -32700)

    def test_clients_that_vanish_while_flooding_leave_nothing_behind(self):
        server = self.server()
        self.assert_serves(server)
        before = len(server.held())
        request = zarvo.frame(b'{"id":1,"jsonrpc":"2.0","method":"system.describe"}') * 2000
        for _ in range(10):
            client = server.client()
            Stream(client).socket.send(request[:16000])
            client.close()
        self.assert_serves(server)
        zarvo.wait_until(lambda: len(server.held()) <= before, "the descriptors to be closed")


if __name__ == "__main__":
    unittest.main()
