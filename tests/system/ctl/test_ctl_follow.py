# SPDX-License-Identifier: MIT
"""zarvoctl: watch, wait and the logs."""
import json
import os
import time
import unittest

import ctl
import zarvo
from ctl import AMBIGUOUS, DONE, FAILED, NEGATIVE, NO_SESSION, TIMED_OUT


class Watch(ctl.CtlTestCase):
    def change(self, process):
        change = json.loads(process.stdout.readline())
        return change["event"], change["session"]["name"], change["session"]["state"]

    def test_watch_shows_changes(self):
        server = self.server()
        self.start(server, "first")
        process = self.background(server, "watch")
        self.assertEqual(self.change(process), ("added", "first", "offered"))
        second = self.start(server, "second")
        event, name, _ = self.change(process)
        self.assertEqual((event, name), ("added", "second"))
        viewer = server.viewer(second["port"], second["password"])
        while (change := self.change(process)) != ("changed", "second", "connected"):
            self.assertEqual(change[:2], ("changed", "second"))
        viewer.close()
        self.assertEqual(self.change(process), ("changed", "second", "suspended"))
        self.ctl(server, "terminate", "first")
        self.assertEqual(self.change(process)[:2], ("removed", "first"))

    def test_watch_goes_on_after_a_restart_of_the_server(self):
        server = self.server()
        session = self.start(server, "stays")["id"]
        process = self.background(server, "watch")
        self.assertEqual(self.change(process)[0], "added")
        server.stop()
        self.assertIn("The server has ended", process.stderr.readline())
        self.assertEqual(self.servers(server), [])
        server.start()
        self.ctl(server, "terminate", session)
        self.assertEqual(self.change(process)[:2], ("removed", "stays"))

    def test_watch_ends_with_its_reader(self):
        server = self.server()
        process = self.background(server, "watch")
        process.stdout.close()
        self.start(server)
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE)
        self.assertEqual(process.stderr.read(), "")


    def test_watch_ends_if_its_reader_goes_while_nothing_changes(self):
        server = self.server()
        process = self.following(server, "watch")
        self.assert_waits(process)
        process.stdout.close()
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE)
        self.assertEqual(process.stderr.read(), "")

    def test_watch_ends_if_its_reader_goes_while_the_server_is_down(self):
        server = self.server()
        process = self.following(server, "watch")
        self.assert_waits(process)
        server.stop()
        self.assertIn("The server has ended", process.stderr.readline())
        process.stdout.close()
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE)


class Wait(ctl.CtlTestCase):
    def test_wait_for_each_state(self):
        server = self.server()
        started = self.start(server)
        connected = self.following(server, "wait", "--for", "connected")
        suspended = self.following(server, "wait", "--for", "suspended")
        ended = self.following(server, "wait", "--for", "ended")
        self.assert_waits(connected)
        viewer = server.viewer(started["port"], started["password"])
        self.assertEqual(connected.wait(zarvo.DEADLINE), DONE)
        self.assert_waits(suspended)
        viewer.close()
        self.assertEqual(suspended.wait(zarvo.DEADLINE), DONE)
        self.assert_waits(ended)
        self.ctl(server, "terminate")
        self.assertEqual(ended.wait(zarvo.DEADLINE), DONE)

    def test_wait_for_the_present_state_ends_at_once(self):
        server = self.server()
        started = self.start(server)
        viewer = server.viewer(started["port"], started["password"])
        self.wait_state(server, started["id"], "connected")
        self.ctl(server, "wait", started["id"], "--for", "connected")
        viewer.close()

    def test_wait_fails_if_the_session_ends_instead(self):
        server = self.server()
        session = self.start(server)["id"]
        process = self.following(server, "wait", session, "--for", "connected")
        self.assert_waits(process)
        self.ctl(server, "terminate", session)
        self.assertEqual(process.wait(zarvo.DEADLINE), NEGATIVE)
        self.assertIn("The session has ended", process.stderr.read())

    def test_timeout(self):
        server = self.server()
        self.start(server)
        begin = time.monotonic()
        self.ctl_error(server, "wait", "--for", "ended", "--timeout", "0.5", code=TIMED_OUT)
        self.assertGreaterEqual(time.monotonic() - begin, 0.5)
        self.ctl_error(server, "wait", "--for", "ended", "--timeout", "0", code=TIMED_OUT)

    def test_restart_of_the_server(self):
        server = self.server()
        self.start(server)
        process = self.following(server, "wait", "--for", "ended")
        self.assert_waits(process)
        server.stop()
        server.start()
        zarvo.wait_until(lambda: self.is_connected(server, process), "a connection to the new server")
        self.assert_waits(process)
        self.ctl(server, "terminate")
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE)

    def test_timeout_without_a_server(self):
        server = self.server()
        self.start(server)
        process = self.following(server, "wait", "--for", "ended", "--timeout", "10")
        server.stop()
        self.assertEqual(process.wait(zarvo.DEADLINE), TIMED_OUT)


class Logs(ctl.CtlTestCase):
    def test_agent_log(self):
        server = self.server()
        server.agent(state="log")
        started = self.start(server)
        lines = self.ctl(server, "logs", started["id"][:8]).splitlines()
        self.assertTrue(lines[0].startswith("RDP initialized at"))
        self.assertEqual(lines[-1], "Added new password ********")
        self.assertEqual(self.ctl(server, "logs", "--lines", "1").splitlines(), lines[-1:])
        with server.viewer(started["port"], started["password"]):
            text = zarvo.wait_until(lambda: (log := self.ctl(server, "logs", "-n", "0")).count("\n") == 4 and log,
                                    "the line")
        self.assertIn("with password '********'", text)
        self.assertNotIn(started["password"], text)

    def test_output_of_the_programs(self):
        server = self.server()
        session = self.start(server)["id"]
        self.assertEqual(self.ctl(server, "logs", "--app"), "")
        zarvo.write(os.path.join(server.directory(session), "app_log"), "one\ntwo")
        self.assertEqual(self.ctl(server, "logs", "--app"), "one\ntwo\n")

    def test_failed_session_without_a_server(self):
        server = self.server()
        server.agent(exit_code=3, state="log")
        session = self.start(server)["id"]
        self.ctl(server, "terminate")
        self.assertEqual(self.ctl_json(server, "list"), [])
        self.assertIn("RDP initialized", self.ctl(server, "logs", session))
        server.stop()
        self.assertIn("RDP initialized", self.ctl(server, "logs", session[:10]))
        self.assertEqual(self.servers(server), [])
        self.ctl_error(server, "logs", "nobody", code=NO_SESSION)

    def test_no_log(self):
        server = self.server()
        self.start(server)
        self.assertIn("Failed to open the file", self.ctl_error(server, "logs", code=FAILED))
        self.start(server)
        self.ctl_error(server, "logs", code=AMBIGUOUS)


if __name__ == "__main__":
    unittest.main()
