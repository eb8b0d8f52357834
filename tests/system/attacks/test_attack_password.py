# SPDX-License-Identifier: MIT
"""A password that a stranger has got, and the way in without one."""
import os
import signal
import socket
import time

import attackeddoor
import rfb
import zarvo


setUpModule = attackeddoor.need_strangers


class LeakedPassword(attackeddoor.DoorTestCase):
    def test_suspending_takes_all_passwords_back(self):
        session = self.session()
        leaked = session.new_password()
        viewer = self.at_home(session)
        session.signal(signal.SIGUSR2)
        viewer.wait_for_close()
        session.wait_state("no password", lambda state: state["Passwords"] == [])
        self.assertIn(f"Expiring password {leaked}\n", session.read("server_log"))
        with self.assertRaises(rfb.AuthenticationFailed):
            self.at_home(session, leaked)
        self.at_home(session)

    def test_password_that_nobody_uses_is_taken_back(self):
        session = self.session("PasswordMinutes=1\n")
        password = session.new_password()
        offered = time.monotonic()
        zarvo.wait_until(lambda: session.state()["Passwords"] == [], "the end of the password", 60 + zarvo.DEADLINE)
        self.assertGreater(time.monotonic() - offered, 55)
        self.assertIn(f"Expiring password {password}\n", session.read("server_log"))
        with self.assertRaises(rfb.AuthenticationFailed):
            self.at_home(session, password)


class LocalSocket(attackeddoor.DoorTestCase):
    def path(self, session):
        return session.path(f"viewer-{session.display}.sock")

    def connect(self, session):
        connection = socket.socket(socket.AF_UNIX)
        connection.settimeout(zarvo.DEADLINE)
        connection.connect(self.path(session))
        return connection

    def test_owner_needs_no_password(self):
        session = self.session()
        for version in ("3.3", "3.7", "3.8"):
            viewer = rfb.Client(None, None, None, connection=self.connect(session), version=version)
            self.assertEqual(viewer.framebuffer().width, 800)
            state = session.state()
            self.assertEqual(state["Clients"], 1)
            self.assertIn("LastConnect", state)
            viewer.close()
            session.wait_state("the viewer to leave", lambda state: state["Clients"] == 0)
        log = session.read("server_log")
        self.assertRegex(log, r"Client authenticated from 'local' at '\S+' with password ''")
        self.assertRegex(log, r"Client disconnected from 'local' at '\S+'")

    def test_owner_gets_in_as_himself(self):
        session = self.session()
        self.cable.near.run(self.owner.call, lambda: rfb.Client(None, None, None,
                                                                connection=self.connect(session)).close())
        session.wait_state("the viewer to leave", lambda state: "LastDisconnect" in state)

    def test_stranger_cannot_reach_it(self):
        session = self.session()
        with self.assertRaises(PermissionError):
            self.stranger.call(lambda: self.connect(session).close())

    def test_stranger_is_closed_at_once_even_when_the_permissions_are_open(self):
        session = self.session()
        os.chmod(session.directory, 0o755)
        os.chmod(self.path(session), 0o777)

        def knock():
            with self.connect(session) as connection:
                return connection.recv(1)
        self.assertEqual(self.stranger.call(knock), b"")
        self.assertEqual(session.state()["Clients"], 0)

    def test_signal_disconnects_these_viewers_too(self):
        session = self.session()
        viewer = rfb.Client(None, None, None, connection=self.connect(session))
        session.signal(signal.SIGUSR2)
        viewer.wait_for_close()
        session.wait_state("the end of the viewer", lambda state: state["Clients"] == 0)
        viewer.close()
