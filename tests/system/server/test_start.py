# SPDX-License-Identifier: MIT
"""Live.Start with agents of every kind: the answer, what agent and application see, what is left after a failure."""
import json
import os
import shutil
import socket
import subprocess
import sys
import unittest

import zarvo

NO_SESSION = (-32094, "No session exists with the given id.")
NO_DISPLAY = (-32089, "Failed to find an open display.")
NO_DIRECTORY = (-32087, "Failed to create the session directory.")
NO_AGENT = (-32084, "Failed to start the agent.")
NO_APPLICATION = (-32083, "Failed to start the application.")
NOT_READ = (-32086, "Failed to read a session file.")
NOT_WRITTEN = (-32080, "Failed to write a session file.")
UNKNOWN = (-32099, "An unknown error occurred.")
INVALID = (-32602, "Invalid parameters.")


class Success(zarvo.TestCase):
    def setUp(self):
        self.instance = self.server()
        self.client = self.instance.client()
        self.base = self.instance.displays.base

    def start(self, command="xterm", geometry="800x600", session=None):
        session = session or zarvo.new_id()
        return session, self.client.call("Live.Start", [session, command, geometry])

    def file(self, session, name):
        return zarvo.read(os.path.join(self.instance.directory(session), name))

    def test_answer_holds_port_password_size_and_mode(self):
        session, answer = self.start(geometry="1024x768")
        self.assertEqual(sorted(answer), ["geometry", "password", "port"])
        self.assertEqual(answer["geometry"], "1024x768")
        self.assertEqual(answer["port"], 41000 + self.base)
        viewer = self.instance.viewer(answer["port"], answer["password"])
        self.assertIsNotNone(viewer, "the agent does not know this password")

    def test_named_parameters(self):
        session = zarvo.new_id()
        answer = self.client.call("Live.Start", {"geometry": "640x480", "id": session, "command": "a b", "other": 5})
        self.assertEqual(answer["geometry"], "640x480")
        self.assertEqual(self.file(session, "name"), "a b")

    def test_further_positional_parameters_are_ignored(self):
        session = zarvo.new_id()
        self.client.call("Live.Start", [session, "xterm", "800x600", 5, None])
        self.assertTrue(os.path.isdir(self.instance.directory(session)))

    def test_files_of_the_session_and_their_modes(self):
        session, _ = self.start("xterm -e top", "800x600")
        directory = self.instance.directory(session)
        self.assertEqual(zarvo.mode(directory), "0o700")
        for name, content in (("display", str(self.base)), ("window_mode", "desktop"), ("name", "xterm -e top"),
                              ("info", "{\n}"), ("app_log", ""),
                              ("monitor_pid", self.instance.seen(session, "pid"))):
            with self.subTest(file=name):
                self.assertEqual(self.file(session, name), content)
                self.assertEqual(zarvo.mode(os.path.join(directory, name)), "0o600")
        self.assertEqual(zarvo.mode(os.path.join(directory, "authority")), "0o600")
        self.assertEqual(sorted(os.listdir(directory)), sorted([
            "display", "window_mode", "name", "info", "app_log", "monitor_pid", "authority", "server_pid"]))

    def test_authority_holds_one_cookie_for_both_names(self):
        first, _ = self.start()
        second, _ = self.start()
        cookies = []
        for number, session in enumerate((first, second)):
            authority = os.path.join(self.instance.directory(session), "authority")
            listed = subprocess.run(["xauth", "-f", authority, "nlist"], check=True, capture_output=True, text=True,
                                    timeout=30).stdout
            entries = [line.split() for line in listed.splitlines()]
            display = str(self.base + number).encode().hex()
            self.assertTrue(entries, "no cookie")
            self.assertEqual(entries[0][0], "0100")  # the family of a local display
            for entry in entries:
                self.assertEqual(entry[4], display)
                self.assertEqual(bytes.fromhex(entry[6]), b"MIT-MAGIC-COOKIE-1")
                self.assertRegex(entry[8], "^[0-9a-f]{32}$")
            self.assertEqual(len({entry[8] for entry in entries}), 1)
            cookies.append(entries[0][8])
        self.assertNotEqual(*cookies)

    def test_arguments_of_xauth(self):
        server = self.prepare()
        seen = os.path.join(server.records, "xauth")
        server.install_program("xauth", f'printf "%s\\n" "$@" >> {seen}\n')
        server.start()
        session = zarvo.new_id()
        server.client().call("Live.Start", [session, "xterm", "800x600"])
        lines = zarvo.read(seen).splitlines()
        authority = os.path.join(server.directory(session), "authority")
        base = server.displays.base
        self.assertEqual(len(lines), 12)
        self.assertRegex(lines[5], "^[0-9a-f]{32}$")
        self.assertEqual(lines, ["-f", authority, "add", f"unix:{base}", "MIT-MAGIC-COOKIE-1", lines[5],
                                 "-f", authority, "add", f"{zarvo.HOST}:{base}", "MIT-MAGIC-COOKIE-1", lines[5]])

    def test_arguments_and_directory_of_the_agent(self):
        session, _ = self.start(geometry="1280x1024")
        self.assertEqual(json.loads(self.instance.seen(session, "argv")), ["1280x1024", str(41000 + self.base)])
        self.assertEqual(self.instance.seen(session, "cwd"), self.instance.directory(session))
        environment = self.instance.seen(session, "environ").splitlines()
        for name in ("HOME", "USER", "PATH", "TMPDIR"):
            self.assertIn(f"{name}={self.instance.environment[name]}", environment)
        self.assertEqual([line for line in environment if line.startswith("QT_")], [])  # the server's event loop

    def test_command_reaches_the_application_as_one_argument(self):
        for command in ("xterm", "xterm -e 'sleep 5'  \"$HOME\" | cat; exit", " ", "", "-e", "\u00e4\u20ac\U0001f600",
                        "a\\b*?"):
            with self.subTest(command=command):
                session, _ = self.start(command)
                self.assertEqual(self.instance.app_seen(session), f"1\n{self.instance.directory(session)}\n{command}\n")
                self.assertEqual(self.file(session, "name"), command)

    def test_window_modes(self):
        for number, (geometry, mode) in enumerate((
                ("rootless", "rootless"), ("Rootless", "desktop"), ("ROOTLESS", "desktop"), ("800x600", "desktop"),
                ("rootless ", "desktop"), ("", "desktop"), ("nonsense; $(x)", "desktop"))):
            with self.subTest(geometry=geometry):
                session, answer = self.start(geometry=geometry)
                self.assertEqual(answer["geometry"], geometry)
                self.assertEqual(self.file(session, "window_mode"), mode)
                self.assertEqual(json.loads(self.instance.seen(session, "argv")),
                                 [geometry, str(41000 + self.base + number)])

    def test_upper_case_digits_are_kept(self):
        lower = "abcdef" + zarvo.new_id()[6:]
        sessions = [lower, "ABCDEF" + lower[6:]]
        for session in sessions:
            self.start(session=session)
            self.assertTrue(os.path.isdir(self.instance.directory(session)))
        self.assertEqual([entry["id"] for entry in self.client.listing()], sorted(sessions))

    def test_start_as_a_notification_has_no_answer(self):
        session = zarvo.new_id()
        self.client.send({"jsonrpc": "2.0", "method": "Live.Start", "params": [session, "xterm", "800x600"]})
        self.assertEqual(self.client.call("Live.GetVersion"), zarvo.VERSION)
        self.assertEqual([entry["id"] for entry in self.client.listing()], [session])

    def test_batch_starts_several_sessions(self):
        sessions = [zarvo.new_id() for _ in range(3)]
        answers = self.client.request([{"id": i, "jsonrpc": "2.0", "method": "Live.Start",
                                        "params": [session, "xterm", "800x600"]} for i, session in enumerate(sessions)])
        self.assertEqual([answer["result"]["port"] for answer in answers], [41000 + self.base + i for i in range(3)])

    def test_clients_start_sessions_at_the_same_time(self):
        clients = [self.instance.client() for _ in range(4)]
        sessions = [zarvo.new_id() for _ in clients]
        # Agents take their displays at different times while all of them start.
        pending = []
        for client, session in zip(clients, sessions):
            self.instance.agent(session, ready_delay=1)
            pending.append(client.begin("Live.Start", [session, "xterm", "800x600"]))
            self.instance.seen(session, "pid")
            display = int(self.file(session, "display"))
            zarvo.wait_until(lambda: os.path.exists(f"/tmp/Xrdp_{display}.sock"), "the display to be taken")
        ports = [client.finish(request)["port"] for client, request in zip(clients, pending)]
        self.assertEqual(sorted(ports), [41000 + self.base + i for i in range(4)])

    def test_slow_agent_is_waited_for(self):
        session = zarvo.new_id()
        self.instance.agent(session, ready_delay=2)
        self.start(session=session)
        self.assertEqual(self.instance.seen(session, "signals"), "USR1\n")

    def test_agent_without_a_socket_is_read_from_its_log(self):
        self.instance.agent(state="log")
        session, answer = self.start()
        self.assertFalse(os.path.exists(f"/tmp/Xrdp_{self.base}.sock"))
        log = self.file(session, "server_log")
        self.assertEqual(log.splitlines()[-1], f"Added new password {answer['password']}")

    def test_log_with_long_and_strange_lines(self):
        server = self.server()
        # These lines come before the agent's own ones, which the server must still find.
        server.install_program("start-agent",
                               'head -c 100000 /dev/urandom | tr -d "\\n" | tr -c "[:print:]" "x" > server_log\n'
                               'printf "\\nClient authenticated from nowhere\\nScreen resized to x\\n" >> server_log\n'
                               f"exec {sys.executable} -ISB {zarvo.HERE}/fake_agent.py {server.records} \"$@\"\n")
        server.agent(state="log")
        answer = server.client().call("Live.Start", [zarvo.new_id(), "xterm", "800x600"])
        self.assertIsNotNone(server.viewer(answer["port"], answer["password"]))

    def test_start_again_under_a_registered_id(self):
        session, first = self.start("first")
        _, second = self.start("second", session=session)
        self.assertNotEqual(first["port"], second["port"])
        listed = self.client.listing()
        self.assertEqual([(entry["id"], entry["name"]) for entry in listed], [(session, "second")])

    def test_id_that_is_being_started_is_refused(self):
        session = zarvo.new_id()
        self.instance.agent(session, ready="hold")
        pending = self.client.begin("Live.Start", [session, "xterm", "800x600"])
        monitor = os.path.join(self.instance.directory(session), "monitor_pid")
        zarvo.wait_until(lambda: os.path.exists(monitor) and zarvo.read(monitor), "the agent's start")
        other = self.instance.client()
        other.call("Live.GetVersion")
        self.assert_fails(*NO_SESSION, other.call, "Live.Start", [session, "xterm", "800x600"])
        self.instance.wait_log("Warning", "Got a bad id")
        self.instance.release(session)
        self.assertEqual(self.client.finish(pending)["port"], 41000 + self.base)

    def test_displays_of_ended_sessions_are_used_again(self):
        for _ in range(3):
            session, answer = self.start()
            self.assertEqual(answer["port"], 41000 + self.base)
            self.client.call("Live.Terminate", [session])

    def test_ended_sessions_leave_no_zombies_and_no_descriptors(self):
        session, _ = self.start()
        self.client.call("Live.Terminate", [session])
        before = self.instance.held()
        for _ in range(5):
            session, _ = self.start()
            self.client.call("Live.Terminate", [session])
        for geometry in ("800x600", "rootless"):
            self.instance.agent(exit_at_once=1)
            self.assert_fails(*UNKNOWN, self.start, "xterm", geometry)
        zarvo.wait_until(lambda: len(self.instance.held()) <= len(before), "the descriptors to be closed")
        zarvo.wait_until(lambda: self.instance.children() == {}, "the children to be reaped")

    def test_running_sessions_are_no_children_and_hold_no_descriptors(self):
        before = self.instance.held()
        for _ in range(4):
            self.start()
        self.assertEqual(self.instance.children(), {})
        zarvo.wait_until(lambda: len(self.instance.held()) <= len(before), "the descriptors to be closed")


class BadParameters(zarvo.SharedServer):
    def test_broken_parameters(self):
        session = zarvo.new_id()
        for params in (None, [], [session], [session, "xterm"], [session, "xterm", 5], [session, 5, "800x600"],
                       [5, "xterm", "800x600"], [session, None, "800x600"], [[session, "xterm", "800x600"]], session, 5,
                       {}, {"id": session}, {"id": session, "command": "xterm"},
                       {"id": session, "command": "xterm", "geometry": 5}, {"id": 5, "command": "x", "geometry": "y"},
                       {"id": session, "command": None, "geometry": "800x600"},
                       {"Id": session, "command": "xterm", "geometry": "800x600"}):
            with self.subTest(params=params):
                self.assert_fails(*INVALID, self.client.call, "Live.Start", params)
        self.assertEqual(os.listdir(self.shared.sessions), [])

    def test_bad_ids(self):
        good = zarvo.new_id()
        for bad in (good[1:], good + "0", "", "g" + good[1:], "-" + good[1:], good + "\n", "\n" + good[1:], good + "\0",
                    good[1:] + "\0", " " + good, "C-" + good, "\u0661" + good[1:], "\uff21" + good[1:],
                    "../" + good[3:],
                    good[:16] + "/" + good[17:], "." * 32, good[:31] + ".", good + "." + good, "0x" + good[2:]):
            with self.subTest(id=bad):
                before = self.shared.logged("Warning", "Got a bad id")
                self.assert_fails(*NO_SESSION, self.client.call, "Live.Start", [bad, "xterm", "800x600"])
                self.assertEqual(self.shared.logged("Warning", "Got a bad id"), before + 1)
        self.assertEqual(os.listdir(self.shared.sessions), [])


class AgentFailures(zarvo.TestCase):
    def failing(self, server, error, session=None):
        """Checks that the start of a session fails with this error. Returns the session's id."""
        session = session or zarvo.new_id()
        self.assert_fails(*error, server.client().call, "Live.Start", [session, "xterm", "800x600"])
        self.assert_serves(server)
        return session

    def listed(self, server):
        return [entry["id"] for entry in server.client().local_sessions()]

    def wait_unlisted(self, server, session):
        zarvo.wait_until(lambda: session not in self.listed(server), "the session to be dropped")

    def test_agent_that_ends_at_once(self):
        for code in (0, 1, 77, 255):
            with self.subTest(code=code):
                server = self.server()
                server.agent(exit_at_once=code)
                session = self.failing(server, UNKNOWN)
                self.wait_unlisted(server, session)
                # The directory of a failed session is kept, that of a good one is removed.
                if code == 0:
                    zarvo.wait_until(lambda: not os.path.exists(server.directory(session)), "the directory to go")
                else:
                    self.assertEqual(zarvo.read(os.path.join(server.directory(session), "server_exit")), str(code))

    def test_agent_that_ends_without_an_exit_code(self):
        server = self.server()
        server.agent(exit_at_once=5, exit_file="no")
        session = self.failing(server, NOT_READ)
        self.assertEqual(self.listed(server), [])
        missing = os.path.join(server.directory(session), "server_exit")
        self.assertRegex(server.log(), f'Warning: Failed to open the file "{missing}": .+')
        self.assertTrue(os.path.isdir(server.directory(session)))

    def test_agent_killed_when_it_was_asked_for_a_password(self):
        server = self.server()
        server.agent(die_on="USR1")
        self.failing(server, NOT_READ)
        self.assertEqual(self.listed(server), [])

    def test_agent_that_writes_no_pid(self):
        server = self.server()
        server.agent(pid_file="no")
        session = self.failing(server, NOT_READ)
        missing = os.path.join(server.directory(session), "server_pid")
        self.assertRegex(server.log(), f'Warning: Failed to open the file "{missing}": .+')
        self.assertEqual(self.listed(server), [session])

    def test_agent_whose_pid_file_holds_no_number(self):
        server = self.server()
        for content in ("", "abc"):
            with self.subTest(content=content):
                server.agent(pid_file="no", ready="hold")
                session = zarvo.new_id()
                client = server.client()
                pending = client.begin("Live.Start", [session, "xterm", "800x600"])
                server.seen(session, "pid")
                path = os.path.join(server.directory(session), "server_pid")
                zarvo.write(path, content)
                server.release(session)
                self.assert_fails(*NOT_READ, client.finish, pending)
                self.assertIn(f'Warning: Failed to read from the file "{path}": ', server.log())

    def test_agent_whose_pid_is_unused(self):
        server = self.server()
        server.agent(pid_file="no", ready="hold")
        session = zarvo.new_id()
        client = server.client()
        pending = client.begin("Live.Start", [session, "xterm", "800x600"])
        server.seen(session, "pid")
        zarvo.write(os.path.join(server.directory(session), "server_pid"), "2147483647")
        server.release(session)
        self.assert_fails(*UNKNOWN, client.finish, pending)
        self.assertIn('Warning: Failed to signal the process with pid "2147483647": ', server.log())
        self.assertEqual(self.listed(server), [session])

    def test_pid_that_would_signal_the_server_itself(self):
        # 0 means the caller's own process group. -1 means all processes, which is too dangerous for a test.
        server = self.server()
        server.agent(pid_file="no", ready="hold")
        session = zarvo.new_id()
        client = server.client()
        pending = client.begin("Live.Start", [session, "xterm", "800x600"])
        server.seen(session, "pid")
        zarvo.write(os.path.join(server.directory(session), "server_pid"), "0")
        server.release(session)
        with self.assertRaises(zarvo.RpcError):
            client.finish(pending)
        self.assertTrue(zarvo.alive(server.pid))
        self.assert_serves(server)

    def test_agent_program_missing(self):
        server = self.prepare(agent=False, programs=["sh", "xauth"])
        server.start()
        session = self.failing(server, NO_AGENT)
        self.assertEqual(server.logged(
            "Warning", f'Failed to start the agent in the directory "{server.directory(session)}"'), 1)
        self.assertEqual(self.listed(server), [])
        self.assertFalse(os.path.exists(os.path.join(server.directory(session), "monitor_pid")))
        zarvo.wait_until(lambda: server.children() == {}, "the children to be reaped")

    def test_agent_program_that_cannot_be_executed(self):
        server = self.prepare(agent=False, programs=["sh", "xauth"])
        server.install_program("start-agent", "exit 0\n")
        os.chmod(os.path.join(server.bin, "start-agent"), 0o644)
        server.start()
        self.failing(server, NO_AGENT)

    def test_application_program_missing(self):
        server = self.prepare(programs=["sh", "xauth"])
        os.unlink(os.path.join(server.bin, "start-app"))
        server.start()
        session = self.failing(server, NO_APPLICATION)
        # The misspelt word is part of the text, which must not change.
        self.assertEqual(server.logged(
            "Warning", f'Failed to start the applicaion in the directory "{server.directory(session)}"'), 1)
        self.assertEqual(self.listed(server), [session])
        self.assertFalse(os.path.exists(os.path.join(server.records, "C-" + session, "signals")))
        server.client().call("Live.Terminate", [session])
        self.assertEqual(self.listed(server), [])

    def test_xauth_missing(self):
        server = self.prepare(programs=["sh"])
        server.start()
        session = self.failing(server, NOT_WRITTEN)
        self.assertRegex(server.log(), 'Warning: Failed to run the program "xauth": .+')
        self.assertEqual(self.listed(server), [])
        self.assertFalse(os.path.exists(os.path.join(server.records, "C-" + session)), "an agent was started")

    def test_xauth_fails(self):
        server = self.prepare()
        server.install_program("xauth", "echo no cookies today >&2; echo more >&2; exit 2\n")
        server.start()
        self.failing(server, NOT_WRITTEN)
        self.assertEqual(server.logged("Warning", 'Failed to run the program "xauth": no cookies today'), 1)

    def test_xauth_that_fails_for_the_host_name_only(self):
        server = self.prepare()
        server.install_program("xauth", f'case "$4" in unix:*) exec {shutil.which("xauth")} "$@";; esac\n'
                               "echo not that one >&2; exit 2\n")
        server.start()
        answer = server.client().call("Live.Start", [zarvo.new_id(), "xterm", "800x600"])
        self.assertEqual(answer["port"], 41000 + server.displays.base)
        self.assertEqual(server.logged("Warning", 'Failed to run the program "xauth": not that one'), 1)

    def test_session_directory_that_cannot_be_made(self):
        server = self.server()
        session = zarvo.new_id()
        zarvo.write(server.directory(session), "a file in its place")
        self.failing(server, NO_DIRECTORY, session)
        self.assertEqual(server.logged("Warning", f'Failed to create the directory "{server.directory(session)}"'), 1)

    def test_removed_sessions_folder_is_made_again(self):
        server = self.server()
        os.rmdir(server.sessions)
        session = zarvo.new_id()
        server.client().call("Live.Start", [session, "xterm", "800x600"])
        self.assertTrue(os.path.isdir(server.directory(session)))

    def test_session_file_that_cannot_be_written(self):
        for name in ("display", "window_mode", "name", "info"):
            with self.subTest(file=name):
                server = self.server()
                session = zarvo.new_id()
                blocked = os.path.join(server.directory(session), name)
                os.makedirs(blocked)
                self.failing(server, NOT_WRITTEN, session)
                self.assertIn(f'Warning: Failed to open the file "{blocked}": ', server.log())
                self.assertEqual(self.listed(server), [])

    def test_application_log_that_cannot_be_written(self):
        server = self.server()
        session = zarvo.new_id()
        os.makedirs(os.path.join(server.directory(session), "app_log"))
        self.failing(server, NOT_WRITTEN, session)
        self.assertEqual(self.listed(server), [session])
        self.assertFalse(os.path.exists(os.path.join(server.records, "app-C-" + session)))

    def test_application_log_is_emptied(self):
        server = self.server()
        session = zarvo.new_id()
        os.makedirs(server.directory(session))
        path = os.path.join(server.directory(session), "app_log")
        zarvo.write(path, "what an earlier application said")
        os.chmod(path, 0o644)
        server.client().call("Live.Start", [session, "xterm", "800x600"])
        self.assertEqual((zarvo.read(path), zarvo.mode(path)), ("", "0o600"))

    def test_garbage_on_the_socket_is_ignored(self):
        server = self.server()
        session = zarvo.new_id()
        server.agent(session, ready="hold")
        client = server.client()
        pending = client.begin("Live.Start", [session, "xterm", "800x600"])
        server.seen(session, "pid")
        path = os.path.join(server.records, "C-" + session, "reply")
        for reply in (b"garbage", b"[" * 100000, b"[]", b"5", b"null", b'"text"', b"{", b"", b"\xff\0\xfe",
                      b'{"Clients":1,}', b'\xef\xbb\xbf{"Clients":1}',
                      b'{"Started":5,"Clients":"x","Passwords":5,"ScreenWidth":1e300,"ScreenHeight":null}',
                      b'{"Clients":1e400}', b'{"Clients":99999999999999999999}', b'{"Started":[],"LastConnect":{}}'):
            zarvo.write(path, "")
            with open(path + "~", "wb") as file:
                file.write(reply)
            os.rename(path + "~", path)
            self.assert_serves(server)
        os.unlink(path)
        server.release(session)
        self.assertEqual(client.finish(pending)["port"], 41000 + server.displays.base)


class Displays(zarvo.TestCase):
    def port_of_a_start(self, server):
        return server.client().call("Live.Start", [zarvo.new_id(), "xterm", "800x600"])["port"]

    def test_empty_range(self):
        server = self.server({"DisplayLimit": 0})
        session = zarvo.new_id()
        self.assert_fails(*NO_DISPLAY, server.client().call, "Live.Start", [session, "xterm", "800x600"])
        self.assertEqual(server.logged("Warning", "Failed to find an open display"), 1)
        self.assertFalse(os.path.exists(server.directory(session)))
        self.assertEqual(server.client().listing(), None)

    def test_start_is_refused_when_the_range_is_used_up(self):
        server = self.server({"DisplayLimit": 2})
        self.assertEqual([self.port_of_a_start(server) - 41000 - server.displays.base for _ in range(2)], [0, 1])
        self.assert_fails(*NO_DISPLAY, self.port_of_a_start, server)

    def test_displays_with_taken_ports_locks_or_sockets_are_skipped(self):
        server = self.prepare()
        base = server.displays.base
        x11 = os.path.join(server.temp, ".X11-unix")
        os.mkdir(x11)
        takers = [
            lambda number: self.listen(6000 + number),
            lambda number: self.listen(41000 + number),
            lambda number: self.touch(f"/tmp/.X{number}-lock"),
            lambda number: self.touch(f"/tmp/Xrdp_{number}.sock"),
            lambda number: self.touch(os.path.join(x11, f"X{number}")),
        ]
        for offset, take in enumerate(takers):
            take(base + offset)
        server.start()
        self.assertEqual(self.port_of_a_start(server), 41000 + base + len(takers))

    def test_each_obstacle_alone_makes_a_display_skipped(self):
        # One after the other, so that none hides another one.
        for name, take in (("x port", lambda s, n: self.listen(6000 + n)),
                           ("port", lambda s, n: self.listen(41000 + n)),
                           ("lock", lambda s, n: self.touch(f"/tmp/.X{n}-lock")),
                           ("socket", lambda s, n: self.touch(f"/tmp/Xrdp_{n}.sock")),
                           ("x socket", lambda s, n: self.touch(os.path.join(s.temp, ".X11-unix", f"X{n}")))):
            with self.subTest(obstacle=name):
                server = self.prepare({"DisplayLimit": 2})
                os.mkdir(os.path.join(server.temp, ".X11-unix"))
                server.start()
                take(server, server.displays.base)
                self.assertEqual(self.port_of_a_start(server), 41001 + server.displays.base)
                self.assert_fails(*NO_DISPLAY, self.port_of_a_start, server)

    def listen(self, port):
        taken = socket.socket()
        self.addCleanup(taken.close)
        taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        taken.bind(("127.0.0.1", port))
        taken.listen()

    def touch(self, path):
        zarvo.write(path, "")
        self.addCleanup(lambda: os.path.exists(path) and os.unlink(path))


if __name__ == "__main__":
    unittest.main()
