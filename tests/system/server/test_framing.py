# SPDX-License-Identifier: MIT
"""The frames that carry every message, to the byte."""
import json
import os
import ssl
import unittest

import zarvo

VERSION_CALL = {"id": 1, "jsonrpc": "2.0", "method": "Live.GetVersion"}
VERSION_ANSWER = {"id": 1, "jsonrpc": "2.0", "result": zarvo.VERSION}
BAD_LENGTH = "Invalid NetString length"
NO_COMMA = "Missing NetString comma"


def padded(value, size):
    """The JSON text of a value, padded with blanks to this many bytes."""
    return json.dumps(value).encode().ljust(size)


class GoodFrames(zarvo.SharedServer):
    def call_with(self, *segments):
        for segment in segments:
            self.client.send_raw(segment)
        return self.client.answer()

    def test_an_answer_is_one_frame_without_sign_or_leading_zeros(self):
        expected = zarvo.frame(zarvo.compact(VERSION_ANSWER))
        # The first notification after the start may come before or after the answer.
        notification = zarvo.frame('{"jsonrpc":"2.0","method":"UpdateSessions","params":null}\n')
        with self.shared.client() as client:
            client.send(VERSION_CALL)
            received = b""
            while len(received.replace(notification, b"")) < len(expected):
                data = client.socket.recv(4096)
                self.assertTrue(data, "closed")
                received += data
        self.assertEqual(received.replace(notification, b""), expected)

    def test_frame_arriving_byte_by_byte(self):
        data = zarvo.frame(VERSION_CALL)
        self.assertEqual(self.call_with(*(data[i:i + 1] for i in range(len(data)))), VERSION_ANSWER)

    def test_frame_split_in_two_at_every_place(self):
        data = zarvo.frame(VERSION_CALL)
        for place in range(1, len(data)):
            with self.subTest(place=place):
                self.assertEqual(self.call_with(data[:place], data[place:]), VERSION_ANSWER)

    def test_two_frames_in_one_segment_are_answered_in_order(self):
        first, second = (dict(VERSION_CALL, id=i) for i in ("first", "second"))
        self.client.send_raw(zarvo.frame(first) + zarvo.frame(second))
        self.assertEqual([self.client.answer()["id"] for _ in range(2)], ["first", "second"])

    def test_one_and_a_half_frames_in_one_segment(self):
        data = zarvo.frame(dict(VERSION_CALL, id=2))
        self.client.send_raw(zarvo.frame(VERSION_CALL) + data[:10])
        self.assertEqual(self.client.answer(), VERSION_ANSWER)
        self.client.send_raw(data[10:])
        self.assertEqual(self.client.answer()["id"], 2)

    def test_empty_payload_is_a_frame(self):
        self.client.send_raw(b"0:,")
        self.assertEqual(self.client.answer()["error"]["code"], -32700)
        self.assertEqual(self.client.request(VERSION_CALL), VERSION_ANSWER)

    def test_length_with_leading_zeros_is_accepted_with_its_colon(self):
        payload = json.dumps(VERSION_CALL).encode()
        self.assertEqual(self.call_with(b"%012d:%s," % (len(payload), payload)), VERSION_ANSWER)

    def test_payload_of_exactly_65536_bytes(self):
        self.assertEqual(self.call_with(zarvo.frame(padded(VERSION_CALL, 65536))), VERSION_ANSWER)

    def test_payload_one_below_the_limit(self):
        self.assertEqual(self.call_with(zarvo.frame(padded(VERSION_CALL, 65535))), VERSION_ANSWER)

    def test_five_digits_without_a_colon_wait_for_more(self):
        payload = padded(VERSION_CALL, 10000)
        self.client.send_raw(b"10000")
        # While it serves another connection, the server has had time to refuse this one.
        self.assert_serves(self.shared)
        self.assertEqual(self.call_with(b":" + payload + b","), VERSION_ANSWER)

    def test_payload_may_hold_colons_commas_and_digits(self):
        tricky = "7:abc,:,0:,65537:"
        self.assertEqual(self.client.request(dict(VERSION_CALL, id=tricky))["id"], tricky)

    def test_an_answer_may_be_longer_than_the_limit_of_a_request(self):
        count = 60
        batch = [{"id": i, "jsonrpc": "2.0", "method": "system.describe"} for i in range(count)]
        payload = zarvo.compact(batch)
        self.assertLess(len(payload), 65536)
        self.client.send(payload)
        answer = self.client.answer_bytes()
        self.assertGreater(len(answer), 65536)
        self.assertEqual([element["id"] for element in json.loads(answer)], list(range(count)))


class BadFrames(zarvo.TestCase):
    """A bad frame ends the connection, with one line in the log and no answer."""

    def setUp(self):
        self.instance = self.server()

    def refuse(self, data, message, *more):
        """Sends the pieces. Checks that the server closes without an answer, and logs one line."""
        before = self.instance.logged("Warning", message)
        with self.instance.client() as client:
            client.call("Live.GetVersion")
            for piece in (data, *more):
                try:
                    client.send_raw(piece)
                except (ssl.SSLEOFError, ConnectionResetError, BrokenPipeError):
                    break  # the server has closed before all was sent
            received = client.wait_closed()
        # The first notification comes soon after the start, and is no answer.
        self.assertNotIn(b'"id"', received)
        self.instance.wait_log("Warning", message, before + 1)
        self.assert_serves(self.instance)
        self.assertEqual(self.instance.logged("Warning", message), before + 1)

    def test_bad_lengths(self):
        for prefix in (b"abc:", b":", b"-5:hello,", b"+5:hello,", b"5x:hello,", b"0x5:hello,", b"5.0:hello,", b"1e1:",
                       b"65537:", b"99999:", b"4294967301:hello,", b"18446744073709551621:hello,",
                       b"99999999999999999999999:hello,", b"\0:", b"\xff\xfe:", b"GET / HTTP/1.1\r\nHost: x\r\n\r\n"):
            with self.subTest(prefix=prefix):
                self.refuse(prefix, BAD_LENGTH)

    def test_six_bytes_without_a_colon(self):
        self.refuse(b"123456", BAD_LENGTH)

    def test_leading_zeros_without_the_colon(self):
        self.refuse(b"000012", BAD_LENGTH)

    def test_five_bytes_and_then_a_sixth_without_a_colon(self):
        self.refuse(b"00001", BAD_LENGTH, b"2")

    def test_long_line_without_a_colon(self):
        self.refuse(b"x" * 100000, BAD_LENGTH)

    def test_one_over_the_limit_is_refused_before_any_payload(self):
        self.refuse(b"65537:", BAD_LENGTH)

    def test_missing_commas(self):
        for data in (b"3:abcX", b"0:;", b"3:abcd,", b"5:hello\n"):
            with self.subTest(data=data):
                self.refuse(data, NO_COMMA)

    def test_missing_comma_after_the_largest_payload(self):
        self.refuse(b"65536:" + b" " * 65536 + b"x", NO_COMMA)

    def test_good_frame_before_a_bad_one_is_still_answered(self):
        with self.instance.client() as client:
            client.send_raw(zarvo.frame(VERSION_CALL) + b"nonsense")
            self.assertEqual(client.answer(), VERSION_ANSWER)
            client.wait_closed()
        self.instance.wait_log("Warning", BAD_LENGTH)

    def test_frame_after_a_bad_one_is_not_executed(self):
        session = zarvo.new_id()
        start = {"id": 2, "jsonrpc": "2.0", "method": "Live.Start", "params": [session, "xterm", "800x600"]}
        self.refuse(b"3:abcX" + zarvo.frame(start), NO_COMMA)
        self.assertEqual(self.instance.client().listing(), None)
        self.assertFalse(os.path.exists(self.instance.directory(session)))

    def test_other_connections_are_not_disturbed(self):
        with self.instance.client() as bystander:
            self.refuse(b"abc:", BAD_LENGTH)
            self.assertEqual(bystander.request(VERSION_CALL), VERSION_ANSWER)

    def test_connection_closed_in_the_middle_of_a_frame(self):
        with self.instance.client() as client:
            client.send_raw(b"100:{\"id\"")
        self.assert_serves(self.instance)
        self.assertEqual(self.instance.logged("Warning", BAD_LENGTH), 0)


if __name__ == "__main__":
    unittest.main()
