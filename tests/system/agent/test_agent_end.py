# SPDX-License-Identifier: MIT
"""The agent by itself: all ways in which a session ends, and that nothing of it is left."""
import glob
import os
import shutil
import signal
import socket
import time
import unittest

import zarvo
from agentsession import AgentTestCase


class End(AgentTestCase):
    def test_nothing_is_left(self):
        session = self.session().start("rootless")
        session.app("xterm")
        # A daemon: its parents have ended, and it is in a session of its own.
        session.app("(setsid sh -c 'sleep 1000 & sleep 1000' &) & exit 0")
        zarvo.wait_until(lambda: len(session.processes()) >= 8, "all processes")
        client = session.connect()
        session.new_password()
        session.signal(signal.SIGTERM)
        client.wait_for_close()
        client.close()
        self.assert_over(session, 0)
        log = session.read("server_log")
        self.assertEqual(log.count("Added new password"), 2)
        self.assertEqual(log.count("Expiring password"), 1)
        self.assertEqual(log.count("Client disconnected"), 1)
        self.assert_log_is_sound(session)

    def test_application_that_ignores_sigterm_is_killed(self):
        session = self.session().start()
        session.app("trap '' TERM; touch ready; while :; do sleep 0.1; done")
        zarvo.wait_until(lambda: os.path.exists(os.path.join(session.home, "ready")), "the application")
        session.app("kill -STOP $$")
        begin = time.monotonic()
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)
        self.assertLess(time.monotonic() - begin, 10)

    def test_stopped_x_server_is_killed(self):
        session = self.session().start()
        os.kill(session.x_server(), signal.SIGSTOP)
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)

    def test_signal_during_start_ends_the_session(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(number):
                session = self.session()
                session.launch("800x600", str(session.port))
                zarvo.wait_until(lambda: os.path.exists(session.path("server_pid")), "the pid")
                session.signal(number)
                self.assert_over(session, 0)
                session.close()

    def test_death_of_the_x_server_ends_the_session(self):
        session = self.session().start()
        session.app("sleep 1000")
        client = session.connect()
        os.kill(session.x_server(), signal.SIGKILL)
        client.wait_for_close()
        client.close()
        self.assert_over(session, 3)
        self.assertIn("Critical: The X server ended: signal 9", session.read("server_log"))

    def test_files_of_another_x_server_stay(self):
        session = self.session().start()
        lock, x_socket = f"/tmp/.X{session.display}-lock", f"/tmp/.X11-unix/X{session.display}"
        with open(lock, "r+", encoding="ascii") as file:
            file.write(f"{os.getpid():10}\n")
        os.chmod(lock, 0o644)
        os.unlink(x_socket)
        other = socket.socket(socket.AF_UNIX)
        self.addCleanup(other.close)
        other.bind(x_socket)
        os.kill(session.x_server(), signal.SIGKILL)
        self.assertEqual(session.wait_exit(), 3)
        self.assertEqual([os.path.lexists(path) for path in (lock, x_socket)], [True, True])

    def start_daemons(self, session):
        """Starts programs that are no children of the agent, and one that ignores SIGTERM."""
        session.app("xterm")
        session.app("(setsid sh -c 'sleep 1000 & sleep 1000' &) & exit 0")
        session.app("setsid sh -c 'trap \"\" TERM; touch ready; while :; do sleep 0.1; done' & exit 0")
        zarvo.wait_until(lambda: len(session.processes()) >= 8, "all processes")
        zarvo.wait_until(lambda: os.path.exists(os.path.join(session.home, "ready")), "the last program")

    def test_nothing_survives_a_killed_agent(self):
        for number in (signal.SIGKILL, signal.SIGABRT):
            with self.subTest(number):
                session = self.session().start("rootless")
                self.start_daemons(session)
                client = session.connect()
                session.signal(number)
                client.wait_for_close()
                client.close()
                self.assert_over(session, 4)
                session.start()
                session.connect().close()
                session.signal(signal.SIGTERM)
                self.assert_over(session, 0)
                session.close()

    def test_nothing_survives_an_agent_killed_during_its_start(self):
        session = self.session()
        session.launch("800x600", str(session.port))
        zarvo.wait_until(lambda: os.path.exists(session.path("server_pid")), "the pid")
        session.signal(signal.SIGKILL)
        self.assert_over(session, 4)

    def test_killed_guard_ends_the_session(self):
        session = self.session().start()
        self.start_daemons(session)
        session.process.kill()
        session.wait_exit()
        zarvo.wait_until(lambda: os.path.exists(session.path("server_exit")), "the exit code")
        self.assertEqual(session.read("server_exit"), "4")
        zarvo.wait_until(lambda: session.leftovers() == [], "the end of everything")
        self.assertFalse(session.port_is_open())
        self.assertIn(": Critical: ", session.read("server_log"))

    def test_nothing_survives_an_agent_killed_with_a_stopped_x_server(self):
        session = self.session().start()
        os.kill(session.x_server(), signal.SIGSTOP)
        session.signal(signal.SIGKILL)
        self.assert_over(session, 4)

    def test_leftovers_of_a_dead_session_are_taken_over(self):
        session = self.session().start()
        agent, x_server = session.pid(), session.x_server()
        for pid in (agent, x_server):
            os.kill(pid, signal.SIGSTOP)  # so that none of them reacts to the end of another
        for pid in (session.process.pid, agent, x_server):
            os.kill(pid, signal.SIGKILL)
        session.wait_exit()
        zarvo.wait_until(lambda: session.processes() == [], "the end of everything")
        for orphan in (agent, x_server):
            os.waitpid(orphan, 0)
        self.assertTrue(os.path.exists(session.state_socket))
        self.assertTrue(os.path.exists(f"/tmp/.X{session.display}-lock"))
        session.start()
        session.connect().close()
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)

    def test_signals_to_the_guard_reach_the_agent(self):
        session = self.session().start()
        session.process.send_signal(signal.SIGUSR1)
        session.wait_state("a password", lambda state: state["Passwords"])
        with session.connect(session.state()["Passwords"][0]) as client:
            session.process.send_signal(signal.SIGUSR2)
            client.wait_for_close()
        session.process.send_signal(signal.SIGTERM)
        self.assert_over(session, 0)

    def test_removed_directory_ends_the_session(self):
        session = self.session().start()
        self.start_daemons(session)
        shutil.rmtree(session.directory)
        self.assertEqual(session.wait_exit(), 0)
        self.assertEqual(session.leftovers(), [])
        self.assertFalse(session.port_is_open())

    def test_directory_removed_during_start_ends_the_session(self):
        session = self.session()
        session.launch("800x600", str(session.port))
        zarvo.wait_until(lambda: os.path.exists(session.path("server_pid")), "the pid")

        def removed():
            shutil.rmtree(session.directory, ignore_errors=True)  # the agent may create a file meanwhile
            return not os.path.exists(session.directory)

        zarvo.wait_until(removed, "the directory to be removed")
        session.wait_exit()
        self.assertEqual(session.leftovers(), [])

    def test_renamed_directory_does_not_end_the_session(self):
        session = self.session().start()
        before = session.directory
        session.directory += "-renamed"
        os.rename(before, session.directory)
        session.home = os.path.join(session.directory, "home")
        session.connect().close()
        self.assertEqual(session.app("true").returncode, 0)
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)

    def test_log_that_cannot_be_opened_fails_the_start(self):
        session = self.session()
        os.mkdir(session.path("server_log"))
        session.launch("800x600", str(session.port))
        self.assertEqual(session.wait_exit(), 1)
        self.assertEqual(session.read("server_exit"), "1")
        self.assertEqual(session.leftovers(), [])

    def test_directory_can_be_used_again(self):
        session = self.session().start()
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)
        session.start()
        self.assertFalse(os.path.exists(session.path("server_exit")))
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)

    def test_descriptors_do_not_pile_up(self):
        session = self.session().start()
        count = lambda: len(glob.glob(f"/proc/{session.pid()}/fd/*"))
        session.connect().close()
        session.wait_state("the client to leave", lambda state: state["Clients"] == 0)
        before = count()
        for _ in range(10):
            session.connect().close()
            session.app("true")
            session.state()
        session.wait_state("the clients to leave", lambda state: state["Clients"] == 0)
        zarvo.wait_until(lambda: count() <= before, "descriptors to be closed")


if __name__ == "__main__":
    unittest.main()
