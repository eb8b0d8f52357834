# SPDX-License-Identifier: MIT
"""What the system refuses for a while must not be refused for ever."""
import resource
import socket

import zarvo


class Descriptors(zarvo.TestCase):
    def test_connections_are_accepted_again_once_descriptors_are_free(self):
        server = self.server()
        own = resource.getrlimit(resource.RLIMIT_NOFILE)
        limit = max(server.descriptors()) + 20
        resource.prlimit(server.pid, resource.RLIMIT_NOFILE, (limit, own[1]))
        crowd = [socket.create_connection(("127.0.0.1", server.port), zarvo.DEADLINE) for _ in range(40)]
        self.addCleanup(lambda: [connection.close() for connection in crowd])
        zarvo.wait_until(lambda: len(server.descriptors()) == limit, "the last free descriptor to be used")
        for connection in crowd:
            connection.close()
        self.assert_serves(server)
