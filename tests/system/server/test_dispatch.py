# SPDX-License-Identifier: MIT
"""JSON-RPC on one connection: what the server answers to the byte, and what it does not answer."""
import json
import unittest

import zarvo

PARSE_ERROR = '{"error":{"code":-32700,"message":"Parse error."},"id":null,"jsonrpc":"2.0"}\n'
INVALID = '{"error":{"code":-32600,"message":"Invalid JSON-RPC request."},"id":null,"jsonrpc":"2.0"}\n'
VERSION_CALL = {"id": 1, "jsonrpc": "2.0", "method": "Live.GetVersion"}

SESSION_ID = {"id": {"type": "string", "description": "The session id."}}
CONNECTION = "An object with the window mode, geometry, password and port number."
METHODS = {
    "Live.GetVersion": {
        "description": "Returns the server version.", "parameters": None, "returns": "The server version."},
    "Live.ListSessions": {
        "description": "Returns all sessions known to the server.", "parameters": None,
        "returns": "An array of session objects."},
    "Live.ListLocalSessions": {
        "description": "Returns the sessions on the server.", "parameters": None,
        "returns": "An array of session objects."},
    "Live.Start": {
        "description": "Starts a new session.",
        "parameters": {
            "id": {"type": "string", "description": "The session id."},
            "command": {"type": "string", "description": "The command line for the application to run."},
            "geometry": {
                "type": "string",
                "description": "The width and height in \"WxH\" format for a Desktop session or \"rootless\" for a "
                               "Single Application session."}},
        "returns": "An object with the geometry, password and port number."},
    "Live.Resume": {
        "description": "Reconnects to a session.", "parameters": SESSION_ID, "returns": CONNECTION},
    "Live.Replay": {
        "description": "Returns information about a session waiting for a connection.", "parameters": SESSION_ID,
        "returns": CONNECTION},
    "Live.Suspend": {
        "description": "Disconnects all clients from a session.", "parameters": SESSION_ID, "returns": None},
    "Live.Terminate": {
        "description": "Terminates a session.", "parameters": SESSION_ID, "returns": None},
    "system.describe": {
        "description": "List the RPC methods available", "parameters": None,
        "returns": "Object that contains description of all methods registered"},
}


class Dispatch(zarvo.SharedServer):
    def assert_answer(self, payload, expected):
        """Checks that the answer is exactly this text."""
        self.client.send(payload)
        self.assertEqual(self.client.answer_bytes().decode(), expected)

    def assert_silence(self, payload):
        """Checks that there is no answer: the next one belongs to the next request."""
        self.client.send(payload)
        self.assertEqual(self.client.request(dict(VERSION_CALL, id="next"))["id"], "next")

    def assert_survives(self, payload):
        """Checks that the connection goes on, with or without an answer."""
        self.client.send(payload)
        self.client.send(dict(VERSION_CALL, id="next"))
        answers = [self.client.answer()]
        if not (isinstance(answers[0], dict) and answers[0]["id"] == "next"):
            self.assertEqual(self.client.answer()["id"], "next")
        return answers[0]

    # The text itself

    def test_text_that_is_no_json_is_a_parse_error(self):
        for payload in ("{", "", " ", "\n", "}", "[", "[1", '{"a"', '{"a":', '{"a":1', '"abc', "nul", "tru", "hello",
                        '{"jsonrpc" "2.0"}', "{1:2}", "[1 2]", '{"a":"\\q"}', '{"a":"\\u12"}', "/* only a comment */",
                        "/* no end", "[1,]", "[,]", '{"a":1,}', json.dumps(VERSION_CALL)[:-1] + ",}",
                        b"\xef\xbb\xbf" + json.dumps(VERSION_CALL).encode(), b"\xef\xbb\xbf", b"\0", b"\xff\xfe{\0}\0"):
            with self.subTest(payload=payload):
                self.assert_answer(payload, PARSE_ERROR)

    def test_parse_error_to_the_byte(self):
        self.client.send("{")
        self.assertEqual(self.client.answer_bytes(), PARSE_ERROR.encode())
        self.assertEqual(len(PARSE_ERROR), 77)

    def test_nesting_far_too_deep_is_a_parse_error(self):
        for payload in ("[" * 20000, "[" * 20000 + "]" * 20000, '{"a":' * 10000, '{"a":' * 9000 + "1" + "}" * 9000,
                        "[{\"a\":" * 9000):
            with self.subTest(begin=payload[:8], length=len(payload)):
                self.assertLessEqual(len(payload), 65536)
                self.assert_answer(payload, PARSE_ERROR)

    def test_good_request_with_too_deep_nesting_is_a_parse_error(self):
        deep = "[" * 20000 + "]" * 20000
        self.assert_answer('{"id":1,"jsonrpc":"2.0","method":"Live.GetVersion","params":' + deep + "}", PARSE_ERROR)

    def test_moderate_nesting_is_accepted(self):
        request = dict(VERSION_CALL, params=json.loads("[" * 200 + "]" * 200))
        self.assertEqual(self.client.request(request)["result"], zarvo.VERSION)

    def test_comments_are_allowed(self):
        payload = '/* a */ {"id":1, // b\n "jsonrpc":"2.0", /* c */ "method":"Live.GetVersion"} // d'
        self.assertEqual(self.client.request(payload)["result"], zarvo.VERSION)

    def test_surrounding_blanks_are_allowed(self):
        self.assertEqual(self.client.request(" \r\n\t" + json.dumps(VERSION_CALL, indent=4) + "\r\n\t ")["id"], 1)

    # Invalid requests

    def test_scalars_are_invalid_requests(self):
        for payload in ("5", "-1.5", "true", "false", '"text"', '""'):
            with self.subTest(payload=payload):
                self.assert_answer(payload, INVALID)

    def test_null_and_the_empty_batch_are_not_answered(self):
        for payload in ("null", "[]", " null ", "[ ]"):
            with self.subTest(payload=payload):
                self.assert_silence(payload)

    def test_ids_of_wrong_types_are_refused(self):
        for bad in ("null", "{}", "[]", "[1]", '{"a":1}'):
            with self.subTest(id=bad):
                self.assert_answer('{"id":%s,"jsonrpc":"2.0","method":"system.describe"}' % bad, INVALID)

    def test_wrong_protocol_version_is_an_invalid_request(self):
        for member in ('', '"jsonrpc":2.0,', '"jsonrpc":2,', '"jsonrpc":"1.0",', '"jsonrpc":"2",', '"jsonrpc":"2.00",',
                       '"jsonrpc":null,', '"jsonrpc":["2.0"],', '"jsonrpc":"2.0\\u0000",', '"jsonrpc":" 2.0",',
                       '"jsonrpc":"",', '"JSONRPC":"2.0",', '"jsonrpc":true,', '"jsonrpc":{},'):
            with self.subTest(member=member):
                self.assert_answer('{"id":7,%s"method":"Live.GetVersion"}' % member, INVALID)

    def test_method_that_is_no_string_is_an_invalid_request(self):
        for member in ('', ',"method":5', ',"method":null', ',"method":["Live.GetVersion"]', ',"method":{}',
                       ',"method":true', ',"Method":"Live.GetVersion"'):
            with self.subTest(member=member):
                self.assert_answer('{"id":7,"jsonrpc":"2.0"%s}' % member, INVALID)

    def test_invalid_requests_are_answered_even_without_an_id(self):
        for payload in ("{}", '{"method":"Live.GetVersion"}', '{"jsonrpc":"2.0"}', '{"jsonrpc":"2.0","method":1}'):
            with self.subTest(payload=payload):
                self.assert_answer(payload, INVALID)

    # Methods

    def test_unknown_method(self):
        self.assert_answer('{"jsonrpc":"2.0","method":"nope","id":7}',
                           '{"error":{"code":-32601,"message":"Method not found."},"id":7,"jsonrpc":"2.0"}\n')

    def test_unknown_method_in_a_notification_is_not_answered(self):
        self.assert_silence('{"jsonrpc":"2.0","method":"nope"}')

    def test_method_names_are_exact(self):
        for name in ("", "live.getversion", "Live.GetVersion ", " Live.GetVersion", "Live.GetVersion\0",
                     "Live.GetVersion\0x", "GetVersion", "Live", "Live.", "rpc.describe", "Live.GetVersi\u00f6n"):
            with self.subTest(name=name):
                answer = self.client.request({"id": 7, "jsonrpc": "2.0", "method": name})
                self.assertEqual(answer["error"], {"code": -32601, "message": "Method not found."})
                self.assertEqual(answer["id"], 7)

    def test_notifications_are_not_answered(self):
        self.assert_silence('{"jsonrpc":"2.0","method":"Live.GetVersion"}')

    def test_failing_notifications_are_not_answered(self):
        self.assert_silence('{"jsonrpc":"2.0","method":"Live.Terminate","params":[5]}')
        self.assert_silence({"jsonrpc": "2.0", "method": "Live.Terminate", "params": [zarvo.new_id()]})

    def test_result_to_the_byte(self):
        self.assert_answer('{"method":"Live.GetVersion","jsonrpc":"2.0","id":"a"}',
                           '{"id":"a","jsonrpc":"2.0","result":"%s"}\n' % zarvo.VERSION)

    def test_methods_without_parameters_ignore_params(self):
        for params in (None, [], [1, 2], {}, {"id": 5}, 5, "text", True, [[[]]]):
            for method, result in (("Live.GetVersion", zarvo.VERSION), ("Live.ListSessions", None),
                                   ("Live.ListLocalSessions", None)):
                with self.subTest(method=method, params=params):
                    answer = self.client.request(dict(VERSION_CALL, method=method, params=params))
                    self.assertEqual(answer, {"id": 1, "jsonrpc": "2.0", "result": result})

    def test_other_members_of_a_request_are_ignored(self):
        self.assertEqual(self.client.request(dict(VERSION_CALL, result=5, error={}, extra=[1])),
                         {"id": 1, "jsonrpc": "2.0", "result": zarvo.VERSION})

    def test_describe_lists_exactly_nine_methods(self):
        for params in (None, [], {"a": 1}):
            with self.subTest(params=params):
                self.assertEqual(self.client.call("system.describe", params), METHODS)
        self.assertEqual(len(METHODS), 9)

    def test_describe_to_the_byte(self):
        self.assert_answer('{"jsonrpc":"2.0","method":"system.describe","id":1}',
                           zarvo.compact({"id": 1, "jsonrpc": "2.0", "result": METHODS}))

    # Ids come back unchanged

    def test_ids_come_back_to_the_byte(self):
        for text in ("0", "7", "-1", "true", "false", '""', '"x"', "2147483648", "-2147483649", "9007199254740993",
                     "9223372036854775807", "-9223372036854775808", "18446744073709551615", '"a\\"b\\\\c"',
                     '"\\b\\f\\n\\r\\t"', '"\\u0000"', '"a\\u0000b\\u0000"', '"\\u001f"'):
            with self.subTest(id=text):
                self.assert_answer('{"id":%s,"jsonrpc":"2.0","method":"Live.GetVersion"}' % text,
                                   '{"id":%s,"jsonrpc":"2.0","result":"%s"}\n' % (text, zarvo.VERSION))

    def test_text_beyond_ascii_is_not_escaped(self):
        text = "\u00e4\u20ac\U0001f600\u05d0\u0301"
        for sent in (json.dumps(text), json.dumps(text, ensure_ascii=False)):
            with self.subTest(sent=sent):
                self.assert_answer('{"id":%s,"jsonrpc":"2.0","method":"Live.GetVersion"}' % sent,
                                   '{"id":"%s","jsonrpc":"2.0","result":"%s"}\n' % (text, zarvo.VERSION))

    def test_fractions_keep_their_value(self):
        for number in (1.5, -0.25, 0.1, 1e300, 5e-324, 1.7976931348623157e308, 18446744073709551616.0):
            with self.subTest(number=number):
                self.assertEqual(float(self.client.request(dict(VERSION_CALL, id=number))["id"]), number)

    def test_odd_values_do_not_end_the_connection(self):
        for value in ("1e400", "-1e400", "1e99999", "1e-99999", "123456789" * 100, "-" + "9" * 1000, '"\\ud800"',
                      '"\\udc00"', '"\\ud800x"', '"\\ud83d\\ud83d"', "1.", "-", "--1", "+1", "01", "0x10", "NaN",
                      "Infinity", "-Infinity", ".5", "1e", "'a'"):
            for member in ('{"id":%s,"jsonrpc":"2.0","method":"Live.GetVersion"}',
                           '{"id":1,"jsonrpc":"2.0","method":%s}',
                           '{"id":1,"jsonrpc":%s,"method":"Live.GetVersion"}',
                           '{"id":1,"jsonrpc":"2.0","method":"Live.Terminate","params":%s}',
                           '{"id":1,"jsonrpc":"2.0","method":"Live.Terminate","params":[%s]}',
                           '{"id":1,"jsonrpc":"2.0","method":"Live.Terminate","params":{"id":%s}}'):
                with self.subTest(payload=(member % value)[:100]):
                    self.assert_survives(member % value)

    def test_invalid_utf8_does_not_end_the_connection(self):
        for text in (b"\xff", b"\xc3", b"\xed\xa0\x80", b"\xf8\x88\x80\x80\x80", b"\x80", b"\xc0\x80"):
            for payload in (b'{"id":1,"jsonrpc":"2.0","method":"%s"}', b'{"id":1,"jsonrpc":"2.0","%s":1}',
                            b'{"id":1,"jsonrpc":"2.0","method":"Live.Terminate","params":["%s"]}'):
                with self.subTest(payload=payload % text):
                    self.assert_survives(payload % text)

    # Batches

    def test_batch_with_a_number_is_answered_in_an_array(self):
        self.assert_answer("[1]", "[" + INVALID[:-1] + "]\n")

    def test_each_invalid_element_of_a_batch_is_answered(self):
        for element in ("null", "[]", "{}", '"text"', "[1]", "true"):
            with self.subTest(element=element):
                self.assert_answer(f"[{element},{element}]", "[%s,%s]\n" % (INVALID[:-1], INVALID[:-1]))

    def test_batch_is_answered_in_order_in_one_frame(self):
        batch = [dict(VERSION_CALL, id="b"), 5, {"jsonrpc": "2.0", "method": "Live.GetVersion"},
                 {"id": 3, "jsonrpc": "2.0", "method": "nope"}, dict(VERSION_CALL, id="a"),
                 {"id": 4, "jsonrpc": "2.0", "method": "Live.Terminate", "params": []}]
        self.assertEqual(self.client.request(batch), [
            {"id": "b", "jsonrpc": "2.0", "result": zarvo.VERSION},
            json.loads(INVALID),
            {"id": 3, "jsonrpc": "2.0", "error": {"code": -32601, "message": "Method not found."}},
            {"id": "a", "jsonrpc": "2.0", "result": zarvo.VERSION},
            {"id": 4, "jsonrpc": "2.0", "error": {"code": -32602, "message": "Invalid parameters."}}])

    def test_batch_of_notifications_is_not_answered(self):
        self.assert_silence([{"jsonrpc": "2.0", "method": "Live.GetVersion"}, {"jsonrpc": "2.0", "method": "nope"}])

    def test_batch_of_one_is_answered_by_an_array(self):
        self.assertEqual(self.client.request([VERSION_CALL]), [{"id": 1, "jsonrpc": "2.0", "result": zarvo.VERSION}])

    def test_batch_of_thousands_is_answered(self):
        self.assertEqual(self.client.request("[" + ",".join(["1"] * 30000) + "]"), [json.loads(INVALID)] * 30000)

    # Parameters

    def test_wrong_parameters_are_refused(self):
        good = zarvo.new_id()
        for method in ("Live.Resume", "Live.Replay", "Live.Suspend", "Live.Terminate"):
            for params in (None, [], [5], [None], [[good]], [5, good], {}, {"id": 7}, {"id": None}, {"id": [good]},
                           {"ID": good}, {"command": good}, good, 5, True, {"id": {}}):
                with self.subTest(method=method, params=params):
                    self.assert_fails(-32602, "Invalid parameters.", self.client.call, method, params)

    def test_missing_parameters_are_refused(self):
        answer = self.client.request({"id": 1, "jsonrpc": "2.0", "method": "Live.Terminate"})
        self.assertEqual(answer["error"], {"code": -32602, "message": "Invalid parameters."})

    def test_unknown_session_is_refused(self):
        unknown = zarvo.new_id()
        for method in ("Live.Resume", "Live.Replay", "Live.Suspend", "Live.Terminate"):
            for params in ([unknown], [unknown, 5], {"id": unknown}, {"id": unknown, "more": 5}, [""], ["x"],
                           [unknown + "\0"], ["../" + unknown], {"id": "\u00e4"}):
                with self.subTest(method=method, params=params):
                    self.assert_fails(-32094, "No session exists with the given id.", self.client.call, method, params)

    # Connections side by side

    def test_many_connections_at_once_keep_their_answers_apart(self):
        clients = [self.shared.client() for _ in range(40)]
        for round_number in range(5):
            for number, client in enumerate(clients):
                client.send(dict(VERSION_CALL, id=f"{number}/{round_number}"))
        for number, client in enumerate(clients):
            self.assertEqual([client.answer()["id"] for _ in range(5)], [f"{number}/{i}" for i in range(5)])
            client.close()


if __name__ == "__main__":
    unittest.main()
