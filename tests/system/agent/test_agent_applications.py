# SPDX-License-Identifier: MIT
"""The agent by itself: applications that start-app starts, and the window manager."""
import contextlib
import os
import re
import shutil
import signal
import socket
import time
import unittest

import zarvo
from agentsession import AgentTestCase


def seconds_between(begin, end):
    """The seconds between two times of day, which are less than a day apart."""
    first, last = (sum(int(part) * unit for part, unit in zip(text.split(":"), (3600, 60, 1))) for text in (begin, end))
    return (last - first) % 86400


class Applications(AgentTestCase):
    def test_applications_get_a_clean_environment(self):
        session = self.session().start()
        lines = session.run("env").splitlines()
        self.assertIn(f"DISPLAY=:{session.display}", lines)
        self.assertIn(f"XAUTHORITY={session.path('authority')}", lines)
        self.assertIn(f"HOME={session.home}", lines)
        for name in ("DBUS_SESSION_BUS_ADDRESS", "SESSION_MANAGER", "WAYLAND_DISPLAY", "XDG_SESSION_ID"):
            self.assertFalse([line for line in lines if line.startswith(name + "=")], name)
        self.assertEqual(session.run("pwd").strip(), session.home)
        self.assertNotIn(session.run("umask").strip(), ("0077", "077"))
        # ls itself opens number 3, the directory that it lists.
        self.assertEqual(session.run("ls /proc/self/fd").split(), ["0", "1", "2", "3"])
        self.assertEqual(session.run("grep -E 'SigBlk|SigIgn' /proc/self/status | cut -f2").split(), ["0" * 16] * 2)

    def test_command_is_run_by_the_shell(self):
        session = self.session().start()
        self.assertEqual(session.run("echo 'a  b' $((1 + 2)) && echo to stderr >&2"), "a  b 3\nto stderr\n")
        self.assertEqual(session.run("printf '%s' 'ünï'"), "ünï")

    def test_start_app_reports_failures(self):
        session = self.session()
        result = session.app("true")
        self.assertEqual(result.returncode, 1)
        self.assertIn("Failed to reach the agent", result.stderr)
        session.start()
        self.assertEqual(session.app().returncode, 2)
        self.assertEqual(session.app("true", "too many").returncode, 2)
        for command, message in ((" ", "empty"), ("x" * 70000, "too long")):
            result = session.app(command)
            self.assertEqual((result.returncode, len(result.stderr.splitlines())), (1, 1))
            self.assertIn(message, result.stderr)
        self.assertEqual(session.app("# " + "x" * 65000).returncode, 0)
        os.kill(session.pid(), signal.SIGSTOP)
        self.addCleanup(os.kill, session.pid(), signal.SIGCONT)
        result = session.app("true")
        self.assertEqual(result.returncode, 1)
        self.assertIn("did not answer", result.stderr)

    def test_half_a_command_is_not_run(self):
        session = self.session().start()
        with contextlib.ExitStack() as stack:
            for _ in range(20):
                client = stack.enter_context(socket.socket(socket.AF_UNIX))
                client.connect(session.path(f"app-{session.display}.sock"))
                with contextlib.suppress(BrokenPipeError):
                    client.sendall(b"touch half")
        self.assertEqual(zarvo.wait_until(lambda: session.app("true").returncode == 0, "a free place"), True)
        self.assertFalse(os.path.exists(os.path.join(session.home, "half")))

    def test_desktop_shows_an_application_that_takes_keys(self):
        session = self.session().start()
        self.assertEqual(session.app("xterm -bg '#204080' -fg white -geometry 80x24+50+50").returncode, 0)
        with session.connect() as client:
            blue = b"\x20\x40\x80"
            zarvo.wait_until(lambda: blue in client.framebuffer().colours(), "the window")
            image = client.framebuffer()
            picture = session.path("picture.png")
            image.save(picture)
            self.assertEqual(zarvo.read(picture)[1:4], "PNG")
            self.assertNotEqual(image.pixel(799, 599), tuple(blue))  # windows are not maximised on a desktop
            typed = os.path.join(session.home, "typed")

            def type_until_seen():
                client.type("touch typed\n")  # lost until the window has the keyboard focus
                return os.path.exists(typed)

            zarvo.wait_until(type_until_seen, "the key presses")

    def test_rootless_application_has_the_whole_screen(self):
        if shutil.which("openbox") is None and shutil.which("matchbox-window-manager") is None:
            self.skipTest("no window manager is installed")
        session = self.session().start("rootless")
        self.assertEqual(session.app("xterm -bg '#204080' -b 20 -geometry 20x5").returncode, 0)
        corners = lambda image: {image.pixel(x, y) for x in (6, image.width - 7) for y in (6, image.height - 7)}
        with session.connect() as client:
            self.assertGreaterEqual(client.width * client.height, 640 * 480)
            zarvo.wait_until(lambda: corners(client.framebuffer()) == {(0x20, 0x40, 0x80)}, "a window of full size")
            client.resize(900, 600)
            session.wait_state("the new size", lambda state: state["ScreenWidth"] == 900)
        with session.connect() as client:
            self.assertEqual((client.width, client.height), (900, 600))
            zarvo.wait_until(lambda: corners(client.framebuffer()) == {(0x20, 0x40, 0x80)}, "the window to follow")

    def test_rootless_waits_for_a_slow_window_manager(self):
        if shutil.which("openbox") is None:
            self.skipTest("openbox is not installed")
        session = self.session()
        session.install("openbox", f'#!/bin/sh\nsleep 4\nexec {shutil.which("openbox")} "$@"\n')
        begin = time.strftime("%H:%M:%S")
        session.start("rootless", PATH=session.home + ":" + os.environ["PATH"])
        # On a busy machine the window manager may still be too late. Then the agent must have waited its full time.
        times = {kind: text for text, kind in
                 re.findall(r"(\d\d:\d\d:\d\d): (Info: Started|Warning: )", session.read("server_log"))}
        if "Warning: " in times:
            self.assertTrue(seconds_between(times["Info: Started"], times["Warning: "]) >= 7 or
                            seconds_between(begin, times["Warning: "]) >= 12, (begin, times))

    def test_rootless_goes_on_without_a_working_window_manager(self):
        for name, script in (("none", None), ("broken", "#!/bin/sh\nexit 1\n")):
            with self.subTest(name):
                session = self.session()
                os.symlink(shutil.which("Xtigervnc"), os.path.join(session.home, "Xtigervnc"))
                # The X server runs it when it starts.
                os.symlink(shutil.which("xkbcomp"), os.path.join(session.home, "xkbcomp"))
                if script:
                    session.install("openbox", script)
                session.start("rootless", PATH=session.home)
                reason = "The window manager has ended" if script else "No window manager is installed"
                self.assertIn(f": Warning: {reason}", session.read("server_log"))
                self.assert_log_is_sound(session)
                self.assertEqual(session.run("echo works").strip(), "works")
                session.close()

    def test_session_outlives_its_application(self):
        session = self.session().start()
        session.run("exit 3")
        zarvo.wait_until(lambda: re.search(r"Process \d+ ended with exit code 0", session.read("server_log")), "its end")
        session.connect().close()


if __name__ == "__main__":
    unittest.main()
