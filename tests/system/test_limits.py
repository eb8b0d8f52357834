# SPDX-License-Identifier: MIT
"""What the system refuses for a while must not be refused for ever."""
import resource
import socket

import zarvo


class Descriptors(zarvo.TestCase):
    def test_crowd_of_strangers_leaves_descriptors_for_those_inside(self):
        server = self.server()
        inside = server.client()
        inside.call("Live.GetVersion")
        own = resource.getrlimit(resource.RLIMIT_NOFILE)
        room = 40
        limit = max(server.descriptors()) + 64 + room
        resource.prlimit(server.pid, resource.RLIMIT_NOFILE, (limit, own[1]))
        crowd = [socket.create_connection(("127.0.0.1", server.port), zarvo.DEADLINE) for _ in range(3 * room)]
        self.addCleanup(lambda: [connection.close() for connection in crowd])
        # The last ones find the room taken.
        self.assertEqual(crowd[-1].recv(1), b"")
        session = zarvo.new_id()
        inside.call("Live.Start", [session, "xterm", "800x600"])
        inside.call("Live.Terminate", [session])
        for connection in crowd:
            connection.close()
        zarvo.wait_until(lambda: max(server.descriptors()) < limit - 64 - room // 2, "the crowd to be forgotten")
        self.assert_serves(server)
