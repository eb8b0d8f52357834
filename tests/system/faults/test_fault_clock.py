# SPDX-License-Identifier: MIT
"""The clock is set while the server runs. Only the dates that it writes may change."""
import datetime
import time
import unittest

import faults
import zarvo

DAY = 24 * 3600
SHIFTS = (DAY, -DAY, 3 * 365 * DAY, -20 * 365 * DAY, 0)


class Clock(faults.FaultCase):
    def dates(self):
        """The dates of the whole lines of the log."""
        return [line.split(":")[0].rsplit(" ", 1)[0] for line in self.instance.log().splitlines()]

    @staticmethod
    def date(shift):
        day = datetime.datetime.now() + datetime.timedelta(seconds=shift)
        return f"{day:%a} {day.day}"

    def test_clock_set_forward_and_back(self):
        session = zarvo.new_id()
        self.call("Live.Start", session, "xterm", "800x600")
        watcher = self.instance.client()
        for shift in SHIFTS:
            with self.subTest(shift=shift):
                self.faults.shift_clock(shift)
                with self.instance.client(certificate=None, key=None) as stranger:
                    stranger.wait_closed()
                # The server sees the new time.
                zarvo.wait_until(lambda: self.dates()[-1] in (self.date(shift - 60), self.date(shift)), "the new date")
                begin = time.monotonic()
                viewer = self.assert_offers(session)
                self.wait_told(watcher, session, "disconnect|terminate")
                self.call("Live.Suspend", session)
                self.assertEqual(viewer.recv(1), b"")
                self.wait_told(watcher, session, "connect|terminate")
                other = zarvo.new_id()
                self.call("Live.Start", other, "xterm", "800x600")
                self.assert_ends(other)
                self.assertEqual(list(self.listed()), [session])
                self.assertLess(time.monotonic() - begin, 15)
        self.assert_ends(session)

    @staticmethod
    def wait_told(watcher, session, permissions):
        watcher.wait_notification(lambda params: (session, permissions) in [(entry["id"], entry["permissions"])
                                                                            for entry in params or []], permissions)

    def test_start_up_at_another_time(self):
        # Before the certificate was made, and long after it has expired.
        for shift in SHIFTS:
            with self.subTest(shift=shift):
                self.assertEqual(self.instance.stop(), 0)
                self.faults.shift_clock(shift)
                self.faults.start(self.instance)
                self.assertEqual(self.listed(), {})

    def test_clock_set_while_a_call_waits(self):
        for shift in (DAY, -DAY):
            with self.subTest(shift=shift):
                session = zarvo.new_id()
                self.instance.agent(session, ready="hold")
                client = self.instance.client()
                pending = client.begin("Live.Start", [session, "xterm", "800x600"])
                self.instance.seen(session, "pid")
                self.faults.shift_clock(shift)
                self.instance.release(session)
                client.finish(pending)
                self.assert_ends(session)


if __name__ == "__main__":
    unittest.main()
