# SPDX-License-Identifier: MIT
"""The server's timeouts. Each case takes its full 15 seconds, so all of them run at the same time."""
import os
import threading
import time
import unittest

import zarvo

TIMED_OUT = {"code": -32077, "message": "Timed out waiting for the agent."}


class Case:
    """A server with one session, and one call that has to wait."""

    def __init__(self, **behaviour):
        self.server = zarvo.Server()
        self.session = zarvo.new_id()
        self.behaviour = behaviour
        self.error, self.seconds, self.failure = None, None, None

    def run(self, prepare, method, params):
        try:
            self.server.start()
            self.server.agent(self.session, **self.behaviour)
            prepare(self)
            client = self.server.client()
            begin = time.monotonic()
            try:
                client.call(method, params)
            except zarvo.RpcError as failure:
                self.error = failure.error
            self.seconds = time.monotonic() - begin
        except BaseException as failure:  # the test raises it
            self.failure = failure

    def start(self):
        return self.server.client().call("Live.Start", [self.session, "xterm", "800x600"])

    def connect(self):
        answer = self.start()
        self.viewer = self.server.viewer(answer["port"], answer["password"])
        self.wait_permissions("disconnect|terminate")

    def go_idle(self):
        self.connect()
        self.viewer.close()
        self.wait_permissions("connect|terminate")

    def permissions(self):
        with self.server.client() as client:
            listed = client.local_sessions()
        return {entry["id"]: entry["permissions"] for entry in listed}.get(self.session)

    def wait_permissions(self, expected):
        zarvo.wait_until(lambda: self.permissions() == expected, expected)


class Timeouts(zarvo.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.cases = {}
        plans = {
            "never ready": (Case(ready="no"), lambda case: None, "Live.Start"),
            "never ready, no socket": (Case(ready="no", state="log"), lambda case: None, "Live.Start"),
            "socket hangs": (Case(socket="hang"), lambda case: None, "Live.Start"),
            "garbage": (Case(socket="garbage"), lambda case: None, "Live.Start"),
            "no password": (Case(password="no"), lambda case: None, "Live.Start"),
            "deaf to disconnecting": (Case(disconnect="no"), Case.connect, "Live.Suspend"),
            "deaf to terminating": (Case(terminate="no"), Case.start, "Live.Terminate"),
            "no second password": (Case(), cls.make_deaf, "Live.Resume"),
        }
        threads = []
        for name, (case, prepare, method) in plans.items():
            cls.addClassCleanup(case.server.close)
            cls.cases[name] = case
            params = [case.session, "xterm", "800x600"] if method == "Live.Start" else [case.session]
            threads.append(threading.Thread(target=case.run, args=(prepare, method, params)))
        for thread in threads:
            thread.start()
        cls.during(cls.cases["never ready"])
        for thread in threads:
            thread.join()

    @staticmethod
    def make_deaf(case):
        case.go_idle()
        # From here on the agent always answers this state, whatever the signals.
        path = os.path.join(case.server.records, "C-" + case.session, "reply")
        zarvo.write(path + "~", '{"Clients":0,"Passwords":[]}')
        os.rename(path + "~", path)

    @classmethod
    def during(cls, case):
        """Checks that other clients are served while a call waits."""
        case.server.seen(case.session, "pid")
        begin = time.monotonic()
        with case.server.client() as client:
            cls.version_meanwhile = client.call("Live.GetVersion")
        cls.served_after = time.monotonic() - begin
        cls.still_waiting = case.seconds is None

    def assert_timed_out(self, name):
        case = self.cases[name]
        if case.failure is not None:
            raise case.failure
        self.assertEqual(case.error, TIMED_OUT)
        self.assertGreater(case.seconds, 14.9)
        return case

    def test_agent_that_never_reports_ready(self):
        case = self.assert_timed_out("never ready")
        self.assertEqual(case.permissions(), "connect|terminate")
        self.assertFalse(os.path.exists(os.path.join(case.server.records, "C-" + case.session, "signals")))
        self.assertFalse(os.path.exists(os.path.join(case.server.records, "app-C-" + case.session)))
        self.assertTrue(zarvo.alive(int(case.server.seen(case.session, "pid"))))

    def test_agent_without_a_socket_that_never_reports_ready(self):
        case = self.assert_timed_out("never ready, no socket")
        self.assertEqual(case.permissions(), "connect|terminate")

    def test_agent_whose_socket_never_answers(self):
        case = self.assert_timed_out("socket hangs")
        self.assert_serves(case.server)

    def test_agent_that_answers_garbage(self):
        case = self.assert_timed_out("garbage")
        self.assertEqual(case.permissions(), "connect|terminate")

    def test_agent_that_offers_no_password_leaves_the_session_listed(self):
        case = self.assert_timed_out("no password")
        self.assertEqual(case.permissions(), "connect|terminate")
        self.assertEqual(case.server.seen(case.session, "signals"), "USR1\n")
        self.assertEqual(case.server.client().call("Live.Terminate", [case.session]), None)

    def test_resume_without_a_new_password(self):
        case = self.assert_timed_out("no second password")
        self.assertEqual(case.permissions(), "connect|terminate")
        self.assertEqual(case.server.seen(case.session, "signals"), "USR1\nUSR1\n")

    def test_suspend_without_a_disconnection(self):
        case = self.assert_timed_out("deaf to disconnecting")
        self.assertEqual(case.permissions(), "disconnect|terminate")
        self.assertEqual(case.server.seen(case.session, "signals"), "USR1\nUSR2\n")

    def test_terminate_of_an_agent_that_stays(self):
        case = self.assert_timed_out("deaf to terminating")
        self.assertEqual(case.permissions(), "retry|terminate")
        self.assertTrue(zarvo.alive(int(case.server.seen(case.session, "pid"))))
        self.assertTrue(os.path.isdir(case.server.directory(case.session)))

    def test_other_clients_are_served_meanwhile(self):
        self.assertEqual(self.version_meanwhile, zarvo.VERSION)
        self.assertTrue(self.still_waiting, f"the answer came only after the wait, in {self.served_after} s")


if __name__ == "__main__":
    unittest.main()
