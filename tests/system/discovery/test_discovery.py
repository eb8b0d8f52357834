# SPDX-License-Identifier: MIT
"""Servers of one user find each other. The test plays the other host from 127.0.0.2, which no interface has."""
import os
import queue
import socket
import ssl
import tempfile
import threading
import time
import unittest

import clock
import hosts
import zarvo
from hosts import OTHER_HOST, QUERY, entry, reply


class Peer:
    """The TLS service of another server. It answers one query after the other as the test has prepared."""

    def __init__(self, certificate, key, trusted):
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(certificate, key)
        self.context.verify_mode = ssl.CERT_REQUIRED
        self.context.load_verify_locations(trusted)
        self.listener = socket.create_server((OTHER_HOST, 0))
        self.port = self.listener.getsockname()[1]
        self.replies, self.seen = queue.Queue(), queue.Queue()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while True:
            try:
                raw, _ = self.listener.accept()
            except OSError:
                return
            raw.settimeout(zarvo.DEADLINE)
            try:
                with self.context.wrap_socket(raw, server_side=True) as tls:
                    shown = tls.getpeercert(binary_form=True)
                    request = b""
                    while len(request) < len(QUERY):
                        data = tls.recv(4096)
                        if not data:
                            break
                        request += data
                    self.seen.put((shown, request))
                    if not request:
                        continue
                    for piece in self.replies.get():
                        if piece is None:  # silence
                            tls.recv(4096)
                        else:
                            tls.sendall(piece)
                    tls.setblocking(False)  # closes TLS without waiting for the other side
                    tls.unwrap()
            except ssl.SSLWantReadError:
                pass
            except OSError as failure:
                self.seen.put((None, failure))
            finally:
                raw.close()

    def next_query(self):
        return self.seen.get(timeout=zarvo.DEADLINE)

    def close(self):
        if self.listener.fileno() >= 0:
            self.listener.shutdown(socket.SHUT_RDWR)  # wakes the thread
            self.listener.close()
        self.thread.join(zarvo.DEADLINE)


class Discovery(hosts.NeighbourCase):
    def peer(self, pair=None):
        certificate, key = pair or (self.instance.certificate, self.instance.key)
        peer = Peer(certificate, key, self.instance.certificate)
        self.addCleanup(peer.close)
        return peer

    def test_start_is_announced(self):
        self.instance.start()
        content, source = self.ear.recvfrom(4096)
        self.assertEqual(content.decode(), '{"Method":"HELLO","Port":%d,"User":"%s"}\n'
                         % (self.instance.port, self.instance.user))
        self.assertEqual(source[1], self.udp_port)
        self.assertEqual(self.hear(), self.datagram("UPDATE"))

    def test_changes_of_the_sessions_are_announced(self):
        self.start()
        session = zarvo.new_id()
        self.client.call("Live.Start", [session, "xterm", "800x600"])
        self.assertEqual(self.hear(), self.datagram("UPDATE"))
        self.client.call("Live.Terminate", [session])
        self.assertEqual(self.hear(), self.datagram("UPDATE"))

    def test_hello_is_answered_and_causes_one_query(self):
        self.start()
        peer, far = self.peer(), zarvo.new_id()
        peer.replies.put([reply([entry(far)])])
        other = self.datagrams(OTHER_HOST, 0)
        self.say(self.message(peer, "HELLO"), other)
        shown, request = peer.next_query()
        self.assertEqual(request, QUERY)
        own = ssl.PEM_cert_to_DER_cert(zarvo.read(self.instance.certificate))
        self.assertEqual(shown, own)
        # To the port that it came from, not to the broadcast port.
        self.assertEqual(other.recv(4096), self.datagram("UPDATE"))
        zarvo.wait_until(lambda: self.listed() == [entry(far)], "the peer's session")

    def test_update_causes_a_query_and_no_answer(self):
        self.start()
        peer = self.peer()
        other = self.datagrams(OTHER_HOST, 0)
        peer.replies.put([reply(None)])
        self.say(self.message(peer), other)
        self.assertEqual(peer.next_query()[1], QUERY)
        peer.replies.put([reply(None)])
        self.say(self.message(peer, "HELLO"), other)
        peer.next_query()
        self.assertEqual(other.recv(4096), self.datagram("UPDATE"))
        other.settimeout(0.0)
        with self.assertRaises(BlockingIOError):
            other.recv(4096)

    def test_sessions_of_peers_are_listed_before_the_own(self):
        self.start()
        own, far = zarvo.new_id(), "f" * 32
        self.client.call("Live.Start", [own, "xterm", "800x600"])
        peer = self.peer()
        peer.replies.put([reply([entry(far), entry("0" * 32, name="second")])])
        self.say(self.message(peer))
        zarvo.wait_until(lambda: len(self.listed()) == 3, "the peer's sessions")
        self.assertEqual([item["id"] for item in self.listed()], [far, "0" * 32, own])
        self.assertEqual(self.listed()[:2], [entry(far), entry("0" * 32, name="second")])
        self.assertEqual([item["id"] for item in self.client.listing()], [own])
        self.client.wait_notification(lambda params: [item["id"] for item in params or []] == [far, "0" * 32, own],
                                      "the peer's sessions")
        self.assert_fails(-32094, "No session exists with the given id.", self.client.call, "Live.Terminate", [far])

    def test_answers_of_a_peer_replace_each_other(self):
        self.start()
        peer = self.peer()
        for sessions in ([entry("1" * 32), entry("2" * 32)], [entry("2" * 32, permissions="retry|terminate")], None,
                         [entry("3" * 32)], []):
            peer.replies.put([reply(sessions)])
            self.say(self.message(peer))
            zarvo.wait_until(lambda: self.listed() == (sessions or None), "the peer's sessions")

    def test_two_peers_are_kept_apart(self):
        self.start()
        first, second = self.peer(), self.peer()
        for peer, digit in ((first, "1"), (second, "2")):
            peer.replies.put([reply([entry(digit * 32)])])
            self.say(self.message(peer))
        zarvo.wait_until(lambda: len(self.listed() or []) == 2, "the sessions of both")
        first.replies.put([reply(None)])
        self.say(self.message(first))
        zarvo.wait_until(lambda: self.listed() == [entry("2" * 32)], "the sessions of the second")

    def test_real_server_as_the_peer(self):
        self.start()
        far = self.prepare({"DisplayLimit": 10, "BroadcastAddress": "127.0.0.1"})
        far.settings["BroadcastPort"] = 6000 + far.displays.base + 15
        far.write_settings()
        far.start()
        session = zarvo.new_id()
        far.client().call("Live.Start", [session, "far away", "rootless"])
        self.say({"Method": "UPDATE", "Port": far.port, "User": self.instance.user})
        zarvo.wait_until(lambda: self.listed() == far.client().listing(), "the far session")
        self.assertEqual(self.listed()[0]["location"], f"ssh://{far.user}@{zarvo.HOST}:22/zarvo_sci")

    def test_change_while_a_peer_prepares_its_answer(self):
        """The peer's listing waits for a starting session. Meanwhile the peer notifies all clients of another one."""
        self.start()
        far = self.prepare({"DisplayLimit": 10, "BroadcastAddress": "127.0.0.1"})
        far.settings["BroadcastPort"] = 6000 + far.displays.base + 15
        far.write_settings()
        far.start()
        starting, other = far.client(), far.client()
        slow, quick = zarvo.new_id(), zarvo.new_id()
        far.agent(slow, ready="hold")
        request = starting.begin("Live.Start", [slow, "xterm", "800x600"])
        far.seen(slow, "argv")
        before = len(far.held())
        self.say({"Method": "UPDATE", "Port": far.port, "User": self.instance.user})
        zarvo.wait_until(lambda: len(far.held()) > before, "the query")
        other.call("Live.Start", [quick, "xterm", "800x600"])
        far.release(slow)
        starting.finish(request)
        zarvo.wait_until(lambda: slow in [item["id"] for item in self.listed() or []], "the session")
        self.assertEqual(self.warnings(), [])

    def test_datagrams_of_others_are_ignored(self):
        self.start()
        peer, bait = self.peer(), self.peer()
        good = self.message(bait)
        for content in (dict(good, User=good["User"].upper()), dict(good, User=good["User"] + "x"),
                        dict(good, Port=str(bait.port)), dict(good, Port=bait.port + 0.5), dict(good, Port=True),
                        dict(good, Port=None), dict(good, User=5), dict(good, Method="update"), dict(good, Method=5),
                        {key: good[key] for key in ("Method", "Port")}, {key: good[key] for key in ("User", "Port")},
                        {key: good[key] for key in ("User", "Method")}, [good], good["User"], 5, None, {}, [],
                        dict(good, Method="GOODBYE")):
            self.say(content)
        # From this host itself, as a server's own broadcasts come back.
        own = self.datagrams("127.0.0.1", 0)
        self.say(good, own)
        self.say(b"no JSON from this host", own)
        peer.replies.put([reply([entry("1" * 32)])])
        self.say(self.message(peer))
        zarvo.wait_until(lambda: self.listed() == [entry("1" * 32)], "the good one to be taken")
        self.assertTrue(bait.seen.empty(), "an ignored datagram led to a query")
        self.assertEqual(self.warnings(), [])

    def test_datagram_that_is_no_json_is_logged(self):
        self.start()
        for number, content in enumerate((b"no JSON", b"", b"{", b"\xff\xfe", b"[" * 5000), 1):
            self.say(content)
            self.instance.wait_log("Warning", "Received invalid JSON", number)
        self.assert_serves(self.instance)

    def assert_query_fails(self, message, pieces, peer=None):
        """Checks that the answer causes one line in the log, and that the peer's sessions are forgotten."""
        peer = peer or self.peer()
        if pieces is not None:
            peer.replies.put([reply([entry("1" * 32)])])
            self.say(self.message(peer))
            zarvo.wait_until(lambda: self.listed() == [entry("1" * 32)], "the peer's session")
            peer.replies.put(pieces)
        before = len(self.warnings())
        self.say(self.message(peer))
        zarvo.wait_until(lambda: len(self.warnings()) > before, "the warning")
        self.assertRegex(self.warnings()[before], "^" + message % {"port": peer.port} + "$")
        zarvo.wait_until(lambda: self.listed() is None, "the sessions to be forgotten")
        self.assertEqual(len(self.warnings()), before + 1)

    def test_bad_answers_are_refused(self):
        shift = clock.shifting(self, self.instance)
        self.start()
        invalid, seconds = "Received invalid JSON", 0
        for pieces, message in (
                ([reply([], id="Other")], invalid), ([reply([], id=5)], invalid), ([reply([], jsonrpc="1.0")], invalid),
                ([zarvo.frame("no JSON")], invalid), ([zarvo.frame("5")], invalid), ([zarvo.frame("")], invalid),
                ([zarvo.frame('{"id":"ServerUpdate","jsonrpc":"2.0","result":[],}')], invalid),
                ([zarvo.frame('\ufeff{"id":"ServerUpdate","jsonrpc":"2.0","result":[]}')], invalid),
                ([zarvo.frame('{"id":"ServerUpdate","jsonrpc":"2.0"}')], invalid),
                ([zarvo.frame('{"id":"ServerUpdate","jsonrpc":"2.0","error":5}')], invalid),
                ([zarvo.frame('{"id":"ServerUpdate","jsonrpc":"2.0","error":{"code":"x","message":"y"}}')], invalid),
                ([zarvo.frame('{"id":"ServerUpdate","jsonrpc":"2.0","error":{"code":1,"message":"It is late."}}')],
                 "It is late\\."),
                ([zarvo.frame("[" * 30000)], invalid),
                ([b"65537:"], "Invalid NetString length"), ([b"nonsense"], "Invalid NetString length"),
                ([b"3:abcX"], "Missing NetString comma"),
                ([], f'Failed to read from "{OTHER_HOST}" port "%(port)d": .+'),
                ([b"100:{"], f'Failed to read from "{OTHER_HOST}" port "%(port)d": .+')):
            with self.subTest(pieces=[piece[:60] for piece in pieces]):
                seconds += 1
                shift(0, seconds)  # so there are fewer than ten announcements in a second
                self.assert_query_fails(message, pieces)

    def test_answer_in_pieces_is_accepted(self):
        self.start()
        peer = self.peer()
        whole = reply([entry("1" * 32)])
        peer.replies.put([whole[i:i + 1] for i in range(len(whole))])
        self.say(self.message(peer))
        zarvo.wait_until(lambda: self.listed() == [entry("1" * 32)], "the peer's session")

    def test_bytes_after_the_answer_are_ignored(self):
        self.start()
        peer = self.peer()
        peer.replies.put([reply([entry("1" * 32)]) + b"nonsense"])
        self.say(self.message(peer))
        zarvo.wait_until(lambda: self.listed() == [entry("1" * 32)], "the peer's session")
        self.assertEqual(self.warnings(), [])

    def test_peer_with_another_certificate_is_not_queried(self):
        self.start()
        with tempfile.TemporaryDirectory(prefix="zarvo-discovery-") as folder:
            foreign = self.peer(zarvo.make_certificate(folder))
        self.assert_query_fails(f'The certificate at "{OTHER_HOST}" port "%(port)d" does not match', None, foreign)
        # It got no query.
        self.assertNotEqual(foreign.next_query()[1], QUERY)

    def test_peer_that_is_not_there(self):
        self.start()
        peer = self.peer()
        peer.close()
        self.assert_query_fails(f'Failed to connect to "{OTHER_HOST}" port "%(port)d": .+', None, peer)

    def test_peer_that_never_answers(self):
        self.start()
        peer = self.peer()
        peer.replies.put([None])
        begin = time.monotonic()
        self.say(self.message(peer))
        peer.next_query()
        self.assert_serves(self.instance)
        # The server's end waits for the query, and the query for its timeout.
        self.assertEqual(self.instance.stop(), 0)
        self.assertGreater(time.monotonic() - begin, 14.5)
        self.assertEqual(len(self.warnings()), 1)
        self.assertRegex(self.warnings()[0], f'^Failed to read from "{OTHER_HOST}" port "{peer.port}": .+$')
        self.assertFalse(os.path.exists(self.instance.pid_file))

    def test_query_threads_leave_no_state_of_the_tls_library(self):
        library = os.path.join(zarvo.BUILD, "tests", "discovery", "libcryptostates.so")
        self.assertTrue(os.path.exists(library), "the build folder's tests are not built")
        seen = os.path.join(self.instance.top, "states")
        self.instance.environment.update(LD_PRELOAD=library, ZARVO_CRYPTO_STATES=seen)
        # The sanitizer's library insists on being loaded first, unless it is told not to.
        self.instance.environment["ASAN_OPTIONS"] += ":verify_asan_link_order=0"
        self.start()
        peer = self.peer()
        for sessions in ([entry("1" * 32)], [entry("2" * 32)], None):
            peer.replies.put([reply(sessions)])
            self.say(self.message(peer))
            zarvo.wait_until(lambda: self.listed() == sessions, "the peer's sessions")
        zarvo.need_inspection()
        self.assertIn(library, zarvo.read(f"/proc/{self.instance.pid}/maps"))
        self.assertEqual(self.instance.stop(), 0)
        self.assertFalse(os.path.exists(seen), "threads ended with a state")

    def test_without_discovery_nothing_is_sent_or_heard(self):
        self.instance.settings["BroadcastPort"] = 0
        self.instance.write_settings()
        self.instance.start()
        client = self.instance.client()
        session = zarvo.new_id()
        client.call("Live.Start", [session, "xterm", "800x600"])
        client.wait_notification(lambda params: params is not None, "the session")
        self.ear.settimeout(0.0)
        with self.assertRaises(BlockingIOError):
            self.ear.recv(4096)


if __name__ == "__main__":
    unittest.main()
