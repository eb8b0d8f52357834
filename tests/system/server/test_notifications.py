# SPDX-License-Identifier: MIT
"""The notification for every client that the list of sessions has changed."""
import json
import os
import time
import unittest

import zarvo


class Notifications(zarvo.TestCase):
    def session(self, params, session):
        return next((entry for entry in params or [] if entry["id"] == session), None)

    def test_first_notification_comes_even_without_sessions(self):
        server = self.server()
        client = server.client()
        # A client that connects before the first refresh gets the first notification. It may have been sent before we
        # connected, so repeat until we were fast enough.
        for _ in range(20):
            client.socket.settimeout(2)
            try:
                payload = client.frame()
                self.assertEqual(payload, b'{"jsonrpc":"2.0","method":"UpdateSessions","params":null}\n')
                return
            except TimeoutError:
                self.assertEqual(server.stop(), 0)
                server.start()
                client = server.client()
        self.fail("no notification in any of twenty starts")

    def test_every_client_is_told_of_a_new_session(self):
        server = self.server()
        clients = [server.client() for _ in range(3)]
        session = zarvo.new_id()
        clients[0].call("Live.Start", [session, "xterm", "800x600"])
        listed = server.client().listing("Live.ListSessions")
        for client in clients:
            params = client.wait_notification(lambda params: self.session(params, session), "the session")
            self.assertEqual(params, listed)

    def test_notification_to_the_byte(self):
        server = self.server()
        watcher = server.client()
        session = zarvo.new_id()
        client = server.client()
        client.call("Live.Start", [session, "\u00e4 b", "rootless"])
        listed = client.listing("Live.ListSessions")
        expected = zarvo.compact({"jsonrpc": "2.0", "method": "UpdateSessions", "params": listed}).encode()
        end = time.monotonic() + zarvo.DEADLINE
        received = []
        while expected not in received:
            self.assertLess(time.monotonic(), end)
            received.append(watcher.frame())
        for payload in received:
            self.assertNotIn("id", json.loads(payload))

    def test_each_change_of_a_session_is_notified(self):
        server = self.server()
        watcher, client = server.client(), server.client()
        session = zarvo.new_id()
        answer = client.call("Live.Start", [session, "xterm", "800x600"])

        def wait_permissions(expected):
            params = watcher.wait_notification(
                lambda params: (self.session(params, session) or {}).get("permissions") == expected, expected)
            return self.session(params, session)

        wait_permissions("retry|terminate")
        viewer = server.viewer(answer["port"], answer["password"])
        self.assertTrue(wait_permissions("disconnect|terminate")["lastConnect"])
        viewer.close()
        self.assertTrue(wait_permissions("connect|terminate")["lastDisconnect"])
        client.call("Live.Terminate", [session])
        self.assertEqual(watcher.wait_notification(lambda params: not self.session(params, session), "its end"), None)

    def test_nothing_is_sent_while_nothing_changes(self):
        server = self.server()
        watcher, client = server.client(), server.client()
        first, second = zarvo.new_id(), zarvo.new_id()
        client.call("Live.Start", [first, "xterm", "800x600"])
        watcher.wait_notification(lambda params: self.session(params, first), "the first session")
        # The agent goes on answering the same.
        path = os.path.join(server.records, "C-" + first, "reply")
        zarvo.write(path + "~", '{"Clients":1,"LastConnect":"2020-01-02T03:04:05"}')
        os.rename(path + "~", path)
        params = watcher.wait_notification(
            lambda params: self.session(params, first)["permissions"] == "disconnect|terminate", "the client")
        # A field that is not listed changes over several refreshes.
        for number in range(6):
            zarvo.write(path + "~", '{"Clients":1,"LastConnect":"2020-01-02T03:04:05","ScreenWidth":%d,'
                        '"ScreenHeight":5,"Passwords":["%d"]}' % (number + 1, number))
            os.rename(path + "~", path)
            time.sleep(0.25)  # the length of the observation, not a wait
        # So the next notification is that of the next change.
        zarvo.write(path + "~", '{"Clients":1,"LastConnect":"2021-01-02T03:04:05"}')
        os.rename(path + "~", path)
        following = watcher.notification()["params"]
        self.assertEqual(following[0]["lastConnect"], "2021-01-02T03:04:05")
        self.assertEqual(dict(following[0], lastConnect="2020-01-02T03:04:05"), params[0])
        client.call("Live.Start", [second, "xterm", "800x600"])
        following = watcher.notification()["params"]
        self.assertEqual(sorted(entry["id"] for entry in following), sorted([first, second]))

    def test_notifications_do_not_split_answers(self):
        server = self.server()
        client, actor = server.client(), server.client()
        for number in range(3):
            session = zarvo.new_id()
            pending = actor.begin("Live.Start", [session, "xterm", "800x600"])
            # Answers and notifications share the stream while the session comes and goes.
            zarvo.wait_until(lambda: self.describe(client) and session in self.told(client), "the session")
            actor.finish(pending)
            actor.call("Live.Terminate", [session])
            zarvo.wait_until(lambda: self.describe(client) and session not in self.told(client), "its end")

    def told(self, client):
        """The ids in the last notification to this client."""
        last = client.notifications[-1]["params"] if client.notifications else None
        return [entry["id"] for entry in last or []]

    def describe(self, client):
        self.assertEqual(len(client.call("system.describe")), 9)
        return True

    def test_client_within_a_frame_is_notified(self):
        server = self.server()
        watcher, client = server.client(), server.client()
        request = zarvo.frame({"id": 1, "jsonrpc": "2.0", "method": "Live.GetVersion"})
        watcher.send_raw(request[:20])
        session = zarvo.new_id()
        client.call("Live.Start", [session, "xterm", "800x600"])
        watcher.wait_notification(lambda params: self.session(params, session), "the session")
        watcher.send_raw(request[20:])
        self.assertEqual(watcher.answer()["result"], zarvo.VERSION)

    def test_client_that_does_not_read_does_not_hold_up_the_others(self):
        server = self.server()
        silent, watcher, client = server.client(), server.client(), server.client()
        for _ in range(3):
            session = zarvo.new_id()
            client.call("Live.Start", [session, "x" * 60000, "800x600"])
            watcher.wait_notification(lambda params: self.session(params, session), "the session")
            client.call("Live.Terminate", [session])
            watcher.wait_notification(lambda params: not self.session(params, session), "its end")
        # What it reads at last is whole frames, and the newest state is among them.
        self.assertEqual(silent.call("Live.GetVersion"), zarvo.VERSION)
        if not silent.notifications or silent.notifications[-1]["params"] is not None:
            silent.wait_notification(lambda params: params is None, "the newest state")


if __name__ == "__main__":
    unittest.main()
