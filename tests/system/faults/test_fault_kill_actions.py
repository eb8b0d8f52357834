# SPDX-License-Identifier: MIT
"""kill -9 of the server before each step of an action on a session."""
import unittest

import faults
import zarvo


class Actions(faults.FaultCase):
    def test_resume(self):
        self.session = zarvo.new_id()
        self.call("Live.Start", self.session, "xterm", "800x600")
        self.assert_offers(self.session).close()
        self.assertGreater(self.steps(self.kill_in_resume), 1)

    def kill_in_resume(self, step):
        zarvo.wait_until(lambda: self.listed()[self.session]["permissions"] == "connect|terminate", "the client's end")
        killed = self.killed_in(step, "Live.Resume", self.session)
        self.assert_offers(self.session).close()
        return killed

    def test_suspend(self):
        self.session = zarvo.new_id()
        self.call("Live.Start", self.session, "xterm", "800x600")
        self.assertGreater(self.steps(self.kill_in_suspend), 1)

    def kill_in_suspend(self, step):
        if self.permissions() != "disconnect|terminate":
            self.viewer = self.assert_offers(self.session)
        zarvo.wait_until(lambda: self.permissions() == "disconnect|terminate", "the client")
        killed = self.killed_in(step, "Live.Suspend", self.session)
        # It got the signal and has lost its client, or it got nothing.
        signals = self.instance.seen(self.session, "signals").split()
        expected = "connect|terminate" if signals[-1] == "USR2" else "disconnect|terminate"
        zarvo.wait_until(lambda: self.permissions() == expected, expected)
        return killed

    def permissions(self):
        return self.listed()[self.session]["permissions"]

    def test_terminate(self):
        self.assertGreater(self.steps(self.kill_in_terminate), 10)

    def kill_in_terminate(self, step):
        session = zarvo.new_id()
        self.call("Live.Start", session, "xterm", "800x600")
        agent = int(self.instance.seen(session, "pid"))
        killed = self.killed_in(step, "Live.Terminate", session)
        if "TERM" in self.instance.seen(session, "signals"):
            zarvo.wait_until(lambda: not zarvo.alive(agent), "the agent's end")
            zarvo.wait_until(lambda: session not in self.listed(), "the end of the session")
            # Files may be left, but they do not disturb a new session.
            self.call("Live.Start", session, "again", "800x600")
        self.assert_ends(session)
        return killed


if __name__ == "__main__":
    unittest.main()
