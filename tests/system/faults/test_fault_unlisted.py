# SPDX-License-Identifier: MIT
"""The server starts an agent and cannot write its pid down. So only the agent itself can end the session."""
import errno
import os
import re
import signal
import unittest

import bundled
import faults
import zarvo

# The agent waits 30 s. An agent that is older than one that has ended has waited as long.
GRACE = 30
ENDED = "5"
NOTE = "Critical: No server knows of this session"


class Unlisted(bundled.BundledAgentTestCase):
    def setUp(self):
        self.prepare_server()
        self.faults = faults.Faults(self.instance)
        self.faults.start(self.instance)
        self.client = self.instance.client()

    def path(self, session, name):
        return os.path.join(self.instance.directory(session), name)

    def agent(self, session):
        """Waits for the agent of the session's newest run."""
        path = self.path(session, "server_pid")
        zarvo.wait_until(lambda: os.path.exists(path), "the agent")
        return int(zarvo.read(path))

    def killed(self, step):
        """A session whose server was killed before a step of writing "monitor_pid". Starts another server."""
        session = zarvo.new_id()
        self.faults.kill(step, kinds=faults.DISK, path="/monitor_pid")
        with self.assertRaises((EOFError, OSError)):
            self.client.call("Live.Start", [session, bundled.XTERM, "640x480"])
        self.faults.off()
        self.assertEqual(self.instance.wait_exit(), -signal.SIGKILL)
        self.agent(session)
        self.faults.start(self.instance)
        self.client = self.instance.client()
        return session

    def refused(self):
        """A session whose "monitor_pid" did not fit on the disk."""
        session = zarvo.new_id()
        self.faults.fail(errno.ENOSPC, kinds=faults.DISK, path="/monitor_pid")
        self.assert_fails(-32080, "Failed to write a session file.", self.client.call, "Live.Start",
                          [session, bundled.XTERM, "640x480"])
        self.faults.off()
        return session

    def ids(self):
        return {entry["id"] for entry in self.client.local_sessions()}

    def wait_end(self, agent):
        zarvo.wait_until(lambda: not zarvo.alive(agent), "the end of the agent", GRACE + zarvo.DEADLINE)

    def assert_nothing_runs(self, session):
        directory = self.instance.directory(session)
        zarvo.wait_until(lambda: not any(self.serves(pid, directory) for pid in self.others()),
                         "the session's processes to end")
        display = zarvo.read(self.path(session, "display"))
        for path in (f"/tmp/.X{display}-lock", f"/tmp/.X11-unix/X{display}", f"/tmp/Xrdp_{display}.sock"):
            self.assertFalse(os.path.exists(path), path)

    def test_agent_that_no_server_knows_ends_its_session_and_no_other(self):
        kept, _ = self.start()
        replaced, earlier = self.start()
        viewer = self.connect(earlier)
        earlier_agent = self.agent(replaced)
        self.client.call("Live.Start", [replaced, bundled.XTERM, "640x480"])
        unlisted = [self.killed(1), self.killed(2), self.refused()]
        agents = [self.agent(session) for session in unlisted]
        used_again = self.killed(1)
        orphan = self.agent(used_again)
        self.client.call("Live.Start", [used_again, bundled.XTERM, "640x480"])

        for session, agent in zip(unlisted, agents):
            self.wait_end(agent)
            self.assert_nothing_runs(session)
            self.assertEqual(zarvo.read(self.path(session, "server_exit")), ENDED)
            self.assertRegex(zarvo.read(self.path(session, "server_log")), rf"(?m)^{zarvo.DAY}: {NOTE}$")
            names = set(os.listdir(self.instance.directory(session))) - {"monitor_pid"}
            self.assertEqual(names, {"authority", "display", "info", "name", "server_exit", "server_log", "server_pid",
                                     "window_mode"})
        self.wait_end(orphan)

        self.assertEqual(self.ids(), {kept, replaced, used_again})
        viewer.framebuffer()  # of the replaced session
        self.assertTrue(zarvo.alive(earlier_agent))
        for session in (kept, replaced, used_again):
            self.assertIsNone(re.search(NOTE, zarvo.read(self.path(session, "server_log"))))
        for session in (kept, used_again):
            answer = self.client.call({"connect|terminate": "Live.Resume", "retry|terminate": "Live.Replay"}[
                {entry["id"]: entry["permissions"] for entry in self.client.local_sessions()}[session]], [session])
            self.connect(answer)
            self.client.call("Live.Terminate", [session])
            self.assertFalse(os.path.exists(self.instance.directory(session)))


if __name__ == "__main__":
    unittest.main()
