# SPDX-License-Identifier: MIT
"""A server ends by itself after five minutes without a session and without a client."""
import os
import signal
import unittest

import clock
import zarvo


class IdleExit(zarvo.TestCase):
    def setUp(self):
        self.instance = self.prepare()
        self.shift = clock.shifting(self, self.instance)
        self.shifted = 0
        self.instance.start()
        self.instance.wait_log("Info", f"Starting the server version {zarvo.VERSION}")

    def pass_time(self, seconds):
        self.shifted += seconds
        self.shift(0, self.shifted)

    def assert_runs(self):
        """Checks that the server goes on once it has read the clock: its event loop handles signals before timers."""
        for _ in range(2):
            count = self.instance.logged("Debug1", "Got signal 'HUP'")
            os.kill(self.instance.pid, signal.SIGHUP)
            self.instance.wait_log("Debug1", "Got signal 'HUP'", count + 1)

    def assert_ends_five_minutes_from_now(self):
        # Much less than the five minutes, because the machine may be slow.
        self.pass_time(200)
        self.assert_runs()
        self.pass_time(101)
        self.assertEqual(self.instance.wait_exit(), 0)
        self.assertTrue(self.instance.log().endswith(": Info: Exiting the server\n"))
        self.assertFalse(os.path.exists(self.instance.pid_file))
        self.assertFalse(os.path.exists(self.instance.port_file))

    def is_open(self, client):
        """Whether the server has its end of the connection."""
        ports = [f":{port:04X}" for port in (self.instance.port, client.local_port)]
        for line in zarvo.read("/proc/net/tcp").splitlines()[1:]:
            fields = line.split()
            if all(address.endswith(port) for address, port in zip(fields[1:3], ports)):
                return fields[9] != "0"  # the inode is 0 once no descriptor is left
        return False

    def leave(self, client):
        self.assertTrue(self.is_open(client))
        client.close()
        zarvo.wait_until(lambda: not self.is_open(client), "the server to see that the client has gone")
        self.assert_runs()  # it has handled the disconnection

    def test_idle_server_ends(self):
        self.assert_ends_five_minutes_from_now()

    def test_server_with_a_client_does_not_end(self):
        self.pass_time(200)
        client = self.instance.client()
        self.assertEqual(client.call("Live.GetVersion"), zarvo.VERSION)
        self.pass_time(1000)
        self.assert_runs()
        self.assertEqual(client.call("Live.GetVersion"), zarvo.VERSION)
        self.leave(client)
        self.assert_ends_five_minutes_from_now()

    def test_server_with_a_session_does_not_end(self):
        session = zarvo.new_id()
        client = self.instance.client()
        client.call("Live.Start", [session, "xterm", "800x600"])
        self.leave(client)
        self.pass_time(1000)
        self.assert_runs()
        client = self.instance.client()
        client.call("Live.Terminate", [session])
        self.leave(client)
        self.assert_ends_five_minutes_from_now()


if __name__ == "__main__":
    unittest.main()
