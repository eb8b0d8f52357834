# SPDX-License-Identifier: MIT
"""zarvoctl: what it takes from the files that the server wrote, also while they change."""
import os
import signal
import socket
import subprocess
import threading
import unittest

import zarvo
from ctl import NO_SERVER, CtlTestCase


class Files(CtlTestCase):
    def test_stale_files(self):
        server = self.unattended()
        server.start()
        server.stop(signal.SIGKILL)
        self.assertTrue(os.path.exists(server.port_file))
        self.assertIn("without removing its files", self.ctl_error(server, "list", "--no-start", code=NO_SERVER))
        self.assertEqual(self.ctl_json(server, "list"), [])
        self.assertEqual(len(self.servers(server)), 1)

    def test_stale_port_of_another_program(self):
        # Another program has got the port that a killed server's files name.
        server = self.unattended()
        server.start()
        server.stop(signal.SIGKILL)
        with socket.create_server(("127.0.0.1", 0)) as other:
            zarvo.write(server.port_file, str(other.getsockname()[1]))
            self.assertEqual(self.ctl_json(server, "list"), [])

    def test_pid_of_another_program(self):
        server = self.unattended()
        zarvo.write(server.pid_file, str(os.getpid()))
        zarvo.write(server.port_file, "1")
        self.assertEqual(self.ctl_json(server, "list"), [])

    def test_unreadable_port_file(self):
        server = self.server()
        for text in ("word", "-1", "65536", "0"):
            with self.subTest(text):
                zarvo.write(server.port_file, text)
                self.assertIn("holds no usable number", self.ctl_error(server, "list", code=NO_SERVER))

    def test_server_that_is_starting_is_waited_for(self):
        # A server runs and has not written its port yet. zarvoctl waits, and starts no other.
        server = self.server()
        port = zarvo.read(server.port_file)
        zarvo.write(server.port_file, "")
        process = self.background(server, "list", "--json", "--no-start")
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(0.3)
        zarvo.write(server.port_file, port)
        self.assertEqual(process.communicate(timeout=zarvo.DEADLINE)[0], "[]\n")

    def test_port_file_is_written_between_two_reads(self):
        server = self.server()
        self.write_and_empty(server.port_file)
        for _ in range(10):
            self.assertEqual(self.ctl(server, "list", "--json", "--no-start"), "[]\n")

    def test_pid_file_is_removed_while_it_is_read(self):
        server = self.server()
        pid = zarvo.read(server.pid_file)
        done = threading.Event()

        def write_and_remove():
            while not done.is_set():
                zarvo.write(server.pid_file + ".new", pid)
                os.replace(server.pid_file + ".new", server.pid_file)
                os.unlink(server.pid_file)
            zarvo.write(server.pid_file, pid)

        writer = threading.Thread(target=write_and_remove)
        writer.start()
        self.addCleanup(writer.join, zarvo.DEADLINE)
        self.addCleanup(done.set)
        for _ in range(40):
            text = self.ctl_result(server, "list", "--json", "--no-start").stderr
            self.assertNotIn("Failed to open the file", text)


if __name__ == "__main__":
    unittest.main()
