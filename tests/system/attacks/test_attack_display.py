# SPDX-License-Identifier: MIT
"""A stranger with an account of his own attacks the display of another user's session."""
import concurrent.futures
import os
import shutil
import socket
import threading
import unittest

import accounts
import agentsession
import hosts
import xclient
import zarvo


def setUpModule():
    accounts.need_accounts()
    hosts.need_namespaces()


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


def own_cookie(session):
    return next(iter(xclient.cookies(session.path("authority")).values()))


class Connections(accounts.AccountTestCase, agentsession.AgentTestCase):
    """Connections that never show a cookie. By default an X server serves 256 clients."""

    def test_300_connections_of_a_stranger_leave_the_display_to_its_owner(self):
        session = self.session(account=self.owner).start()
        self.assertTrue(self.owner.call(xclient.program_connects, session.display, own_cookie(session)))
        self.held(self.stranger, xclient.connections, session.display, 300)
        self.assertTrue(self.owner.call(xclient.program_connects, session.display, own_cookie(session)))

    def test_stranger_connects_to_no_socket_of_the_display(self):
        session = self.session(account=self.owner).start()
        self.assertEqual(self.stranger.call(lambda: len(xclient.connections(session.display, 1))), 0)


class SquattedFolder(accounts.AccountTestCase, agentsession.AgentTestCase):
    """/tmp/.X11-unix belongs to the stranger, who listens there under the display's name."""

    def setUp(self):
        self.host = hosts.Namespace("squatted")
        self.addCleanup(self.host.close)
        self.shared = self.folder(self.stranger, 0o755)

    def squat(self, mode):
        self.host.run(self.host.command, "mount", "-t", "tmpfs", "-o",
                      f"uid={self.stranger.uid},gid={self.stranger.uid},mode={mode:o}", "none", xclient.FOLDER)

    def ear(self, display):
        return os.path.join(self.shared, f"heard-{display}")

    def listen(self, display):
        """Takes connections to the display's file, and writes a line with the first bytes of each."""
        os.umask(0)
        listener = socket.socket(socket.AF_UNIX)
        listener.bind(f"{xclient.FOLDER}/X{display}")
        listener.listen(1000)

        def serve():
            while True:
                connection, _ = listener.accept()
                with connection, open(self.ear(display), "ab") as heard:
                    heard.write(connection.recv(100) + b"\n")
        threading.Thread(target=serve, daemon=True).start()

    def heard(self, display):
        path = self.ear(display)
        return zarvo.read(path) if os.path.exists(path) else ""

    @staticmethod
    def knock(display):
        """Proves that the stranger would have heard of connections."""
        with xclient.connected(xclient.names(display)[1]) as client:
            client.sendall(b"knock")

    def attacked_session(self, mode):
        self.squat(mode)
        session = self.session(account=self.owner)
        acting = self.host.run(self.stranger.hold, self.listen, session.display)
        self.addCleanup(acting.close)
        self.addCleanup(self.host.run, session.close)
        self.host.run(session.start)
        return session

    def test_start_and_programs_use_the_name_that_is_ours(self):
        for mode in (0o755, 0o1777):
            with self.subTest(mode=oct(mode)):
                session = self.attacked_session(mode)
                self.assertTrue(self.host.run(self.owner.call, xclient.program_connects, session.display,
                                              own_cookie(session)))
                # A program of the session, with the library that most programs use.
                self.assertIn("xterm was here", self.host.run(session.run, "xterm -e true && echo xterm was here"))
                self.assertEqual(self.heard(session.display), "")
                self.assertIn("Every user of this machine can connect to display", session.read("server_log"))
                self.host.run(self.knock, session.display)
                zarvo.wait_until(lambda: self.heard(session.display) == "knock\n", "the stranger to hear")
                self.host.run(session.signal, 15)
                self.assertEqual(self.host.run(session.wait_exit), 0)

    def test_300_connections_leave_the_display_to_its_owner(self):
        session = self.attacked_session(0o755)
        held = self.host.run(self.stranger.hold, xclient.connections, session.display, 300)
        self.addCleanup(held.close)
        self.assertTrue(self.host.run(self.owner.call, xclient.program_connects, session.display, own_cookie(session)))


if __name__ == "__main__":
    unittest.main()
