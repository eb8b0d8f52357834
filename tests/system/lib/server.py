# SPDX-License-Identifier: MIT
"""A server in a home directory of its own."""
import contextlib
import glob
import hashlib
import os
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile

from basics import BINARY, DAY, DEADLINE, HERE, HOST, alive, need_inspection, read, wait_until, write
from client import Client
from displays import Displays
from launch import Launch

# A thread opens one of these when it first needs it, and keeps it.
THREAD_EVENT = "anon_inode:[eventfd]"


def make_certificate(folder, *options, name="server"):
    """Makes a self-signed pair as the server does. Returns the paths of certificate and key."""
    certificate, key = os.path.join(folder, name + "_cert"), os.path.join(folder, name + "_key")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", certificate,
                    "-days", "365", "-batch", *options], check=True, stdin=subprocess.DEVNULL,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120)
    return certificate, key


class Server:
    """A server's surroundings, and from start() on the server.

    settings      entries of the settings file, beside those that isolate it from other tests; None leaves one out
    certificate   False: there is none, so the server makes its own
    environment   added to the server's environment; None removes a variable
    programs      names of the only programs on its search path besides the fake agent's; default: everything
    agent         False: the search path holds no fake agent
    account       the user (accounts.Account) whose server it is; default: the one who runs the test
    """

    pair = pair_folder = None  # made once per process, because making a key is slow

    def __init__(self, settings=None, certificate=True, environment=None, programs=None, agent=True, displays=20,
                 account=None):
        if not os.access(BINARY, os.X_OK):
            raise AssertionError(f"no server at '{BINARY}': ZARVO_BUILD_DIR has to name the build folder")
        # A short path, because that of a local socket is limited, and the same for every user.
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
        self.account = account
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
        python, agent, records = map(shlex.quote, (self.python(), os.path.join(self.library(), "fake_agent.py"),
                                                        self.records))
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
        # A daemon has no standard error for a sanitizer's report, so it goes to a file, which close() reads.
        for name in ("ASAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"):
            own = f"log_path={self.reports}/report:quarantine_size_mb=16" if name == "ASAN_OPTIONS" \
                else f"log_path={self.reports}/report"
            environment[name] = ":".join(filter(None, [os.environ.get(name), own]))
        return environment

    def agent(self, session_id=None, **options):
        """Sets how agents behave that start from now on (see fake_agent.py): those of one session, or all others."""
        name = "agent.conf" if session_id is None else f"agent-C-{session_id}.conf"
        write(os.path.join(self.records, name), "".join(f"{key}={value}\n" for key, value in options.items()))

    def release(self, session_id):
        """Lets an agent with ready=hold become ready, so that its start ends."""
        write(os.path.join(self.records, "go-C-" + session_id), "")

    # Start and end

    def start(self, check=True, **how):
        if self.account:
            how.update(self.hand_over())
        launch = Launch(self.environment, **how)
        self.launches.append(launch)
        if check:
            if launch.stderr or launch.stdout or launch.status != 0:
                raise AssertionError(f"the start failed with status {launch.status}: {launch.stdout}{launch.stderr}")
            self.pid = int(read(self.pid_file))
            self.port = int(read(self.port_file))
        return launch

    def library(self):
        """Where the account can read the modules of this folder."""
        import accounts  # not above, because it needs this module
        return os.path.join(accounts.published(), "lib") if self.account else HERE

    def python(self):
        import accounts
        return accounts.python() if self.account else sys.executable

    def hand_over(self):
        """Gives all files to the account. Returns what makes a Launch its own."""
        import accounts
        self.account.own(self.top)
        # Others may go through it, because the programs below it are not secret. A home directory is private.
        os.chmod(self.top, 0o755)
        return {"account": self.account, "binary": accounts.program(BINARY), "library": self.library(),
                "python": self.python()}

    def stop(self, number=signal.SIGTERM, deadline=DEADLINE):
        """Ends the server and returns its exit status; negative for a signal."""
        os.kill(self.pid, number)
        return self.wait_exit(deadline)

    def wait_exit(self, deadline=DEADLINE):
        status = self.launches[-1].wait_exit(self.pid, deadline)
        self.pid = None
        return status

    def close(self):
        """Ends the server and all that it started, and removes all files. Fails if there is a sanitizer's report."""
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
                for path in (f"/tmp/Xrdp_{number}.sock", f"/tmp/.X{number}-lock", f"/tmp/.X11-unix/X{number}"):
                    with contextlib.suppress(OSError):
                        os.unlink(path)
            self.displays.close()
            self.remove_locks()
            shutil.rmtree(self.top, ignore_errors=True)
        if complaints:
            raise AssertionError(complaints)

    def remove_locks(self):
        """Removes the files of the single instance's lock that others share. A killed server leaves them."""
        digest = hashlib.sha256(f"zarvo_server-{self.user}".encode()).hexdigest()[:16]
        for path in glob.glob(f"/tmp/zarvo-{digest}-*.lock") + glob.glob(f"/run/user/*/zarvo-{digest}-*.lock"):
            with contextlib.suppress(OSError):
                os.unlink(path)

    # What can be seen of it

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
        """The whole lines of the log. The server may be writing the last one just now."""
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
        need_inspection()
        found = {}
        for entry in os.listdir(f"/proc/{self.pid}/fd"):
            with contextlib.suppress(OSError):
                found[int(entry)] = os.readlink(f"/proc/{self.pid}/fd/{entry}")
        return found

    def held(self):
        """The same without the events of threads: some threads open theirs long after the start."""
        return [target for target in self.descriptors().values() if target != THREAD_EVENT]

    def memory(self, field):
        return int(re.search(rf"{field}:\s+(\d+) kB", read(f"/proc/{self.pid}/status")).group(1)) * 1024

    def resident(self):
        """Memory in bytes."""
        return self.memory("VmRSS")

    def peak(self):
        """The highest resident memory so far, in bytes."""
        return self.memory("VmHWM")

    def instrumentation(self):
        """The bytes that a sanitizer may add to the growth. Its huge address space shows that there is one."""
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
