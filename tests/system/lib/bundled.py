# SPDX-License-Identifier: MIT
"""Shared by the tests of the server with the bundled agent."""
import os

import rfb
import zarvo

XTERM = "xterm -bg '#204080' -fg white -geometry 60x20+10+10"


class BundledAgentTestCase(zarvo.TestCase):
    """A server that starts the bundled agent, and a client of this server."""

    def setUp(self):
        self.use_server()

    def prepare_server(self, **surroundings):
        self.instance = self.prepare(agent=False, **surroundings)
        self.instance.environment["PATH"] = zarvo.LIBEXEC + ":" + self.instance.environment["PATH"]

    def use_server(self, **surroundings):
        self.prepare_server(**surroundings)
        self.instance.start()
        self.client = self.instance.client()

    def start(self, command=XTERM, geometry="640x480"):
        session = zarvo.new_id()
        return session, self.client.call("Live.Start", [session, command, geometry])

    def connect(self, answer):
        viewer = rfb.Client("127.0.0.1", answer["port"], answer["password"], timeout=zarvo.DEADLINE)
        self.addCleanup(viewer.close)
        return viewer

    def wait_permissions(self, session, expected):
        def permissions():
            return {entry["id"]: entry["permissions"] for entry in self.client.local_sessions()}
        zarvo.wait_until(lambda: permissions().get(session) == expected, f"the permissions {expected}")

    @staticmethod
    def serves(pid, directory):
        """Whether the process belongs to the session with this directory."""
        try:
            with open(f"/proc/{pid}/environ", "rb") as environment:
                return directory.encode() in environment.read() or os.readlink(f"/proc/{pid}/cwd") == directory
        except OSError:
            return False

    def others(self):
        """The command lines by pid of all processes with this server's home directory, without the server itself."""
        found = {}
        for entry in os.listdir("/proc"):
            if entry.isdigit() and int(entry) != self.instance.pid:
                try:
                    with open(f"/proc/{entry}/environ", "rb") as environment:
                        if b"HOME=" + self.instance.home.encode() in environment.read().split(b"\0"):
                            found[int(entry)] = zarvo.read(f"/proc/{entry}/cmdline").replace("\0", " ")
                except OSError:
                    pass
        return {pid: command for pid, command in found.items() if "keeper.py" not in command}
