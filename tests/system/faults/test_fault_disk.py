# SPDX-License-Identifier: MIT
"""Each change of a file fails once, as on a disk that is full or read-only."""
import errno
import os
import re
import signal
import unittest

import faults
import zarvo

# The errors of Live.Start when a file cannot be written.
WRITE_FAILED = {"code": -32080, "message": "Failed to write a session file."}
DIRECTORY_FAILED = {"code": -32087, "message": "Failed to create the session directory."}


class StartUp(faults.FaultCase):
    def test_disk_fills_up_at_any_step(self):
        self.check(errno.ENOSPC, "No space left on device")

    def test_disk_becomes_read_only_at_any_step(self):
        self.check(errno.EROFS, "Read-only file system")

    def check(self, error, reason):
        self.instance.stop()
        self.assertGreater(self.steps(lambda step: self.fail_from(step, error, reason)), 15)

    def fail_from(self, step, error, reason):
        """Lets all steps of a start-up fail from this one on, until the server ends."""
        self.faults.fail(error, step, last=faults.EVER)
        launch = self.faults.start(self.instance, check=False)
        hit = self.faults.acted > 0
        if launch.stderr:
            self.assertTrue(hit)
            path = re.escape(self.instance.path) + r"/server_\w+"
            self.assertRegex(launch.stderr,
                             rf'\A{zarvo.DAY}: Critical: Failed to \w[\w ]* the file "{path}": {reason}\n\Z')
            self.assertEqual(launch.wait_daemon_exit(), 1)
            self.disarm()
            for path in (self.instance.pid_file, self.instance.port_file):
                self.assertFalse(os.path.exists(path))
            if step % 4 != 0:
                return hit  # the next call shows that it can be started again
            self.faults.start(self.instance)
        else:  # only the log was affected
            self.instance.pid = int(zarvo.read(self.instance.pid_file))
            self.instance.port = int(zarvo.read(self.instance.port_file))
        self.assertEqual(self.listed(), {})
        self.disarm()
        self.assertEqual(self.instance.stop(), 0)
        return hit


class Requests(faults.FaultCase):
    def test_start_on_a_disk_that_is_full(self):
        self.check_start(errno.ENOSPC)

    def test_start_on_a_disk_that_is_read_only(self):
        self.check_start(errno.EROFS)

    def check_start(self, error):
        seen = set()
        self.assertGreater(self.steps(lambda step: self.fail_in_start(step, error, seen)), 15)
        self.assertEqual(seen, {"display", "window_mode", "name", "info", "monitor_pid", "app_log"})

    def fail_in_start(self, step, error, seen):
        session = zarvo.new_id()
        lines = len(self.instance.log().splitlines())
        refusal = self.refused_in(error, step, faults.DISK, "Live.Start", session, "xterm", "800x600")
        if not self.hit:
            self.assertIsNone(refusal)
            self.assert_ends(session)
            return False
        call, path = self.met.split(" ", 1)
        self.assertEqual(refusal, DIRECTORY_FAILED if call == "mkdir" else WRITE_FAILED, self.met)
        # The log names the file and the reason.
        new = self.instance.log().splitlines()[lines:]
        self.assertEqual(len([line for line in new if ": Warning: " in line and f'"{path}"' in line]), 1, new)
        if call != "mkdir":
            seen.add(os.path.basename(path))
            self.assertIn(os.strerror(error), "".join(new))
        if os.path.basename(path) == "app_log":
            self.assert_offers(session)  # the session runs, and the next client can use it
        else:
            self.assertEqual(self.listed(), {})
            self.start_again(session)
        self.assert_ends(session)
        return True

    def start_again(self, session):
        orphans = self.agents(session)
        for orphan in orphans:
            self.assertEqual(self.instance.seen(session, "pid"), str(orphan))
        answer = self.call("Live.Start", session, "again", "800x600")
        self.assertIsNotNone(self.instance.viewer(answer["port"], answer["password"]))
        for orphan in orphans:  # the server leaves an agent alone whose pid it could not write down
            os.kill(orphan, signal.SIGKILL)
            zarvo.wait_until(lambda pid=orphan: not zarvo.alive(pid), "the agent's end")

    def test_display_of_an_orphaned_agent_stays_reserved(self):
        # While this agent starts, nothing on the system shows that its display is taken.
        script = zarvo.read(os.path.join(self.instance.bin, "start-agent")).split("\n", 1)[1]
        self.instance.install_program("start-agent", "sleep 0.5\n" + script)
        unknown, session = zarvo.new_id(), zarvo.new_id()
        with self.instance.client() as client:
            self.faults.fail(errno.ENOSPC, path="/monitor_pid")
            self.assert_fails(*WRITE_FAILED.values(), client.call, "Live.Start", [unknown, "xterm", "800x600"])
            self.faults.off()
            answer = client.call("Live.Start", [session, "xterm", "800x600"])
        self.assertIsNotNone(self.instance.viewer(answer["port"], answer["password"]))
        display = zarvo.read(os.path.join(self.instance.directory(unknown), "display"))
        self.assertNotEqual(answer["port"], 41000 + int(display))
        self.assert_ends(session)

    def test_terminate(self):
        self.assertGreater(self.steps(self.fail_in_terminate), 8)

    def fail_in_terminate(self, step):
        session = zarvo.new_id()
        self.call("Live.Start", session, "xterm", "800x600")
        agent = int(self.instance.seen(session, "pid"))
        refusal = self.refused_in(errno.EROFS, step, faults.REMOVAL, "Live.Terminate", session)
        self.assertIsNone(refusal)  # the session has ended, even if files are left
        self.assertFalse(zarvo.alive(agent))
        self.assertEqual(self.listed(), {})
        self.assertEqual(os.path.exists(self.instance.directory(session)), bool(self.hit))
        if self.hit:
            call, path = self.met.split(" ", 1)
            kind = "directory" if call == "rmdir" else "file"
            self.assertEqual(self.instance.logged("Warning", f'Failed to remove the {kind} "{path}"'), 1)
            self.call("Live.Start", session, "again", "800x600")
            self.assert_ends(session)
        return self.hit


if __name__ == "__main__":
    unittest.main()
