# SPDX-License-Identifier: MIT
"""The agent by itself: passwords, viewers, and other clients of its sockets."""
import concurrent.futures
import contextlib
import glob
import os
import re
import shutil
import signal
import socket
import subprocess
import threading
import unittest

import rfb
import zarvo
from agentsession import AgentTestCase, DATE


class Passwords(AgentTestCase):
    def test_one_password_lets_one_client_in_once(self):
        session = self.session().start()
        password = session.new_password()
        self.assertRegex(password, r"\A[a-zA-Z0-9]{8}\Z")
        with session.connect(password) as client:
            self.assertEqual((client.width, client.height), (800, 600))
            self.assertEqual(client.name, "a name of three words and more")
            state = session.state()
            self.assertEqual((state["Clients"], state["Passwords"]), (1, []))
            self.assertRegex(state["LastConnect"], DATE)
            with self.assertRaises(rfb.AuthenticationFailed):
                session.connect(password)
        session.wait_state("the client to leave", lambda state: state["Clients"] == 0)
        with self.assertRaises(rfb.AuthenticationFailed):
            session.connect(password)
        log = session.read("server_log")
        self.assertEqual(log.count("Client authenticated from '127.0.0.1'"), 1)
        self.assertIn(f"with password '{password}'", log)
        self.assertEqual(log.count("Client disconnected from '127.0.0.1'"), 1)
        self.assert_log_is_sound(session)

    def test_race_for_one_password_has_one_winner(self):
        session = self.session().start()
        password = session.new_password()
        barrier = threading.Barrier(5)

        def attempt(_):
            barrier.wait(zarvo.DEADLINE)
            try:
                return session.connect(password)
            except rfb.AuthenticationFailed:
                return None

        with concurrent.futures.ThreadPoolExecutor(5) as pool:
            clients = [client for client in pool.map(attempt, range(5)) if client]
        self.assertEqual(len(clients), 1)
        self.assertEqual(session.state()["Clients"], 1)
        clients[0].close()

    def test_wrong_password_uses_none_up(self):
        session = self.session().start()
        password = session.new_password()
        wrong = password[:-1] + ("a" if password[-1] != "a" else "b")
        with self.assertRaisesRegex(rfb.AuthenticationFailed, "Authentication failed"):
            session.connect(wrong)
        self.assertEqual(session.state()["Passwords"], [password])
        session.connect(password).close()

    def test_several_passwords_are_open_at_once(self):
        session = self.session().start()
        first, second = session.new_password(), session.new_password()
        self.assertEqual(session.state()["Passwords"], [first, second])
        with session.connect(second), session.connect(first):
            self.assertEqual(session.state()["Clients"], 2)
            self.assertEqual(session.state()["Passwords"], [])

    def test_versions_are_spoken(self):
        session = self.session().start()
        for version in ("3.3", "3.5", "3.7", "3.8", "3.889"):
            with self.subTest(version=version):
                spoken = {"3.5": "3.3", "3.889": "3.8"}.get(version, version)

                class Client(rfb.Client):
                    def _agree_on_version(self):
                        self.version = version
                        super()._agree_on_version()
                        self.version = spoken

                password = session.new_password()
                with self.assertRaises(rfb.AuthenticationFailed):
                    Client("127.0.0.1", session.port, "nonsense")
                with Client("127.0.0.1", session.port, password) as client:
                    self.assertEqual(client.framebuffer().width, 800)

    def test_passwords_are_at_most_sixteen(self):
        session = self.session().start()
        for _ in range(20):
            session.signal(signal.SIGUSR1)
        session.wait_state("a password", lambda state: state["Passwords"])
        for _ in range(20):
            session.new_password()
        passwords = session.state()["Passwords"]
        self.assertEqual(len(passwords), 16)
        self.assertEqual(len(set(passwords)), 16)
        log = session.read("server_log")
        self.assertEqual(log.count("Added new password ") - log.count("Expiring password "), 16)
        session.connect(passwords[0]).close()

    def test_password_requested_during_start_is_offered(self):
        session = self.session()
        session.launch("800x600", str(session.port))
        zarvo.wait_until(lambda: os.path.exists(session.path("server_pid")), "the pid")
        session.signal(signal.SIGUSR1)
        session.wait_ready()
        session.wait_state("the password", lambda state: state["Passwords"])
        session.connect(session.state()["Passwords"][0]).close()

    def test_guesses_at_the_same_time_are_all_refused_and_lock_the_user_not_out(self):
        session = self.session().start()
        password = session.new_password()

        def guess(number):
            with contextlib.suppress(rfb.AuthenticationFailed):
                session.connect(f"guess{number}").close()
                return 1
            return 0

        with concurrent.futures.ThreadPoolExecutor(6) as pool:
            self.assertEqual(sum(pool.map(guess, range(12))), 0)
        self.assertEqual(session.state()["Passwords"], [password])
        session.connect(password).close()


class Clients(AgentTestCase):
    def test_signal_disconnects_all_clients(self):
        session = self.session().start()
        session.signal(signal.SIGUSR2)  # without clients
        clients = [session.connect(), session.connect()]
        self.assertNotIn("LastDisconnect", session.state())
        session.signal(signal.SIGUSR2)
        for client in clients:
            client.wait_for_close()
            client.close()
        state = session.state()
        self.assertEqual(state["Clients"], 0)
        self.assertRegex(state["LastDisconnect"], DATE)
        self.assertEqual(session.read("server_log").count("Client disconnected"), 2)
        with session.connect():
            self.assertEqual(session.state()["Clients"], 1)

    def test_every_disconnect_has_a_different_date(self):
        session = self.session().start()
        dates = set()
        for _ in range(3):
            before = session.state().get("LastDisconnect")
            with session.connect():
                session.signal(signal.SIGUSR2)
                session.wait_state("a new date", lambda state: state.get("LastDisconnect") != before)
            dates.add(session.state()["LastDisconnect"])
        self.assertEqual(len(dates), 3)

    def test_garbage_is_dropped_at_once(self):
        session = self.session().start()
        for text in (b"GET / HTTP/1.1\r\n\r\n", b"\x16\x03\x01\x02\x00", b"RFB 003.00x\n", b"RFB 004.000\n"):
            with self.subTest(text=text), session.raw_connection() as earlier, session.raw_connection() as client:
                self.assertEqual(earlier.recv(12), b"RFB 003.008\n")
                client.sendall(text)
                with contextlib.suppress(ConnectionResetError):
                    while client.recv(100):
                        pass
                # It was not the timeout, because that would have closed the older silent connection first.
                earlier.setblocking(False)
                with self.assertRaises(BlockingIOError):
                    earlier.recv(1)
        session.connect().close()
        self.assert_log_is_sound(session)

    def test_silent_connections_keep_nobody_out(self):
        session = self.session().start()
        password = session.new_password()
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(session.raw_connection()) for _ in range(100)]
            session.connect(password).close()
            for client in clients:
                self.assertEqual(client.recv(12), b"RFB 003.008\n")

    def test_client_that_does_not_read_costs_little_memory(self):
        def resident():
            with open(f"/proc/{session.pid()}/status", encoding="ascii") as status:
                return int(re.search(r"VmRSS:\s+(\d+) kB", status.read())[1])

        # The address sanitizer keeps freed memory, by default more than the bound below.
        options = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"
        session = self.session().start("1600x1200", ASAN_OPTIONS=options)
        with session.connect() as lazy, session.connect() as busy:
            before = resident()
            request = bytes([3, 0]) + bytes(4) + (1600).to_bytes(2, "big") + (1200).to_bytes(2, "big")
            for _ in range(5):
                lazy.socket.sendall(request)
                busy.framebuffer()
            self.assertLess(resident() - before, 16384)  # of the 37500 kB that the client does not read

    def test_client_that_floods_the_x_server_is_still_served(self):
        session = self.session().start()
        with session.connect() as client:
            for _ in range(50):
                client.socket.sendall(b"\x04\x01\x00\x00\x00\x00\x00\x61" * 10000)
            self.assertEqual(client.framebuffer().width, 800)

    def test_viewer_resizes_the_screen(self):
        session = self.session().start()
        with session.connect() as client:
            client.resize(1024, 500)
            session.wait_state("the new size",
                               lambda state: (state["ScreenWidth"], state["ScreenHeight"]) == (1024, 500))
        self.assertIn("\nScreen resized to '1024x500'\n", session.read("server_log"))

    def test_foreign_client_gets_a_picture(self):
        if shutil.which("vncsnapshot") is None:
            self.skipTest("vncsnapshot is not installed")
        session = self.session().start()
        # VNC password files are encrypted with a fixed key.
        scrambled = rfb.des_encrypt(bytes(int(f"{byte:08b}"[::-1], 2) for byte in (23, 82, 107, 6, 35, 78, 88, 7)),
                                    session.new_password().encode())
        with open(session.path("password"), "wb") as file:
            file.write(scrambled)
        picture = session.path("picture.jpg")
        # vncsnapshot adds 5900 to the display number to get the port.
        subprocess.run(["vncsnapshot", "-allowblank", "-encodings", "raw", "-passwd", session.path("password"),
                        f"127.0.0.1:{session.port - 5900}", picture],
                       check=True, capture_output=True, timeout=zarvo.DEADLINE)
        self.assertGreater(os.path.getsize(picture), 0)
        self.assertIn("Client authenticated from '127.0.0.1'", session.read("server_log"))


class State(AgentTestCase):
    def test_state_clients_that_do_not_read_hold_nobody_up(self):
        session = self.session().start()
        with contextlib.ExitStack() as stack:
            for _ in range(100):
                client = stack.enter_context(socket.socket(socket.AF_UNIX))
                client.connect(session.state_socket)
                with contextlib.suppress(BrokenPipeError):
                    client.sendall(b"what is this")
            self.assertEqual(session.state()["Clients"], 0)

    def test_display_is_closed_without_the_cookie(self):
        def status():
            with socket.socket(socket.AF_UNIX) as client:
                client.settimeout(zarvo.DEADLINE)
                client.connect(f"/tmp/.X11-unix/X{session.display}")
                client.sendall(b"l\0\x0b\0\0\0\0\0\0\0\0\0")
                return client.recv(1)

        session = self.session().start()
        self.assertEqual(status(), b"\0")
        os.unlink(session.path("authority"))
        self.assertEqual(status(), b"\0")


if __name__ == "__main__":
    unittest.main()
