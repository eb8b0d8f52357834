# SPDX-License-Identifier: MIT
"""kill -9 of the server before each step of the start of a session."""
import os
import signal
import unittest

import faults
import zarvo


class Start(faults.FaultCase):
    def test_start(self):
        self.assertGreater(self.steps(self.kill_in_start), 20)

    def kill_in_start(self, step):
        session = zarvo.new_id()
        if not self.killed_in(step, "Live.Start", session, "xterm", "800x600"):
            self.assert_ends(session)
            return False
        if session in self.listed():
            self.assert_offers(session)
        else:
            # An agent whose pid was not written goes on. The test kills it, by the pid in its own file.
            for agent in self.agents(session):
                pid_file = os.path.join(self.instance.directory(session), "monitor_pid")
                self.assertFalse(os.path.exists(pid_file) and zarvo.read(pid_file), self.faults.met)
                self.assertEqual(self.instance.seen(session, "pid"), str(agent))
                os.kill(agent, signal.SIGKILL)
                zarvo.wait_until(lambda pid=agent: not zarvo.alive(pid), "the agent's end")
            answer = self.call("Live.Start", session, "again", "800x600")
            self.assertIsNotNone(self.instance.viewer(answer["port"], answer["password"]))
        self.assert_ends(session)
        return True


if __name__ == "__main__":
    unittest.main()
