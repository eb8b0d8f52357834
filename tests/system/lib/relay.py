# SPDX-License-Identifier: MIT
"""A relay between one client and a server. It knows which answers have reached the client."""
import contextlib
import json
import select
import socket
import ssl
import threading

import zarvo


class Frames:
    """Cuts the frames of one direction out of its bytes."""

    def __init__(self):
        self.buffer = b""

    def take(self, data):
        self.buffer += data
        payloads = []
        while True:
            head, colon, rest = self.buffer.partition(b":")
            if not colon or len(rest) <= int(head):
                return payloads
            payloads.append(rest[:int(head)])
            self.buffer = rest[int(head) + 1:]


class Relay:
    """Accepts one client, with the server's own certificate. Ends with the test."""

    def __init__(self, case, server):
        self.answered = []  # the methods whose answers are on their way to the client, oldest first
        self.asked = {}
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(server.certificate, server.key)
        self.far = server.client().socket
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()
        case.addCleanup(self.close)

    def run(self):
        with contextlib.suppress(OSError):
            with self.listener.accept()[0] as raw:
                raw.settimeout(zarvo.DEADLINE)
                with self.context.wrap_socket(raw, server_side=True) as near:
                    self.pass_on(near)

    def pass_on(self, near):
        directions = ((near, self.far, Frames()), (self.far, near, Frames()))
        while True:
            select.select([near, self.far], [], [])
            for source, target, frames in directions:
                data = self.receive(source)
                if data is None:
                    return
                target.settimeout(zarvo.DEADLINE)
                target.sendall(data)
                for payload in frames.take(data):
                    self.note(json.loads(payload))

    @staticmethod
    def receive(source):
        """All that can be read now, perhaps nothing. None at the end."""
        source.setblocking(False)
        pieces = []
        while True:
            try:
                piece = source.recv(65536)
            except ssl.SSLWantReadError:
                return b"".join(pieces)
            except OSError:
                piece = b""
            if not piece:
                return b"".join(pieces) or None
            pieces.append(piece)

    def note(self, message):
        if "method" in message:
            self.asked[message.get("id")] = message["method"]
        else:
            self.answered.append(self.asked[message["id"]])

    def close(self):
        for each in (self.listener, self.far):
            with contextlib.suppress(OSError):
                each.shutdown(socket.SHUT_RDWR)  # wakes the thread
        self.listener.close()
        self.thread.join(zarvo.DEADLINE)
