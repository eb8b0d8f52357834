# SPDX-License-Identifier: MIT
"""Starts zarvo_server in a home directory of its own and speaks to it as a client does.

    class Example(zarvo.TestCase):
        def test_version(self):
            server = self.server()
            self.assertEqual(server.client().call("Live.GetVersion"), zarvo.VERSION)

Each server has its own HOME, USER, TMPDIR and display numbers, so that any number of tests may run side by side.
ZARVO_BUILD_DIR names the build folder.
"""
import contextlib
import json
import os
import random
import re
import select
import shlex
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
BUILD = os.environ.get("ZARVO_BUILD_DIR", "")
BINARY = os.path.join(BUILD, "bin", "zarvo_server")
LIBEXEC = os.path.join(BUILD, "libexec", "zarvo")
HOST = os.uname().nodename

# How long an event may take before it counts as missing; nothing waits so long when all is well.
DEADLINE = 40

# What a thread makes for itself when it first needs one, and keeps.
THREAD_EVENT = "anon_inode:[eventfd]"

DAY = r"(?:Mon|Tue|Wed|Thu|Fri|Sat|Sun) [1-9]\d? \d\d:\d\d:\d\d"


def wait_until(condition, what, deadline=DEADLINE):
    """Returns the first true value of condition(); fails when there is none in time."""
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"waited {deadline} s for {what}")
        time.sleep(0.01)


def read(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


VERSION = re.search(r"^project\(zarvo_server VERSION (\S+)",
                    read(os.path.join(HERE, "..", "..", "CMakeLists.txt")), re.M).group(1)


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def mode(path):
    return oct(os.lstat(path).st_mode & 0o7777)


def new_id():
    return os.urandom(16).hex()


def alive(pid):
    with contextlib.suppress(OSError):
        with open(f"/proc/{pid}/stat", "rb") as stat:
            return stat.read().rpartition(b")")[2].split()[0] != b"Z"
    return False


def parent(pid):
    """The id of the process's parent."""
    with open(f"/proc/{pid}/stat", "rb") as stat:
        return int(stat.read().rpartition(b")")[2].split()[1])


def compact(value):
    """The JSON text that the server writes for a value."""
    return json.dumps(value, sort_keys=True, separators=(",", ":"), ensure_ascii=False) + "\n"


def frame(payload):
    """One frame; anything but text and bytes is sent as JSON."""
    if not isinstance(payload, (str, bytes)):
        payload = json.dumps(payload)
    data = payload.encode() if isinstance(payload, str) else payload
    return b"%d:%s," % (len(data), data)


def make_certificate(folder, *options, name="server"):
    """A self-signed pair as the server makes it; returns the paths of certificate and key."""
    certificate, key = os.path.join(folder, name + "_cert"), os.path.join(folder, name + "_key")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", certificate,
                    "-days", "365", "-batch", *options], check=True, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120)
    return certificate, key


class Displays:
    """A range of display numbers that no other test uses, also not one of another process or user."""

    def __init__(self, count):
        # From 20000 on both ports of a display lie outside the range from which the system takes outgoing ports. The
        # first thousand are for the unit tests, whose sockets would be cleared away with ours.
        bases = list(range(21000, 24480 - count, 20))
        random.shuffle(bases)
        self.locks = []
        for base in bases:
            if self.take(base, count):
                self.base, self.count = base, count
                return
        raise AssertionError("no free range of display numbers")

    def take(self, base, count):
        self.locks = []
        try:
            for block in range(base, base + count, 20):
                lock = socket.socket(socket.AF_UNIX)
                self.locks.append(lock)
                lock.bind(f"\0zarvo-test-displays-{block}")  # the kernel drops it with this process
            for number in range(base, base + count):
                for port in (6000 + number, 41000 + number):
                    with socket.socket() as probe:
                        probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                        probe.bind(("127.0.0.1", port))
                if any(map(os.path.lexists, (f"/tmp/.X{number}-lock", f"/tmp/.X11-unix/X{number}",
                                             f"/tmp/Xrdp_{number}.sock"))):
                    raise OSError
        except OSError:
            self.close()
            return False
        return True

    def close(self):
        for lock in self.locks:
            lock.close()


class Launch:
    """One start of the server under a keeper: what it printed, and how it and its children ended."""

    def __init__(self, environment, stdin="/dev/null", descriptors=()):
        report, report_out = os.pipe()
        stdout, stdout_out = os.pipe()
        stderr, stderr_out = os.pipe()
        self.keeper = subprocess.Popen(
            [sys.executable, "-ISB", os.path.join(HERE, "keeper.py"), str(report_out), stdin, BINARY],
            stdin=subprocess.PIPE, stdout=stdout_out, stderr=stderr_out, pass_fds=(report_out, *descriptors),
            env=environment)
        for descriptor in (report_out, stdout_out, stderr_out):
            os.close(descriptor)
        os.set_blocking(report, False)
        self.report, self.report_text = report, b""
        self.exits = {}
        self.parent = None
        try:
            self.stdout, self.stderr = self.drain(stdout, stderr)
            self.status = self.wait_exit(self.parent_pid())
        except BaseException:
            self.close()
            raise

    @staticmethod
    def drain(*descriptors):
        """Reads all of them to their end: the caller of a daemon waits for that."""
        texts = {descriptor: b"" for descriptor in descriptors}
        left = set(descriptors)
        end = time.monotonic() + DEADLINE
        try:
            while left:
                ready = select.select(left, [], [], max(0, end - time.monotonic()))[0]
                if not ready:
                    raise AssertionError(f"the server did not let go of its caller; printed so far: {texts}")
                for descriptor in ready:
                    data = os.read(descriptor, 65536)
                    texts[descriptor] += data
                    if not data:
                        left.remove(descriptor)
        finally:
            for descriptor in descriptors:
                os.close(descriptor)
        return [texts[descriptor].decode() for descriptor in descriptors]

    def poll(self):
        with contextlib.suppress(BlockingIOError):
            while data := os.read(self.report, 65536):
                self.report_text += data
        *lines, self.report_text = self.report_text.split(b"\n")
        for line in lines:
            first, second = line.split()
            if first == b"started":
                self.parent = int(second)
            else:
                self.exits[int(first)] = int(second)

    def parent_pid(self):
        def known():
            self.poll()
            return self.parent
        return wait_until(known, "the start of the server")

    def wait_exit(self, pid, deadline=DEADLINE):
        """The exit status of the process; negative for a signal."""
        def ended():
            self.poll()
            return pid in self.exits
        wait_until(ended, f"the end of process {pid}", deadline)
        return self.exits[pid]

    def wait_daemon_exit(self, deadline=DEADLINE):
        """The same for the daemon of a start that failed, whose pid nobody tells."""
        def others():
            self.poll()
            return [status for pid, status in self.exits.items() if pid != self.parent]
        statuses = wait_until(others, "the end of the daemon", deadline)
        if len(statuses) != 1:
            raise AssertionError(f"more than the daemon ended: {self.exits}")
        return statuses[0]

    def close(self):
        """Kills whatever is left of this start."""
        if self.keeper.stdin.closed:
            return
        self.keeper.stdin.close()
        self.keeper.wait(DEADLINE)
        os.close(self.report)


class Server:
    """A server's surroundings, and the server once start() was called.

    settings      entries of the settings file besides those that keep it apart from other tests; None leaves one out
    certificate   False: none is there, so that the server makes its own
    environment   added to the server's environment; None removes a variable
    programs      names of the only programs on its search path besides the fake agent's; default: everything
    agent         False: the search path holds no fake agent
    """

    pair = pair_folder = None  # made once per process: making a key takes its time

    def __init__(self, settings=None, certificate=True, environment=None, programs=None, agent=True, displays=20):
        if not os.access(BINARY, os.X_OK):
            raise AssertionError(f"no server at '{BINARY}': ZARVO_BUILD_DIR has to name the build folder")
        # Short, for the sake of local sockets, and the same place for every user.
        self.top = os.path.realpath(tempfile.mkdtemp(prefix="zarvo-", dir="/tmp"))
        self.displays = Displays(displays)
        self.home = os.path.join(self.top, "home")
        self.temp = os.path.join(self.top, "tmp")
        self.bin = os.path.join(self.top, "bin")
        self.records = os.path.join(self.top, "records")
        self.reports = os.path.join(self.top, "reports")
        self.user = "u" + os.urandom(6).hex()
        self.path = os.path.join(self.home, ".zarvo_server", HOST)
        self.certificate = os.path.join(self.home, ".zarvo_server", "server_cert")
        self.key = os.path.join(self.home, ".zarvo_server", "server_key")
        self.launches, self.clients = [], []
        self.pid = self.port = None
        for folder in (self.path, self.temp, self.bin, self.records, self.reports):
            os.makedirs(folder)
        os.chmod(self.temp, 0o1777)
        self.settings = {"DisplayBase": self.displays.base, "DisplayLimit": displays, "LogLevel": "Debug3"}
        self.settings.update(settings or {})
        self.write_settings()
        if certificate:
            self.install_certificate()
        if agent:
            self.install_agent()
        self.environment = self.make_environment(programs)
        for name, value in (environment or {}).items():
            self.environment[name] = value
        self.environment = {name: value for name, value in self.environment.items() if value is not None}

    # Surroundings

    def write_settings(self):
        folder = os.path.join(self.home, ".config", "Halvorn Media")
        os.makedirs(folder, exist_ok=True)
        lines = ["[General]"]
        for key, value in self.settings.items():
            if value is not None:
                text = str(value).replace("\\", "\\\\").replace('"', '\\"')
                lines.append(f'{key}="{text}"')
        write(os.path.join(folder, "Zarvo Server.conf"), "\n".join(lines) + "\n")

    def install_certificate(self):
        if Server.pair is None:
            Server.pair_folder = tempfile.TemporaryDirectory(prefix="zarvo-pair-")  # removed with the process
            Server.pair = make_certificate(Server.pair_folder.name)
        shutil.copy(Server.pair[0], self.certificate)
        shutil.copy(Server.pair[1], self.key)

    def install_program(self, name, script):
        path = os.path.join(self.bin, name)
        write(path, "#!/bin/sh\n" + script)
        os.chmod(path, 0o755)

    def install_agent(self):
        python, agent, records = map(shlex.quote, (sys.executable, os.path.join(HERE, "fake_agent.py"), self.records))
        self.install_program("start-agent", f'exec {python} -ISB {agent} {records} "$@"\n')
        # "app-SESSION" holds the number of arguments, the working directory and the arguments.
        self.install_program("start-app", f'seen={records}/app-"${{PWD##*/}}"\n'
                             '{ echo "$#"; pwd; printf "%s\\n" "$@"; } > "$seen~" && mv "$seen~" "$seen"\n')

    def make_environment(self, programs):
        search = os.environ.get("PATH", os.defpath)
        if programs is not None:
            only = os.path.join(self.top, "only")
            os.mkdir(only)
            for name in programs:
                os.symlink(shutil.which(name), os.path.join(only, name))
            search = only
        environment = {"HOME": self.home, "USER": self.user, "LOGNAME": self.user, "TMPDIR": self.temp,
                       "LANG": "C.UTF-8", "PATH": f"{self.bin}:{search}"}
        for name in ("LD_LIBRARY_PATH", "TZ"):
            if name in os.environ:
                environment[name] = os.environ[name]
        # A daemon has no terminal to print a sanitizer's report on; close() looks for the files.
        for name in ("ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"):
            own = f"log_path={self.reports}/report:quarantine_size_mb=16" if name == "ASAN_OPTIONS" \
                else f"log_path={self.reports}/report"
            environment[name] = ":".join(filter(None, [os.environ.get(name), own]))
        return environment

    def agent(self, session_id=None, **options):
        """How agents started from now on behave (see fake_agent.py): those of one session, or all others."""
        name = "agent.conf" if session_id is None else f"agent-C-{session_id}.conf"
        write(os.path.join(self.records, name), "".join(f"{key}={value}\n" for key, value in options.items()))

    def release(self, session_id):
        """Lets an agent that was told to hold be ready; its start is over soon then, and not before."""
        write(os.path.join(self.records, "go-C-" + session_id), "")

    # Start and end

    def start(self, check=True, **how):
        launch = Launch(self.environment, **how)
        self.launches.append(launch)
        if check:
            if launch.stderr or launch.stdout or launch.status != 0:
                raise AssertionError(f"the start failed with status {launch.status}: {launch.stdout}{launch.stderr}")
            self.pid = int(read(self.pid_file))
            self.port = int(read(self.port_file))
        return launch

    def stop(self, number=signal.SIGTERM, deadline=DEADLINE):
        """Ends the server and returns its exit status; negative for a signal."""
        os.kill(self.pid, number)
        return self.wait_exit(deadline)

    def wait_exit(self, deadline=DEADLINE):
        status = self.launches[-1].wait_exit(self.pid, deadline)
        self.pid = None
        return status

    def close(self):
        """Kills the server and everything that it started, removes all files; a sanitizer's report is a failure."""
        complaints = ""
        try:
            for client in self.clients:
                client.close()
            if self.pid is not None and alive(self.pid):
                with contextlib.suppress(AssertionError, ProcessLookupError):
                    status = self.stop(deadline=DEADLINE)
                    complaints = f"the server ended with status {status}\n" if status != 0 else ""
        finally:
            for launch in self.launches:
                launch.close()
            for name in os.listdir(self.reports):
                complaints += read(os.path.join(self.reports, name))
            for number in range(self.displays.base, self.displays.base + self.displays.count):
                for path in (f"/tmp/Xrdp_{number}.sock", f"/tmp/.X{number}-lock"):
                    with contextlib.suppress(OSError):
                        os.unlink(path)
            self.displays.close()
            shutil.rmtree(self.top, ignore_errors=True)
        if complaints:
            raise AssertionError(complaints)

    # What it shows

    @property
    def log_file(self):
        return os.path.join(self.path, "server_log")

    @property
    def pid_file(self):
        return os.path.join(self.path, "server_pid")

    @property
    def port_file(self):
        return os.path.join(self.path, "server_port")

    @property
    def sessions(self):
        return os.path.join(self.path, "sessions")

    def directory(self, session_id):
        return os.path.join(self.sessions, "C-" + session_id)

    def log(self):
        """Its whole lines: the last one may be just being written."""
        text = read(self.log_file) if os.path.exists(self.log_file) else ""
        return text[:text.rfind("\n") + 1]

    def logged(self, level, text):
        """How many lines of the log are exactly this one."""
        pattern = re.compile(rf"{DAY}: {level}: {re.escape(text)}")
        return sum(pattern.fullmatch(line) is not None for line in self.log().split("\n"))

    def wait_log(self, level, text, count=1, deadline=DEADLINE):
        wait_until(lambda: self.logged(level, text) >= count, f"the line \"{level}: {text}\" in the log", deadline)

    def seen(self, session_id, name):
        """What the fake agent of a session recorded under a name; waits for it."""
        path = os.path.join(self.records, "C-" + session_id, name)
        wait_until(lambda: os.path.exists(path), f"{name} of the agent")
        return read(path)

    def app_seen(self, session_id):
        path = os.path.join(self.records, "app-C-" + session_id)
        wait_until(lambda: os.path.exists(path), "the start of the application")
        return read(path)

    def children(self):
        """State letter by pid of the server's own children."""
        found = {}
        for entry in os.listdir("/proc"):
            if entry.isdigit():
                with contextlib.suppress(OSError):
                    with open(f"/proc/{entry}/stat", "rb") as stat:
                        fields = stat.read().rpartition(b")")[2].split()
                    if int(fields[1]) == self.pid:
                        found[int(entry)] = fields[0].decode()
        return found

    def descriptors(self):
        """What the server has open, by descriptor."""
        found = {}
        for entry in os.listdir(f"/proc/{self.pid}/fd"):
            with contextlib.suppress(OSError):
                found[int(entry)] = os.readlink(f"/proc/{self.pid}/fd/{entry}")
        return found

    def held(self):
        """
        The same without what belongs to its threads: each makes an event for itself when it first needs one, which for
        some of them is long after the start, and keeps it.
        """
        return [target for target in self.descriptors().values() if target != THREAD_EVENT]

    def memory(self, field):
        return int(re.search(rf"{field}:\s+(\d+) kB", read(f"/proc/{self.pid}/status")).group(1)) * 1024

    def resident(self):
        """Memory in bytes."""
        return self.memory("VmRSS")

    def peak(self):
        """The most that it was."""
        return self.memory("VmHWM")

    def instrumentation(self):
        """What a sanitizer's bookkeeping may add to the growth, in bytes. It shows by the address space that it sets aside."""
        return 80 << 20 if self.memory("VmSize") > 1 << 40 else 0

    # Clients

    def client(self, **how):
        client = Client(self.port, **{"certificate": self.certificate, "key": self.key, **how})
        self.clients.append(client)
        return client

    def viewer(self, port, password):
        """Connects to a fake agent as a session's client does; returns the connection, or None when refused."""
        connection = socket.create_connection(("127.0.0.1", port), DEADLINE)
        self.clients.append(connection)
        connection.sendall(password.encode() + b"\n")
        if connection.recv(16) == b"ok\n":
            return connection
        connection.close()
        return None


class RpcError(Exception):
    def __init__(self, error):
        super().__init__(error)
        self.error = error


class Client:
    """A TLS connection. Notifications that arrive between answers are kept in a list, in their order."""

    def __init__(self, port, certificate=None, key=None, version=None, session=None, context=None, timeout=DEADLINE):
        self.context = context or client_context(certificate, key, version)
        self.buffer = b""
        self.notifications = []
        self.next_id = 1
        raw = socket.create_connection(("127.0.0.1", port), timeout)
        try:
            raw.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self.local_port = raw.getsockname()[1]
            self.socket = self.context.wrap_socket(raw, session=session)
        except BaseException:
            raw.close()
            raise

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send_raw(self, data):
        self.socket.sendall(data)

    def send(self, payload):
        self.send_raw(frame(payload))

    def frame(self):
        """The payload of the next frame; EOFError when the server closes the connection."""
        while True:
            head, colon, rest = self.buffer.partition(b":")
            if colon:
                length = int(head)
                if len(rest) > length:
                    if rest[length:length + 1] != b",":
                        raise AssertionError(f"no comma behind a frame of the server: {rest[:200]}")
                    self.buffer = rest[length + 1:]
                    return rest[:length]
            try:
                data = self.socket.recv(65536)
            except (ssl.SSLEOFError, ConnectionResetError):
                data = b""
            if not data:
                raise EOFError(f"closed by the server; left over: {self.buffer[:200]}")
            self.buffer += data

    def answer_bytes(self):
        """The payload of the next frame that is no notification, as bytes."""
        while True:
            payload = self.frame()
            message = json.loads(payload)
            if isinstance(message, list) or "method" not in message:
                return payload
            self.notifications.append(message)

    def answer(self):
        return json.loads(self.answer_bytes())

    def request(self, payload):
        """Sends one payload as it is and returns the next answer."""
        self.send(payload)
        return self.answer()

    def call(self, method, params=None):
        """The result of a method; RpcError when it fails."""
        return self.finish(self.begin(method, params))

    def begin(self, method, params=None):
        """Sends the request only; finish() takes the answer."""
        request = {"id": self.next_id, "jsonrpc": "2.0", "method": method}
        if params is not None:
            request["params"] = params
        self.next_id += 1
        self.send(request)
        return request["id"]

    def finish(self, request_id):
        answer = self.answer()
        if answer.get("id") != request_id or answer.get("jsonrpc") != "2.0":
            raise AssertionError(f"an answer to request {request_id} was due: {answer}")
        if "error" in answer:
            raise RpcError(answer["error"])
        return answer["result"]

    def listing(self, method="Live.ListLocalSessions"):
        """The answer of a listing; asked for again when it fails because a session went while it was waited for."""
        while True:
            try:
                return self.call(method)
            except RpcError as error:
                if error.error["code"] != -32094:
                    raise

    def local_sessions(self):
        return self.listing() or []

    def notification(self):
        """The next notification; to be used when no answer is due."""
        if not self.notifications:
            self.notifications.append(json.loads(self.frame()))
        return self.notifications.pop(0)

    def wait_notification(self, condition, what):
        """Takes notifications until one has params for which the condition holds; returns these params."""
        end = time.monotonic() + DEADLINE
        while time.monotonic() < end:
            params = self.notification()["params"]
            if condition(params):
                return params
        raise AssertionError(f"waited for a notification: {what}")

    def wait_closed(self):
        """Reads up to the end of the connection and returns all bytes that came before it."""
        received, self.buffer = self.buffer, b""
        while True:
            try:
                data = self.socket.recv(65536)
            except (ssl.SSLEOFError, ssl.SSLZeroReturnError, ConnectionResetError, BrokenPipeError):
                data = b""
            if not data:
                return received
            received += data


def client_context(certificate=None, key=None, version=None):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    if certificate:
        context.load_cert_chain(certificate, key)
    if version:
        context.minimum_version = context.maximum_version = version
    return context


class TestCase(unittest.TestCase):
    maxDiff = None

    def prepare(self, *arguments, **how):
        """A server that is not started yet; everything of it is gone after the test."""
        server = Server(*arguments, **how)
        self.addCleanup(server.close)
        return server

    def server(self, *arguments, **how):
        server = self.prepare(*arguments, **how)
        server.start()
        return server

    def assert_fails(self, code, message, function, *arguments):
        """The call fails with exactly this error object."""
        with self.assertRaises(RpcError) as caught:
            function(*arguments)
        self.assertEqual(caught.exception.error, {"code": code, "message": message})

    def assert_serves(self, server):
        with server.client() as client:
            self.assertEqual(client.call("Live.GetVersion"), VERSION)


class SharedServer(TestCase):
    """Tests that share one running server, for those that leave nothing behind in it."""

    settings = None

    @classmethod
    def setUpClass(cls):
        cls.shared = Server(cls.settings)
        cls.addClassCleanup(cls.shared.close)
        cls.shared.start()

    def setUp(self):
        self.client = self.shared.client()
        self.addCleanup(self.client.close)
