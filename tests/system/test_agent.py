# SPDX-License-Identifier: MIT
"""The bundled agent by itself: start-agent and start-app as built, on a real X server, without the session server."""
import concurrent.futures
import contextlib
import ctypes
import glob
import json
import os
import re
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

import rfb
import zarvo

START_AGENT = os.path.join(zarvo.LIBEXEC, "start-agent")
START_APP = os.path.join(zarvo.LIBEXEC, "start-app")

DATE = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d"
EVENTS = [rf"RDP initialized at '{DATE}'",
          r"Added new password [a-zA-Z0-9]{8}",
          r"Expiring password [a-zA-Z0-9]{8}",
          rf"Client authenticated from '\S+' at '{DATE}' with password '[a-zA-Z0-9]{{8}}'",
          rf"Client disconnected from '\S+' at '{DATE}'",
          r"Screen resized to '\d+x\d+'"]
NOTE = rf"{zarvo.DAY}: (Critical|Warning|Info): .+"


def seconds_between(begin, end):
    """Of two times of day, less than one day apart."""
    first, last = (sum(int(part) * unit for part, unit in zip(text.split(":"), (3600, 60, 1))) for text in (begin, end))
    return (last - first) % 86400


def setUpModule():
    # A process that nobody waits for keeps its number, and with that its display; not every machine has an init that
    # waits for orphans.
    pr_set_child_subreaper = 36
    if ctypes.CDLL(None).prctl(pr_set_child_subreaper, 1, 0, 0, 0) != 0:
        raise unittest.SkipTest("cannot adopt orphans")


class Session:
    """A session directory with an agent that may be running in it."""

    def __init__(self, display):
        self.display = display
        self.port = 41000 + display
        self.directory = tempfile.mkdtemp(prefix="zarvo-agent-")
        self.home = os.path.join(self.directory, "home")
        os.mkdir(self.home)
        # Everything that runs in the session inherits this, wherever it ends up in the process tree.
        self.mark = "ZARVO_TEST_SESSION=" + self.directory
        self.process = None
        self.write("display", str(display))
        self.write("name", "a name of three words and more")
        self.make_authority()

    def path(self, name):
        return os.path.join(self.directory, name)

    def read(self, name):
        return zarvo.read(self.path(name))

    def write(self, name, text):
        zarvo.write(self.path(name), text)

    def make_authority(self, display=None):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path("authority"))
        number = self.display if display is None else display
        subprocess.run(["xauth", "-q", "-f", self.path("authority"), "add", f"unix:{number}", "MIT-MAGIC-COOKIE-1",
                        os.urandom(16).hex()], check=True, stderr=subprocess.DEVNULL, timeout=zarvo.DEADLINE)

    def environment(self, **changes):
        variables = dict(os.environ, HOME=self.home, DBUS_SESSION_BUS_ADDRESS="unix:path=/nowhere",
                         SESSION_MANAGER="local/nowhere", WAYLAND_DISPLAY="wayland-9", XDG_SESSION_ID="c1")
        name, value = self.mark.split("=")
        variables[name] = value
        return {**variables, **changes}

    def launch(self, *arguments, preexec=None, **changes):
        self.process = subprocess.Popen([START_AGENT, *arguments], cwd=self.directory, preexec_fn=preexec,
                                        env=self.environment(**changes), stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.write("monitor_pid", str(self.process.pid))  # as the server does; an agent that nobody knows of ends

    def start(self, geometry="800x600", **changes):
        self.launch(geometry, str(self.port), **changes)
        self.wait_ready()
        return self

    def wait_ready(self):
        def ready():
            if self.process.poll() is not None:
                raise AssertionError(f"the agent ended: {self.read('server_log')}")
            return self.state().get("Started")
        zarvo.wait_until(ready, "the agent to be ready")

    def wait_exit(self):
        return self.process.wait(zarvo.DEADLINE)

    def pid(self):
        return int(self.read("server_pid"))

    def signal(self, number):
        os.kill(self.pid(), number)

    @property
    def state_socket(self):
        return f"/tmp/Xrdp_{self.display}.sock"

    def state(self):
        with socket.socket(socket.AF_UNIX) as client:
            try:
                client.connect(self.state_socket)
                client.settimeout(zarvo.DEADLINE)
                return json.loads(b"".join(iter(lambda: client.recv(4096), b"")))
            except (FileNotFoundError, ConnectionRefusedError, ConnectionResetError):
                return {}

    def wait_state(self, what, condition):
        return zarvo.wait_until(lambda: condition(self.state()), what)

    def new_password(self):
        before = self.state()["Passwords"]
        self.signal(signal.SIGUSR1)
        self.wait_state("a new password", lambda state: state["Passwords"] != before)
        return self.state()["Passwords"][-1]

    def connect(self, password=None, **how):
        return rfb.Client("127.0.0.1", self.port, password or self.new_password(), timeout=zarvo.DEADLINE, **how)

    def raw_connection(self):
        return socket.create_connection(("127.0.0.1", self.port), zarvo.DEADLINE)

    def app(self, *arguments):
        return subprocess.run([START_APP, *arguments], cwd=self.directory, capture_output=True, text=True,
                              timeout=zarvo.DEADLINE, check=False)

    def run(self, command):
        """Runs a command line in the session; when it has ended, returns what it printed."""
        self.write("app_log", "")
        done = self.path("done")
        result = self.app(f"({command}); : > {done}")
        assert result.returncode == 0, result.stderr
        zarvo.wait_until(lambda: os.path.exists(done), command)
        os.unlink(done)
        return self.read("app_log")

    def processes(self):
        """The ids of all live processes of the session, the agent's included."""
        mark = self.mark.encode()
        found = []
        for entry in os.listdir("/proc"):
            with contextlib.suppress(OSError):
                if entry.isdigit() and zarvo.alive(entry):
                    with open(f"/proc/{entry}/environ", "rb") as environ:
                        if mark in environ.read().split(b"\0"):
                            found.append(int(entry))
        return found

    def x_server(self):
        """The id of the X server's process."""
        for pid in self.processes():
            with contextlib.suppress(OSError):  # others come and go
                if os.path.basename(os.readlink(f"/proc/{pid}/exe")) == "Xtigervnc":
                    return pid
        raise AssertionError("there is no X server")

    def leftovers(self):
        """What must be gone when the session is over."""
        display = self.display
        paths = [self.state_socket, f"/tmp/.X{display}-lock", f"/tmp/.X11-unix/X{display}", self.path(f"rfb-{display}.sock"),
                 self.path(f"app-{display}.sock"), self.path("openbox.xml")]
        return [path for path in paths if os.path.lexists(path)] + self.processes()

    def port_is_open(self):
        with socket.socket() as client:
            return client.connect_ex(("127.0.0.1", self.port)) == 0

    def close(self):
        if self.process and self.process.poll() is None:
            self.process.terminate()
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.process.wait(15)
        for pid in self.processes():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        if self.process:
            self.process.wait(15)
        for path in (self.state_socket, f"/tmp/.X{self.display}-lock", f"/tmp/.X11-unix/X{self.display}"):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)
        shutil.rmtree(self.directory, ignore_errors=True)


class AgentTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.displays = zarvo.Displays(20)
        cls.addClassCleanup(cls.displays.close)
        cls.next_display = 0

    def session(self):
        number = self.displays.base + self.next_display % self.displays.count
        type(self).next_display += 1
        session = Session(number)
        self.addCleanup(session.close)
        return session

    def assert_over(self, session, code):
        self.assertEqual(session.wait_exit(), code)
        self.assertEqual(session.read("server_exit"), str(code))
        self.assertEqual(session.leftovers(), [])
        self.assertFalse(session.port_is_open())

    def assert_log_is_sound(self, session):
        for line in session.read("server_log").splitlines():
            self.assertRegex(line, re.compile("|".join(f"(?:{form})" for form in EVENTS + [NOTE]) + r"\Z"))

    def assert_refuses_to_start(self, session, code, message):
        """The agent ends with the code, and one line says why."""
        self.assertEqual(session.wait_exit(), code)
        self.assertEqual(session.read("server_exit"), str(code))
        lines = [line for line in session.read("server_log").splitlines() if ": Critical: " in line]
        self.assertEqual(len(lines), 1, lines)
        self.assertIn(message, lines[0])
        self.assert_log_is_sound(session)


class Start(AgentTest):
    def test_ready_session(self):
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

    def test_long_session_directory(self):
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

    def test_bad_arguments(self):
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

    def test_missing_or_bad_display_file(self):
        for text in (None, "", "x", "-1", "70000"):
            with self.subTest(text=text):
                session = self.session()
                os.unlink(session.path("display"))
                if text is not None:
                    session.write("display", text)
                session.launch("800x600", str(session.port))
                self.assert_refuses_to_start(session, 1, '"display"')
                session.close()

    def test_missing_or_bad_authority(self):
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
                session.launch("800x600", str(session.port))
                self.assert_refuses_to_start(session, 1, '"authority"')
                self.assertEqual(session.leftovers(), [])
                session.close()

    def test_missing_x_server(self):
        session = self.session()
        session.launch("800x600", str(session.port), PATH=session.home)
        self.assert_refuses_to_start(session, 1, "Xtigervnc")
        self.assertEqual(session.leftovers(), [])

    def test_files_that_cannot_be_written(self):
        session = self.session()
        # Room for the exit code and nothing else.
        session.launch("800x600", str(session.port), preexec=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1, 1)))
        self.assertEqual(session.wait_exit(), 1)
        self.assertEqual(session.read("server_exit"), "1")
        self.assertFalse(os.path.exists(session.path("server_pid")))
        self.assertEqual(session.leftovers(), [])

    def test_x_server_that_cannot_be_run(self):
        session = self.session()
        program = os.path.join(session.home, "Xtigervnc")
        zarvo.write(program, "#!/nowhere/interpreter\n")
        os.chmod(program, 0o755)
        session.launch("800x600", str(session.port), PATH=session.home)
        self.assert_refuses_to_start(session, 1, "did not start: exit code 127")
        self.assertIn("X server: Failed to run the program: No such file or directory", session.read("server_log"))
        self.assertEqual(session.leftovers(), [])

    def test_x_server_that_never_serves_its_screen(self):
        session = self.session()
        program = os.path.join(session.home, "Xtigervnc")
        zarvo.write(program, "#!/bin/sh\ntrap '' TERM\nwhile :; do /bin/sleep 1; done\n")
        os.chmod(program, 0o755)
        session.launch("800x600", str(session.port), PATH=session.home)
        self.assert_refuses_to_start(session, 1, "within 10 seconds")
        zarvo.wait_until(lambda: session.leftovers() == [], "the end of the last sleep")

    def test_taken_port(self):
        session = self.session()
        with socket.socket() as other:
            other.bind(("127.0.0.1", session.port))
            other.listen()
            session.launch("800x600", str(session.port))
            self.assert_refuses_to_start(session, 1, f"port {session.port}")
        self.assertEqual(session.leftovers(), [])

    def test_display_of_another_agent(self):
        first = self.session().start()
        second = Session(first.display)
        self.addCleanup(shutil.rmtree, second.directory, True)
        second.launch("800x600", str(second.port))
        self.assert_refuses_to_start(second, 1, f"port {second.port}")
        self.assertEqual(first.state()["Clients"], 0)
        self.assertEqual(first.run("echo alive").strip(), "alive")

    def test_taken_state_socket(self):
        session = self.session()
        with socket.socket(socket.AF_UNIX) as other:
            other.bind(session.state_socket)
            other.listen()
            session.launch("800x600", str(session.port))
            self.assert_refuses_to_start(session, 1, session.state_socket)
            self.assertTrue(os.path.exists(session.state_socket))

    def test_display_of_another_x_server(self):
        session = self.session()
        lock = f"/tmp/.X{session.display}-lock"
        zarvo.write(lock, f"{os.getpid():10d}\n")
        os.chmod(lock, 0o444)
        session.launch("800x600", str(session.port))
        self.assert_refuses_to_start(session, 1, "The X server did not start: exit code 1")
        self.assertIn("Server is already active for display", session.read("server_log"))
        self.assertEqual(session.leftovers(), [lock])

    def test_abstract_name_of_the_display_is_ours(self):
        """Applications try this name first, and show their cookie to whoever listens there."""
        session = self.session()
        name = f"\0/tmp/.X11-unix/X{session.display}"
        with socket.socket(socket.AF_UNIX) as other:
            other.bind(name)
            other.listen()
            session.launch("800x600", str(session.port))
            self.assert_refuses_to_start(session, 1, "The X server did not start: exit code 1")
            self.assertIn("Cannot establish any listening sockets", session.read("server_log"))
        self.assertEqual(session.leftovers(), [])
        session.start()
        with socket.socket(socket.AF_UNIX) as other, self.assertRaises(OSError):
            other.bind(name)

    def test_blocked_signals_and_closed_descriptors(self):
        def spoil():
            signal.pthread_sigmask(signal.SIG_BLOCK, range(1, signal.NSIG))
            signal.signal(signal.SIGUSR1, signal.SIG_IGN)
            signal.signal(signal.SIGCHLD, signal.SIG_IGN)
            os.closerange(0, 3)

        session = self.session()
        session.launch("800x600", str(session.port), preexec=spoil)
        session.wait_ready()
        self.assertEqual(session.state()["Passwords"], [])  # the X server has not taken us for a parent to signal
        with session.connect() as client:
            self.assertEqual(client.width, 800)
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)


class Passwords(AgentTest):
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

    def test_race_for_one_password(self):
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

    def test_several_passwords(self):
        session = self.session().start()
        first, second = session.new_password(), session.new_password()
        self.assertEqual(session.state()["Passwords"], [first, second])
        with session.connect(second), session.connect(first):
            self.assertEqual(session.state()["Clients"], 2)
            self.assertEqual(session.state()["Passwords"], [])

    def test_versions(self):
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

    def test_many_signals(self):
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

    def test_signal_before_the_session_is_ready(self):
        session = self.session()
        session.launch("800x600", str(session.port))
        zarvo.wait_until(lambda: os.path.exists(session.path("server_pid")), "the pid")
        session.signal(signal.SIGUSR1)
        session.wait_ready()
        session.wait_state("the password", lambda state: state["Passwords"])
        session.connect(session.state()["Passwords"][0]).close()

    def test_guessing_is_slowed_down(self):
        session = self.session().start()
        password = session.new_password()

        def guess(number):
            with contextlib.suppress(rfb.AuthenticationFailed):
                session.connect(f"guess{number}").close()
                return 1
            return 0

        with concurrent.futures.ThreadPoolExecutor(6) as pool:
            self.assertEqual(sum(pool.map(guess, range(6))), 0)
        for version in ("3.3", "3.7", "3.8"):
            with self.assertRaisesRegex(rfb.AuthenticationFailed, "Too many wrong passwords"):
                session.connect(password, version=version)
        self.assertEqual(session.state()["Passwords"], [password])


class Clients(AgentTest):
    def test_disconnect_by_signal(self):
        session = self.session().start()
        session.signal(signal.SIGUSR2)  # nobody is there
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

    def test_every_disconnect_has_a_date_of_its_own(self):
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
                # Not when its time was over, which would have been that of the silent one before it as well.
                earlier.setblocking(False)
                with self.assertRaises(BlockingIOError):
                    earlier.recv(1)
        session.connect().close()
        self.assert_log_is_sound(session)

    def test_silent_connections_keep_nobody_out(self):
        session = self.session().start()
        password = session.new_password()
        descriptors = lambda: len(glob.glob(f"/proc/{session.pid()}/fd/*"))
        before = descriptors()
        with contextlib.ExitStack() as stack:
            clients = [stack.enter_context(socket.create_connection(("127.0.0.1", session.port), 10)) for _ in range(50)]
            # The oldest have made room for the others.
            with contextlib.suppress(ConnectionResetError):
                while clients[0].recv(12):
                    pass
            self.assertEqual(clients[-1].recv(12), b"RFB 003.008\n")
            zarvo.wait_until(lambda: descriptors() <= before + 16, "the others to be closed")
            session.connect(password).close()

    def test_client_that_does_not_read(self):
        def resident():
            with open(f"/proc/{session.pid()}/status", encoding="ascii") as status:
                return int(re.search(r"VmRSS:\s+(\d+) kB", status.read())[1])

        # A sanitizer keeps what is freed, to find those who still use it.
        options = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1"
        session = self.session().start("1600x1200", ASAN_OPTIONS=options)
        with session.connect() as lazy, session.connect() as busy:
            before = resident()
            request = bytes([3, 0]) + bytes(4) + (1600).to_bytes(2, "big") + (1200).to_bytes(2, "big")
            for _ in range(5):
                lazy.socket.sendall(request)
                busy.framebuffer()
            self.assertLess(resident() - before, 16384)  # of 37500 that nobody reads

    def test_client_that_floods_the_x_server(self):
        session = self.session().start()
        with session.connect() as client:
            for _ in range(50):
                client.socket.sendall(b"\x04\x01\x00\x00\x00\x00\x00\x61" * 10000)
            self.assertEqual(client.framebuffer().width, 800)

    def test_resize(self):
        session = self.session().start()
        with session.connect() as client:
            client.resize(1024, 500)
            session.wait_state("the new size",
                               lambda state: (state["ScreenWidth"], state["ScreenHeight"]) == (1024, 500))
        self.assertIn("\nScreen resized to '1024x500'\n", session.read("server_log"))

    def test_foreign_client(self):
        if shutil.which("vncsnapshot") is None:
            self.skipTest("vncsnapshot is not installed")
        session = self.session().start()
        # Passwords in files are scrambled with a key that everybody knows.
        scrambled = rfb.des_encrypt(bytes(int(f"{byte:08b}"[::-1], 2) for byte in (23, 82, 107, 6, 35, 78, 88, 7)),
                                    session.new_password().encode())
        with open(session.path("password"), "wb") as file:
            file.write(scrambled)
        picture = session.path("picture.jpg")
        # What it takes for a display number is the port, counted from the one of display 0.
        subprocess.run(["vncsnapshot", "-allowblank", "-encodings", "raw", "-passwd", session.path("password"),
                        f"127.0.0.1:{session.port - 5900}", picture],
                       check=True, capture_output=True, timeout=zarvo.DEADLINE)
        self.assertGreater(os.path.getsize(picture), 0)
        self.assertIn("Client authenticated from '127.0.0.1'", session.read("server_log"))


class State(AgentTest):
    def test_clients_that_do_not_read(self):
        session = self.session().start()
        with contextlib.ExitStack() as stack:
            for _ in range(100):
                client = stack.enter_context(socket.socket(socket.AF_UNIX))
                client.connect(session.state_socket)
                with contextlib.suppress(BrokenPipeError):
                    client.sendall(b"what is this")
            self.assertEqual(session.state()["Clients"], 0)

    def test_display_is_closed_to_those_without_the_cookie(self):
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


class Applications(AgentTest):
    def test_environment(self):
        session = self.session().start()
        lines = session.run("env").splitlines()
        self.assertIn(f"DISPLAY=:{session.display}", lines)
        self.assertIn(f"XAUTHORITY={session.path('authority')}", lines)
        self.assertIn(f"HOME={session.home}", lines)
        for name in ("DBUS_SESSION_BUS_ADDRESS", "SESSION_MANAGER", "WAYLAND_DISPLAY", "XDG_SESSION_ID"):
            self.assertFalse([line for line in lines if line.startswith(name + "=")], name)
        self.assertEqual(session.run("pwd").strip(), session.home)
        self.assertNotIn(session.run("umask").strip(), ("0077", "077"))
        # The command that lists them has one more, for the listing.
        self.assertEqual(session.run("ls /proc/self/fd").split(), ["0", "1", "2", "3"])
        self.assertEqual(session.run("grep -E 'SigBlk|SigIgn' /proc/self/status | cut -f2").split(), ["0" * 16] * 2)

    def test_command_is_one_line_for_the_shell(self):
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

    def test_half_a_command(self):
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
            self.assertNotEqual(image.pixel(799, 599), tuple(blue))  # a desktop does not stretch windows
            typed = os.path.join(session.home, "typed")

            def type_until_seen():
                client.type("touch typed\n")  # lost while the window does not have the keyboard yet
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
        program = os.path.join(session.home, "openbox")
        zarvo.write(program, f'#!/bin/sh\nsleep 4\nexec {shutil.which("openbox")} "$@"\n')
        os.chmod(program, 0o755)
        begin = time.strftime("%H:%M:%S")
        session.start("rootless", PATH=session.home + ":" + os.environ["PATH"])
        # On a busy machine it may come too late even so; then it has had the time that it has.
        times = {kind: text for text, kind in
                 re.findall(r"(\d\d:\d\d:\d\d): (Info: Started|Warning: )", session.read("server_log"))}
        if "Warning: " in times:
            self.assertTrue(seconds_between(times["Info: Started"], times["Warning: "]) >= 7 or
                            seconds_between(begin, times["Warning: "]) >= 12, (begin, times))

    def test_rootless_without_a_working_window_manager(self):
        for name, script in (("none", None), ("broken", "#!/bin/sh\nexit 1\n")):
            with self.subTest(name):
                session = self.session()
                os.symlink(shutil.which("Xtigervnc"), os.path.join(session.home, "Xtigervnc"))
                # What the X server itself runs when it starts.
                os.symlink(shutil.which("xkbcomp"), os.path.join(session.home, "xkbcomp"))
                if script:
                    zarvo.write(os.path.join(session.home, "openbox"), script)
                    os.chmod(os.path.join(session.home, "openbox"), 0o755)
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


class End(AgentTest):
    def test_nothing_is_left(self):
        session = self.session().start("rootless")
        session.app("xterm")
        # A daemon: its parents are gone, and it is in a session of its own.
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

    def test_application_that_ignores_the_signal(self):
        session = self.session().start()
        session.app("trap '' TERM; touch ready; while :; do sleep 0.1; done")
        zarvo.wait_until(lambda: os.path.exists(os.path.join(session.home, "ready")), "the application")
        session.app("kill -STOP $$")
        begin = time.monotonic()
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)
        self.assertLess(time.monotonic() - begin, 10)

    def test_stopped_x_server(self):
        session = self.session().start()
        os.kill(session.x_server(), signal.SIGSTOP)
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)

    def test_signal_during_start(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(number):
                session = self.session()
                session.launch("800x600", str(session.port))
                zarvo.wait_until(lambda: os.path.exists(session.path("server_pid")), "the pid")
                session.signal(number)
                self.assert_over(session, 0)
                session.close()

    def test_x_server_dies(self):
        session = self.session().start()
        session.app("sleep 1000")
        client = session.connect()
        os.kill(session.x_server(), signal.SIGKILL)
        client.wait_for_close()
        client.close()
        self.assert_over(session, 3)
        self.assertIn("Critical: The X server ended: signal 9", session.read("server_log"))

    def test_lock_of_another_x_server_stays(self):
        session = self.session().start()
        lock, x_socket = f"/tmp/.X{session.display}-lock", f"/tmp/.X11-unix/X{session.display}"
        with open(lock, "r+", encoding="ascii") as file:
            file.write(f"{os.getpid():10}\n")
        os.chmod(lock, 0o644)
        os.kill(session.x_server(), signal.SIGKILL)
        self.assertEqual(session.wait_exit(), 3)
        self.assertEqual([os.path.lexists(path) for path in (lock, x_socket)], [True, True])

    def start_daemons(self, session):
        """Programs that are no children of the agent, and one that does not end when asked to."""
        session.app("xterm")
        session.app("(setsid sh -c 'sleep 1000 & sleep 1000' &) & exit 0")
        session.app("setsid sh -c 'trap \"\" TERM; touch ready; while :; do sleep 0.1; done' & exit 0")
        zarvo.wait_until(lambda: len(session.processes()) >= 8, "all processes")
        zarvo.wait_until(lambda: os.path.exists(os.path.join(session.home, "ready")), "the stubborn program")

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

    def test_killed_with_a_stopped_x_server(self):
        session = self.session().start()
        os.kill(session.x_server(), signal.SIGSTOP)
        session.signal(signal.SIGKILL)
        self.assert_over(session, 4)

    def test_leftovers_of_a_dead_session_are_taken_over(self):
        session = self.session().start()
        agent, x_server = session.pid(), session.x_server()
        for pid in (agent, x_server):
            os.kill(pid, signal.SIGSTOP)  # or the first death would lead to an orderly end
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

    def test_directory_removed_during_start(self):
        session = self.session()
        session.launch("800x600", str(session.port))
        zarvo.wait_until(lambda: os.path.exists(session.path("server_pid")), "the pid")

        def removed():
            shutil.rmtree(session.directory, ignore_errors=True)  # what the agent still writes may come in between
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

    def test_log_that_cannot_be_opened(self):
        session = self.session()
        os.mkdir(session.path("server_log"))
        session.launch("800x600", str(session.port))
        self.assertEqual(session.wait_exit(), 1)
        self.assertEqual(session.read("server_exit"), "1")
        self.assertEqual(session.leftovers(), [])

    def test_two_runs_in_one_directory(self):
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
