# SPDX-License-Identifier: MIT
"""kill -9 of each program of a session: the X server, the application, the viewer, and all together."""
import contextlib
import os
import signal
import subprocess
import sys
import time
import unittest

import bundled
import zarvo

# A viewer in a process of its own, connected until it is killed.
VIEWER = """
import sys, rfb
viewer = rfb.Client("127.0.0.1", int(sys.argv[1]), sys.argv[2])
print("in", flush=True)
sys.stdin.read()
"""


class Programs(bundled.BundledAgentTestCase):
    def find(self, program, session):
        """The process of the session that runs this program."""
        directory = os.path.realpath(self.instance.directory(session))

        def found():
            for pid, command in self.others().items():
                if os.path.basename(command.split(" ")[0]) == program and self.serves(pid, directory):
                    return pid
            return None
        return zarvo.wait_until(found, program)

    def ids(self):
        return [entry["id"] for entry in self.client.local_sessions()]

    def test_killed_x_server_ends_its_session_alone(self):
        kept, _ = self.start()
        session, answer = self.start()
        viewer = self.connect(answer)
        os.kill(self.find("Xtigervnc", session), signal.SIGKILL)
        viewer.wait_for_close()
        zarvo.wait_until(lambda: self.ids() == [kept], "the session to be dropped")
        zarvo.wait_until(lambda: not any(self.serves(pid, self.instance.directory(session)) for pid in self.others()),
                         "the session's processes to end")
        # The log of the session is kept, and its id can be used again.
        self.assertEqual(zarvo.read(os.path.join(self.instance.directory(session), "server_exit")), "3")
        self.connect(self.client.call("Live.Start", [session, "xterm", "640x480"]))
        self.client.call("Live.Terminate", [session])

    def test_hung_agent_delays_others_and_recovers(self):
        hanging, _ = self.start()
        agent = int(zarvo.read(os.path.join(self.instance.directory(hanging), "server_pid")))
        os.kill(agent, signal.SIGSTOP)
        self.addCleanup(os.kill, agent, signal.SIGCONT)
        # Each refresh of it takes a second, and others are served in between.
        for _ in range(5):
            begin = time.monotonic()
            with self.instance.client() as client:
                self.assertIn(hanging, [entry["id"] for entry in client.local_sessions()])
            self.assertLess(time.monotonic() - begin, 10)
        other, answer = self.start()
        self.connect(answer)
        self.client.call("Live.Terminate", [other])
        os.kill(agent, signal.SIGCONT)
        self.connect(self.client.call("Live.Replay", [hanging]))
        self.wait_permissions(hanging, "disconnect|terminate")

    def test_killed_application_leaves_its_session(self):
        session, answer = self.start()
        viewer = self.connect(answer)
        self.wait_permissions(session, "disconnect|terminate")
        application = self.find("xterm", session)
        os.kill(application, signal.SIGKILL)
        zarvo.wait_until(lambda: not zarvo.alive(application), "the end of the application")
        self.client.call("Live.Suspend", [session])
        viewer.wait_for_close()
        self.connect(self.client.call("Live.Resume", [session]))
        self.client.call("Live.Terminate", [session])
        zarvo.wait_until(lambda: self.others() == {}, "the session's processes to end")

    def test_killed_viewer_leaves_its_session(self):
        session, answer = self.start()
        for _ in range(2):
            viewer = subprocess.Popen([sys.executable, "-c", VIEWER, str(answer["port"]), answer["password"]],
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE, cwd=zarvo.HERE)
            self.addCleanup(viewer.stdin.close)
            self.addCleanup(viewer.stdout.close)
            self.assertEqual(viewer.stdout.readline(), b"in\n")
            self.wait_permissions(session, "disconnect|terminate")
            viewer.kill()
            viewer.wait()
            self.wait_permissions(session, "connect|terminate")
            answer = self.client.call("Live.Resume", [session])
        self.connect(answer)

    def test_everything_is_killed(self):
        session, _ = self.start()
        agent = int(zarvo.read(os.path.join(self.instance.directory(session), "server_pid")))
        for pid in (self.instance.pid, agent, self.find("Xtigervnc", session), self.find("xterm", session)):
            with contextlib.suppress(ProcessLookupError):  # the agent's end may have ended it
                os.kill(pid, signal.SIGKILL)
        self.instance.wait_exit()
        zarvo.wait_until(lambda: self.others() == {}, "the session's processes to end")
        self.instance.start()
        self.client = self.instance.client()
        self.assertEqual(self.ids(), [])
        again, answer = self.start()
        self.connect(answer)
        self.assertEqual(self.ids(), [again])


if __name__ == "__main__":
    unittest.main()
