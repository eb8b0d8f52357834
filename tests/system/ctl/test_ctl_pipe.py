# SPDX-License-Identifier: MIT
"""zarvoctl pipe: the stream of a session on standard input and output."""
import os
import re
import signal
import socket
import subprocess
import threading
import unittest

import ctl
import zarvo
from ctl import DONE, FAILED, NEGATIVE, NO_SERVER, NO_SESSION, USAGE, WRONG_STATE

GREETING = b"RFB 003.008\n"


class Pipe(ctl.CtlTestCase):
    def setUp(self):
        self.instance = self.server()
        self.instance.agent(viewer="yes")

    def pipe(self, *arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, **how):
        process = subprocess.Popen([ctl.CTL, "pipe", *arguments], env=self.instance.environment, stdin=stdin,
                                   stdout=stdout, stderr=subprocess.PIPE, **how)
        self.addCleanup(self.end, process)
        return process

    def test_bytes_go_both_ways(self):
        session = self.start(self.instance)["id"]
        process = self.pipe(session[:8])
        self.assertEqual(process.stdout.read(len(GREETING)), GREETING)
        sent = os.urandom(1 << 20) * 8
        writer = threading.Thread(target=lambda: (process.stdin.write(sent), process.stdin.flush()))
        writer.start()
        received = process.stdout.read(len(sent))
        writer.join(zarvo.DEADLINE)
        self.assertTrue(received == sent)
        self.wait_state(self.instance, session, "connected")
        process.stdin.close()
        self.assertEqual((process.stdout.read(), process.stderr.read()), (b"", b""))
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE)

    def test_closed_input_is_an_end(self):
        self.start(self.instance)
        process = subprocess.Popen(["sh", "-c", 'exec "$0" pipe <&-', ctl.CTL], env=self.instance.environment,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(self.end, process)
        output, errors = process.communicate(timeout=zarvo.DEADLINE)
        self.assertEqual((output, errors, process.returncode), (GREETING, b"", DONE))

    def test_input_ends_before_all_answers_have_come(self):
        self.start(self.instance)
        process = self.pipe()
        sent = os.urandom(1 << 20)
        output, errors = process.communicate(sent, zarvo.DEADLINE)
        self.assertTrue(output == GREETING + sent)
        self.assertEqual((process.returncode, errors), (DONE, b""))

    def test_slow_reader_holds_the_session_up(self):
        self.start(self.instance)
        process = self.pipe()
        os.set_blocking(process.stdin.fileno(), False)
        written, unchanged = 0, 0
        while unchanged < 50:  # nothing fits any more
            try:
                written, unchanged = written + os.write(process.stdin.fileno(), bytes(65536)), 0
            except BlockingIOError:
                unchanged += 1
                self.assert_waits_briefly(process)
        self.assertLess(int(re.search(r"VmHWM:\s+(\d+)", zarvo.read(f"/proc/{process.pid}/status")).group(1)), 400000)
        os.set_blocking(process.stdin.fileno(), True)
        process.stdin.close()
        self.assertEqual(len(process.stdout.read()), len(GREETING) + written)
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE)

    def assert_waits_briefly(self, process):
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(0.01)

    def test_end_of_the_session_ends_it(self):
        session = self.start(self.instance)["id"]
        process = self.pipe()
        process.stdin.write(b"x")
        process.stdin.flush()
        self.assertEqual(process.stdout.read(len(GREETING) + 1), GREETING + b"x")
        self.wait_state(self.instance, session, "connected")
        self.ctl(self.instance, "suspend", session)
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE)

    def test_reader_that_has_gone_ends_it(self):
        session = self.start(self.instance)["id"]
        process = self.pipe()
        process.stdin.write(b"y")
        process.stdin.flush()
        self.wait_state(self.instance, session, "connected")
        process.stdout.close()
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE)
        self.assertEqual(process.stderr.read(), b"")
        self.wait_state(self.instance, session, "offered")

    def test_reader_that_goes_in_the_middle_ends_it(self):
        self.start(self.instance)
        with open("/dev/zero", "rb") as zeros:
            process = self.pipe(stdin=zeros)
        process.stdout.read(1 << 20)
        process.stdout.close()
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE)
        self.assertEqual(process.stderr.read(), b"")

    def test_input_and_output_may_be_one_socket(self):
        self.start(self.instance)
        ours, theirs = socket.socketpair()
        with ours:
            process = self.pipe(stdin=theirs, stdout=theirs)
            theirs.close()
            ours.settimeout(zarvo.DEADLINE)
            sent = os.urandom(1 << 20)
            writer = threading.Thread(target=lambda: (ours.sendall(sent), ours.shutdown(socket.SHUT_WR)))
            writer.start()
            received = b"".join(iter(lambda: ours.recv(65536), b""))
            writer.join(zarvo.DEADLINE)
        self.assertTrue(received == GREETING + sent)
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE)

    def test_signals_end_it(self):
        self.start(self.instance)
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            process = self.pipe()
            self.assertEqual(process.stdout.read(len(GREETING)), GREETING)
            process.send_signal(number)
            self.assertEqual(process.wait(zarvo.DEADLINE), -number)

    def test_output_that_cannot_be_written_is_reported(self):
        self.start(self.instance)
        with open("/dev/full", "wb") as full:
            process = self.pipe(stdout=full)
            self.assertEqual(process.wait(zarvo.DEADLINE), NEGATIVE)
        self.assertIn(b"Failed to write to standard output", process.stderr.read())

    def test_session_with_a_long_path(self):
        deep = os.path.join(self.instance.home, *["d" * 60] * 3)
        self.instance.settings["UserPath"] = deep
        self.instance.stop()
        self.instance.write_settings()
        os.makedirs(deep)
        for name in ("server_cert", "server_key"):
            os.symlink(os.path.join(self.instance.home, ".zarvo_server", name),
                       os.path.join(os.path.dirname(deep), name))
        self.instance.start(check=False)
        self.instance.pid = int(zarvo.read(os.path.join(deep, "server_pid")))
        self.start(self.instance)
        output, _ = self.pipe().communicate(b"here", zarvo.DEADLINE)
        self.assertEqual(output, GREETING + b"here")

    def test_errors(self):
        server = self.instance
        self.ctl_error(server, "pipe", "x", code=NO_SESSION)
        self.ctl_error(server, "pipe", "one", "two", code=USAGE)
        server.agent()
        plain = self.start(server)["id"]
        self.assertIn("connect --print", self.ctl_error(server, "pipe", plain, code=FAILED))
        server.agent(viewer="yes")
        taken = self.start(server)["id"]
        process = self.pipe(taken)
        process.stdin.write(b"x")
        process.stdin.flush()
        process.stdout.read(len(GREETING) + 1)
        self.assertIn("A viewer is connected", self.ctl_error(server, "pipe", taken, code=WRONG_STATE))

    def test_no_server_is_started(self):
        server = self.unattended()
        self.ctl_error(server, "pipe", "--no-start", code=NO_SERVER)
        self.assertEqual(self.servers(server), [])


if __name__ == "__main__":
    unittest.main()
