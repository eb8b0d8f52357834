# SPDX-License-Identifier: MIT
"""Peers that mean harm, or are broken: what they send costs the server neither its clients nor its memory.

They are played from 127.0.0.2, which is no interface's address; no privileges are needed.
"""
import contextlib
import itertools
import json
import os
import random
import re
import socket
import threading
import time
import unittest

import hosts
import zarvo
from hosts import OTHER_HOST, QUERY, entry, reply

# What a peer may take in all, and by how much a busy machine may exceed it.
EXCHANGE = 15
MARGIN = 12

# An answer takes milliseconds, and one that waits for a peer EXCHANGE; between them lies a machine that is busy.
SLOW = 10

INVALID = "Received invalid JSON"


class HostileCase(hosts.NeighbourCase):
    def setUp(self):
        super().setUp()
        self.instance.settings["LogLevel"] = "Info"
        self.instance.write_settings()
        self.start()

    @property
    def pair(self):
        return self.instance.certificate, self.instance.key

    def service(self, behave, **how):
        return hosts.Service(self, behave, **how)

    def answering(self, *pieces):
        """A peer that answers every query with these pieces."""
        return self.service(hosts.answering(*self.pair, *pieces))

    def pour(self, datagrams):
        """Sends them all as fast as the server reads them; it has read all of them afterwards."""
        dropped = hosts.pour(self.ear, ("127.0.0.1", self.udp_port), datagrams)
        self.assertEqual(dropped, 0, "the system dropped datagrams before the server saw them")

    def wait_listed(self, sessions):
        zarvo.wait_until(lambda: self.listed() == sessions, "the peer's sessions")

    def assert_still_listens(self, address=OTHER_HOST):
        """A good peer is asked, and counts."""
        session = entry(zarvo.new_id())
        peer = self.service(hosts.answering(*self.pair, reply([session])), address=address)
        self.say(self.message(peer), self.datagrams(address, 0))
        zarvo.wait_until(lambda: session in (self.listed() or []), "the session of a good peer")

    def silent_hosts(self, count, method, each):
        """So many hosts announce themselves each time and never answer; returns their services."""
        silent = [self.service(hosts.wait_hang_up, address=f"127.0.0.{number}") for number in range(2, 2 + count)]
        for service in silent:
            content = hosts.announcement(method, service.port, self.instance.user)
            dropped = hosts.pour(self.datagrams(service.address, 0), ("127.0.0.1", self.udp_port),
                                 (content for _ in range(each)))
            self.assertEqual(dropped, 0, "the system dropped datagrams before the server saw them")
        return silent

    def warning_counts(self, pattern):
        return sum(re.fullmatch(pattern, line) is not None for line in self.warnings())


class Datagrams(HostileCase):
    def wrong_shapes(self, port):
        """Texts that are JSON but no announcement of this user. The port is one where nobody may come."""
        user = self.instance.user
        good = {"Method": "UPDATE", "Port": port, "User": user}
        for value in (5, 5.5, "text", "", True, False, None, [], {}, [good], [[good]], {"a": good}, good["User"]):
            yield value
        for key, wrong in itertools.chain(
                (("Port", value) for value in (str(port), "", port + 0.5, float(port), -1, -port, 65536, port + 65536,
                                               2 ** 31, 2 ** 32 + port, 2 ** 63, 2 ** 64 + port, -2 ** 63, True, None,
                                               [], [port], {}, {"Port": port}, 1e300)),
                (("User", value) for value in (user.upper(), user + "x", user[:-1], "", user + " ", " " + user,
                                               user + "\0", "\0" + user, 5, True, None, [], [user], {user: user})),
                (("Method", value) for value in ("update", "Update", "UPDATE ", " UPDATE", "UPDATE\0", "UPDATES", "",
                                                 "hello", "HELLO\0", "GOODBYE", 5, True, None, [], ["UPDATE"], {}))):
            yield dict(good, **{key: wrong})
        for key in good:
            yield {name: value for name, value in good.items() if name != key}
            other = {name: value for name, value in good.items() if name != key}
            yield dict(other, **{key.lower(): good[key]})
            yield dict(other, **{key + " ": good[key]})

    def test_every_wrong_shape_is_dropped_silently(self):
        bait = self.service(hosts.wait_hang_up)
        shapes = [json.dumps(shape).encode() for shape in self.wrong_shapes(bait.port)]
        user = self.instance.user.encode()
        number = b"%d" % bait.port
        shapes += [b'{"Method":"UPDATE","Port":%s,"User":"%s"}' % (port, user)
                   for port in (number + b".0", number + b"e0", b"-0.5", b'"%s"' % number)]
        # What is no text in UTF-8 is JSON all the same for a reader that does not look.
        shapes += [b'{"Method":"UPDATE","Port":%s,"User":"\xff\xfe"}' % number,
                   b'{"Method":"\xc0\x80","Port":%s,"User":"%s"}' % (number, user)]
        for shape in shapes:
            with self.subTest(datagram=shape[:100]):
                self.say(shape)
                self.say(b"/")  # no JSON: the mark that the one before was handled
                zarvo.wait_until(lambda: self.warnings(), "the mark")
                lines = self.warnings()
                open(self.instance.log_file, "w").close()  # the server appends
                self.assertEqual(lines, [INVALID])
        self.assert_still_listens()
        self.assertEqual(bait.accepted, 0, "a wrong datagram led to a query")

    def test_what_is_no_json_costs_a_line(self):
        good = hosts.announcement("UPDATE", 9, self.instance.user)
        texts = [b"", b" ", b"\n", b"\0", b"{", b"}", b'"', b"[", b"nul", b"tru", b"UPDATE", b"\xff\xfe",
                 b"\xef\xbb\xbf", b"\xef\xbb\xbf" + good, good.rstrip()[:-1] + b",}",
                 b"\0" + good, b"'" + good, good[:-2], good.replace(b":", b"="), good.replace(b",", b";"),
                 good.replace(b'"', b"'"), b"[" * 65507, b"{\"a\":" * 10000, b"\xff" * 65507, b"/*" * 30000]
        for count, text in enumerate(texts, 1):
            self.say(text)
            zarvo.wait_until(lambda: len(self.warnings()) >= count, f"the warning about {text[:60]}")
        self.assertEqual(self.warnings(), [INVALID] * len(texts))
        self.assert_still_listens()

    def test_announcements_with_decoration_count(self):
        """More than is needed does no harm: other members, white space, comments, text behind, the largest datagram."""
        for number, form in enumerate((b'  {"Method" : "UPDATE",\r\n\t"Port":%d, "User":"%s"}  ',
                                       b'{"Method":"UPDATE","Port":%d,"User":"%s","Other":[1,{"a":null}]}',
                                       b'{"Method":"UPDATE","Port":%d,"User":"%s"} and more',
                                       b'/* why */{"Method":"UPDATE","Port":%d,"User":"%s"}',
                                       b'{"Method":"\\u0055PDATE","Port":%d,"User":"%s"}')):
            with self.subTest(form=form):
                session = entry(f"{number:032x}")
                peer = self.answering(reply([session]))
                self.say(form % (peer.port, self.instance.user.encode()))
                zarvo.wait_until(lambda: session in (self.listed() or []), "the peer's session")
        session = entry("f" * 32)
        peer = self.answering(reply([session]))
        largest = hosts.announcement("UPDATE", peer.port, self.instance.user, Pad="")
        self.say(hosts.announcement("UPDATE", peer.port, self.instance.user, Pad="x" * (65507 - len(largest))))
        zarvo.wait_until(lambda: session in (self.listed() or []), "the peer's session")
        self.assertEqual(self.warnings(), [])

    def test_sixty_thousand_random_ones(self):
        seed = random.getrandbits(32)
        print(f"seed {seed}", end=" ", flush=True)
        dice = random.Random(seed)
        bait = self.service(hosts.wait_hang_up)
        good = {"Method": "UPDATE", "Port": bait.port, "User": self.instance.user}

        def garbage():  # certainly no JSON
            return b"\xff" + dice.randbytes(dice.choice((0, 1, 3, 20, 200, 1400)))

        def value(depth=0):
            kind = dice.randrange(7 if depth < 4 else 5)
            if kind == 5:
                return [value(depth + 1) for _ in range(dice.randrange(5))]
            if kind == 6:
                return {dice.choice((*good, "x")): value(depth + 1) for _ in range(dice.randrange(5))}
            text = dice.choice((*good, "UPDATE", "HELLO", self.instance.user, "\0", "\u00e4\U0001f600", "x" * 300))
            return (None, dice.random() < 0.5, dice.randrange(-2 ** 70, 2 ** 70), dice.uniform(-1e9, 1e9), text)[kind]

        def shape():  # JSON, and with one member that is wrong
            wrong = value()
            key = dice.choice(("Method", "Port", "User"))
            if wrong == good[key] or key == "Method" and wrong == "HELLO" or key == "Port" and type(wrong) is int:
                wrong = []
            return json.dumps(dict(good, **{key: wrong})).encode()

        # Of somebody else, for chance must not send the server to a port of another program.
        foreign = hosts.announcement("HELLO", bait.port, "somebody else")

        def mutation():
            text = bytearray(foreign)
            for _ in range(dice.randrange(1, 6)):
                place = dice.randrange(len(text) + 1)
                change = dice.randrange(4)
                if change == 0:
                    text[place:place] = dice.randbytes(dice.randrange(1, 4))
                elif change == 1:
                    del text[place:place + dice.randrange(1, 10)]
                elif change == 2 and place < len(text):
                    text[place] ^= 1 << dice.randrange(8)
                else:
                    token = dice.choice((b"{", b"[", b'"', b"\\", b"\\u", b"/*", b"//", b"1e9", b"\0", b","))
                    text[place:place] = token
            return bytes(text)

        with self.latencies() as latencies:
            self.pour(garbage() for _ in range(20000))
            self.instance.wait_log("Warning", INVALID, 20000)
            self.pour(shape() for _ in range(20000))
            self.assert_still_listens()
            self.assertEqual(self.warning_counts(re.escape(INVALID)), 20000)
            self.pour(mutation() for _ in range(20000))
            self.assert_still_listens()
        self.assertLess(max(latencies), SLOW)
        self.assertEqual(set(self.warnings()), {INVALID})
        self.assertLess(len(self.warnings()), 40000)
        self.assertEqual(bait.accepted, 0, "a wrong datagram led to a query")

    def latencies(self):
        return Latencies(self.instance)


class Latencies:
    """How long a client waits for its answers, as long as the context lasts."""

    def __init__(self, server):
        self.server = server
        self.found = []
        self.failure = None
        self.done = threading.Event()

    def __enter__(self):
        self.client = self.server.client()
        self.thread = threading.Thread(target=self.run)
        self.thread.start()
        return self.found

    def run(self):
        try:
            while not self.done.is_set():
                begin = time.monotonic()
                with contextlib.suppress(zarvo.RpcError):  # a session went while it was being listed
                    self.client.call("Live.ListSessions")
                self.found.append(time.monotonic() - begin)
                self.done.wait(0.02)
        except Exception as failure:
            self.failure = failure

    def __exit__(self, kind, *_):
        try:
            if kind is None:  # a busy machine answers late, so the number to judge by is waited for
                zarvo.wait_until(lambda: self.failure or len(self.found) >= 10, "answers to judge by")
        finally:
            self.done.set()
            self.thread.join()
            self.client.close()
        if kind is None and self.failure:
            raise self.failure


class Answers(HostileCase):
    """What a peer answers. Each is first known with a session, so that what is forgotten is seen."""

    def peer(self):
        """A peer whose answer is what stands in its attribute at the time."""
        def answer(tls):
            for piece in peer.pieces:
                tls.sendall(piece)
            if not peer.hangs_up:
                hosts.wait_hang_up(tls)
        peer = self.service(hosts.with_query(*self.pair, answer))
        peer.pieces, peer.hangs_up = [], False
        return peer

    def ask(self, peer, *pieces):
        peer.pieces = pieces
        self.say(self.message(peer))

    def assert_refused(self, peer, message, *pieces):
        known = [entry("1" * 32)]
        self.ask(peer, reply(known))
        self.wait_listed(known)
        before = len(self.warnings())
        self.ask(peer, *pieces)
        zarvo.wait_until(lambda: len(self.warnings()) > before, "the warning")
        self.assertRegex(self.warnings()[before], f"^{message}$")
        self.wait_listed(None)
        self.assertEqual(len(self.warnings()), before + 1)

    def test_answers_that_are_refused(self):
        peer = self.peer()

        def answer(text):
            return zarvo.frame(text if isinstance(text, (str, bytes)) else json.dumps(text))
        good = {"id": "ServerUpdate", "jsonrpc": "2.0", "result": [entry("2" * 32)]}
        bare = {"id": "ServerUpdate", "jsonrpc": "2.0"}
        for text in (dict(good, id="serverupdate"), dict(good, id="ServerUpdate "), dict(good, id="ServerUpdate\0"),
                     dict(good, id=None), dict(good, id=1), dict(good, id=["ServerUpdate"]), dict(good, id=""),
                     {"jsonrpc": "2.0", "result": []}, {"id": "ServerUpdate", "result": []},
                     dict(good, jsonrpc="2"), dict(good, jsonrpc=2.0), dict(good, jsonrpc=None), dict(good, jsonrpc=[]),
                     bare, dict(bare, error=None), dict(bare, error=[]), dict(bare, error="text"), dict(bare, error={}),
                     dict(bare, error={"code": 1}), dict(bare, error={"message": "late"}),
                     dict(bare, error={"code": "1", "message": "late"}), dict(bare, error={"code": 1, "message": 5}),
                     dict(bare, error={"code": 1.5, "message": "late"}),
                     dict(good, error={"code": 1, "message": "late"}, id="Other"),
                     [good], [], "ServerUpdate", 5, None, True, "", "no JSON", "[" * 60000, b"\xff\xfe", b"\0",
                     json.dumps(good)[:-1]):
            with self.subTest(answer=str(text)[:80]):
                self.assert_refused(peer, INVALID, answer(text))

    def test_error_of_the_peer_is_logged_in_its_words(self):
        peer = self.peer()
        for code, message in ((-32000, "It is late."), (1, ""), (0, "\u00e4 %1 %2 %3"),
                              (-32094, "No session exists with the given id.")):
            with self.subTest(message=message):
                self.assert_refused(peer, re.escape(message), zarvo.frame(
                    {"id": "ServerUpdate", "jsonrpc": "2.0", "error": {"code": code, "message": message}}))

    def test_words_of_the_peer_cannot_pass_for_lines_of_the_log(self):
        peer = self.peer()
        forged = "late\nSat 1 00:00:00: Info: Exiting the server\r\n\x1b[2J\0\x85\u2028"
        self.assert_refused(peer, re.escape(
            r"late\u000aSat 1 00:00:00: Info: Exiting the server\u000d\u000a\u001b[2J\u0000\u0085\u2028"), zarvo.frame(
                {"id": "ServerUpdate", "jsonrpc": "2.0", "error": {"code": 1, "message": forged}}))
        for line in self.instance.log().splitlines():
            self.assertRegex(line, f"^{zarvo.DAY}: (Info|Warning): ")
        self.assertNotIn("Exiting the server", [line.split(": ", 2)[2] for line in self.instance.log().splitlines()])

    def test_frames_that_are_refused(self):
        peer = self.peer()
        whole = reply([entry("2" * 32)])
        for pieces, message in (([b"65537:"], "Invalid NetString length"), ([b"65537:" + b"x" * 65537 + b","],
                                                                             "Invalid NetString length"),
                                ([b"123456"], "Invalid NetString length"), ([b":"], "Invalid NetString length"),
                                ([b"-1:"], "Invalid NetString length"), ([b"+5:hello,"], "Invalid NetString length"),
                                ([b"5x:hello,"], "Invalid NetString length"),
                                ([b"99999999999999999999:"], "Invalid NetString length"),
                                ([b"0" * 100000], "Invalid NetString length"),
                                ([whole[:-1] + b";"], "Missing NetString comma"),
                                ([b"5:hello!"], "Missing NetString comma"),
                                ([b"0:!"], "Missing NetString comma"), ([b"0:,"], INVALID)):
            with self.subTest(pieces=[piece[:40] for piece in pieces]):
                self.assert_refused(peer, message, *pieces)
        # The largest that is accepted: filled up by a text that the reader leaves aside.
        head = b'{"id":"ServerUpdate","jsonrpc":"2.0","result":[],"x":"'
        self.ask(peer, reply([entry("3" * 32)]))
        self.wait_listed([entry("3" * 32)])
        before = len(self.warnings())
        self.ask(peer, zarvo.frame(head + b"x" * (65536 - len(head) - 2) + b'"}'))
        self.wait_listed(None)
        self.assertEqual(len(self.warnings()), before)

    def test_peer_that_hangs_up(self):
        peer = self.peer()
        peer.hangs_up = True
        for pieces in ([], [b"1"], [b"100:{"], [reply([entry("2" * 32)])[:-1]]):
            with self.subTest(pieces=pieces):
                known = [entry("1" * 32)]
                self.ask(peer, reply(known))
                self.wait_listed(known)
                before = len(self.warnings())
                self.ask(peer, *pieces)
                zarvo.wait_until(lambda: len(self.warnings()) > before, "the warning")
                self.assertRegex(self.warnings()[before],
                                 f'^Failed to read from "{OTHER_HOST}" port "{peer.port}": .+$')
                self.wait_listed(None)

    def test_peer_that_breaks_off_before_it_is_trusted(self):
        for behave in (lambda raw: None, lambda raw: raw.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n"),
                       lambda raw: raw.sendall(os.urandom(3000)), lambda raw: (raw.recv(10), raw.close()),
                       lambda raw: raw.sendall(b"\x16\x03\x03\xff\xff" + bytes(70000)),
                       lambda raw: raw.sendall(b"\x15\x03\x03\x00\x02\x02\x28")):
            peer = self.service(behave)
            before = len(self.warnings())
            self.say(self.message(peer))
            zarvo.wait_until(lambda: len(self.warnings()) > before, "the warning")
            self.assertRegex(self.warnings()[before], f'^Failed to connect to "{OTHER_HOST}" port "{peer.port}": .+$')
        self.assert_still_listens()

    def test_elements_that_make_no_sense_are_skipped(self):
        peer = self.peer()
        first, last = entry("1" * 32), entry("2" * 32)
        for odd in (None, 5, -1, 1.5, True, "text", "", [], [first], [[]], *(
                entry("3" * 32, **{key: value}) for key in first for value in (None, 5, 1.5, False, [], {}, ["text"]))):
            with self.subTest(element=odd):
                self.ask(peer, reply(None))
                self.wait_listed(None)
                self.ask(peer, reply([odd, first, odd, last, odd]))
                self.wait_listed([first, last])
        self.assertEqual(self.warnings(), [])

    def test_elements_that_are_odd_but_whole_are_kept(self):
        peer = self.peer()
        empty = dict.fromkeys(entry(""), "")
        for sent, shown in (
                ({}, empty), ({"Id": "x", "other": [1]}, empty), ({"id": ""}, empty),
                (entry("no id at all"), entry("no id at all")), (entry("x" * 5000), entry("x" * 5000)),
                (entry("1" * 32, started="yesterday"), entry("1" * 32, started="")),
                (entry("1" * 32, started="2020-13-41T25:61:61"), entry("1" * 32, started="")),
                (entry("1" * 32, permissions=""), entry("1" * 32, permissions="")),
                (entry("1" * 32, permissions="||"), entry("1" * 32, permissions="||")),
                (entry("1" * 32, location="http://["), entry("1" * 32, location="")),
                (entry("1" * 32, name="\0\x01\u2028\U0001f600\"\\</script>"),
                 entry("1" * 32, name="\0\x01\u2028\U0001f600\"\\</script>"))):
            with self.subTest(sent=str(sent)[:100]):
                self.ask(peer, reply(None))
                self.wait_listed(None)
                self.ask(peer, reply([sent]))
                self.wait_listed([shown])
        self.assertEqual(self.warnings(), [])

    def test_text_that_is_no_utf8(self):
        """The clients get JSON all the same, also in what is pushed to them."""
        peer = self.peer()
        for broken in (b"\xff", b"\xc3", b"\xe4\xf6\xfc", b"\xed\xa0\x80", b"\xf8\x88\x80\x80\x80", b"\xc0\xaf",
                       b"a\x80b"):
            with self.subTest(bytes=broken):
                self.ask(peer, reply(None))
                self.wait_listed(None)
                session = zarvo.new_id()
                whole = {"id": "ServerUpdate", "jsonrpc": "2.0", "result": [entry(session, name="NAME")]}
                self.ask(peer, zarvo.frame(json.dumps(whole).encode().replace(b"NAME", broken)))
                # The library decodes each answer strictly; so the wait is the test.
                shown = zarvo.wait_until(self.listed, "the peer's session")
                self.assertEqual(shown, [entry(session, name=shown[0]["name"])])
                self.assertIn("\ufffd", shown[0]["name"])
                self.client.wait_notification(lambda params: params == shown, "the peer's session")

    def test_five_thousand_sessions(self):
        peer = self.peer()
        # As short as a session can be they fit into one frame.
        with Latencies(self.instance) as latencies:
            self.ask(peer, reply([{"id": "x"}] * 5000))
            zarvo.wait_until(lambda: len(self.listed() or []) == 5000, "the sessions")
            shown = dict.fromkeys(entry(""), "")
            self.assertEqual(self.listed(), [dict(shown, id="x")] * 5000)
            session = zarvo.new_id()
            self.client.call("Live.Start", [session, "xterm", "800x600"])
            self.client.wait_notification(lambda params: len(params or []) == 5001, "all sessions")
            # As they really are they do not.
            before = len(self.warnings())
            self.ask(peer, reply([entry(f"{number:032x}") for number in range(5000)]))
            zarvo.wait_until(lambda: len(self.warnings()) > before, "the warning")
            self.assertEqual(self.warnings()[before:], ["Invalid NetString length"])
            zarvo.wait_until(lambda: [item["id"] for item in self.listed()] == [session],
                             "the sessions to be forgotten")
        self.assertLess(max(latencies), SLOW)


class Delay(HostileCase):
    """Peers that take their time. Each test waits once for the end of an exchange's time."""

    def hold(self, raw):
        hosts.wait_hang_up(raw)

    def drip(self, data, pause):
        """Sends byte by byte, for longer than an exchange lasts."""
        def send(stream):
            for byte in data:
                stream.sendall(bytes([byte]))
                if self.ended.wait(pause):
                    return
        return send

    def setUp(self):
        super().setUp()
        self.ended = threading.Event()
        self.addCleanup(self.ended.set)

    def full_queue(self):
        """A port where connections wait for ever: the queue of those to be accepted is full."""
        listener = socket.socket()
        self.addCleanup(listener.close)
        listener.bind((OTHER_HOST, 0))
        listener.listen(0)
        port = listener.getsockname()[1]
        for _ in range(3):
            filler = socket.socket()
            self.addCleanup(filler.close)
            filler.setblocking(False)
            filler.connect_ex((OTHER_HOST, port))
        return listener, port

    def slow_handshake(self, raw):
        """Passes the server's greeting to a good peer behind it, and the answer back byte by byte."""
        with socket.create_connection((OTHER_HOST, self.behind.port), zarvo.DEADLINE) as good:
            good.sendall(raw.recv(65536))
            self.drip(good.recv(65536), 0.05)(raw)

    def endless(self, tls):
        """Never more than the last byte is missing of the largest frame, so there is always something to read."""
        self.drip(itertools.chain(b"65536:", itertools.repeat(0x20)), 0.002)(tls)

    def test_peers_that_never_come_to_an_end(self):
        self.behind = self.answering(reply(None))
        whole = reply([entry("1" * 32)])
        _, full = self.full_queue()
        silent = self.service(self.hold)
        slow = self.service(self.slow_handshake)
        mute = self.service(hosts.with_query(*self.pair, self.hold))
        dripping = self.service(hosts.with_query(*self.pair, self.drip(whole, 0.2)))
        greedy = self.service(hosts.with_query(*self.pair, self.endless))
        late = self.service(hosts.with_query(*self.pair, lambda tls: (tls.sendall(whole[:-1]), self.hold(tls))))
        waiting = {port: f'{what} "{OTHER_HOST}" port "{port}": .+' for what, port in (
            ("Failed to connect to", full), ("Failed to connect to", silent.port), ("Failed to connect to", slow.port),
            ("Failed to read from", mute.port), ("Failed to read from", dripping.port),
            ("Failed to read from", greedy.port), ("Failed to read from", late.port))}
        taken = {}
        with Latencies(self.instance) as latencies:
            begin = time.monotonic()
            for port in waiting:
                self.say({"Method": "UPDATE", "Port": port, "User": self.instance.user})
            # Everything else goes on: requests, sessions, and peers that behave.
            session = zarvo.new_id()
            self.client.call("Live.Start", [session, "xterm", "800x600"])
            self.client.call("Live.Terminate", [session])
            self.assert_still_listens()
            self.assertLess(time.monotonic() - begin, EXCHANGE - 2, "waited for a peer")

            def look():
                for port, message in waiting.items():
                    if port not in taken and self.warning_counts(message):
                        taken[port] = time.monotonic() - begin
                return len(taken) == len(waiting)
            zarvo.wait_until(look, "the end of all exchanges")
        self.assertLess(max(latencies), SLOW)
        for port, seconds in taken.items():
            with self.subTest(peer=waiting[port]):
                self.assertGreater(seconds, EXCHANGE - 0.5)
                self.assertLess(seconds, EXCHANGE + MARGIN)
        self.assertEqual(len(self.warnings()), len(waiting))

    def test_end_of_the_server_with_queries_in_flight(self):
        """There are more than are asked at a time. Those that wait for their turn do not count."""
        silent = self.silent_hosts(2, "UPDATE", 160)
        zarvo.wait_until(lambda: sum(host.accepted for host in silent) >= 32, "the queries")
        self.assert_serves(self.instance)
        begin = time.monotonic()
        self.assertEqual(self.instance.stop(deadline=EXCHANGE + MARGIN), 0)
        self.assertLess(time.monotonic() - begin, EXCHANGE + MARGIN)
        self.assertLess(sum(host.accepted for host in silent), 320)
        self.assertFalse(os.path.exists(self.instance.pid_file))
        self.assertFalse(os.path.exists(self.instance.port_file))
        self.assertIn(": Info: Exiting the server\n", self.instance.log())

    def test_flood_of_greetings_leaves_clients_alone(self):
        """A host that says nothing takes every place that it gets, and more of its greetings come than can be asked."""
        with Latencies(self.instance) as latencies:
            silent, = self.silent_hosts(1, "HELLO", 10000)
            zarvo.wait_until(lambda: silent.accepted >= 16, "the queries")
            begin = time.monotonic()
            session = zarvo.new_id()
            self.client.call("Live.Start", [session, "xterm", "800x600"])
            self.client.call("Live.Terminate", [session])
            self.assert_still_listens("127.0.0.9")
            self.assertLess(time.monotonic() - begin, EXCHANGE - 2, "waited for a peer")
        self.assertLess(max(latencies), SLOW)
        with open(f"/proc/{self.instance.pid}/status", encoding="ascii") as status:
            threads = int(re.search(r"Threads:\s+(\d+)", status.read()).group(1))
        self.assertLess(threads, 60, "a thread for each that was announced")
        self.instance.stop(9)  # its end was tested elsewhere


class Growth(HostileCase):
    ROUND = 50

    def measure(self):
        with open(f"/proc/{self.instance.pid}/status", encoding="ascii") as status:
            threads = int(re.search(r"Threads:\s+(\d+)", status.read()).group(1))
        return len(self.instance.held()), threads, self.instance.resident()

    def ask(self, peers, rounds):
        """So many queries of each peer, not more at a time than there are places for."""
        for number in range(1, rounds + 1):
            for peer in peers:
                peer.goal = peer.accepted + 1
                self.say(self.message(peer))
            zarvo.wait_until(lambda: all(peer.accepted >= peer.goal for peer in peers), f"the queries, round {number}")

    def refused(self):
        """A port where nobody listens, bound so that nobody else does."""
        holder = socket.socket()
        self.addCleanup(holder.close)
        holder.bind((OTHER_HOST, 0))
        return holder.getsockname()[1]

    def test_many_queries_leave_nothing_behind(self):
        peers = [self.answering(reply([entry(f"{digit:032x}")] * 20)) for digit in range(3)]
        peers.append(self.answering(b"nonsense"))
        peers.append(self.service(lambda raw: raw.sendall(b"no TLS")))
        closed = self.refused()
        message = hosts.announcement("UPDATE", closed, self.instance.user)

        def quiet():
            """Nothing is in flight: what a last query leaves is gone soon."""
            return zarvo.wait_until(lambda: self.measure() if not any(peer.open for peer in peers) else None, "the end")

        def load(rounds):
            self.ask(peers, rounds)
            before = self.warning_counts(f'Failed to connect to "{OTHER_HOST}" port "{closed}": .+')
            self.pour(message for _ in range(rounds * 5))
            zarvo.wait_until(lambda: self.warning_counts(
                f'Failed to connect to "{OTHER_HOST}" port "{closed}": .+') == before + rounds * 5, "the queries")
        load(self.ROUND // 2)  # the pools and caches fill
        first = quiet()
        load(self.ROUND)
        for _ in range(2):
            load(self.ROUND)

        # The pool keeps its threads, and has no more of them than are asked at a time.
        zarvo.wait_until(lambda: self.measure()[0] <= first[0], "the descriptors to be closed")
        _, threads, resident = quiet()
        self.assertLessEqual(threads, 32 + max(4, os.cpu_count()) + 8)
        # A sanitizer keeps what is freed for a while, and books.
        allowed = (8 << 20) + self.instance.instrumentation()
        self.assertLess(resident - first[2], allowed, "bytes more after many queries")


if __name__ == "__main__":
    unittest.main()
