# SPDX-License-Identifier: MIT
"""zarvoctl: listing sessions, and the verbs that act on them."""
import os
import re
import subprocess
import unittest

import zarvo
from ctl import AMBIGUOUS, CTL, DONE, FAILED, NEGATIVE, NO_SESSION, USAGE, WRONG_STATE, CtlTestCase


class Listing(CtlTestCase):
    def test_empty(self):
        server = self.server()
        self.assertEqual(self.ctl(server, "list", "--json"), "[]\n")
        self.assertEqual(self.ctl(server, "list"), "")
        self.assertEqual(self.ctl(server, "ls", "--plain"), "")

    def test_forms(self):
        server = self.server()
        session = self.start(server, "--geometry", "640x480", "xterm", "-e", "top -d 1")["id"]
        (entry,) = self.ctl_json(server, "list")
        self.assertRegex(entry["started"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d$")
        del entry["started"]
        self.assertEqual(entry, {"id": session, "name": "xterm -e 'top -d 1'", "location": "", "windowMode": "desktop",
                                 "state": "offered", "lastConnect": None, "lastDisconnect": None,
                                 "permissions": ["retry", "terminate"],
                                 "trusted": True})
        title, line = self.ctl(server, "list").splitlines()
        self.assertEqual(re.split(r"  +", title), ["ID", "NAME", "WHERE", "MODE", "STATE", "STARTED", "LAST CONNECTED"])
        cells = re.split(r"  +", line)
        self.assertEqual(cells[:5], [session[:8], "xterm -e 'top -d 1'", zarvo.HOST, "desktop", "offered"])
        self.assertRegex(cells[5], r"^\d{4}-\d\d-\d\d \d\d:\d\d$")
        self.assertEqual(cells[6], "-")
        (bare,) = self.ctl(server, "list", "--local", "--no-legend").splitlines()
        self.assertEqual(re.split(r"  +", bare), cells)
        self.assertEqual(self.ctl(server, "list", "--plain").split("\t")[:2], [session, "xterm -e 'top -d 1'"])

    def test_listing_longer_than_the_limit_of_a_request(self):
        server = self.server(displays=40)
        name = "x" * 30000
        for _ in range(4):
            self.start(server, name)
        self.assertEqual([entry["name"] for entry in self.ctl_json(server, "list")], [name] * 4)

    def test_large_output_without_a_reader(self):
        server = self.server(displays=40)
        for _ in range(2):
            self.start(server, "x" * 30000)
        for output, code, text in (("/dev/full", NEGATIVE, "No space left on device"), (None, DONE, "")):
            with self.subTest(output):
                read, write = os.pipe()
                os.close(read)
                if output:
                    os.close(write)
                    write = os.open(output, os.O_WRONLY)
                result = subprocess.run([CTL, "list", "--json"], env=server.environment, stdout=write,
                                        stderr=subprocess.PIPE, text=True, timeout=zarvo.DEADLINE)
                os.close(write)
                self.assertEqual(result.returncode, code, result.stderr)
                self.assertTrue(text in result.stderr if text else not result.stderr, result.stderr)

    def test_control_characters_of_a_name_are_not_printed(self):
        server = self.server()
        self.start(server, "\x1b[31mred\nline")
        output = self.ctl(server, "list", "--no-legend")
        self.assertNotIn("\x1b", output)
        self.assertEqual(output.count("\n"), 1)

    def test_output_that_cannot_be_written(self):
        server = self.server()
        self.start(server)
        with open("/dev/full", "w", encoding="utf-8") as full:
            result = subprocess.run([CTL, "list"], env=server.environment, stdout=full, stderr=subprocess.PIPE,
                                    text=True, timeout=zarvo.DEADLINE)
        self.assertEqual(result.returncode, NEGATIVE)
        self.assertIn("No space left", result.stderr)


class Sessions(CtlTestCase):
    def test_life(self):
        server = self.server()
        started = self.start(server, "--geometry", "800x600", "sleep", "1000")
        session = started["id"]
        self.assertEqual(started["host"], zarvo.HOST)
        self.assertEqual(started["geometry"], "800x600")
        self.assertIn("sleep 1000", server.app_seen(session))
        self.assertEqual(self.ctl_json(server, "replay", session[:6])["password"], started["password"])
        self.assertEqual(self.ctl_json(server, "connect", "--print")["password"], started["password"])
        self.assertIn("zarvoctl replay", self.ctl_error(server, "resume", session, code=WRONG_STATE))

        viewer = server.viewer(started["port"], started["password"])
        self.wait_state(server, session, "connected")
        for verb in ("resume", "replay", "connect"):
            arguments = ("--print",) if verb == "connect" else ()
            self.assertIn("zarvoctl suspend", self.ctl_error(server, verb, *arguments, session, code=WRONG_STATE))
        self.ctl(server, "suspend", "sleep 1000")
        self.assertEqual(viewer.recv(1), b"")
        self.wait_state(server, session, "suspended")
        self.assertIn("No viewer is connected", self.ctl_error(server, "suspend", session, code=WRONG_STATE))
        self.assertIn("zarvoctl resume", self.ctl_error(server, "replay", session, code=WRONG_STATE))

        lines = self.ctl(server, "resume").splitlines()
        self.assertEqual(lines[0], "session   " + session)
        self.assertEqual(lines[2], f"port      {started['port']}")
        self.assertNotIn(started["password"], lines[3])
        self.ctl(server, "terminate", session)
        self.assertEqual(self.ctl_json(server, "list"), [])
        self.assertFalse(os.path.exists(server.directory(session)))

    def test_connect_print_resumes_a_suspended_session(self):
        server = self.server()
        started = self.start(server)
        server.viewer(started["port"], started["password"]).close()
        self.wait_state(server, started["id"], "suspended")
        self.assertNotEqual(self.ctl_json(server, "connect", "--print")["password"], started["password"])

    def test_connect_new_print(self):
        server = self.server()
        made = self.ctl_json(server, "connect", "--new", "--print", "--geometry", "rootless", "--",
                             "xterm", "-e", "a b")
        self.assertIn("xterm -e 'a b'", server.app_seen(made["id"]))
        self.assertEqual(self.ctl_json(server, "list")[0]["windowMode"], "rootless")

    def test_command_lines(self):
        server = self.server()
        for words, expected in ((("echo $HOME | cat",), "echo $HOME | cat"),
                                (("a", "b c", "it's"), r"a 'b c' 'it'\''s'"),
                                (("--", "prog", "--json", "-x"), "prog --json -x"), (("prog", ""), "prog ''")):
            with self.subTest(words):
                session = self.start(server, *words)["id"]
                self.assertEqual(server.app_seen(session).splitlines()[2], expected)

    def test_targets(self):
        server = self.server()
        one, two = self.start(server, "editor")["id"], self.start(server, "shell")["id"]
        self.assertIn(two, self.ctl(server, "replay", "shell"))
        self.assertIn(one, self.ctl(server, "replay", one))
        error = self.ctl_error(server, "replay", code=AMBIGUOUS)
        self.assertIn("editor", error)
        self.assertIn("shell", error)
        self.assertIn("There is no session", self.ctl_error(server, "replay", "nothing", code=NO_SESSION))
        self.start(server, "shell")
        self.assertIn("is the name of 2", self.ctl_error(server, "suspend", "shell", code=AMBIGUOUS))

    def test_no_session_at_all(self):
        server = self.server()
        for verb in ("replay", "resume", "suspend", "terminate", "connect --print", "wait --for ended"):
            with self.subTest(verb):
                self.ctl_error(server, *verb.split(), code=NO_SESSION)

    def test_terminate(self):
        server = self.server()
        sessions = [self.start(server, name)["id"] for name in ("one", "two", "three", "four")]
        self.ctl_error(server, "terminate", "one", "nobody", code=NO_SESSION)
        self.assertEqual(len(self.ctl_json(server, "list")), 4)
        self.ctl(server, "terminate", "one", sessions[1], "one")
        self.assertEqual([entry["name"] for entry in self.ctl_json(server, "list")],
                         [name for _, name in sorted(zip(sessions[2:], ("three", "four")))])
        self.ctl_error(server, "terminate", "--all", "three", code=USAGE)
        self.ctl(server, "terminate", "--all")
        self.assertEqual(self.ctl_json(server, "list"), [])
        self.ctl(server, "terminate", "--all")

    def test_failed_start(self):
        server = self.server()
        server.install_program("start-agent", "echo 'Something is wrong' >> server_log\n"
                               "echo 'Added new password secret12' >> server_log\necho 4 > server_exit\n")
        error = self.ctl_error(server, "start", "xterm", code=FAILED)
        self.assertIn("An unknown error occurred.", error)
        self.assertIn("Something is wrong", error)
        self.assertNotIn("secret12", error)

    def test_agent_that_ends_at_once(self):
        server = self.server()
        server.agent(exit_at_once=4)
        self.assertIn("An unknown error occurred.", self.ctl_error(server, "start", "xterm", code=FAILED))

    def test_usage(self):
        server = self.unattended()
        for arguments in ((), ("nothing",), ("list", "--nothing"), ("list", "more"), ("start",),
                          ("start", "--geometry"), ("start", ""), ("start", " \t"),
                          ("connect", "--new", "--print", "--", " "),
                          ("connect", "--print", "--geometry", "640x480", "x"),
                          ("terminate", "--everything"), ("wait", "x"),
                          ("wait", "x", "--for", "offered"), ("server",), ("server", "restart"), ("screenshot", "x"),
                          ("connect", "--json"), ("connect", "a", "b", "--print"), ("connect", "--new", "--print"),
                          ("wait", "x", "--for", "ended", "--timeout", "-1"),
                          ("wait", "x", "--for", "ended", "--timeout", "nan"), ("server", "log", "--lines", "x")):
            with self.subTest(arguments):
                self.ctl_error(server, *arguments, code=USAGE)
        for geometry in ("", "1280", "x", "1280x", "0x10", "1280x800x24", "5x5", "99999x99999", "Rootless", "-1x5"):
            with self.subTest(geometry):
                self.ctl_error(server, "start", "--geometry", geometry, "xterm", code=USAGE)
        self.assertEqual(self.servers(server), [])


if __name__ == "__main__":
    unittest.main()
