# SPDX-License-Identifier: MIT
"""The server recovers after it has run out of descriptors."""
import resource
import socket

import zarvo

FULL = "Closed a connection at once: the file descriptors that are left are for the clients that are inside"


class Descriptors(zarvo.TestCase):
    def test_flood_of_strangers_leaves_descriptors_for_admitted_clients(self):
        server = self.server()
        inside = server.client()
        inside.call("Live.GetVersion")
        own = resource.getrlimit(resource.RLIMIT_NOFILE)
        room = 40
        limit = max(server.descriptors()) + 64 + room
        resource.prlimit(server.pid, resource.RLIMIT_NOFILE, (limit, own[1]))
        strangers = [socket.create_connection(("127.0.0.1", server.port), zarvo.DEADLINE) for _ in range(3 * room)]
        self.addCleanup(lambda: [connection.close() for connection in strangers])
        # The last ones are closed at once.
        self.assertEqual(strangers[-1].recv(1), b"")
        self.assertEqual(server.logged("Warning", FULL), 1)  # logged once, however many there are
        session = zarvo.new_id()
        inside.call("Live.Start", [session, "xterm", "800x600"])
        inside.call("Live.Terminate", [session])
        for connection in strangers:
            connection.close()
        zarvo.wait_until(lambda: max(server.descriptors()) < limit - 64 - room // 2, "the descriptors to be closed")
        self.assert_serves(server)

    def test_server_with_few_descriptors_admits_a_client(self):
        server = self.server()
        own = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.prlimit(server.pid, resource.RLIMIT_NOFILE, (64, own[1]))
        self.assert_serves(server)
        # With no descriptor for clients, the server logs it and keeps some for its own needs.
        resource.prlimit(server.pid, resource.RLIMIT_NOFILE, (max(server.descriptors()) + 10, own[1]))
        with socket.create_connection(("127.0.0.1", server.port), zarvo.DEADLINE) as refused:
            self.assertEqual(refused.recv(1), b"")
        server.wait_log("Warning", FULL)
        resource.prlimit(server.pid, resource.RLIMIT_NOFILE, own)
        self.assert_serves(server)
