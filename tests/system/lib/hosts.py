# SPDX-License-Identifier: MIT
"""Several hosts on one network, each with a server of the same user, and peers that a test plays.

A host is a thread in namespaces of its own: network, host name, mounts. They have no name outside, so two runs cannot
meet. The kernel drops them with the last process inside, so a killed run leaves nothing behind.

    site = hosts.Site(self)
    alpha, beta = site.server("alpha"), site.server("beta")
    alpha.start()
    alpha.client().listing("Live.ListSessions")
"""
import concurrent.futures
import contextlib
import ctypes
import functools
import json
import os
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import zarvo

CLONE_NEWNS, CLONE_NEWUTS, CLONE_NEWUSER, CLONE_NEWNET = 0x00020000, 0x04000000, 0x10000000, 0x40000000

# Reserved for documentation, so a packet that leaks reaches no real network.
NETWORK = "192.0.2"
UDP_PORT = 20123

PREFIX = "zarvo-site-"

# Loopback, but no address of an interface. So a server takes it for another host's.
OTHER_HOST = "127.0.0.2"

QUERY = zarvo.frame('{"id":"ServerUpdate","jsonrpc":"2.0","method":"Live.ListLocalSessions","params":null}\n')

libc = ctypes.CDLL(None, use_errno=True)


# Whether there can be hosts at all

def unshare(flags):
    if libc.unshare(flags) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"unshare: {os.strerror(number)}")


def become_root_of_a_namespace():
    """Enters a user namespace, which an ordinary user needs first. Only a single-threaded process may do so."""
    user, group = os.getuid(), os.getgid()
    unshare(CLONE_NEWUSER)
    zarvo.write("/proc/self/setgroups", "deny")
    zarvo.write("/proc/self/uid_map", f"0 {user} 1")
    zarvo.write("/proc/self/gid_map", f"0 {group} 1")


@functools.cache
def missing():
    """Why this machine cannot have hosts, or None if it can."""
    for program in ("ip", "mount"):
        if shutil.which(program) is None:
            return f"the program \"{program}\" is missing"
    try:
        if os.geteuid() != 0:
            become_root_of_a_namespace()
        with contextlib.closing(Namespace("probe")) as probe:
            probe.ip("link", "add", "bridge", "type", "bridge")
    except (OSError, AssertionError) as failure:
        return f"neither root nor namespaces for users: {failure}"
    return None


def need_namespaces():
    """Call it first in setUpModule(). Without namespaces it skips the module; in CI it fails."""
    reason = missing()
    if reason is None:
        return
    if os.environ.get("CI") or os.environ.get("ZARVO_REQUIRE_NETNS"):
        raise AssertionError(f"no network namespaces: {reason}")
    print(f"skipped, no network namespaces: {reason}", file=sys.stderr)
    raise unittest.SkipTest(f"no network namespaces: {reason}")


# Hosts

class Namespace:
    """A thread with its own network, host name and mounts. What run() starts or opens belongs to them."""

    def __init__(self, name):
        self.name = name
        self.sockets = []
        self.thread = concurrent.futures.ThreadPoolExecutor(1)
        try:
            self.id = self.run(self.enter)
        except BaseException:
            self.close()
            raise

    def enter(self):
        unshare(CLONE_NEWNET | CLONE_NEWUTS | CLONE_NEWNS)
        self.command("mount", "--make-rprivate", "/")
        socket.sethostname(self.name)
        self.command("ip", "link", "set", "lo", "up")
        return threading.get_native_id()

    def run(self, function, *arguments, **options):
        """Calls the function inside and waits for its result."""
        return self.thread.submit(function, *arguments, **options).result()

    @staticmethod
    def command(*arguments):
        ran = subprocess.run(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             text=True, timeout=zarvo.DEADLINE)
        if ran.returncode != 0:
            raise AssertionError(f"{' '.join(arguments)}: {ran.stdout.strip()}")
        return ran.stdout

    def ip(self, *arguments):
        return self.run(self.command, "ip", *arguments)

    def datagrams(self, port=0, address="0.0.0.0"):
        """A UDP socket inside, which may send broadcasts."""
        def make():
            made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            made.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
            made.bind((address, port))
            made.settimeout(zarvo.DEADLINE)
            self.sockets.append(made)
            return made
        return self.run(make)

    def close(self):
        for made in self.sockets:
            made.close()
        self.thread.shutdown()


class Host(Namespace):
    """One host at the site's switch, with a temporary directory of its own.

    own      a folder for its own files, which does not exist yet
    shared   folders below /tmp that it sees in spite of its own /tmp
    """

    def __init__(self, name, address, switch, own, shared):
        super().__init__(name)
        self.address = address
        self.port = f"port{address.rpartition('.')[2]}"
        self.switch = switch
        try:
            os.mkdir(own)
            self.run(self.name_itself, os.path.join(own, "hosts"))
            self.run(self.cover_temp, os.path.join(own, "tmp"), shared)
            switch.ip("link", "add", self.port, "type", "veth", "peer", "name", "eth0", "netns", str(self.id))
            switch.ip("link", "set", self.port, "master", "bridge", "up")
            self.ip("address", "add", f"{address}/24", "broadcast", f"{NETWORK}.255", "dev", "eth0")
            self.ip("link", "set", "eth0", "up")
            # Without a default route, a broadcast to 255.255.255.255 fails too.
            self.ip("route", "add", "default", "dev", "eth0")
        except BaseException:
            self.close()
            raise

    def name_itself(self, path):
        """Lets the host resolve its own name, so that no program waits for a missing name server."""
        zarvo.write(path, f"127.0.0.1 localhost\n{self.address} {self.name}\n")
        self.command("mount", "--bind", path, "/etc/hosts")

    def cover_temp(self, own_temp, shared):
        """Gives the host its own /tmp and /run/user for sockets and locks. Folders of the test stay visible in /tmp."""
        if os.path.isdir("/run/user"):
            os.mkdir(own_temp + "-run")
            self.command("mount", "--bind", own_temp + "-run", "/run/user")
        os.mkdir(own_temp)
        os.chmod(own_temp, 0o1777)
        for folder in sorted({os.path.realpath(folder) for folder in shared}):
            if folder.startswith("/tmp/"):
                os.makedirs(own_temp + folder[len("/tmp"):], exist_ok=True)
                self.command("mount", "--bind", folder, own_temp + folder[len("/tmp"):])
        self.command("mount", "--rbind", own_temp, "/tmp")

    def plug(self, state):
        """Plugs the cable in ("up") or pulls it ("down")."""
        self.switch.ip("link", "set", self.port, state)


class HostServer(zarvo.Server):
    """A server on a host of its own. Home directory and user are the site's by default."""

    def __init__(self, site, name, address, home=None, user=None, environment=None):
        super().__init__(environment=environment)
        self.site = site
        self.user = user or site.user
        self.home = home or site.home
        state = os.path.join(self.home, ".zarvo_server")
        self.path = os.path.join(state, name)
        self.certificate, self.key = os.path.join(state, "server_cert"), os.path.join(state, "server_key")
        os.makedirs(self.path, exist_ok=True)
        if not os.path.exists(self.certificate):
            self.install_certificate()
        self.settings = site.settings
        self.write_settings()
        self.environment.update(HOME=self.home, USER=self.user, LOGNAME=self.user, TMPDIR="/tmp")
        self.host = Host(name, address, site.switch, os.path.join(self.top, "host"),
                         [self.top, self.home, zarvo.BUILD, zarvo.HERE])
        self.address = address

    @property
    def location(self):
        return f"ssh://{self.user}@{self.host.name}:22/zarvo_sci"

    def start(self, check=True, **how):
        return self.host.run(super().start, check, **how)

    def client(self, **how):
        return self.host.run(super().client, **how)

    def viewer(self, port, password):
        return self.host.run(super().viewer, port, password)

    def announcement(self, method, **fields):
        return announcement(method, self.port, self.user, **fields)

    def close(self):
        try:
            super().close()
        finally:
            self.host.close()


def remove_leftovers():
    """Removes the folders of killed runs. The kernel has dropped their namespaces."""
    for name in os.listdir("/tmp"):
        pid = name.removeprefix(PREFIX).partition("-")[0]
        if name.startswith(PREFIX) and pid.isdigit() and not os.path.exists(f"/proc/{pid}"):
            shutil.rmtree(os.path.join("/tmp", name), ignore_errors=True)


class Site:
    """A network with a switch, and a home directory that all its hosts share. Removed after the test."""

    def __init__(self, case, settings=None):
        self.case = case
        remove_leftovers()
        self.top = os.path.realpath(tempfile.mkdtemp(prefix=f"{PREFIX}{os.getpid()}-", dir="/tmp"))
        case.addCleanup(shutil.rmtree, self.top, ignore_errors=True)
        self.home = self.new_home("home")
        self.user = "u" + os.urandom(6).hex()
        # The home directory is shared, so all hosts have the same settings, displays included.
        self.settings = {"UserPath": "@HOME@/.zarvo_server/@HOST@", "BroadcastPort": UDP_PORT, "LogLevel": "Debug3",
                         "DisplayBase": 200, "DisplayLimit": 20, **(settings or {})}
        self.switch = Namespace("switch")
        case.addCleanup(self.switch.close)
        self.switch.ip("link", "add", "bridge", "type", "bridge")
        self.switch.ip("link", "set", "bridge", "up")
        self.free = iter(range(1, 255))

    def new_home(self, name):
        """Makes another, empty home directory."""
        home = os.path.join(self.top, name)
        os.makedirs(os.path.join(home, ".zarvo_server"))
        return home

    def address(self):
        return f"{NETWORK}.{next(self.free)}"

    def host(self, name):
        """A host without a server."""
        made = Host(name, self.address(), self.switch, os.path.join(self.top, name), [self.home])
        self.case.addCleanup(made.close)
        return made

    def server(self, name, **how):
        """A server that is not started yet, on a new host of this name."""
        made = HostServer(self, name, self.address(), **how)
        self.case.addCleanup(made.close)
        return made


# Peers that a test plays

def announcement(method, port, user, **fields):
    return zarvo.compact({"Method": method, "Port": port, "User": user, **fields}).encode()


def entry(session, **fields):
    """A session as a server describes it."""
    return {"id": session, "location": "ssh://peer/", "windowMode": "desktop", "name": "far away",
            "started": "2020-01-02T03:04:05", "lastConnect": "", "lastDisconnect": "",
            "permissions": "connect|terminate", **fields}


def reply(sessions, **fields):
    """A whole answer to the query."""
    return zarvo.frame(zarvo.compact({"id": "ServerUpdate", "jsonrpc": "2.0", "result": sessions, **fields}))


class Service:
    """Listens as a server does, and calls behave(raw socket) for each connection."""

    def __init__(self, case, behave, address=OTHER_HOST, host=None, backlog=128):
        self.behave, self.address = behave, address
        make = functools.partial(socket.create_server, (address, 0), backlog=backlog)
        self.listener = host.run(make) if host else make()
        self.port = self.listener.getsockname()[1]
        self.lock = threading.Lock()
        self.open, self.accepted, self.failures = set(), 0, []
        self.threads = []
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()
        case.addCleanup(self.close)

    def run(self):
        while True:
            try:
                raw, _ = self.listener.accept()
            except OSError:
                return
            with self.lock:
                self.accepted += 1
                self.open.add(raw)
            thread = threading.Thread(target=self.serve, args=(raw,), daemon=True)
            thread.start()
            self.threads = [other for other in self.threads if other.is_alive()] + [thread]

    def serve(self, raw):
        try:
            raw.settimeout(zarvo.DEADLINE)
            self.behave(raw)
        except (OSError, AssertionError) as failure:  # the server hangs up, as most tests expect
            self.failures.append(failure)
        finally:
            with self.lock:
                self.open.discard(raw)
                raw.close()

    def close(self):
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)  # wakes the thread
        self.listener.close()
        with self.lock:
            for raw in self.open:
                with contextlib.suppress(OSError):
                    raw.shutdown(socket.SHUT_RDWR)
        for thread in [self.thread, *self.threads]:
            thread.join(zarvo.DEADLINE)


@functools.cache
def service_context(certificate, key):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    return context


def wait_hang_up(stream):
    """Reads until the other side closes."""
    with contextlib.suppress(OSError):
        while stream.recv(4096):
            pass


def with_query(certificate, key, answer):
    """A behaviour for Service: reads the query over TLS, then calls answer(tls)."""
    def behave(raw):
        with service_context(certificate, key).wrap_socket(raw, server_side=True) as tls:
            received = b""
            while len(received) < len(QUERY):
                data = tls.recv(4096)
                if not data:
                    return
                received += data
            if received != QUERY:
                raise AssertionError(f"not the query: {received}")
            answer(tls)
    return behave


def answering(certificate, key, *pieces):
    """The same: sends these pieces, then waits until the server hangs up."""
    def answer(tls):
        for piece in pieces:
            tls.sendall(piece)
        wait_hang_up(tls)
    return with_query(certificate, key, answer)


def pending(port):
    """The bytes that wait in the buffer of this UDP port, and the number of datagrams that the system dropped."""
    for table in ("/proc/thread-self/net/udp6", "/proc/thread-self/net/udp"):
        with contextlib.suppress(FileNotFoundError), open(table, encoding="ascii") as lines:
            for line in list(lines)[1:]:
                fields = line.split()
                address, local = fields[1].split(":")
                if int(local, 16) == port and set(address) == {"0"}:
                    return int(fields[4].split(":")[1], 16), int(fields[-1])
    raise AssertionError(f"nobody is bound to the UDP port {port}")


def pour(source, target, datagrams, look=None, room=60000):
    """Sends them to the address without overrunning the server's buffer. Returns how many the system dropped.

    look    calls pending() in the server's network namespace; by default in this one
    """
    look = look or (lambda: pending(target[1]))
    before = look()[1]
    sent = room
    for datagram in datagrams:
        if sent >= room // 2:  # as the system counts, with its overhead for each
            end = time.monotonic() + zarvo.DEADLINE
            while look()[0] > room:
                if time.monotonic() > end:
                    raise AssertionError("the server no longer reads datagrams")
                time.sleep(0.002)
            sent = 0
        source.sendto(datagram, target)
        sent += len(datagram) + 1024
    zarvo.wait_until(lambda: look()[0] == 0, "the server to read the datagrams")
    return look()[1] - before


class NeighbourCase(zarvo.TestCase):
    """One server, and another host that the test plays. Needs no privileges."""

    def setUp(self):
        self.instance = self.prepare({"DisplayLimit": 10})
        # The UDP port of an unused display number of ours, so that no other test has it.
        self.udp_port = 6000 + self.instance.displays.base + 15
        self.ear = self.datagrams(OTHER_HOST, self.udp_port)
        self.instance.settings.update(BroadcastAddress=OTHER_HOST, BroadcastPort=self.udp_port)
        self.instance.write_settings()

    def datagrams(self, address, port):
        ear = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(ear.close)
        ear.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        ear.bind((address, port))
        ear.settimeout(zarvo.DEADLINE)
        return ear

    def start(self):
        self.instance.start()
        self.client = self.instance.client()
        self.assertEqual(self.hear(), self.datagram("HELLO"))
        self.assertEqual(self.hear(), self.datagram("UPDATE"))  # sent after the first refresh

    def datagram(self, method):
        return announcement(method, self.instance.port, self.instance.user)

    def hear(self):
        return self.ear.recv(4096)

    def say(self, content, ear=None):
        """Sends a datagram, as another host does."""
        text = content if isinstance(content, bytes) else json.dumps(content).encode()
        (ear or self.ear).sendto(text, ("127.0.0.1", self.udp_port))

    def message(self, peer, method="UPDATE", **fields):
        return {"Method": method, "Port": peer.port, "User": self.instance.user, **fields}

    def listed(self):
        return self.client.listing("Live.ListSessions")

    def warnings(self):
        return [line.split(": ", 2)[2] for line in self.instance.log().splitlines() if ": Warning: " in line]
