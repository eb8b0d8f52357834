# SPDX-License-Identifier: MIT
"""The agent by itself: starts, and starts that must fail."""
import os
import resource
import shutil
import signal
import socket
import unittest

import xclient
import zarvo
from agentsession import AgentSession, AgentTestCase


class Start(AgentTestCase):
    def test_ready_session_has_state_log_and_private_files(self):
        session = self.session().start("1000x700")
        state = session.state()
        self.assertEqual((state["ScreenWidth"], state["ScreenHeight"]), (1000, 700))
        self.assertEqual((state["Clients"], state["Passwords"]), (0, []))
        self.assertNotIn("LastConnect", state)
        self.assertNotIn("LastDisconnect", state)
        self.assertEqual(zarvo.parent(session.pid()), session.process.pid)
        self.assertFalse(os.path.exists(session.path("server_exit")))
        self.assertEqual(session.read("server_log").splitlines(),
                         ["Screen resized to '1000x700'", f"RDP initialized at '{state['Started']}'"])
        for name in ("server_pid", "server_log", f"rfb-{session.display}.sock", f"app-{session.display}.sock"):
            self.assertIn(zarvo.mode(session.path(name)), ("0o600",), name)
        self.assertEqual(zarvo.mode(session.state_socket), "0o600")

    def test_session_directory_may_have_a_long_path(self):
        session = self.session()
        deep = os.path.join(session.directory, "d" * 100, "e" * 100)
        os.makedirs(deep)
        for name in ("display", "name", "authority"):
            shutil.copy(session.path(name), deep)
        top, session.directory = session.directory, deep
        self.addCleanup(shutil.rmtree, top, True)
        session.start()
        self.assertEqual(session.run("echo here").strip(), "here")
        with session.connect() as client:
            self.assertEqual(client.width, 800)

    def test_bad_arguments_are_refused(self):
        for arguments in ([], ["800x600"], ["800x600", "PORT", "more"], ["800x600", "0"], ["800x600", "x"],
                          ["800x600", "+PORT"], ["800x600", "70000"], ["800x600", "41000"], ["Rootless", "PORT"],
                          ["9x600", "PORT"], ["40000x40000", "PORT"], ["800x600x24", "PORT"], ["", "PORT"],
                          ["800x600\n\nRDP initialized at '2020-01-01T00:00:00'", "PORT"]):
            with self.subTest(arguments=arguments):
                session = self.session()
                session.launch(*(text.replace("PORT", str(session.port)) for text in arguments))
                self.assert_refuses_to_start(session, 2, "")
                self.assertEqual(session.leftovers(), [])
                session.close()

    def test_missing_or_bad_display_file_is_refused(self):
        for text in (None, "", "x", "-1", "70000"):
            with self.subTest(text=text):
                session = self.session()
                os.unlink(session.path("display"))
                if text is not None:
                    session.write("display", text)
                session.launch("800x600", str(session.port))
                self.assert_refuses_to_start(session, 1, '"display"')
                session.close()

    def test_session_needs_no_cookie_of_others(self):
        def truncate(session):
            os.truncate(session.path("authority"), os.path.getsize(session.path("authority")) - 1)

        damages = {"missing": lambda session: os.unlink(session.path("authority")),
                   "empty": lambda session: session.write("authority", ""),
                   "truncated": truncate,
                   "another display": lambda session: session.make_authority(session.display + 1),
                   "garbage": lambda session: session.write("authority", "x" * 1000)}
        for name, damage in damages.items():
            with self.subTest(name):
                session = self.session()
                damage(session)
                session.start()
                cookies = xclient.cookies(session.path("authority"))
                self.assertEqual(list(cookies), [f"{zarvo.HOST}/unix:{session.display}"])
                self.assertTrue(xclient.opens(session.display, *cookies.values()))
                self.assertEqual(zarvo.mode(session.path("authority")), "0o600")
                session.close()

    def test_missing_x_server_is_reported(self):
        session = self.session()
        session.launch("800x600", str(session.port), PATH=session.home)
        self.assert_refuses_to_start(session, 1, "Xtigervnc")
        self.assertEqual(session.leftovers(), [])

    def test_start_fails_when_files_cannot_be_written(self):
        session = self.session()
        # Files may grow to one byte, which the exit code needs.
        session.launch("800x600", str(session.port), preexec=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1, 1)))
        self.assertEqual(session.wait_exit(), 1)
        self.assertEqual(session.read("server_exit"), "1")
        self.assertFalse(os.path.exists(session.path("server_pid")))
        self.assertEqual(session.leftovers(), [])

    def test_x_server_that_cannot_be_run_is_reported(self):
        session = self.session()
        session.install("Xtigervnc", "#!/nowhere/interpreter\n")
        session.launch("800x600", str(session.port), PATH=session.home)
        self.assert_refuses_to_start(session, 1, "did not start: exit code 127")
        self.assertIn("X server: Failed to run the program: No such file or directory", session.read("server_log"))
        self.assertEqual(session.leftovers(), [])

    def test_x_server_that_never_serves_its_screen_is_killed(self):
        session = self.session()
        session.install("Xtigervnc", "#!/bin/sh\ntrap '' TERM\nwhile :; do /bin/sleep 1; done\n")
        session.launch("800x600", str(session.port), PATH=session.home)
        self.assert_refuses_to_start(session, 1, "within 10 seconds")
        zarvo.wait_until(lambda: session.leftovers() == [], "the end of the last sleep")

    def test_taken_port_is_reported(self):
        session = self.session()
        with socket.socket() as other:
            other.bind(("127.0.0.1", session.port))
            other.listen()
            session.launch("800x600", str(session.port))
            self.assert_refuses_to_start(session, 1, f"port {session.port}")
        self.assertEqual(session.leftovers(), [])

    def test_display_of_another_agent_is_left_alone(self):
        first = self.session().start()
        second = AgentSession(first.display)
        self.addCleanup(shutil.rmtree, second.directory, True)
        second.launch("800x600", str(second.port))
        self.assert_refuses_to_start(second, 1, f"port {second.port}")
        self.assertEqual(first.state()["Clients"], 0)
        self.assertEqual(first.run("echo alive").strip(), "alive")

    def test_taken_state_socket_is_reported(self):
        session = self.session()
        with socket.socket(socket.AF_UNIX) as other:
            other.bind(session.state_socket)
            other.listen()
            session.launch("800x600", str(session.port))
            self.assert_refuses_to_start(session, 1, session.state_socket)
            self.assertTrue(os.path.exists(session.state_socket))

    def test_display_of_another_x_server_is_left_alone(self):
        session = self.session()
        lock = f"/tmp/.X{session.display}-lock"
        zarvo.write(lock, f"{os.getpid():10d}\n")
        os.chmod(lock, 0o444)
        session.launch("800x600", str(session.port))
        self.assert_refuses_to_start(session, 1, "The X server did not start: exit code 1")
        self.assertIn("Server is already active for display", session.read("server_log"))
        self.assertEqual(session.leftovers(), [lock])

    def test_abstract_name_of_the_display_is_ours(self):
        """Applications try this name first, and send their cookie to the process that listens there."""
        session = self.session()
        name = f"\0/tmp/.X11-unix/X{session.display}"
        with socket.socket(socket.AF_UNIX) as other:
            other.bind(name)
            other.listen()
            session.launch("800x600", str(session.port))
            self.assert_refuses_to_start(session, 1, "Failed to take the name of the abstract socket")
        self.assertEqual(session.leftovers(), [])
        session.start()
        with socket.socket(socket.AF_UNIX) as other, self.assertRaises(OSError):
            other.bind(name)

    def test_blocked_signals_and_closed_descriptors_do_no_harm(self):
        def spoil():
            signal.pthread_sigmask(signal.SIG_BLOCK, range(1, signal.NSIG))
            signal.signal(signal.SIGUSR1, signal.SIG_IGN)
            signal.signal(signal.SIGCHLD, signal.SIG_IGN)
            os.closerange(0, 3)

        session = self.session()
        session.launch("800x600", str(session.port), preexec=spoil)
        session.wait_ready()
        self.assertEqual(session.state()["Passwords"], [])  # the X server has not sent SIGUSR1 to its parent
        with session.connect() as client:
            self.assertEqual(client.width, 800)
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)


if __name__ == "__main__":
    unittest.main()
