# SPDX-License-Identifier: MIT
"""What the tests of zarvoctl share."""
import contextlib
import json
import os
import signal
import subprocess
import threading

import faults
import relay
import zarvo

CTL = os.path.join(zarvo.BUILD, "bin", "zarvoctl")

DONE, NEGATIVE, USAGE, NO_SESSION, AMBIGUOUS, NO_SERVER, REFUSED, TIMED_OUT, FAILED, WRONG_STATE, NO_VIEWER = range(11)
UNTRUSTED = 12


class CtlTestCase(zarvo.TestCase):
    """Runs zarvoctl in the surroundings of a server."""

    def ctl(self, server, *arguments, code=DONE, environment=None, **how):
        """Runs zarvoctl to its end, checks the exit code and returns its output."""
        result = self.ctl_result(server, *arguments, environment=environment, **how)
        self.assertEqual(result.returncode, code, f"{arguments}: {result.stdout}{result.stderr}")
        return result.stdout

    def ctl_error(self, server, *arguments, code, environment=None):
        """The same for a run that fails and prints nothing to standard output. Returns its standard error."""
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
        """zarvoctl in the background. The test kills it at its end."""
        process = subprocess.Popen([CTL, *arguments], env={**server.environment, **(environment or {})}, text=True,
                                   stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(self.end, process)
        return process

    def held(self, server, *arguments, path, nth=1):
        """zarvoctl in the background, held before it opens a path with this beginning for the nth time."""
        sign = os.path.join(server.top, "held")
        process = self.background(server, *arguments, environment={
            "LD_PRELOAD": faults.libraries("hold"), "ZARVO_HOLD": sign, "ZARVO_HOLD_PATH": path,
            "ZARVO_HOLD_NTH": str(nth)})

        def is_held():
            if process.poll() is not None:
                raise AssertionError(f"it did not open {path}: {process.communicate()}")
            return os.path.exists(sign)
        zarvo.wait_until(is_held, f"zarvoctl to open {path}")
        return process

    @staticmethod
    def let_go(server, process):
        """Lets a held zarvoctl go on. Returns its exit code, output and errors."""
        zarvo.write(os.path.join(server.top, "held-go"), "")
        output, error = process.communicate(timeout=2 * zarvo.DEADLINE)
        return process.returncode, output, error

    @staticmethod
    def end(process):
        if process.poll() is None:
            process.kill()
        process.wait(zarvo.DEADLINE)
        for stream in (process.stdin, process.stdout, process.stderr):
            if stream:
                stream.close()

    def unattended(self, *arguments, **how):
        """Surroundings in which zarvoctl itself starts the server, which ends with the test."""
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
        zarvo.need_inspection()
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

    def wait_state(self, server, session, state):
        """Waits with a client of its own, because one zarvoctl for each poll would keep the machine busy."""
        permission = {"connected": "disconnect", "offered": "retry", "suspended": "connect"}[state]
        with server.client() as client:
            zarvo.wait_until(lambda: any(entry["id"] == session and permission in entry["permissions"].split("|")
                                         for entry in client.local_sessions()), f"the state {state}")

    def following(self, server, *arguments):
        """zarvoctl in the background, which has got the list of sessions and is subscribed to its changes."""
        between = relay.Relay(self, server)
        zarvo.write(server.port_file, str(between.port))
        process = self.background(server, *arguments)
        zarvo.wait_until(lambda: "Live.ListSessions" in between.answered, "the list of sessions")
        zarvo.write(server.port_file, str(server.port))
        return process

    def assert_waits(self, process):
        """Checks that a zarvoctl in the background goes on."""
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(0.3)

    @staticmethod
    def is_connected(server, process):
        own = set()
        for descriptor in os.listdir(f"/proc/{process.pid}/fd"):
            with contextlib.suppress(OSError):
                own.add(os.readlink(f"/proc/{process.pid}/fd/{descriptor}"))
        connections = [line.split() for line in zarvo.read("/proc/net/tcp").splitlines()[1:]]
        return any(entry[2].endswith(f":{server.port:04X}") and f"socket:[{entry[9]}]" in own for entry in connections)

    def write_and_empty(self, path):
        """Makes the file empty and whole in turns, as while the server writes it."""
        content = zarvo.read(path)
        done = threading.Event()

        def run():
            while not done.is_set():
                for text in ("", content):
                    zarvo.write(path, text)

        writer = threading.Thread(target=run)
        writer.start()
        self.addCleanup(writer.join, zarvo.DEADLINE)
        self.addCleanup(done.set)
