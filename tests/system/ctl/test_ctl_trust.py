# SPDX-License-Identifier: MIT
"""zarvoctl: which server it trusts."""
import contextlib
import os
import shutil
import socket
import ssl
import threading
import unittest

import zarvo
from ctl import NO_SERVER, REFUSED, CtlTestCase


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
        error = self.ctl_error(server, "list", code=REFUSED)
        self.assertIn("not our own", error)
        self.assertIn("restart it: zarvoctl server stop", error)
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


if __name__ == "__main__":
    unittest.main()
