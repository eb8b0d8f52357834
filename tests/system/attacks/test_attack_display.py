# SPDX-License-Identifier: MIT
"""A stranger with an account of his own attacks the display of another user's session."""
import concurrent.futures
import os
import shutil
import unittest

import accounts
import xclient
import zarvo


def setUpModule():
    accounts.need_accounts()


class CookieOnTheCommandLine(accounts.AccountTestCase):
    """xauth gets a cookie in its arguments, where everybody can read it."""

    def setUp(self):
        self.shared = self.folder(self.stranger, 0o755)
        self.instance = self.prepare(agent=False, account=self.owner)
        libexec = os.path.join(accounts.published(), "libexec", "zarvo")
        # It runs until the stranger has seen its arguments, so he wins the race each time.
        seen = os.path.join(self.shared, "seen")
        self.instance.install_program("xauth", f"for i in $(seq {zarvo.DEADLINE * 10}); do\n"
                                      f"[ -e {seen} ] && exec {shutil.which('xauth')} \"$@\"\nsleep 0.1\ndone\n")
        self.instance.environment["PATH"] = self.instance.environment["PATH"].replace(":", f":{libexec}:", 1)
        self.instance.start()

    def attack(self):
        """Takes the cookie and tries it from before the X server starts until the session is ready. Returns display and
        cookie, and whether it opened the display at any time."""
        display, cookie = xclient.seen_in_arguments(zarvo.DEADLINE)
        zarvo.write(os.path.join(self.shared, "seen"), "")
        is_in, is_ready = False, False
        while not is_in and not is_ready:
            is_ready = os.path.exists(os.path.join(self.shared, "ready"))
            is_in = xclient.opens(display, cookie)
        return display, cookie, is_in

    def test_cookie_that_a_stranger_sees_opens_nothing(self):
        session = zarvo.new_id()
        client = self.instance.client()
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            attacker = pool.submit(self.stranger.call, self.attack)
            client.call("Live.Start", [session, "true", "rootless"])
            zarvo.write(os.path.join(self.shared, "ready"), "")
        display, cookie, is_in = attacker.result()
        self.assertFalse(is_in, "the stranger is in")
        # Where strangers cannot even connect, the cookie must be worthless all the same.
        self.assertFalse(self.owner.call(xclient.opens, display, cookie), "the cookie opens the display")
        authority = os.path.join(self.instance.directory(session), "authority")
        own = set(xclient.cookies(authority).values())
        self.assertEqual(len(own), 1)
        self.assertNotIn(cookie, own)
        self.assertTrue(self.owner.call(xclient.opens, display, own.pop()))
        self.assertEqual(zarvo.mode(authority), "0o600")


if __name__ == "__main__":
    unittest.main()
