# SPDX-License-Identifier: MIT
"""Makes system calls of a running server fail, one by one: see faults.cpp, which does it from inside.

    faults = Faults(server)                 # before server.start()
    faults.fail(errno.ENOSPC, nth=3)        # the third call that changes a file fails, once
    faults.kill(nth=7)                      # the server ends before the seventh one, as by kill -9
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
# Together with others: only the calls that threads other than the main one make. Requests run there.
OTHER_THREADS = 128
# Everything that another process could see.
CHANGES = DISK | PROCESS | SIGNAL | SOCKET | REMOVAL

KILL = -1
EVER = 2 ** 62
TEXT = 256
# The fields of struct Control, in its order; then the two texts.
SERVER, KINDS, ACTION, FIRST, LAST, COUNT, ACTED, SHIFT = range(0, 64, 8)
PATH, MET = 64, 64 + TEXT
SIZE = MET + TEXT


def libraries(name):
    """LD_PRELOAD for a library of the tests. A sanitizer's runtime insists on being the first."""
    listed = subprocess.run(["ldd", zarvo.BINARY], check=True, capture_output=True, text=True, timeout=60).stdout
    sanitizers = re.findall(r"=> (\S*/lib[at]san\.so\S*)", listed)
    return ":".join([*sanitizers, os.path.join(zarvo.BUILD, "tests", "system", f"lib{name}.so")])


class Faults:
    """Make it before the server starts. What a test sets holds until it sets something else, also over restarts."""

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
        """Sets what happens, and starts to count anew."""
        self.set(KINDS, 0)
        self.memory[PATH:PATH + TEXT] = path.encode().ljust(TEXT, b"\0")
        self.memory[MET:MET + TEXT] = bytes(TEXT)
        for field, value in ((ACTION, action), (FIRST, first), (LAST, last), (COUNT, 0), (ACTED, 0), (KINDS, kinds)):
            self.set(field, value)

    def kill(self, nth, kinds=CHANGES, path=""):
        self.arm(KILL, nth, nth, kinds, path)

    def fail(self, error, nth=1, kinds=DISK, path="", last=None):
        """last: the last call that fails. By default only the nth one fails."""
        self.arm(error, nth, nth if last is None else last, kinds, path)

    def watch(self, kinds=CHANGES, path=""):
        """Counts the calls and lets all of them pass."""
        self.arm(0, 0, 0, kinds, path)

    def off(self):
        """Stops counting and acting. The counts can still be read."""
        self.set(KINDS, 0)

    def start(self, server, **how):
        """As server.start(). The faults hold from the first step of the new process on."""
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
        """The last call that was failed, as text."""
        return self.memory[MET:MET + TEXT].partition(b"\0")[0].decode(errors="replace")


class FaultCase(zarvo.TestCase):
    """A server with one session. Its client knows the session, so no fault may lose it."""

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
        """The listed sessions without the kept one. Checks that this one is listed as before."""
        with self.instance.client() as client:
            entries = self.listed_when_known(client)
        self.assertEqual(entries.pop(self.kept), self.entry)
        return entries

    def listed_when_known(self, client):
        """The entries by id, once the kept session's agent has answered: a new server lists it before that."""
        def listed():
            entries = {entry["id"]: entry for entry in client.local_sessions()}
            self.assertIn(self.kept, entries)
            return entries if entries[self.kept]["started"] else None
        return zarvo.wait_until(listed, "an answer of the agent")

    def killed_in(self, nth, method, *params):
        """Whether the server was killed before its nth step after it got the call. If so, it is started again."""
        with self.instance.client() as client:
            client.call("Live.GetVersion")
            self.faults.kill(nth)
            try:
                client.call(method, list(params))
            except (EOFError, OSError):
                self.assertEqual(self.faults.acted, 1, f"the connection ended by itself in {method}")
            # First, because the server goes on, and its next step may have nothing to do with the call.
            self.faults.off()
            killed = self.faults.acted == 1
        if killed:
            self.assertEqual(self.instance.wait_exit(), -signal.SIGKILL)
            self.faults.start(self.instance)
        return killed

    def steps(self, act, limit=400):
        """Calls act(1), act(2) and so on until one returns False, because there is no such step. Counts the steps."""
        for step in range(1, limit):
            if not act(step):
                return step - 1
        raise AssertionError(f"more than {limit} steps")

    def refused_in(self, error, nth, kinds, method, *params):
        """The error of the call whose nth step fails. None if it has no such step or succeeds all the same."""
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
        """Ends the fault. "hit" says whether a call has failed, and "met" which one."""
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
        Ends the listed session and checks that nothing of it is left. but: agents in its directory that the server does
        not know. They are killed here.
        """
        self.call("Live.Terminate", session)
        for agent in but:
            with contextlib.suppress(ProcessLookupError):
                os.kill(agent, signal.SIGKILL)
            zarvo.wait_until(lambda pid=agent: not zarvo.alive(pid), "the agent's end")
        self.assertEqual(self.agents(session), [])
        self.assertFalse(os.path.exists(self.instance.directory(session)))

    def assert_offers(self, session):
        """Checks that a viewer can connect to the listed session, and returns it."""
        zarvo.wait_until(lambda: self.listed()[session]["started"], "the agent to be ready")
        method = {"connect|terminate": "Live.Resume", "retry|terminate": "Live.Replay"}
        answer = self.call(method[self.listed()[session]["permissions"]], session)
        viewer = self.instance.viewer(answer["port"], answer["password"])
        self.assertIsNotNone(viewer)
        return viewer
