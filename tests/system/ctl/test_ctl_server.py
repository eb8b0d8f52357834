# SPDX-License-Identifier: MIT
"""zarvoctl: finding, starting and stopping the server, and which server it trusts."""
import contextlib
import json
import os
import re
import shutil
import signal
import socket
import ssl
import subprocess
import threading
import unittest

import zarvo
from ctl import DONE, NO_SERVER, REFUSED, CtlTestCase


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

    def write_and_empty(self, path):
        """Makes the file empty and whole in turns, as while the server writes it."""
        content = zarvo.read(path)
        done = threading.Event()

        def run():
            while not done.is_set():
                for text in ("", content):
                    zarvo.write(path, text)

        writer = threading.Thread(target=run)
        writer.start()
        self.addCleanup(writer.join, zarvo.DEADLINE)
        self.addCleanup(done.set)

    def test_port_file_is_written_between_two_reads(self):
        server = self.server()
        self.write_and_empty(server.port_file)
        for _ in range(10):
            self.assertEqual(self.ctl(server, "list", "--json", "--no-start"), "[]\n")

    def test_status_is_that_of_the_server_that_answered(self):
        server = self.server()
        self.write_and_empty(server.port_file)
        for _ in range(10):
            status = self.ctl_json(server, "server", "status")
            self.assertEqual((status["answers"], status["files"], status["pid"], status["port"]),
                             (True, "running", server.pid, server.port))
            started = self.ctl_result(server, "server", "start").stderr
            self.assertEqual(started, f"The server is process {server.pid} on port {server.port}.\n")

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


class Trust(CtlTestCase):
    def listen(self, server, serve):
        """Listens on the port that the server's files name, instead of the server."""
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)
        received = []

        def run():
            with contextlib.suppress(OSError):
                connection = listener.accept()[0]
                connection.settimeout(zarvo.DEADLINE)
                with connection:
                    received.append(serve(connection))

        thread = threading.Thread(target=run)
        thread.start()
        self.addCleanup(thread.join, zarvo.DEADLINE)
        zarvo.write(server.port_file, str(listener.getsockname()[1]))
        return received

    def test_other_certificate(self):
        server = self.server()
        certificate, key = zarvo.make_certificate(server.top, name="other")
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, key)

        def serve(connection):
            try:
                with context.wrap_socket(connection, server_side=True) as encrypted:
                    return encrypted.recv(100)
            except OSError:
                return b""

        received = self.listen(server, serve)
        self.assertIn("not our own", self.ctl_error(server, "list", code=REFUSED))
        zarvo.wait_until(lambda: received, "the end of the connection")
        self.assertEqual(received, [b""])  # no request was sent

    def test_no_tls(self):
        server = self.server()
        self.listen(server, lambda connection: connection.sendall(b"220 hello\r\n" * 20))
        self.assertIn("is not our server", self.ctl_error(server, "list", code=REFUSED))

    def test_server_that_hangs_up(self):
        # A server that fails to start after it has written its port does so. It may be the right one.
        server = self.server()
        port = zarvo.read(server.port_file)
        self.listen(server, lambda connection: None)
        self.assertIn("closed the connection", self.ctl_error(server, "list", "--no-start", code=NO_SERVER))
        self.listen(server, lambda connection: zarvo.write(server.port_file, port))
        self.assertEqual(self.ctl_json(server, "list"), [])

    def test_other_own_certificate(self):
        # The files were replaced while the server runs.
        server = self.server()
        zarvo.make_certificate(os.path.dirname(server.certificate))
        self.ctl_error(server, "list", code=REFUSED)

    def test_key_of_another_certificate(self):
        server = self.server()
        _, key = zarvo.make_certificate(server.top, name="other")
        shutil.copy(key, server.key)
        self.assertIn("do not belong together", self.ctl_error(server, "list", code=REFUSED))

    def test_broken_key(self):
        server = self.server()
        zarvo.write(server.key, "no key")
        self.assertIn("Invalid private key", self.ctl_error(server, "list", code=REFUSED))

    def test_garbage_after_the_handshake(self):
        for answer in (b"abc:", b"99999999:", b"3:{}},", b"2:{},2:[],1:x,", b"12:nonsense"):
            with self.subTest(answer):
                server = self.server()
                context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
                context.load_cert_chain(server.certificate, server.key)

                def serve(connection, text=answer):
                    with contextlib.suppress(OSError):
                        with context.wrap_socket(connection, server_side=True) as encrypted:
                            encrypted.recv(100)
                            encrypted.sendall(text)

                self.listen(server, serve)
                self.assertIn("connection to the server is lost", self.ctl_error(server, "list", code=NO_SERVER))


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
