# SPDX-License-Identifier: MIT
"""zarvoctl: starting the server when none runs."""
import os
import re
import shutil
import unittest

import zarvo
from ctl import DONE, NO_SERVER, CtlTestCase


class Starting(CtlTestCase):
    def test_first_start_of_a_user(self):
        server = self.unattended(certificate=False)
        shutil.rmtree(os.path.join(server.home, ".zarvo_server"))
        self.assertEqual(self.ctl_json(server, "list"), [])
        self.assertEqual(zarvo.mode(server.path), "0o700")
        self.assertEqual(zarvo.mode(os.path.dirname(server.path)), "0o700")
        self.assertEqual(len(self.servers(server)), 1)

    def test_ten_at_once_start_one_server(self):
        for certificate in (True, False):
            with self.subTest(certificate=certificate):
                server = self.unattended(certificate=certificate)
                processes = [self.background(server, "list", "--json") for _ in range(10)]
                for process in processes:
                    output, error = process.communicate(timeout=2 * zarvo.DEADLINE)
                    self.assertEqual((process.returncode, output), (DONE, "[]\n"), error)
                # The other servers may not have ended yet, because no program waits for them.
                zarvo.wait_until(lambda: len(self.servers(server)) == 1, "the others to end")

    def test_no_start(self):
        server = self.unattended()
        error = self.ctl_error(server, "list", "--no-start", code=NO_SERVER)
        self.assertIn("No server is running", error)
        self.assertEqual(self.servers(server), [])

    def test_failed_start(self):
        server = self.unattended(settings={"BroadcastAddress": "nowhere"})
        error = self.ctl_error(server, "list", code=NO_SERVER)
        self.assertIn('Invalid broadcast address "nowhere"', error)
        # It prints its error before it ends.
        zarvo.wait_until(lambda: self.servers(server) == [], "the end of the server that does not start")

    def test_user_path_cannot_be_made(self):
        server = self.unattended()
        shutil.rmtree(os.path.dirname(server.path))
        zarvo.write(os.path.dirname(server.path), "a file")
        self.assertIn("Failed to create the directory", self.ctl_error(server, "list", code=NO_SERVER))

    def test_bundled_agent_is_found(self):
        server = self.unattended(agent=False)
        self.ctl(server, "server", "start")
        (pid,) = self.servers(server)
        (path,) = re.findall(r"(?:\A|\0)PATH=([^\0]*)", zarvo.read(f"/proc/{pid}/environ"))
        self.assertEqual(path.split(":")[-1], os.path.realpath(zarvo.LIBEXEC))

    def test_relative_user_path(self):
        # The server's working directory is the root, so zarvoctl must not resolve the path by its own.
        server = self.unattended()
        path = os.path.relpath(server.path, "/")
        server.settings["UserPath"] = path
        server.write_settings()
        self.assertEqual(self.ctl(server, "list", "--json", cwd=server.top), "[]\n")
        self.assertEqual(len(self.servers(server)), 1)
        self.assertFalse(os.path.exists(os.path.join(server.top, path)))


if __name__ == "__main__":
    unittest.main()
