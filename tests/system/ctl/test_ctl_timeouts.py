# SPDX-License-Identifier: MIT
"""zarvoctl: every wait has a timeout. The waits are long, so they run side by side."""
import os
import signal
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

import ctl
import zarvo
from ctl import NO_SERVER, TIMED_OUT


class Patience(ctl.CtlTestCase):
    def test_waits_have_an_end(self):
        waits = [prepare() for prepare in (self.server_that_hangs, self.agent_that_refuses_to_end,
                                           self.agent_that_is_never_ready, self.server_that_stays_away,
                                           self.display_that_hangs, self.server_with_other_files)]
        with ThreadPoolExecutor(len(waits)) as pool:
            for wait in [pool.submit(wait) for wait in waits]:
                wait.result()

    # Each of these functions prepares one case, and returns the function that waits for its end.

    def server_that_hangs(self):
        server = self.server()
        self.pause(server.pid)

        def wait():
            begin = time.monotonic()
            self.ctl_error(server, "wait", "--for", "ended", "--timeout", "1.5", code=TIMED_OUT)
            middle = time.monotonic()
            self.assertIn("does not answer", self.ctl_error(server, "list", code=TIMED_OUT))
            # This case took the ten seconds of a connection's timeout. The others have run beside it.
            self.assertLess(middle - begin, time.monotonic() - middle)
            self.assertIn("does not answer", self.ctl_error(server, "server", "status", code=NO_SERVER))
        return wait

    def agent_that_refuses_to_end(self):
        server = self.server()
        server.agent(terminate="no")
        session = self.start(server)["id"]
        return lambda: self.assertIn("Timed out waiting for the agent.",
                                     self.ctl_error(server, "terminate", session, code=TIMED_OUT))

    def agent_that_is_never_ready(self):
        server = self.server()
        server.agent(state="log", ready="no")
        process = self.background(server, "start", "xterm")
        directory = zarvo.wait_until(lambda: os.path.exists(server.sessions) and os.listdir(server.sessions),
                                     "the session")[0]
        zarvo.wait_until(lambda: os.path.exists(os.path.join(server.records, directory, "pid")), "the agent")
        with open(os.path.join(server.sessions, directory, "server_log"), "a", encoding="utf-8") as file:
            file.write("Something is wrong\nAdded new password secret12\n")

        def wait():
            output, error = process.communicate(timeout=2 * zarvo.DEADLINE)
            self.assertEqual((process.returncode, output), (TIMED_OUT, ""))
            self.assertIn("Timed out waiting for the agent.", error)
            self.assertIn("Something is wrong", error)
            self.assertNotIn("secret12", error)
        return wait

    def server_that_stays_away(self):
        server = self.server()
        self.start(server)
        process = self.following(server, "wait", "--for", "ended")
        self.assert_waits(process)
        server.stop()
        return lambda: self.assertEqual(process.wait(2 * zarvo.DEADLINE), NO_SERVER)

    def display_that_hangs(self):
        server = self.prepare(agent=False)
        server.environment["PATH"] += ":" + zarvo.LIBEXEC
        server.start()
        session = self.start(server, "--geometry", "640x480", "xterm")["id"]
        self.pause(self.x_server(server, session))
        path = os.path.join(server.top, "picture.png")
        process = self.background(server, "screenshot", session, path)
        zarvo.wait_until(lambda: self.child(process.pid), "the program that takes the picture")
        child = self.child(process.pid)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(zarvo.DEADLINE), -signal.SIGTERM)
        zarvo.wait_until(lambda: not zarvo.alive(child), "its end")
        self.assertFalse(any(name.startswith("picture") for name in os.listdir(server.top)))

        def wait():
            self.assertIn("did not end in time", self.ctl_error(server, "screenshot", session, path, code=TIMED_OUT))
            self.assertFalse(any(name.startswith("picture") for name in os.listdir(server.top)))
        return wait

    def server_with_other_files(self):
        server = self.server()
        home = os.path.join(server.top, "home2")
        os.mkdir(home)

        def wait():
            result = self.ctl_result(server, "list", environment={"HOME": home})
            self.assertEqual((result.returncode, result.stdout), (NO_SERVER, ""), result.stderr)
            self.assertEqual(result.stderr, f"zarvoctl: A server of USER={server.user} already runs with other files "
                                            f"(process {server.pid}).\n")
        return wait

    @staticmethod
    def child(pid):
        children = zarvo.read(f"/proc/{pid}/task/{pid}/children").split()
        return int(children[0]) if children else None

    def pause(self, pid):
        os.kill(pid, signal.SIGSTOP)
        self.addCleanup(os.kill, pid, signal.SIGCONT)

    @staticmethod
    def x_server(server, session):
        display = ":" + zarvo.read(os.path.join(server.directory(session), "display"))
        for entry in os.listdir("/proc"):
            if entry.isdigit():
                try:
                    words = zarvo.read(f"/proc/{entry}/cmdline").split("\0")
                except OSError:
                    continue
                if "Xtigervnc" in words[0] and display in words:
                    return int(entry)
        raise AssertionError("no X server")


if __name__ == "__main__":
    unittest.main()
