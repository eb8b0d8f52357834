# SPDX-License-Identifier: MIT
"""kill -9 of the server before each step of its start-up. The next start succeeds, and no session is lost."""
import os
import signal
import unittest

import faults
import zarvo


class StartUp(faults.FaultCase):
    def test_next_start_succeeds_whatever_the_step(self):
        # The first start has the most steps. A fake openssl makes it fast.
        pair = zarvo.Server.pair
        self.instance.install_program("openssl", f"cp {pair[0]} {self.instance.certificate}\n"
                                      f"cp {pair[1]} {self.instance.key}\n")
        self.instance.stop()
        self.assertGreater(self.steps(self.kill_while_pair_is_made), 15)

    def kill_while_pair_is_made(self, step):
        for path in self.pair_files():
            os.unlink(path)
        return self.kill_while_starting(step)

    def test_next_start_has_the_same_pair_whatever_the_step(self):
        before = [zarvo.read(path) for path in self.pair_files()]
        self.instance.stop()
        self.assertGreater(self.steps(self.kill_while_starting), 12)
        self.assertEqual([zarvo.read(path) for path in self.pair_files()], before)

    def pair_files(self):
        return self.instance.certificate, self.instance.key

    def kill_while_starting(self, step):
        self.faults.kill(step)
        launch = self.faults.start(self.instance, check=False)
        self.assertEqual((launch.stdout, launch.stderr), ("", ""))
        if self.faults.acted == 0:
            return False
        statuses = [launch.status] if launch.status != 0 else [launch.wait_daemon_exit()]
        self.assertEqual(statuses, [-signal.SIGKILL], self.faults.met)
        self.faults.off()
        self.faults.start(self.instance)
        self.assertEqual(self.listed(), {}, self.faults.met)
        self.assertEqual(self.instance.stop(), 0)
        return True


if __name__ == "__main__":
    unittest.main()
