# SPDX-License-Identifier: MIT
"""zarvoctl: finding and starting the server, and the verbs that ask it for something."""
import contextlib
import json
import os
import re
import shutil
import signal
import socket
import ssl
import subprocess
import threading
import unittest

import zarvo

CTL = os.path.join(zarvo.BUILD, "bin", "zarvoctl")

DONE, NEGATIVE, USAGE, NO_SESSION, AMBIGUOUS, NO_SERVER, REFUSED, TIMED_OUT, FAILED, WRONG_STATE, NO_VIEWER = range(11)


class CtlTestCase(zarvo.TestCase):
    """What the tests of zarvoctl share; has no tests itself."""

    def ctl(self, server, *arguments, code=DONE, environment=None, **how):
        """Runs zarvoctl to its end, checks the exit code and returns its output."""
        result = self.ctl_result(server, *arguments, environment=environment, **how)
        self.assertEqual(result.returncode, code, f"{arguments}: {result.stdout}{result.stderr}")
        return result.stdout

    def ctl_error(self, server, *arguments, code, environment=None):
        """The same for a run that fails: nothing on standard output, and what it complained about."""
        result = self.ctl_result(server, *arguments, environment=environment)
        self.assertEqual(result.returncode, code, f"{arguments}: {result.stdout}{result.stderr}")
        self.assertEqual(result.stdout, "")
        self.assertTrue(result.stderr.startswith("zarvoctl"), result.stderr)
        return result.stderr

    @staticmethod
    def ctl_result(server, *arguments, environment=None, **how):
        return subprocess.run([CTL, *arguments], env={**server.environment, **(environment or {})}, text=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              timeout=2 * zarvo.DEADLINE, **how)

    def ctl_json(self, server, verb, *arguments, **how):
        return json.loads(self.ctl(server, verb, "--json", *arguments, **how))

    def background(self, server, *arguments, environment=None, stdin=subprocess.DEVNULL):
        """zarvoctl as a process that runs on; it is killed after the test."""
        process = subprocess.Popen([CTL, *arguments], env={**server.environment, **(environment or {})}, text=True,
                                   stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(self.end, process)
        return process

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
        process.wait(zarvo.DEADLINE)
        for stream in (process.stdin, process.stdout, process.stderr):
            if stream:
                stream.close()

    def unattended(self, *arguments, **how):
        """Surroundings in which zarvoctl itself starts the server; that one is gone after the test."""
        server = self.prepare(*arguments, **how)
        self.addCleanup(self.end_unattended, server)
        return server

    def end_unattended(self, server):
        with contextlib.suppress(OSError, ValueError):
            pid = int(zarvo.read(server.pid_file))
            if "zarvo_server" in zarvo.read(f"/proc/{pid}/comm"):
                os.kill(pid, signal.SIGTERM)
                zarvo.wait_until(lambda: not zarvo.alive(pid), "the end of the server")

    def servers(self, server):
        """The processes of servers that run in these surroundings."""
        found = []
        for entry in os.listdir("/proc"):
            if entry.isdigit():
                with contextlib.suppress(OSError):
                    if zarvo.read(f"/proc/{entry}/comm").strip() == "zarvo_server":
                        with open(f"/proc/{entry}/environ", "rb") as environment:
                            if b"USER=" + server.user.encode() in environment.read().split(b"\0"):
                                found.append(int(entry))
        return found

    def start(self, server, *arguments):
        """A session started through zarvoctl."""
        return self.ctl_json(server, "start", *(arguments or ("xterm",)))

    def state(self, server, session):
        found = [entry["state"] for entry in self.ctl_json(server, "list") if entry["id"] == session]
        return found[0] if found else None

    def wait_state(self, server, session, state):
        zarvo.wait_until(lambda: self.state(server, session) == state, f"the state {state}")


class Starting(CtlTestCase):
    def test_first_start_of_all(self):
        server = self.unattended(certificate=False)
        shutil.rmtree(os.path.join(server.home, ".zarvo_server"))
        self.assertEqual(self.ctl_json(server, "list"), [])
        self.assertEqual(zarvo.mode(server.path), "0o700")
        self.assertEqual(zarvo.mode(os.path.dirname(server.path)), "0o700")
        self.assertEqual(len(self.servers(server)), 1)

    def test_ten_at_once_start_one(self):
        for certificate in (True, False):
            with self.subTest(certificate=certificate):
                server = self.unattended(certificate=certificate)
                processes = [self.background(server, "list", "--json") for _ in range(10)]
                for process in processes:
                    output, error = process.communicate(timeout=2 * zarvo.DEADLINE)
                    self.assertEqual((process.returncode, output), (DONE, "[]\n"), error)
                self.assertEqual(len(self.servers(server)), 1)

    def test_no_start(self):
        server = self.unattended()
        error = self.ctl_error(server, "list", "--no-start", code=NO_SERVER)
        self.assertIn("No server is running", error)
        self.assertEqual(self.servers(server), [])

    def test_stale_files(self):
        server = self.unattended()
        server.start()
        server.stop(signal.SIGKILL)
        self.assertTrue(os.path.exists(server.port_file))
        self.assertIn("without removing its files", self.ctl_error(server, "list", "--no-start", code=NO_SERVER))
        self.assertEqual(self.ctl_json(server, "list"), [])
        self.assertEqual(len(self.servers(server)), 1)

    def test_stale_port_that_somebody_else_has(self):
        # The files of a killed server name a port that another program has got since.
        server = self.unattended()
        server.start()
        server.stop(signal.SIGKILL)
        with socket.create_server(("127.0.0.1", 0)) as other:
            zarvo.write(server.port_file, str(other.getsockname()[1]))
            self.assertEqual(self.ctl_json(server, "list"), [])

    def test_pid_of_another_program(self):
        server = self.unattended()
        zarvo.write(server.pid_file, str(os.getpid()))
        zarvo.write(server.port_file, "1")
        self.assertEqual(self.ctl_json(server, "list"), [])

    def test_unreadable_port_file(self):
        server = self.server()
        for text in ("word", "-1", "65536", "0"):
            with self.subTest(text):
                zarvo.write(server.port_file, text)
                self.assertIn("holds no usable number", self.ctl_error(server, "list", code=NO_SERVER))

    def test_failed_start(self):
        server = self.unattended(settings={"BroadcastAddress": "nowhere"})
        error = self.ctl_error(server, "list", code=NO_SERVER)
        self.assertIn('Invalid broadcast address "nowhere"', error)
        self.assertEqual(self.servers(server), [])

    def test_user_path_cannot_be_made(self):
        server = self.unattended()
        shutil.rmtree(os.path.dirname(server.path))
        zarvo.write(os.path.dirname(server.path), "a file")
        self.assertIn("Failed to create the directory", self.ctl_error(server, "list", code=NO_SERVER))

    def test_bundled_agent_is_found(self):
        server = self.unattended(agent=False)
        self.ctl(server, "server", "start")
        (pid,) = self.servers(server)
        environment = dict(entry.split("=", 1) for entry in zarvo.read(f"/proc/{pid}/environ").split("\0") if "=" in entry)
        folders = environment["PATH"].split(":")
        self.assertEqual(folders[-1], os.path.realpath(zarvo.LIBEXEC))

    def test_server_in_the_midst_of_its_start(self):
        # A server process is there and has not written its port: zarvoctl waits, and starts no other.
        server = self.server()
        port = zarvo.read(server.port_file)
        zarvo.write(server.port_file, "")
        process = self.background(server, "list", "--json", "--no-start")
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(0.3)
        zarvo.write(server.port_file, port)
        self.assertEqual(process.communicate(timeout=zarvo.DEADLINE)[0], "[]\n")


class Trust(CtlTestCase):
    def listen(self, server, serve):
        """Answers on the port that the server's files name, in its place."""
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)
        received = []

        def run():
            with contextlib.suppress(OSError):
                connection = listener.accept()[0]
                connection.settimeout(zarvo.DEADLINE)
                with connection:
                    received.append(serve(connection))

        thread = threading.Thread(target=run)
        thread.start()
        self.addCleanup(thread.join, zarvo.DEADLINE)
        zarvo.write(server.port_file, str(listener.getsockname()[1]))
        return received

    def test_other_certificate(self):
        server = self.server()
        certificate, key = zarvo.make_certificate(server.top, name="other")
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, key)

        def serve(connection):
            try:
                with context.wrap_socket(connection, server_side=True) as encrypted:
                    return encrypted.recv(100)
            except OSError:
                return b""

        received = self.listen(server, serve)
        self.assertIn("not our own", self.ctl_error(server, "list", code=REFUSED))
        zarvo.wait_until(lambda: received, "the end of the connection")
        self.assertEqual(received, [b""])  # no request was sent

    def test_no_tls(self):
        server = self.server()
        self.listen(server, lambda connection: connection.sendall(b"220 hello\r\n" * 20))
        self.assertIn("is not our server", self.ctl_error(server, "list", code=REFUSED))

    def test_other_own_certificate(self):
        # The files have been replaced under a running server.
        server = self.server()
        zarvo.make_certificate(os.path.dirname(server.certificate))
        self.ctl_error(server, "list", code=REFUSED)

    def test_key_of_another_certificate(self):
        server = self.server()
        _, key = zarvo.make_certificate(server.top, name="other")
        shutil.copy(key, server.key)
        self.ctl_error(server, "list", code=REFUSED)

    def test_broken_key(self):
        server = self.server()
        zarvo.write(server.key, "no key")
        self.assertIn("Invalid private key", self.ctl_error(server, "list", code=REFUSED))

    def test_garbage_behind_the_handshake(self):
        for answer in (b"abc:", b"99999999:", b"3:{}},", b"2:{},2:[],1:x,", b"12:nonsense"):
            with self.subTest(answer):
                server = self.server()
                context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
                context.load_cert_chain(server.certificate, server.key)

                def serve(connection, text=answer):
                    with contextlib.suppress(OSError):
                        with context.wrap_socket(connection, server_side=True) as encrypted:
                            encrypted.recv(100)
                            encrypted.sendall(text)

                self.listen(server, serve)
                self.assertIn("connection to the server is lost", self.ctl_error(server, "list", code=NO_SERVER))


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
                                 "permissions": ["retry", "terminate"]})
        title, line = self.ctl(server, "list").splitlines()
        self.assertEqual(re.split(r"  +", title), ["ID", "NAME", "WHERE", "MODE", "STATE", "STARTED", "LAST CONNECTED"])
        cells = re.split(r"  +", line)
        self.assertEqual(cells[:5], [session[:8], "xterm -e 'top -d 1'", zarvo.HOST, "desktop", "offered"])
        self.assertRegex(cells[5], r"^\d{4}-\d\d-\d\d \d\d:\d\d$")
        self.assertEqual(cells[6], "-")
        (bare,) = self.ctl(server, "list", "--local", "--no-legend").splitlines()
        self.assertEqual(re.split(r"  +", bare), cells)
        self.assertEqual(self.ctl(server, "list", "--plain").split("\t")[:2], [session, "xterm -e 'top -d 1'"])

    def test_more_than_one_frame_of_the_server_can_hold(self):
        server = self.server(displays=40)
        name = "x" * 30000
        for _ in range(4):
            self.start(server, name)
        self.assertEqual([entry["name"] for entry in self.ctl_json(server, "list")], [name] * 4)

    def test_names_reach_no_terminal(self):
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

    def test_connect_print_resumes_a_suspended_one(self):
        server = self.server()
        started = self.start(server)
        server.viewer(started["port"], started["password"]).close()
        self.wait_state(server, started["id"], "suspended")
        self.assertNotEqual(self.ctl_json(server, "connect", "--print")["password"], started["password"])

    def test_connect_new_print(self):
        server = self.server()
        made = self.ctl_json(server, "connect", "--new", "--print", "--geometry", "rootless", "--", "xterm", "-e", "a b")
        self.assertIn("xterm -e 'a b'", server.app_seen(made["id"]))
        self.assertEqual(self.ctl_json(server, "list")[0]["windowMode"], "rootless")

    def test_command_lines(self):
        server = self.server()
        for words, expected in ((("echo $HOME | cat",), "echo $HOME | cat"), (("a", "b c", "it's"), r"a 'b c' 'it'\''s'"),
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
        sessions = [self.start(server, name)["id"] for name in ("a", "b", "c", "d")]
        self.ctl_error(server, "terminate", "a", "nobody", code=NO_SESSION)
        self.assertEqual(len(self.ctl_json(server, "list")), 4)
        self.ctl(server, "terminate", "a", sessions[1], "a")
        self.assertEqual([entry["name"] for entry in self.ctl_json(server, "list")],
                         [name for _, name in sorted(zip(sessions[2:], "cd"))])
        self.ctl_error(server, "terminate", "--all", "c", code=USAGE)
        self.ctl(server, "terminate", "--all")
        self.assertEqual(self.ctl_json(server, "list"), [])
        self.ctl(server, "terminate", "--all")

    def test_agent_that_refuses_to_end(self):
        server = self.server()
        server.agent(terminate="no")
        session = self.start(server)["id"]
        self.assertIn("Timed out waiting for the agent.", self.ctl_error(server, "terminate", session, code=TIMED_OUT))

    def test_failed_start(self):
        server = self.server()
        server.agent(state="log", ready="no")
        process = self.background(server, "start", "xterm")
        directory = zarvo.wait_until(lambda: os.path.exists(server.sessions) and os.listdir(server.sessions), "the session")[0]
        log = os.path.join(server.sessions, directory, "server_log")
        zarvo.wait_until(lambda: os.path.exists(os.path.join(server.records, directory, "pid")), "the agent")
        with open(log, "a", encoding="utf-8") as file:
            file.write("Something is wrong\nAdded new password secret12\n")
        output, error = process.communicate(timeout=zarvo.DEADLINE)
        self.assertEqual((process.returncode, output), (TIMED_OUT, ""))
        self.assertIn("Timed out waiting for the agent.", error)
        self.assertIn("Something is wrong", error)
        self.assertNotIn("secret12", error)

    def test_agent_that_ends_at_once(self):
        server = self.server()
        server.agent(exit_at_once=4)
        self.assertIn("An unknown error occurred.", self.ctl_error(server, "start", "xterm", code=FAILED))

    def test_usage(self):
        server = self.unattended()
        for arguments in ((), ("nothing",), ("list", "--nothing"), ("list", "more"), ("start",), ("start", "--geometry"),
                          ("terminate", "--everything"), ("wait", "x"), ("wait", "x", "--for", "offered"),
                          ("server",), ("server", "restart"), ("screenshot", "x"), ("connect", "--json"),
                          ("connect", "a", "b", "--print"), ("connect", "--new", "--print"),
                          ("wait", "x", "--for", "ended", "--timeout", "-1"),
                          ("wait", "x", "--for", "ended", "--timeout", "nan"), ("server", "log", "--lines", "x")):
            with self.subTest(arguments):
                self.ctl_error(server, *arguments, code=USAGE)
        self.assertEqual(self.servers(server), [])
        for geometry in ("", "1280", "x", "1280x", "0x10", "1280x800x24", "123456x1", "Rootless", "-1x5"):
            with self.subTest(geometry):
                self.ctl_error(server, "start", "--geometry", geometry, "xterm", code=USAGE)


class TheServer(CtlTestCase):
    def test_version(self):
        server = self.server()
        self.assertEqual(self.ctl_json(server, "version"), {"client": zarvo.VERSION, "server": zarvo.VERSION})
        self.assertEqual(self.ctl(server, "version").split(), ["zarvoctl", zarvo.VERSION, "zarvo_server", zarvo.VERSION])
        self.assertEqual(self.ctl(server, "--version"), f"zarvoctl {zarvo.VERSION}\n")

    def test_describe(self):
        server = self.server()
        self.assertEqual(self.ctl_json(server, "describe"), server.client().call("system.describe"))
        text = self.ctl(server, "describe")
        for name in ("Live.Start", "system.describe", "geometry (string)"):
            self.assertIn(name, text)

    def test_life(self):
        server = self.unattended()
        status = self.ctl_result(server, "server", "status")
        self.assertEqual((status.returncode, status.stdout), (NO_SERVER, ""))
        self.assertEqual(json.loads(self.ctl_result(server, "server", "status", "--json").stdout)["files"], "missing")
        self.ctl_error(server, "server", "stop", code=NO_SERVER)
        self.ctl(server, "server", "start")
        (pid,) = self.servers(server)
        self.ctl(server, "server", "start")
        self.assertEqual(self.servers(server), [pid])
        status = self.ctl_json(server, "server", "status")
        self.assertEqual(status, {"answers": True, "files": "running", "pid": pid, "sessions": 0, "version": zarvo.VERSION,
                                  "port": int(zarvo.read(server.port_file)), "userPath": server.path})
        self.assertIn(f"process    {pid}\n", self.ctl(server, "server", "status"))
        self.assertIn("Starting the server version", self.ctl(server, "server", "log"))
        self.assertEqual(len(self.ctl(server, "server", "log", "-n", "2").splitlines()), 2)
        self.ctl(server, "server", "stop")
        self.assertFalse(zarvo.alive(pid))
        self.assertFalse(os.path.exists(server.pid_file))

    def test_stop_spares_other_programs(self):
        server = self.unattended()
        sleeper = subprocess.Popen(["sleep", "1000"])
        self.addCleanup(self.end, sleeper)
        zarvo.write(server.pid_file, str(sleeper.pid))
        zarvo.write(server.port_file, "1")
        self.ctl_error(server, "server", "stop", code=NO_SERVER)
        self.assertIsNone(sleeper.poll())

    def test_server_that_hangs(self):
        server = self.server()
        os.kill(server.pid, signal.SIGSTOP)
        self.addCleanup(os.kill, server.pid, signal.SIGCONT)
        self.assertIn("does not answer", self.ctl_error(server, "list", code=TIMED_OUT))


if __name__ == "__main__":
    unittest.main()
