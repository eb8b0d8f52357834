# SPDX-License-Identifier: MIT
"""A stranger takes the state socket of a session whose agent has lost it, and lies about the session."""
import json
import os
import socket
import threading

import accounts
import zarvo


def setUpModule():
    accounts.need_accounts()


def lie(path, state, calls):
    """Serves the state to everybody who asks, as an agent does. Adds a byte to the file for each one."""
    os.umask(0)
    counter = os.open(calls, os.O_WRONLY | os.O_CREAT | os.O_APPEND)
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(path)
    listener.listen(64)

    def serve():
        while True:
            connection = listener.accept()[0]
            try:
                connection.sendall(state)
            except OSError:
                pass
            connection.close()
            os.write(counter, b".")
    threading.Thread(target=serve, daemon=True).start()


class SquattedStateSocket(accounts.AccountTestCase):
    def test_strangers_password_and_clients_do_not_count(self):
        server = self.server(account=self.owner)
        server.agent(state="log")  # an agent without a socket
        client = server.client()
        session = zarvo.new_id()
        answer = client.call("Live.Start", [session, "true", "640x480"])
        path = f"/tmp/Xrdp_{answer['port'] - 41000}.sock"
        state = {"Started": "2001-01-01T00:00:00", "LastConnect": "2001-01-01T00:00:00", "Clients": 1,
                 "Passwords": ["stranger"]}
        calls = os.path.join(self.folder(self.stranger, 0o755), "calls")
        self.held(self.stranger, lie, path, json.dumps(state).encode(), calls)
        zarvo.wait_until(lambda: os.path.exists(calls) and os.path.getsize(calls) >= 3, "the server to ask three times")

        self.assertEqual(client.call("Live.Replay", [session])["password"], answer["password"])
        entry = {found["id"]: found for found in client.local_sessions()}[session]
        self.assertNotIn("2001-01-01", json.dumps(entry))
