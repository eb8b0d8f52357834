# SPDX-License-Identifier: MIT
"""A scripted agent. It behaves as a real one does, or breaks the contract as a test asks.

usage: fake_agent.py RECORDS GEOMETRY PORT, started by the server in a session directory

RECORDS is a folder outside the session directory. RECORDS/agent-SESSION.conf, else RECORDS/agent.conf, holds
"key=value" lines (SESSION is the name of the session directory):
    state=socket|log        serve the state on /tmp/Xrdp_N.sock, or write it to server_log
    ready=no                never report that the session started
    ready=hold              not before RECORDS/go-SESSION exists
    ready_delay=SECONDS     report it that much later
    exit_at_once=CODE       end before anything is reported
    exit_file=no            end without server_exit
    pid_file=no             write no server_pid
    listen=no               do not listen on PORT
    viewer=yes              listen on viewer-N.sock for the user's own viewers
    password=no             offer none on SIGUSR1
    disconnect=no           keep the clients on SIGUSR2
    terminate=no            ignore SIGTERM
    exit_code=CODE          end with it on SIGTERM
    die_on=USR1|USR2        end by SIGKILL when this signal arrives
    socket=hang|garbage     never answer on the socket, or answer with text that is no JSON
If RECORDS/SESSION/reply exists, it is sent instead of the state. If RECORDS/SESSION/die exists, the agent ends by
SIGKILL at the next signal.

It writes what it sees to RECORDS/SESSION/: argv, cwd, environ, fds, status, umask, sid, and a line in "signals" for
each signal. A viewer at viewer-N.sock is greeted with "RFB 003.008" and gets back all that it sends. A client of PORT
sends one password and a line feed, and gets "ok". Both count as connected until they leave.
"""
import json
import os
import select
import signal
import socket
import sys
import threading
import time

RECORDS, GEOMETRY, PORT = sys.argv[1], sys.argv[2], sys.argv[3]
SESSION = os.path.basename(os.getcwd())
SEEN = os.path.join(RECORDS, SESSION)
with open("display", encoding="ascii") as display:
    DISPLAY = int(display.read())
SOCKET_PATH = f"/tmp/Xrdp_{DISPLAY}.sock"
VIEWER_NAME = f"viewer-{DISPLAY}.sock"


def read_options():
    for name in (f"agent-{SESSION}.conf", "agent.conf"):
        try:
            with open(os.path.join(RECORDS, name), encoding="utf-8") as lines:
                return dict(line.rstrip("\n").split("=", 1) for line in lines)
        except FileNotFoundError:
            pass
    return {}


def write(path, text):
    """Writes all or nothing, because a test may read the file at any moment."""
    with open(path + "~", "w", encoding="utf-8", errors="surrogateescape") as file:
        file.write(text)
    os.rename(path + "~", path)


def record_surroundings():
    descriptors = []
    for entry in sorted(os.listdir("/proc/self/fd"), key=int):
        try:
            descriptors.append(f"{entry} {os.readlink('/proc/self/fd/' + entry)}")
        except FileNotFoundError:
            pass  # the descriptor that the listing itself needed
    with open("/proc/self/status", encoding="ascii", errors="replace") as status:
        write(os.path.join(SEEN, "status"), status.read())
    umask = os.umask(0)
    os.umask(umask)
    write(os.path.join(SEEN, "umask"), f"{umask:o}")
    write(os.path.join(SEEN, "fds"), "\n".join(descriptors))
    write(os.path.join(SEEN, "cwd"), os.getcwd())
    write(os.path.join(SEEN, "environ"), "\n".join(f"{key}={value}" for key, value in os.environ.items()))
    write(os.path.join(SEEN, "sid"), f"{os.getsid(0)} {os.getpid()}")
    write(os.path.join(SEEN, "argv"), json.dumps(sys.argv[2:]))


class Agent:
    def __init__(self, options):
        self.options = options
        self.passwords = []
        self.clients = {}
        self.viewers = set()
        self.state = {}
        self.last_stamp = 0
        self.poll = select.poll()
        self.listeners = {}
        self.held = []

    def allows(self, key):
        return self.options.get(key) != "no"

    def log(self, line):
        if self.options.get("state") == "log":
            with open("server_log", "a", encoding="utf-8") as file:
                file.write(line + "\n")

    def stamp(self):
        """Waits for a new second: times have whole seconds, and two events must not look like one."""
        self.last_stamp = max(int(time.time()), self.last_stamp + 1)
        return time.strftime("%Y-%m-%dT%H:%M:%S", time.localtime(self.last_stamp))

    def listen(self):
        if self.options.get("state") != "log":
            server = socket.socket(socket.AF_UNIX)
            server.bind(SOCKET_PATH)
            self.add(server, self.answer)
        if self.options.get("viewer") == "yes":
            server = socket.socket(socket.AF_UNIX)
            server.bind(VIEWER_NAME)
            self.add(server, self.show)
        if self.allows("listen"):
            server = socket.socket()
            server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            server.bind(("127.0.0.1", int(PORT)))
            self.add(server, self.admit)

    def add(self, server, handler):
        server.listen(64)
        self.listeners[server.fileno()] = (server, handler)
        self.poll.register(server, select.POLLIN)

    def answer(self, connection):
        kind = self.options.get("socket")
        if kind == "hang":
            self.held.append(connection)
            return
        try:
            with open(os.path.join(SEEN, "reply"), "rb") as file:
                reply = file.read()
        except FileNotFoundError:
            state = dict(self.state, Clients=len(self.clients) + len(self.viewers), Passwords=self.passwords)
            reply = b"\xff{]garbage" if kind == "garbage" else json.dumps(state).encode()
        try:
            connection.sendall(reply)
        except OSError:
            pass
        connection.close()

    def show(self, connection):
        threading.Thread(target=self.echo, args=(connection,), daemon=True).start()

    def echo(self, connection):
        try:
            connection.sendall(b"RFB 003.008\n")
            data = connection.recv(65536)
            if data:
                self.viewers.add(connection)
                self.state["LastConnect"] = self.stamp()
            while data:
                connection.sendall(data)
                data = connection.recv(65536)
        except OSError:
            pass
        if connection in self.viewers:
            self.viewers.discard(connection)
            self.state["LastDisconnect"] = self.stamp()
        connection.close()

    def admit(self, connection):
        connection.settimeout(5)
        try:
            password = connection.makefile("r", encoding="utf-8").readline().strip()
            if password not in self.passwords:
                connection.close()
                return
            self.passwords.remove(password)
            self.clients[connection.fileno()] = connection
            self.poll.register(connection, select.POLLIN)
            self.state["LastConnect"] = self.stamp()
            self.log(f"Client authenticated from '127.0.0.1' at '{self.state['LastConnect']}' "
                     f"with password '{password}'")
            connection.sendall(b"ok\n")
        except OSError:
            connection.close()

    def drop(self, descriptor):
        self.poll.unregister(descriptor)
        self.clients.pop(descriptor).close()
        self.state["LastDisconnect"] = self.stamp()
        self.log(f"Client disconnected from '127.0.0.1' at '{self.state['LastDisconnect']}'")

    def ready(self):
        width, _, height = GEOMETRY.partition("x")
        if not (width.isdigit() and height.isdigit()):
            width, height = 1024, 768
        self.state.update(Started=self.stamp(), ScreenWidth=int(width), ScreenHeight=int(height))
        self.log(f"RDP initialized at '{self.state['Started']}'")
        self.log(f"Screen resized to '{width}x{height}'")

    def may_be_ready(self):
        return self.options.get("ready") != "hold" or os.path.exists(os.path.join(RECORDS, "go-" + SESSION))

    def end(self, code):
        if self.options.get("state") != "log":
            try:
                os.unlink(SOCKET_PATH)
            except FileNotFoundError:
                pass
        if self.allows("exit_file"):
            write("server_exit", str(code))
        os._exit(code)

    def handle(self, name):
        with open(os.path.join(SEEN, "signals"), "a", encoding="ascii") as file:
            file.write(name + "\n")
        if self.options.get("die_on") == name or os.path.exists(os.path.join(SEEN, "die")):
            os.kill(os.getpid(), signal.SIGKILL)
        if name == "USR1" and self.allows("password"):
            self.passwords.append(os.urandom(4).hex())
            self.log(f"Added new password {self.passwords[-1]}")
        elif name == "USR2" and self.allows("disconnect"):
            for descriptor in list(self.clients):
                self.drop(descriptor)
            for connection in list(self.viewers):
                connection.shutdown(socket.SHUT_RDWR)
        elif name == "TERM" and self.allows("terminate"):
            self.end(int(self.options.get("exit_code", "0")))

    def run(self):
        wake, signalled = os.pipe()
        os.set_blocking(signalled, False)
        signal.set_wakeup_fd(signalled)
        for number in (signal.SIGUSR1, signal.SIGUSR2, signal.SIGTERM):
            signal.signal(number, lambda *_: None)
        self.poll.register(wake, select.POLLIN)
        if self.allows("pid_file"):
            write("server_pid", str(os.getpid()))
        write(os.path.join(SEEN, "pid"), str(os.getpid()))
        if "exit_at_once" in self.options:
            self.end(int(self.options["exit_at_once"]))
        self.listen()
        pending = self.allows("ready")
        due = time.monotonic() + float(self.options.get("ready_delay", "0"))
        while True:
            if pending and time.monotonic() >= due and self.may_be_ready():
                pending = False
                self.ready()
            events = self.poll.poll(max(10, (due - time.monotonic()) * 1000) if pending else None)
            for descriptor, _ in events:
                if descriptor == wake:
                    for number in os.read(wake, 64):
                        self.handle(signal.Signals(number).name[3:])
                elif descriptor in self.listeners:
                    server, handler = self.listeners[descriptor]
                    handler(server.accept()[0])
                elif descriptor in self.clients and self.has_left(descriptor):
                    self.drop(descriptor)

    def has_left(self, descriptor):
        try:
            return not self.clients[descriptor].recv(4096)
        except ConnectionResetError:
            return True


os.makedirs(SEEN, exist_ok=True)
record_surroundings()
Agent(read_options()).run()
