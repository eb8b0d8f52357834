# SPDX-License-Identifier: MIT
"""Many clients act on few sessions at once. Nothing hangs, and nothing is lost."""
import os
import random
import signal
import threading
import time

import zarvo

CLIENTS = 20
SESSIONS = 10
SECONDS = 60
SEED = 20261121

# The errors that a client may get because another one was faster.
EXPECTED_ERRORS = {
    -32094,  # gone, or already being started
    -32092,  # no longer in this state
    -32099,  # the agent has ended meanwhile
    -32086,  # the agent's files are gone
    -32093,  # the directory is gone
}


class Visitor(threading.Thread):
    """One client that acts at random. It starts only its own session, if it has one, and acts on all."""

    def __init__(self, server, sessions, number, end):
        super().__init__(daemon=True)
        self.server, self.sessions, self.end = server, sessions, end
        self.own = sessions[number] if number < len(sessions) else None
        self.random = random.Random(SEED + number)
        self.client = server.client()
        self.viewers = []
        self.offer = None
        self.calls = 0
        self.failure = None

    def run(self):
        try:
            while time.monotonic() < self.end:
                self.random.choice(self.choices())()
                self.calls += 1
        except Exception as failure:  # the test's thread raises it
            self.failure = failure
        finally:
            for viewer in self.viewers:
                viewer.close()

    def choices(self):
        acts = [self.list, self.list, self.resume, self.replay, self.suspend, self.view, self.view, self.leave]
        acts += [self.start_own] * 4 if self.own else [self.terminate, self.hang_up]
        return acts

    def call(self, method, *params):
        try:
            return self.client.call(method, list(params))
        except zarvo.RpcError as error:
            if error.error["code"] not in EXPECTED_ERRORS:
                raise
            return None

    def any_session(self):
        return self.random.choice(self.sessions)

    def list(self):
        self.call("Live.ListSessions")

    def start_own(self):
        try:
            listed = self.client.call("Live.ListLocalSessions") or []
        except zarvo.RpcError:
            return  # a session ended while the listing waited for it
        if self.own not in [session["id"] for session in listed]:
            self.offer = self.call("Live.Start", self.own, "xterm", "800x600") or self.offer

    def resume(self):
        self.offer = self.call("Live.Resume", self.any_session()) or self.offer

    def replay(self):
        self.offer = self.call("Live.Replay", self.any_session()) or self.offer

    def suspend(self):
        self.call("Live.Suspend", self.any_session())

    def terminate(self):
        if self.random.random() < 0.3:
            self.call("Live.Terminate", self.any_session())

    def view(self):
        offer, self.offer = self.offer, None
        if offer:
            try:
                viewer = self.server.viewer(offer["port"], offer["password"])
            except OSError:
                return  # the session has ended
            if viewer:
                self.viewers.append(viewer)

    def leave(self):
        if self.viewers:
            self.viewers.pop().close()

    def hang_up(self):
        """Disconnects while a request runs."""
        self.client.begin("Live.Resume", [self.any_session()])
        self.client.close()
        self.client = self.server.client()


class ManySessions(zarvo.TestCase):
    def test_twenty_random_clients_on_ten_sessions(self):
        server = self.server(displays=40)
        before = self.sockets(server)
        sessions = sorted(f"{number:032x}" for number in range(1, SESSIONS + 1))
        end = time.monotonic() + SECONDS
        visitors = [Visitor(server, sessions, number, end) for number in range(CLIENTS)]
        for visitor in visitors:
            visitor.start()
        for visitor in visitors:
            visitor.join(SECONDS + 2 * zarvo.DEADLINE)
            self.assertFalse(visitor.is_alive(), "a client hangs")
            if visitor.failure:
                raise visitor.failure
        self.assertGreater(sum(visitor.calls for visitor in visitors), CLIENTS * 20)

        with server.client() as client:
            # A listing waits for every busy id, so its answer says that none is.
            self.assert_listed_are_those_alive(server, client)
            for session in client.call("Live.ListLocalSessions") or []:
                client.call("Live.Terminate", [session["id"]])
            self.assertIsNone(client.call("Live.ListLocalSessions"))
            for session in sessions:
                client.call("Live.Start", [session, "xterm", "800x600"])
                client.call("Live.Terminate", [session])
        self.assertEqual(os.listdir(server.sessions), [])
        for visitor in visitors:
            visitor.client.close()
        zarvo.wait_until(lambda: self.sockets(server) <= before, "the sockets of all clients to be closed")
        self.assertNotIn("Z", server.children().values())
        self.assertEqual(server.stop(signal.SIGTERM), 0)

    def assert_listed_are_those_alive(self, server, client):
        def agree():
            listed = {session["id"] for session in client.local_sessions()}
            return listed == self.running(server) or None
        zarvo.wait_until(agree, "the listing to be the sessions whose agents run")

    @staticmethod
    def sockets(server):
        return sum(target.startswith("socket:") for target in server.descriptors().values())

    @staticmethod
    def running(server):
        """The sessions whose agents are alive, by their directories."""
        found = set()
        for entry in os.listdir("/proc"):
            if entry.isdigit() and zarvo.alive(entry):
                try:
                    directory = os.readlink(f"/proc/{entry}/cwd")
                except OSError:
                    continue
                if os.path.dirname(directory) == os.path.realpath(server.sessions):
                    found.add(os.path.basename(directory).removeprefix("C-"))
        return found
