# SPDX-License-Identifier: MIT
"""Only a client with the server's own certificate and key is admitted."""
import contextlib
import os
import socket
import ssl
import subprocess
import tempfile
import unittest

import zarvo

REFUSAL = 'A unverified client attempted to connect from "" port "%d"'
VERSIONS = (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3)


def start_request(session):
    return {"id": 1, "jsonrpc": "2.0", "method": "Live.Start", "params": [session, "xterm", "800x600"]}


class Handshake:
    """A client whose TLS runs in memory, so that a test decides which bytes leave together."""

    def __init__(self, server, context, session=None):
        self.socket = socket.create_connection(("127.0.0.1", server.port), zarvo.DEADLINE)
        self.local_port = self.socket.getsockname()[1]
        self.incoming, self.outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        self.tls = context.wrap_bio(self.incoming, self.outgoing, session=session)

    def shake(self):
        """Runs the handshake. Our last flight stays in the outgoing buffer."""
        while True:
            try:
                self.tls.do_handshake()
                return
            except ssl.SSLWantReadError:
                self.socket.sendall(self.outgoing.read())
                data = self.socket.recv(65536)
                if not data:
                    raise EOFError("closed during the handshake") from None
                self.incoming.write(data)

    def flush(self):
        self.socket.sendall(self.outgoing.read())

    def read_to_end(self):
        """Every byte that the server sent to this client."""
        received = b""
        while True:
            try:
                data = self.tls.read(65536)
                if not data:
                    return received
                received += data
            except ssl.SSLWantReadError:
                try:
                    data = self.socket.recv(65536)
                except ConnectionResetError:
                    data = b""
                if data:
                    self.incoming.write(data)
                else:
                    self.incoming.write_eof()
            except (ssl.SSLEOFError, ssl.SSLZeroReturnError):
                return received

    def close(self):
        self.socket.close()


class Admission(zarvo.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory(prefix="zarvo-tls-")
        cls.addClassCleanup(folder.cleanup)
        cls.folder = folder.name
        cls.foreign = zarvo.make_certificate(cls.folder, name="foreign")
        issuer = zarvo.Server()  # never started; all servers have the same pair
        cls.addClassCleanup(issuer.close)
        # Signed with the server's own key: its certificate trusts it, but it is another certificate.
        cls.signed = (os.path.join(cls.folder, "signed_cert"), cls.foreign[1])
        request = os.path.join(cls.folder, "request")
        for command in (
                ["openssl", "req", "-new", "-key", cls.foreign[1], "-out", request, "-subj", "/CN=signed"],
                ["openssl", "x509", "-req", "-in", request, "-CA", issuer.certificate, "-CAkey", issuer.key,
                 "-set_serial", "5", "-days", "30", "-out", cls.signed[0]]):
            subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, timeout=60)
        # Another certificate for the server's own key and with its own names.
        cls.twin = (os.path.join(cls.folder, "twin_cert"), issuer.key)
        subprocess.run(["openssl", "req", "-x509", "-new", "-key", issuer.key, "-out", cls.twin[0], "-days", "365",
                        "-batch"], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, timeout=60)

    def setUp(self):
        # A server for each test, because each writes a limited number of refusals to its log in a minute.
        self.shared = self.server()

    def refused_pairs(self):
        return {"none": (None, None), "foreign": self.foreign, "signed by ours": self.signed,
                "same key, other certificate": self.twin}

    def assert_refused(self, local_port):
        self.shared.wait_log("Warning", REFUSAL % local_port)
        self.assertEqual(self.shared.logged("Warning", REFUSAL % local_port), 1)

    def test_own_certificate_is_served(self):
        for version in VERSIONS:
            with self.subTest(version=version), self.shared.client(version=version) as client:
                self.assertEqual(client.socket.version(), "TLSv1.2" if version == VERSIONS[0] else "TLSv1.3")
                self.assertEqual(client.call("Live.GetVersion"), zarvo.VERSION)
                self.assertEqual(self.shared.logged("Warning", REFUSAL % client.local_port), 0)

    def test_server_shows_its_own_certificate(self):
        with self.shared.client() as client:
            shown = ssl.DER_cert_to_PEM_cert(client.socket.getpeercert(binary_form=True))
        self.assertEqual("".join(shown.split()), "".join(zarvo.read(self.shared.certificate).split()))

    def test_others_complete_the_handshake_and_are_disconnected(self):
        for version in VERSIONS:
            for name, (certificate, key) in self.refused_pairs().items():
                with self.subTest(version=version, certificate=name):
                    client = self.shared.client(certificate=certificate, key=key, version=version)
                    with client:
                        self.assertEqual(client.wait_closed(), b"")
                    self.assert_refused(client.local_port)
        self.assert_serves(self.shared)

    def test_refused_client_gets_no_answer(self):
        for version in VERSIONS:
            for name, (certificate, key) in self.refused_pairs().items():
                with self.subTest(version=version, certificate=name):
                    with self.shared.client(certificate=certificate, key=key, version=version) as client:
                        try:
                            client.send({"id": 1, "jsonrpc": "2.0", "method": "Live.GetVersion"})
                        except (BrokenPipeError, ConnectionResetError, ssl.SSLError):
                            pass  # already closed
                        self.assertEqual(client.wait_closed(), b"")

    def test_request_in_the_flight_that_ends_the_handshake_is_not_executed(self):
        sessions = []
        for name, (certificate, key) in self.refused_pairs().items():
            with self.subTest(certificate=name):
                context = zarvo.client_context(certificate, key, ssl.TLSVersion.TLSv1_3)
                handshake = Handshake(self.shared, context)
                self.addCleanup(handshake.close)
                handshake.shake()
                session = zarvo.new_id()
                sessions.append(session)
                # The handshake's last message and the request leave in one segment, so both are there when it ends.
                handshake.tls.write(zarvo.frame(start_request(session)))
                handshake.flush()
                self.assertEqual(handshake.read_to_end(), b"")
                self.assert_refused(handshake.local_port)
        # A later start has finished, so an earlier one would be on the disk.
        with self.shared.client() as client:
            later = zarvo.new_id()
            client.call("Live.Start", [later, "xterm", "800x600"])
            self.assertTrue(os.path.isdir(self.shared.directory(later)))
            client.call("Live.Terminate", [later])
        for session in sessions:
            self.assertFalse(os.path.exists(self.shared.directory(session)))

    def test_request_in_the_flight_that_ends_the_handshake_is_served_for_the_right_client(self):
        # Without this test, a server that loses such requests would pass the one above.
        context = zarvo.client_context(self.shared.certificate, self.shared.key, ssl.TLSVersion.TLSv1_3)
        handshake = Handshake(self.shared, context)
        self.addCleanup(handshake.close)
        handshake.shake()
        handshake.tls.write(zarvo.frame({"id": 1, "jsonrpc": "2.0", "method": "Live.GetVersion"}) + b"bad frame")
        handshake.flush()
        answer = zarvo.compact({"id": 1, "jsonrpc": "2.0", "result": zarvo.VERSION})
        self.assertIn(zarvo.frame(answer), handshake.read_to_end())

    def test_resumed_sessions_are_judged_by_the_same_comparison(self):
        for version in VERSIONS:
            with self.subTest(version=version, client="right"):
                context = zarvo.client_context(self.shared.certificate, self.shared.key, version)
                with self.shared.client(context=context) as client:
                    client.call("Live.GetVersion")  # a session ticket, if any, comes before the answer
                    ticket = client.socket.session
                with self.shared.client(context=context, session=ticket) as client:
                    self.assertEqual(client.call("Live.GetVersion"), zarvo.VERSION)
            for name, (certificate, key) in self.refused_pairs().items():
                with self.subTest(version=version, client=name):
                    context = zarvo.client_context(certificate, key, version)
                    with self.shared.client(context=context) as client:
                        self.assertEqual(client.wait_closed(), b"")
                        ticket = client.socket.session
                    with self.shared.client(context=context, session=ticket) as client:
                        self.assertEqual(client.wait_closed(), b"")
                    self.assert_refused(client.local_port)

    def test_request_sent_with_a_resumed_handshake_is_not_executed(self):
        # Before TLS 1.3, only a resumed handshake ends with a flight of the client.
        for version in VERSIONS:
            context = zarvo.client_context(*self.foreign, version)
            with self.shared.client(context=context) as client:
                client.wait_closed()
                ticket = client.socket.session
            handshake = Handshake(self.shared, context, ticket)
            self.addCleanup(handshake.close)
            handshake.shake()
            session = zarvo.new_id()
            handshake.tls.write(zarvo.frame(start_request(session)))
            handshake.flush()
            self.assertEqual(handshake.read_to_end(), b"")
            self.assert_refused(handshake.local_port)
            with self.shared.client() as client:
                later = zarvo.new_id()
                client.call("Live.Start", [later, "xterm", "800x600"])
                client.call("Live.Terminate", [later])
            self.assertFalse(os.path.exists(self.shared.directory(session)))

    def test_client_that_delays_its_handshake_gets_no_notification(self):
        # Notifications go to all clients. This one is not admitted yet, and never will be.
        for name, (certificate, key) in self.refused_pairs().items():
            with self.subTest(certificate=name):
                handshake = Handshake(self.shared, zarvo.client_context(certificate, key))
                self.addCleanup(handshake.close)
                with self.shared.client() as client:
                    session = zarvo.new_id()
                    client.call("Live.Start", [session, "secret", "800x600"])
                    client.wait_notification(lambda params: session in str(params), "the session")
                    client.call("Live.Terminate", [session])
                    client.wait_notification(lambda params: session not in str(params), "no session")
                handshake.shake()
                handshake.flush()
                self.assertEqual(handshake.read_to_end(), b"")
                self.assert_refused(handshake.local_port)

    def test_right_client_that_delays_its_handshake_is_served(self):
        handshake = Handshake(self.shared, zarvo.client_context(self.shared.certificate, self.shared.key))
        self.addCleanup(handshake.close)
        self.assert_serves(self.shared)
        handshake.shake()
        handshake.tls.write(zarvo.frame({"id": 1, "jsonrpc": "2.0", "method": "Live.GetVersion"}) + b"bad frame")
        handshake.flush()
        self.assertIn(b'"result":"%s"' % zarvo.VERSION.encode(), handshake.read_to_end())

    def test_garbage_instead_of_a_handshake(self):
        for data in (b"GET / HTTP/1.0\r\n\r\n", zarvo.frame(start_request(zarvo.new_id())), bytes(range(256)) * 300,
                     b"\x16\x03\x01\xff\xff" + b"\0" * 100, b"\x16\x03\x01\x00\x05\x01\xff\xff\xff\xff"):
            with self.subTest(data=data[:20]):
                with socket.create_connection(("127.0.0.1", self.shared.port), zarvo.DEADLINE) as raw:
                    try:
                        raw.sendall(data)
                        raw.shutdown(socket.SHUT_WR)
                        while raw.recv(65536):
                            pass
                    except (BrokenPipeError, ConnectionResetError):
                        pass
                self.assert_serves(self.shared)

    def test_garbage_after_the_handshake_ends_the_connection(self):
        before = len(self.shared.held())
        for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
            for garbage in (bytes(100), b"\x17\x03\x03\x00\x20" + b"x" * 32, b"\x17\x03\x03\xff\xff" + b"x" * 100):
                with self.subTest(version=version, garbage=garbage[:5]):
                    client = self.shared.client(version=version)
                    self.assertEqual(client.call("Live.GetVersion"), zarvo.VERSION)
                    with socket.socket(fileno=client.socket.detach()) as raw:
                        raw.settimeout(zarvo.DEADLINE)
                        raw.sendall(garbage)
                        with contextlib.suppress(ConnectionResetError):
                            while raw.recv(4096):
                                pass
        zarvo.wait_until(lambda: len(self.shared.held()) <= before, "the descriptors to be closed")
        self.assert_serves(self.shared)

    def test_silent_connections_do_not_hold_up_others(self):
        silent = [socket.create_connection(("127.0.0.1", self.shared.port), zarvo.DEADLINE) for _ in range(50)]
        for raw in silent:
            self.addCleanup(raw.close)
        self.assert_serves(self.shared)

    def test_closed_connections_leave_no_descriptor(self):
        self.assert_serves(self.shared)
        before = len(self.shared.held())
        for _ in range(20):
            self.assert_serves(self.shared)
            with self.shared.client(certificate=None, key=None) as refused:
                refused.wait_closed()
            with socket.create_connection(("127.0.0.1", self.shared.port), zarvo.DEADLINE) as raw:
                raw.sendall(b"no handshake at all\r\n")
        zarvo.wait_until(lambda: len(self.shared.held()) <= before, "the descriptors to be closed")

    def test_every_address_of_this_host_is_served(self):
        with socket.create_connection(("127.0.0.2", self.shared.port), zarvo.DEADLINE) as raw:
            context = zarvo.client_context(self.shared.certificate, self.shared.key)
            with context.wrap_socket(raw) as tls:
                self.assertIn(tls.version(), ("TLSv1.2", "TLSv1.3"))


if __name__ == "__main__":
    unittest.main()
