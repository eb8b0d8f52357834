# SPDX-License-Identifier: MIT
"""zarvoctl: the verb "server" and what it tells about the server."""
import json
import os
import subprocess
import unittest

import zarvo
from ctl import NO_SERVER, CtlTestCase


class TheServer(CtlTestCase):
    def test_version(self):
        server = self.server()
        self.assertEqual(self.ctl_json(server, "version"), {"client": zarvo.VERSION, "server": zarvo.VERSION})
        self.assertEqual(self.ctl(server, "version").split(),
                         ["zarvoctl", zarvo.VERSION, "zarvo_server", zarvo.VERSION])
        self.assertEqual(self.ctl(server, "--version"), f"zarvoctl {zarvo.VERSION}\n")

    def test_describe(self):
        server = self.server()
        self.assertEqual(self.ctl_json(server, "describe"), server.client().call("system.describe"))
        text = self.ctl(server, "describe")
        for name in ("Live.Start", "system.describe", "geometry (string)"):
            self.assertIn(name, text)

    def test_life(self):
        server = self.unattended()
        status = self.ctl_result(server, "server", "status")
        self.assertEqual((status.returncode, status.stdout), (NO_SERVER, ""))
        self.assertEqual(json.loads(self.ctl_result(server, "server", "status", "--json").stdout)["files"], "missing")
        self.ctl_error(server, "server", "stop", code=NO_SERVER)
        self.ctl(server, "server", "start")
        (pid,) = self.servers(server)
        self.ctl(server, "server", "start")
        self.assertEqual(self.servers(server), [pid])
        status = self.ctl_json(server, "server", "status")
        self.assertEqual(status, {"answers": True, "files": "running", "pid": pid, "sessions": 0,
                                  "version": zarvo.VERSION, "port": int(zarvo.read(server.port_file)),
                                  "userPath": server.path})
        self.assertIn(f"process    {pid}\n", self.ctl(server, "server", "status"))
        self.assertIn("Starting the server version", self.ctl(server, "server", "log"))
        self.assertEqual(len(self.ctl(server, "server", "log", "-n", "2").splitlines()), 2)
        self.ctl(server, "server", "stop")
        self.assertFalse(zarvo.alive(pid))
        self.assertFalse(os.path.exists(server.pid_file))

    def test_status_is_that_of_the_server_that_answered(self):
        server = self.server()
        self.write_and_empty(server.port_file)
        for _ in range(10):
            status = self.ctl_json(server, "server", "status")
            self.assertEqual((status["answers"], status["files"], status["pid"], status["port"]),
                             (True, "running", server.pid, server.port))
            started = self.ctl_result(server, "server", "start").stderr
            self.assertEqual(started, f"The server is process {server.pid} on port {server.port}.\n")

    def test_missing_pid_file(self):
        server = self.server()
        os.unlink(server.pid_file)
        self.assertEqual(self.ctl_json(server, "list", "--no-start"), [])
        self.assertEqual(self.ctl_json(server, "server", "status")["pid"], server.pid)
        self.ctl(server, "server", "stop")
        self.assertFalse(zarvo.alive(server.pid))

    def test_pid_file_that_is_a_directory(self):
        server = self.server()
        os.unlink(server.pid_file)
        os.mkdir(server.pid_file)
        self.assertIn("server_pid", self.ctl_error(server, "server", "stop", code=NO_SERVER))
        self.assertTrue(zarvo.alive(server.pid))

    def test_stop_spares_other_programs(self):
        server = self.unattended()
        sleeper = subprocess.Popen(["sleep", "1000"])
        self.addCleanup(self.end, sleeper)
        zarvo.write(server.pid_file, str(sleeper.pid))
        zarvo.write(server.port_file, "1")
        self.ctl_error(server, "server", "stop", code=NO_SERVER)
        self.assertIsNone(sleeper.poll())


if __name__ == "__main__":
    unittest.main()
