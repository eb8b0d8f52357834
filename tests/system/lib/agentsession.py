# SPDX-License-Identifier: MIT
"""Starts the agent in a session directory, as the server does, for tests of the agent by itself."""
import contextlib
import ctypes
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import unittest

import accounts
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


def become_subreaper():
    """Makes this process the parent of orphans, and so the one that reaps them.

    An orphan that nobody reaps keeps its pid, and with that its display. Not every machine has an init that reaps.
    """
    pr_set_child_subreaper = 36
    if ctypes.CDLL(None).prctl(pr_set_child_subreaper, 1, 0, 0, 0) != 0:
        raise unittest.SkipTest("cannot adopt orphans")


class AgentSession:
    """A session directory with an agent that may be running in it."""

    def __init__(self, display, account=None):
        self.display = display
        self.account = account
        self.port = 41000 + display
        self.directory = tempfile.mkdtemp(prefix="zarvo-agent-")
        self.home = os.path.join(self.directory, "home")
        os.mkdir(self.home)
        # Every process of the session inherits this, wherever it ends up in the process tree.
        self.mark = "ZARVO_TEST_SESSION=" + self.directory
        self.process = None
        self.write("display", str(display))
        self.write("name", "a name of three words and more")
        self.make_authority()
        if account:
            account.own(self.directory)

    def path(self, name):
        return os.path.join(self.directory, name)

    def read(self, name):
        return zarvo.read(self.path(name))

    def write(self, name, text):
        zarvo.write(self.path(name), text)
        if self.account:
            self.account.own(self.path(name))

    def install(self, name, script):
        """Puts a program into the session's home, for a search path that names it."""
        program = os.path.join(self.home, name)
        zarvo.write(program, script)
        os.chmod(program, 0o755)

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
        program, identity = START_AGENT, {}
        if self.account:
            program, identity = accounts.program(START_AGENT), self.account.identity()
        self.process = subprocess.Popen([program, *arguments], cwd=self.directory, preexec_fn=preexec,
                                        env=self.environment(**changes), stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **identity)
        self.write("monitor_pid", str(self.process.pid))  # as the server does: without it the agent ends itself

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
        program, identity = START_APP, {}
        if self.account:
            program, identity = accounts.program(START_APP), self.account.identity()
        return subprocess.run([program, *arguments], cwd=self.directory, capture_output=True, text=True,
                              timeout=zarvo.DEADLINE, check=False, **identity)

    def run(self, command):
        """Runs a command line in the session until it ends, and returns its output."""
        self.write("app_log", "")
        if self.account:
            self.account.own(self.path("app_log"))
        done = self.path("done")
        result = self.app(f"({command}); : > {done}")
        assert result.returncode == 0, result.stderr
        zarvo.wait_until(lambda: os.path.exists(done), command)
        os.unlink(done)
        return self.read("app_log")

    def processes(self):
        """The pids of all live processes of the session, including the agent."""
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
        """The pid of the X server."""
        for pid in self.processes():
            with contextlib.suppress(OSError):  # a process may end meanwhile
                if os.path.basename(os.readlink(f"/proc/{pid}/exe")) == "Xtigervnc":
                    return pid
        raise AssertionError("there is no X server")

    def leftovers(self):
        """The files and processes of the session that are left. There must be none when it is over."""
        display = self.display
        paths = [self.state_socket, f"/tmp/.X{display}-lock", f"/tmp/.X11-unix/X{display}",
                 self.path(f"rfb-{display}.sock"), self.path(f"app-{display}.sock"), self.path("openbox.xml")]
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


class AgentTestCase(unittest.TestCase):
    """Tests that start agents, each on a display of its own."""

    @classmethod
    def setUpClass(cls):
        become_subreaper()
        cls.displays = zarvo.Displays(20)
        cls.addClassCleanup(cls.displays.close)
        cls.next_display = 0

    def session(self, account=None):
        number = self.displays.base + self.next_display % self.displays.count
        type(self).next_display += 1
        session = AgentSession(number, account)
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
        """The agent ends with the code, and one Critical line gives the reason."""
        self.assertEqual(session.wait_exit(), code)
        self.assertEqual(session.read("server_exit"), str(code))
        lines = [line for line in session.read("server_log").splitlines() if ": Critical: " in line]
        self.assertEqual(len(lines), 1, lines)
        self.assertIn(message, lines[0])
        self.assert_log_is_sound(session)
