# SPDX-License-Identifier: MIT
"""Certificates and keys that are damaged, do not match, or are being made when the server is killed."""
import os
import shlex
import shutil
import signal
import socket
import tempfile
import threading
import unittest

import zarvo


class Certificates(zarvo.TestCase):
    def start_is_refused(self, server, reason):
        launch = server.start(check=False)
        self.assertRegex(launch.stderr, rf"\A{zarvo.DAY}: Critical: {reason}\n\Z")
        self.assertEqual(launch.wait_daemon_exit(), 1)

    def test_incomplete_pair_of_openssl_is_replaced_at_the_next_start(self):
        # openssl does not notice a full disk.
        cases = (("", ""), ("", "key"), ("certificate", ""))
        for certificate, key in cases:
            with self.subTest(certificate=certificate, key=key):
                server = self.prepare(certificate=False)
                server.install_program("openssl", f"printf '{certificate}' > {shlex.quote(server.certificate)}\n"
                                       f"printf '{key}' > {shlex.quote(server.key)}\n")
                self.start_is_refused(server, 'Invalid private key in file ".+"')
                os.unlink(os.path.join(server.bin, "openssl"))
                server.start()
                self.assert_serves(server)

    def test_empty_certificate_is_replaced_at_the_next_start(self):
        server = self.prepare(certificate=False)
        real = shutil.which("openssl")
        server.install_program("openssl", f'{real} "$@" && : > {shlex.quote(server.certificate)}\n')
        self.start_is_refused(server, 'Invalid certificate in file ".+"')
        os.unlink(os.path.join(server.bin, "openssl"))
        server.start()
        self.assert_serves(server)

    def test_key_that_openssl_did_not_write_is_kept(self):
        server = self.prepare(certificate=False)
        zarvo.write(server.key, "no key")
        server.install_program("openssl", f"printf certificate > {shlex.quote(server.certificate)}\n")
        self.start_is_refused(server, 'Invalid private key in file ".+"')
        self.assertEqual(zarvo.read(server.key), "no key")
        self.assertFalse(os.path.exists(server.certificate))

    def test_damaged_pair_that_was_there_before_is_kept(self):
        server = self.prepare()
        zarvo.write(server.key, "")
        before = zarvo.read(server.certificate)
        self.start_is_refused(server, 'Invalid private key in file ".+"')
        self.assertEqual((zarvo.read(server.certificate), zarvo.read(server.key)), (before, ""))

    def test_openssl_ends_with_a_killed_server(self):
        server = self.prepare(certificate=False)
        started = os.path.join(server.top, "openssl_pid")
        server.install_program("openssl", f"echo $$ > {started}~ && mv {started}~ {started}\nexec sleep 600\n")
        launch = self.launch_without_waiting(server)
        zarvo.wait_until(lambda: os.path.exists(started), "the start of openssl")
        openssl = int(zarvo.read(started))
        daemon = int(zarvo.read(server.pid_file))
        os.kill(daemon, signal.SIGKILL)
        # If openssl went on, its files could get mixed up with the pair that the next server makes.
        zarvo.wait_until(lambda: not zarvo.alive(openssl), "the end of openssl")
        launch.join(zarvo.DEADLINE)
        os.unlink(os.path.join(server.bin, "openssl"))
        server.start()
        self.assert_serves(server)

    @staticmethod
    def launch_without_waiting(server):
        thread = threading.Thread(target=server.start, kwargs={"check": False})
        thread.start()
        return thread

    def test_server_with_the_key_of_another_certificate_closes_connections(self):
        server = self.server()
        session = zarvo.new_id()
        server.client().call("Live.Start", [session, "xterm", "800x600"])
        server.stop()
        good = zarvo.read(server.key)
        with tempfile.TemporaryDirectory(prefix="zarvo-other-") as folder:
            shutil.copy(zarvo.make_certificate(folder)[1], server.key)
        server.start()
        # It can serve no client. It closes each connection at once, logs why, and leaks nothing.
        before = len(server.held())
        for _ in range(3):
            with socket.create_connection(("127.0.0.1", server.port), zarvo.DEADLINE) as raw:
                self.assertEqual(raw.recv(1), b"")
        reason = "Failed to start TLS: the certificate and the private key may not belong together"
        server.wait_log("Warning", reason, count=3)
        zarvo.wait_until(lambda: len(server.held()) <= before, "the connections to be closed")
        server.stop()
        zarvo.write(server.key, good)
        server.start()
        self.assertEqual([entry["id"] for entry in server.client().local_sessions()], [session])

    def test_pair_that_is_replaced_while_the_server_runs(self):
        server = self.server()
        before = server.client()
        old = zarvo.client_context(server.certificate, server.key)
        with tempfile.TemporaryDirectory(prefix="zarvo-other-") as folder:
            certificate, key = zarvo.make_certificate(folder)
            shutil.copy(certificate, server.certificate)
            shutil.copy(key, server.key)
        # The server uses the pair that it has read. Clients with the new one are admitted after the next start.
        self.assertEqual(before.call("Live.GetVersion"), zarvo.VERSION)
        with server.client(context=old) as client:
            self.assertEqual(client.call("Live.GetVersion"), zarvo.VERSION)
        with server.client() as client:
            self.assertEqual(client.wait_closed(), b"")
        server.stop()
        server.start()
        self.assert_serves(server)
        with server.client(context=old) as client:
            self.assertEqual(client.wait_closed(), b"")

    def test_pair_that_vanishes_while_the_server_runs(self):
        server = self.server()
        context = zarvo.client_context(server.certificate, server.key)
        os.unlink(server.certificate)
        os.unlink(server.key)
        with server.client(context=context) as client:
            self.assertEqual(client.call("Live.GetVersion"), zarvo.VERSION)
        server.stop()
        server.start()
        self.assert_serves(server)


if __name__ == "__main__":
    unittest.main()
