# SPDX-License-Identifier: MIT
"""zarvoctl on a terminal: colour, width, progress, questions, the live table."""
import os
import re
import signal
import unicodedata
import unittest

import ctl
import zarvo
from terminal import Terminal

ESCAPE = re.compile(r"\x1b\[[0-9;]*[A-Za-z]")


def width(text):
    return sum(0 if unicodedata.combining(c) else 2 if unicodedata.east_asian_width(c) in "WF" else 1 for c in text)


class OnTerminal(ctl.CtlTestCase):
    def terminal(self, server, *arguments, environment=None, **how):
        terminal = Terminal({**server.environment, **(environment or {})}, ctl.CTL, *arguments, **how)
        self.addCleanup(terminal.close)
        return terminal

    def test_colour(self):
        server = self.server()
        self.start(server)
        _, text = self.terminal(server, "list").finish()
        self.assertIn("\x1b[33moffered\x1b[0m", text)
        for environment in ({"NO_COLOR": "1"}, {"TERM": "dumb"}):
            code, text = self.terminal(server, "list", environment=environment).finish()
            self.assertEqual(code, 0)
            self.assertNotIn("\x1b", text)
        self.assertNotIn("\x1b", self.ctl(server, "list"))

    def test_width(self):
        server = self.server()
        for name in ("a" * 200, "統合開発環境" * 10, "short"):
            self.start(server, name)
        for columns in (60, 80, 100, 133, 300):
            with self.subTest(columns):
                _, text = self.terminal(server, "list", columns=columns).finish()
                lines = [ESCAPE.sub("", line) for line in text.splitlines()]
                self.assertEqual(len(lines), 4)
                self.assertLessEqual(max(map(width, lines)), columns)
                if columns >= 100:
                    places = {width(line[:line.index("desktop")]) for line in lines[1:]}
                    self.assertEqual(places, {width(lines[0][:lines[0].index("MODE")])})
                    self.assertIn("…" if columns < 300 else "a" * 200, text)
        self.assertIn("a" * 200, self.ctl(server, "list"))

    def test_progress(self):
        server = self.server()
        server.agent(ready="hold")
        terminal = self.terminal(server, "start", "slow program")
        terminal.wait_for("Starting slow program… ")
        (directory,) = zarvo.wait_until(lambda: os.listdir(server.sessions), "the session")
        server.release(directory.removeprefix("C-"))
        code, text = terminal.finish()
        self.assertEqual(code, 0)
        self.assertRegex(text, r"\r\x1b\[KStarting slow program… \d+\.\d s\r\x1b\[K")
        self.assertRegex(text.split("\r\x1b[K")[-1], r"\Asession   [0-9a-f]{32}\n")
        server.agent(ready_delay=1)
        self.assertNotIn("Starting", self.ctl_result(server, "start", "slow program").stderr)

    def test_question(self):
        server = self.server()
        sessions = [self.start(server, name)["id"] for name in ("one", "two")]
        for answer, left in (("\n", 2), ("n\n", 2), ("\x04", 2), ("nonsense\n", 2), ("y\n", 0)):
            with self.subTest(answer):
                terminal = self.terminal(server, "terminate", "--all")
                terminal.wait_for("End these 2 sessions? [y/N]")
                self.assertIn(sessions[0][:8], terminal.text)
                terminal.type(answer)
                self.assertEqual(terminal.finish()[0], 0 if left == 0 else 1)
                self.assertEqual(len(self.ctl_json(server, "list")), left)

    def test_no_question(self):
        server = self.server()
        for arguments in (("--all", "--yes"), ("-y",), ("named",)):
            self.start(server, "named")
            code, text = self.terminal(server, "terminate", *arguments).finish()
            self.assertEqual(code, 0)
            self.assertNotIn("[y/N]", text)
            self.assertEqual(self.ctl_json(server, "list"), [])

    def test_question_about_the_only_one(self):
        server = self.server()
        self.start(server)
        terminal = self.terminal(server, "terminate")
        terminal.wait_for("End this session?")
        terminal.type("yes\n")
        self.assertEqual(terminal.finish()[0], 0)

    def test_live_table(self):
        server = self.server()
        self.start(server, "first")
        terminal = self.terminal(server, "watch", rows=5)
        terminal.wait_for("first")
        for name in ("second", "third", "fourth", "fifth"):
            self.start(server, name)
        self.ctl(server, "terminate", "first")
        screen = lambda: terminal.text.split("\x1b[H\x1b[J")[-1].replace("\r\n", "\n")

        def is_last():
            terminal.read_some(0.05)
            return "first" not in screen() and screen().count("\n") == 4
        zarvo.wait_until(is_last, "a table without the first session, cut to the height of the terminal")
        self.assertTrue(screen().startswith("Sessions at "))
        self.assertIn("LAST CONNECTED", screen())
        terminal.resize(columns=50, rows=5)
        terminal.process.send_signal(signal.SIGWINCH)

        def is_redrawn():
            terminal.read_some(0.05)
            return "LAST CONNECTED" not in screen() and screen().count("\n") == 4
        zarvo.wait_until(is_redrawn, "a table that fits the smaller terminal")
        terminal.process.send_signal(2)
        self.assertEqual(terminal.finish()[0], -2)


    def test_control_characters_of_others_are_not_printed(self):
        server = self.server()
        session = self.start(server)["id"]
        for path in (os.path.join(server.directory(session), "server_log"), server.log_file):
            with open(path, "a", encoding="utf-8") as file:
                file.write("a\tb \x1b[31mred\n")
        for arguments in (("logs", session), ("server", "log", "-n", "0")):
            with self.subTest(arguments):
                _, text = self.terminal(server, *arguments).finish()
                self.assertRegex(text, "a +b \ufffd\\[31mred\n|a\tb \ufffd\\[31mred\n")
                self.assertNotIn("\x1b", text)
                self.assertIn("a\tb \x1b[31mred\n", self.ctl(server, *arguments))
        self.assertNotIn("\x1b", self.ctl_result(server, "connect", "--print", "\x1b[31m").stderr)


if __name__ == "__main__":
    unittest.main()
