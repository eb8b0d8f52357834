# SPDX-License-Identifier: MIT
"""A server that lists what a test tells it. It stands in for a real one, whose files it uses."""
import contextlib
import json
import os
import socket
import ssl
import threading

import zarvo


class Listing:
    """Takes the place of a running server: zarvoctl finds it by that server's port file."""

    def __init__(self, test, server, entries, peers=()):
        """
        @param entries  what Live.ListSessions answers; the server's own list is empty
        @param peers    what the server would write to "server_peers"
        """
        self.entries = entries
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(server.certificate, server.key)
        self.listener = socket.create_server(("127.0.0.1", 0))
        thread = threading.Thread(target=self.serve, daemon=True)
        thread.start()
        test.addCleanup(thread.join, zarvo.DEADLINE)
        test.addCleanup(self.listener.close)
        test.addCleanup(self.listener.shutdown, socket.SHUT_RDWR)
        zarvo.write(server.port_file, str(self.listener.getsockname()[1]))
        path = os.path.join(server.path, "server_peers")
        zarvo.write(path, json.dumps(list(peers)))
        os.chmod(path, 0o600)
        if server.account:
            server.account.own(path)

    def serve(self):
        while True:
            try:
                connection = self.listener.accept()[0]
            except OSError:
                return
            connection.settimeout(zarvo.DEADLINE)
            with contextlib.suppress(OSError, EOFError), \
                    self.context.wrap_socket(connection, server_side=True) as encrypted:
                self.answer_all(encrypted)

    def answer_all(self, encrypted):
        reader = zarvo.Client.__new__(zarvo.Client)
        reader.buffer, reader.socket = b"", encrypted
        while True:
            request = json.loads(reader.frame())
            result = self.entries if request["method"] == "Live.ListSessions" else None
            encrypted.sendall(zarvo.frame({"id": request["id"], "jsonrpc": "2.0", "result": result}))


def entry(session, location, name="far"):
    """A session as servers list it."""
    return {"id": session, "location": location, "name": name, "windowMode": "desktop",
            "permissions": "connect|terminate", "started": "", "lastConnect": "", "lastDisconnect": ""}


def peer(address, *entries, port=4711):
    """A peer that has reported these sessions."""
    return {"address": address, "port": port,
            "sessions": [{"id": each["id"], "location": each["location"]} for each in entries]}
