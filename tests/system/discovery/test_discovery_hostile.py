# SPDX-License-Identifier: MIT
"""Hostile and broken peers: none of their datagrams and answers harms the server, its clients or its listings."""
import itertools
import json
import os
import random
import re
import unittest

import hosts
import zarvo
from hosts import OTHER_HOST, entry, reply
from hostile import SLOW, HostileCase, Latencies

INVALID = "Received invalid JSON"
# How many lines of a kind that strangers can cause are written in a minute.
WRITTEN = 20


class Datagrams(HostileCase):
    def wrong_shapes(self, port):
        """JSON texts that are no announcement of this user. The server must not connect to this port."""
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
        # A reader that does not check UTF-8 takes these for JSON.
        shapes += [b'{"Method":"UPDATE","Port":%s,"User":"\xff\xfe"}' % number,
                   b'{"Method":"\xc0\x80","Port":%s,"User":"%s"}' % (number, user)]
        self.pour(shapes)
        self.assert_still_listens()  # so the server has handled them
        self.assertEqual(self.warnings(), [])
        self.assertEqual(bait.accepted, 0, "a wrong datagram led to a query")

    def test_text_that_is_no_json_is_logged(self):
        good = hosts.announcement("UPDATE", 9, self.instance.user)
        texts = [b"", b" ", b"\n", b"\0", b"{", b"}", b'"', b"[", b"nul", b"tru", b"UPDATE", b"\xff\xfe",
                 b"\xef\xbb\xbf", b"\xef\xbb\xbf" + good, good.rstrip()[:-1] + b",}",
                 b"\0" + good, b"'" + good, good[:-2], good.replace(b":", b"="), good.replace(b",", b";"),
                 good.replace(b'"', b"'"), b"[" * 65507, b"{\"a\":" * 10000, b"\xff" * 65507, b"/*" * 30000]
        for number in range(0, len(texts), WRITTEN):  # only so many lines of a kind are written in a minute
            before = len(self.warnings())
            for count, text in enumerate(texts[number:number + WRITTEN], before + 1):
                self.say(text)
                zarvo.wait_until(lambda: len(self.warnings()) >= count, f"the warning about {text[:60]}")
            self.instance.stop()
            self.start()
        self.assertEqual(self.warnings(), [INVALID] * len(texts))
        self.assert_still_listens()

    def test_announcements_with_more_than_is_needed_count(self):
        """Other members, white space, comments, text after the value, the largest datagram."""
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

    def test_sixty_thousand_random_datagrams(self):
        seed = random.getrandbits(32)
        print(f"seed {seed}", end=" ", flush=True)
        dice = random.Random(seed)
        bait = self.service(hosts.wait_hang_up)
        good = {"Method": "UPDATE", "Port": bait.port, "User": self.instance.user}

        def garbage():  # never JSON
            return b"\xff" + dice.randbytes(dice.choice((0, 1, 3, 20, 200, 1400)))

        def value(depth=0):
            kind = dice.randrange(7 if depth < 4 else 5)
            if kind == 5:
                return [value(depth + 1) for _ in range(dice.randrange(5))]
            if kind == 6:
                return {dice.choice((*good, "x")): value(depth + 1) for _ in range(dice.randrange(5))}
            text = dice.choice((*good, "UPDATE", "HELLO", self.instance.user, "\0", "\u00e4\U0001f600", "x" * 300))
            return (None, dice.random() < 0.5, dice.randrange(-2 ** 70, 2 ** 70), dice.uniform(-1e9, 1e9), text)[kind]

        def shape():  # JSON, with one wrong member
            wrong = value()
            key = dice.choice(("Method", "Port", "User"))
            if wrong == good[key] or key == "Method" and wrong == "HELLO" or key == "Port" and type(wrong) is int:
                wrong = []
            return json.dumps(dict(good, **{key: wrong})).encode()

        # Of another user, because a chance hit must not send the server to another program's port.
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
            self.pour(shape() for _ in range(20000))
            self.assert_still_listens()
        self.instance.stop()
        self.assertEqual(self.told(INVALID), 20000)
        self.start()
        with self.latencies() as later:
            self.pour(mutation() for _ in range(20000))
            self.assert_still_listens()
        self.assertLess(max(latencies + later), SLOW)
        self.instance.stop()
        self.assertLess(self.told(INVALID), 40000)
        self.assertEqual({line for line in self.warnings() if " more in the last minute: " not in line}, {INVALID})
        self.assertEqual(bait.accepted, 0, "a wrong datagram led to a query")

    def latencies(self):
        return Latencies(self.instance)


class Answers(HostileCase):
    """A peer's answers. The server first lists a session of it, so that the test sees when it is forgotten."""

    advances = True

    def peer(self):
        """A peer that answers with what its attribute holds at the time."""
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

    def test_bad_answers_are_refused(self):
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

    def test_error_text_of_the_peer_is_logged(self):
        peer = self.peer()
        for code, message in ((-32000, "It is late."), (1, ""), (0, "\u00e4 %1 %2 %3"),
                              (-32094, "No session exists with the given id.")):
            with self.subTest(message=message):
                self.assert_refused(peer, re.escape(message), zarvo.frame(
                    {"id": "ServerUpdate", "jsonrpc": "2.0", "error": {"code": code, "message": message}}))

    def test_text_of_the_peer_cannot_forge_lines_of_the_log(self):
        peer = self.peer()
        forged = "late\nSat 1 00:00:00: Info: Exiting the server\r\n\x1b[2J\0\x85\u2028"
        self.assert_refused(peer, re.escape(
            r"late\u000aSat 1 00:00:00: Info: Exiting the server\u000d\u000a\u001b[2J\u0000\u0085\u2028"), zarvo.frame(
                {"id": "ServerUpdate", "jsonrpc": "2.0", "error": {"code": 1, "message": forged}}))
        for line in self.instance.log().splitlines():
            self.assertRegex(line, f"^{zarvo.DAY}: (Info|Warning): ")
        self.assertNotIn("Exiting the server", [line.split(": ", 2)[2] for line in self.instance.log().splitlines()])

    def test_bad_frames_are_refused(self):
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
        # The largest answer that is accepted: a member that the server ignores fills it up.
        head = b'{"id":"ServerUpdate","jsonrpc":"2.0","result":[],"x":"'
        self.ask(peer, reply([entry("3" * 32)]))
        self.wait_listed([entry("3" * 32)])
        before = len(self.warnings())
        self.ask(peer, zarvo.frame(head + b"x" * (65536 - len(head) - 2) + b'"}'))
        self.wait_listed(None)
        self.assertEqual(len(self.warnings()), before)

    def test_peer_that_hangs_up_is_forgotten(self):
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

    def test_peer_that_breaks_off_its_handshake_is_logged(self):
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

    def test_invalid_elements_are_skipped(self):
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

    def test_odd_but_valid_elements_are_kept(self):
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

    def test_invalid_utf8_of_a_peer_is_replaced(self):
        """The clients still get valid JSON, also in notifications."""
        peer = self.peer()
        for broken in (b"\xff", b"\xc3", b"\xe4\xf6\xfc", b"\xed\xa0\x80", b"\xf8\x88\x80\x80\x80", b"\xc0\xaf",
                       b"a\x80b"):
            with self.subTest(bytes=broken):
                self.ask(peer, reply(None))
                self.wait_listed(None)
                session = zarvo.new_id()
                whole = {"id": "ServerUpdate", "jsonrpc": "2.0", "result": [entry(session, name="NAME")]}
                self.ask(peer, zarvo.frame(json.dumps(whole).encode().replace(b"NAME", broken)))
                # The client decodes each answer strictly, so this wait is the check.
                shown = zarvo.wait_until(self.listed, "the peer's session")
                self.assertEqual(shown, [entry(session, name=shown[0]["name"])])
                self.assertIn("\ufffd", shown[0]["name"])
                self.client.wait_notification(lambda params: params == shown, "the peer's session")

    def test_five_thousand_sessions(self):
        peer = self.peer()
        # With the shortest entries they fit into one frame.
        with Latencies(self.instance) as latencies:
            self.ask(peer, reply([{"id": "x"}] * 5000))
            zarvo.wait_until(lambda: len(self.listed() or []) == 5000, "the sessions")
            shown = dict.fromkeys(entry(""), "")
            self.assertEqual(self.listed(), [dict(shown, id="x")] * 5000)
            session = zarvo.new_id()
            self.client.call("Live.Start", [session, "xterm", "800x600"])
            self.client.wait_notification(lambda params: len(params or []) == 5001, "all sessions")
            # With real entries they do not.
            before = len(self.warnings())
            self.ask(peer, reply([entry(f"{number:032x}") for number in range(5000)]))
            zarvo.wait_until(lambda: len(self.warnings()) > before, "the warning")
            self.assertEqual(self.warnings()[before:], ["Invalid NetString length"])
            zarvo.wait_until(lambda: [item["id"] for item in self.listed()] == [session],
                             "the sessions to be forgotten")
        self.assertLess(max(latencies), SLOW)


if __name__ == "__main__":
    unittest.main()
