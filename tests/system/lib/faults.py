# SPDX-License-Identifier: MIT
"""Makes system calls of a running server fail, one by one: see faults.cpp, which does it from inside.

    faults = Faults(server)                 # before server.start()
    faults.fail(errno.ENOSPC, nth=3)        # the third call that changes a file fails, once
    faults.kill(nth=7)                      # the server ends in front of the seventh one, as by kill -9
    faults.off()
"""
import contextlib
import mmap
import os
import re
import signal
import struct
import subprocess

import zarvo


DISK, DESCRIPTOR, PROCESS, THREAD, SIGNAL, SOCKET, REMOVAL = 1, 2, 4, 8, 16, 32, 64
# With others: of these only the calls that the main thread does not make, which are those of requests.
ASIDE = 128
# Everything that somebody outside could see.
CHANGES = DISK | PROCESS | SIGNAL | SOCKET | REMOVAL

KILL = -1
EVER = 2 ** 62
TEXT = 256
# The fields of struct Control, in its order; then the two texts.
SERVER, KINDS, ACTION, FIRST, LAST, COUNT, ACTED, SHIFT = range(0, 64, 8)
PATH, MET = 64, 64 + TEXT
SIZE = MET + TEXT


def libraries(name):
    """What has to be loaded with a library of the tests: a sanitizer's runtime insists on being the first."""
    listed = subprocess.run(["ldd", zarvo.BINARY], check=True, capture_output=True, text=True, timeout=60).stdout
    sanitizers = re.findall(r"=> (\S*/lib[at]san\.so\S*)", listed)
    return ":".join([*sanitizers, os.path.join(zarvo.BUILD, "tests", "system", f"lib{name}.so")])


class Faults:
    """To be made for a server that is not running. What is set here holds from then on, also over its restarts."""

    def __init__(self, server):
        path = os.path.join(server.top, "faults")
        with open(path, "wb+") as file:
            file.truncate(SIZE)
            self.memory = mmap.mmap(file.fileno(), SIZE)
        server.environment["ZARVO_PRELOAD"] = libraries("faults")
        server.environment["ZARVO_FAULTS"] = path

    def get(self, field):
        return struct.unpack_from("q", self.memory, field)[0]

    def set(self, field, value):
        struct.pack_into("q", self.memory, field, value)

    def arm(self, action, first, last, kinds, path=""):
        """Counting starts anew."""
        self.set(KINDS, 0)
        self.memory[PATH:PATH + TEXT] = path.encode().ljust(TEXT, b"\0")
        self.memory[MET:MET + TEXT] = bytes(TEXT)
        for field, value in ((ACTION, action), (FIRST, first), (LAST, last), (COUNT, 0), (ACTED, 0), (KINDS, kinds)):
            self.set(field, value)

    def kill(self, nth, kinds=CHANGES, path=""):
        self.arm(KILL, nth, nth, kinds, path)

    def fail(self, error, nth=1, kinds=DISK, path="", last=None):
        """last: up to which call it goes on failing; the default is one call."""
        self.arm(error, nth, nth if last is None else last, kinds, path)

    def watch(self, kinds=CHANGES, path=""):
        """Only counts."""
        self.arm(0, 0, 0, kinds, path)

    def off(self):
        """From now on nothing is counted or acted on; what was until now can still be asked for."""
        self.set(KINDS, 0)

    def start(self, server, **how):
        """server.start() for a process that the faults are meant for from its first step on."""
        self.set(SERVER, 0)
        return server.start(**how)

    def shift_clock(self, seconds):
        self.set(SHIFT, seconds)

    @property
    def count(self):
        return self.get(COUNT)

    @property
    def acted(self):
        return self.get(ACTED)

    @property
    def met(self):
        """The last call that was acted on, in words."""
        return self.memory[MET:MET + TEXT].partition(b"\0")[0].decode(errors="replace")


class FaultCase(zarvo.TestCase):
    """A server with one session that somebody was told of, and that no fault may cost."""

    def setUp(self):
        self.instance = self.prepare()
        self.faults = Faults(self.instance)
        self.faults.start(self.instance)
        self.kept = zarvo.new_id()
        self.call("Live.Start", self.kept, "kept", "800x600")
        with self.instance.client() as client:
            self.entry = client.local_sessions()[0]

    def call(self, method, *params):
        with self.instance.client() as client:
            return client.call(method, list(params))

    def listed(self):
        """The listed sessions but for the one that is always there; which is checked."""
        with self.instance.client() as client:
            entries = self.listed_when_known(client)
        self.assertEqual(entries.pop(self.kept), self.entry)
        return entries

    def listed_when_known(self, client):
        """
        By their ids. A new server has found a session before its agent has told it anything, and it gives a busy one a
        second at a time for that.
        """
        def listed():
            entries = {entry["id"]: entry for entry in client.local_sessions()}
            self.assertIn(self.kept, entries)
            return entries if entries[self.kept]["started"] else None
        return zarvo.wait_until(listed, "the word of the agent")

    def killed_in(self, nth, method, *params):
        """Whether the server was killed in front of its nth step after it had got the call; it runs again then."""
        with self.instance.client() as client:
            client.call("Live.GetVersion")
            self.faults.kill(nth)
            try:
                client.call(method, list(params))
            except (EOFError, OSError):
                self.assertEqual(self.faults.acted, 1, f"the connection ended by itself in {method}")
            # Before we look: the server goes on, and the next of its steps may have nothing to do with the call.
            self.faults.off()
            killed = self.faults.acted == 1
        if killed:
            self.assertEqual(self.instance.wait_exit(), -signal.SIGKILL)
            self.faults.start(self.instance)
        return killed

    def steps(self, act, limit=400):
        """Calls act(1), act(2) and so on until one says that there was no such step any more; the number of steps."""
        for step in range(1, limit):
            if not act(step):
                return step - 1
        raise AssertionError("there is no end of steps")

    def refused_in(self, error, nth, kinds, method, *params):
        """The error of the call whose nth step fails, or None; None as well where it makes nothing of the failure."""
        with self.instance.client() as client:
            client.call("Live.GetVersion")
            self.faults.fail(error, nth, kinds=kinds)
            try:
                client.call(method, list(params))
            except zarvo.RpcError as refusal:
                return refusal.error
            finally:
                self.disarm()
        return None

    def disarm(self):
        """Ends the fault; "hit" and "met" tell of it from now on."""
        self.faults.off()
        self.hit, self.met = self.faults.acted, self.faults.met

    def agents(self, session):
        """The processes that work in the session's directory."""
        directory = os.path.realpath(self.instance.directory(session))
        found = []
        for entry in os.listdir("/proc"):
            if entry.isdigit() and zarvo.alive(entry):
                with contextlib.suppress(OSError):
                    if os.readlink(f"/proc/{entry}/cwd") == directory:
                        found.append(int(entry))
        return found

    def assert_ends(self, session, but=()):
        """
        The session, which is listed, can be ended; nothing of it is left. but: agents that are in its directory and that
        the server does not know. They are ended here.
        """
        self.call("Live.Terminate", session)
        for agent in but:
            with contextlib.suppress(ProcessLookupError):
                os.kill(agent, signal.SIGKILL)
            zarvo.wait_until(lambda pid=agent: not zarvo.alive(pid), "the agent's end")
        self.assertEqual(self.agents(session), [])
        self.assertFalse(os.path.exists(self.instance.directory(session)))

    def assert_offers(self, session):
        """A client can get into the listed session."""
        zarvo.wait_until(lambda: self.listed()[session]["started"], "the agent to be ready")
        method = {"connect|terminate": "Live.Resume", "retry|terminate": "Live.Replay"}
        answer = self.call(method[self.listed()[session]["permissions"]], session)
        viewer = self.instance.viewer(answer["port"], answer["password"])
        self.assertIsNotNone(viewer)
        return viewer
