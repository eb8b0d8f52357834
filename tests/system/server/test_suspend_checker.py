# SPDX-License-Identifier: MIT
"""Sessions that are idle for SuspendTimeout minutes are ended. The check comes once a minute."""
import os
import time
import unittest

import zarvo

# The check comes every 60 seconds. The rest is for a busy machine.
CHECK_DEADLINE = 60 + zarvo.DEADLINE


class SuspendChecker(zarvo.TestCase):
    def start(self, server):
        session = zarvo.new_id()
        return session, server.client().call("Live.Start", [session, "xterm", "800x600"])

    def permissions(self, server):
        with server.client() as client:
            return {entry["id"]: entry["permissions"] for entry in client.local_sessions()}

    def connect(self, server, session, answer):
        viewer = server.viewer(answer["port"], answer["password"])
        zarvo.wait_until(lambda: self.permissions(server)[session] == "disconnect|terminate", "the client")
        return viewer

    def reply(self, server, session, text):
        path = os.path.join(server.records, "C-" + session, "reply")
        zarvo.write(path + "~", text)
        os.rename(path + "~", path)

    def test_idle_sessions_are_ended_and_others_are_not(self):
        # Several servers at the same time, so that the test takes a minute only once.
        off, at_once, later = (self.server({"SuspendTimeout": minutes}) for minutes in (-1, 0, 30))
        untouched, _ = self.start(off)

        never_used, _ = self.start(at_once)
        left, answer = self.start(at_once)
        self.connect(at_once, left, answer).close()
        used, answer = self.start(at_once)
        viewer = self.connect(at_once, used, answer)

        never_used_later, _ = self.start(later)
        left_lately, answer = self.start(later)
        self.connect(later, left_lately, answer).close()
        left_long_ago, _ = self.start(later)
        long_ago = time.strftime("%Y-%m-%dT%H:%M:%S", time.localtime(time.time() - 1900))
        self.reply(later, left_long_ago, '{"Clients":0,"Passwords":[],"LastDisconnect":"%s"}' % long_ago)
        connected_long_ago, _ = self.start(later)
        self.reply(later, connected_long_ago, '{"Clients":1,"Passwords":[],"LastDisconnect":"%s"}' % long_ago)

        zarvo.wait_until(lambda: set(self.permissions(at_once)) == {used}, "the unused sessions to end", CHECK_DEADLINE)
        # A session that never had a client counts as disconnected since ever.
        zarvo.wait_until(lambda: set(self.permissions(later)) == {left_lately, connected_long_ago},
                         "the long unused sessions to end", CHECK_DEADLINE)
        for server, session in ((at_once, never_used), (at_once, left), (later, never_used_later),
                                (later, left_long_ago)):
            self.assertEqual(server.seen(session, "signals").split(), ["USR1", "TERM"])
            self.assertFalse(os.path.exists(server.directory(session)))
        for server, session in ((off, untouched), (at_once, used), (later, left_lately), (later, connected_long_ago)):
            self.assertEqual(server.seen(session, "signals").split(), ["USR1"])
        self.assertEqual(self.permissions(off), {untouched: "retry|terminate"})
        viewer.settimeout(0.0)
        with self.assertRaises(BlockingIOError):
            viewer.recv(1)


if __name__ == "__main__":
    unittest.main()
