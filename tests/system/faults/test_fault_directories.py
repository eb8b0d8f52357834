# SPDX-License-Identifier: MIT
"""Session directories that vanish, are symlinks, or are full of garbage. Logs that are removed or replaced."""
import contextlib
import os
import random
import shutil
import signal
import unittest

import zarvo

SEED = 20261121
FILES = ("display", "window_mode", "name", "info", "authority", "monitor_pid", "app_log", "server_pid", "server_log",
         "server_exit")
GONE = ((-32094, "No session exists with the given id."), (-32093, "The path does not contain session information."),
        (-32086, "Failed to read a session file."), (-32099, "An unknown error occurred."))


class Directories(zarvo.TestCase):
    def start(self, server, **behaviour):
        session = zarvo.new_id()
        if behaviour:
            server.agent(session, **behaviour)
        return session, server.client().call("Live.Start", [session, "xterm", "800x600"])

    def ids(self, server):
        with server.client() as client:
            return [entry["id"] for entry in client.local_sessions()]

    def wait_ids(self, server, *expected):
        zarvo.wait_until(lambda: self.ids(server) == sorted(expected), f"the listing {expected}")

    def wait_permissions(self, server, session, expected):
        def listed():
            with server.client() as client:
                return {entry["id"]: entry["permissions"] for entry in client.local_sessions()}.get(session)
        zarvo.wait_until(lambda: listed() == expected, expected)

    def test_directory_that_disappears(self):
        server = self.server()
        kept, _ = self.start(server)
        for action in (None, "Live.Suspend", "Live.Resume", "Live.Terminate"):
            with self.subTest(action=action):
                session, answer = self.start(server)
                if action in ("Live.Suspend", "Live.Resume"):
                    viewer = server.viewer(answer["port"], answer["password"])
                    self.wait_permissions(server, session, "disconnect|terminate")
                if action == "Live.Resume":
                    viewer.close()
                    self.wait_permissions(server, session, "connect|terminate")
                shutil.rmtree(server.directory(session))
                if action:
                    with self.assertRaises(zarvo.RpcError) as caught:
                        server.client().call(action, [session])
                    error = caught.exception.error
                    self.assertIn((error["code"], error["message"]), GONE)
                self.wait_ids(server, kept)
                self.assertFalse(os.path.exists(server.directory(session)))
                # The server cannot know the agent any more, so it leaves it alone.
                self.assertTrue(zarvo.alive(int(server.seen(session, "pid"))))
        self.assertGreater(server.log().count("server_exit"), 0)

    def test_all_directories_disappear(self):
        server = self.server()
        self.start(server)
        shutil.rmtree(server.sessions)
        self.wait_ids(server)
        session, answer = self.start(server)
        self.assertIsNotNone(server.viewer(answer["port"], answer["password"]))
        self.wait_ids(server, session)

    def test_directory_that_disappears_and_comes_back(self):
        server = self.server()
        session, answer = self.start(server)
        os.rename(server.directory(session), server.directory(session) + "~")
        self.wait_ids(server)
        os.rename(server.directory(session) + "~", server.directory(session))
        server.stop()
        server.start()
        self.wait_ids(server, session)
        self.assertIsNotNone(server.viewer(answer["port"], answer["password"]))

    def test_symlink_to_a_directory_is_never_emptied(self):
        server = self.server()
        precious = os.path.join(server.home, "precious")
        os.mkdir(precious)
        zarvo.write(os.path.join(precious, "letter"), "dear")
        session = zarvo.new_id()
        os.symlink(precious, server.directory(session))
        server.client().call("Live.Start", [session, "xterm", "800x600"])
        self.wait_ids(server, session)
        server.client().call("Live.Terminate", [session])
        self.wait_ids(server)
        self.assertEqual(zarvo.read(os.path.join(precious, "letter")), "dear")
        self.assertTrue(os.path.islink(server.directory(session)))
        self.assertEqual(server.logged("Warning", f'Failed to remove the directory "{server.directory(session)}"'), 1)

    def test_symlink_to_a_session_elsewhere_is_found_again(self):
        server = self.server()
        session, _ = self.start(server)
        elsewhere = os.path.join(server.home, "elsewhere")
        server.stop()
        os.rename(server.directory(session), elsewhere)
        os.symlink(elsewhere, server.directory(session))
        os.symlink(os.path.join(server.home, "nowhere"), server.directory(zarvo.new_id()))
        os.symlink(server.directory(session) + "x", server.directory(session) + "x")
        server.start()
        self.wait_ids(server, session)

    def test_directories_full_of_garbage(self):
        server = self.server()
        kept, _ = self.start(server)
        server.stop()
        chance = random.Random(SEED)
        contents = (b"", b"\0", b"\xff\xfe\0\0", b"-1", b"99999999999999999999", b"\n\n\n", b"{", b"0x10", b"1e9",
                    b"../../..", chance.randbytes(100000), b"7" * 100000, "\u202e\U0001f4a9".encode())
        for _ in range(40):
            directory = server.directory(zarvo.new_id())
            os.mkdir(directory)
            for name in FILES:
                self.put(os.path.join(directory, name), chance, contents)
        for name in ("C-", "C-x", "...", "-rf", "a\nb", "\udcff"):
            os.mkdir(os.path.join(server.sessions, name))
        before = sorted(os.listdir(server.sessions))
        server.start()
        self.assertEqual(self.ids(server), [kept])
        self.assertEqual(sorted(os.listdir(server.sessions)), before)
        # An id whose directory is full of garbage can be used like any other.
        for name in [name for name in before if len(name) == 34 and name != "C-" + kept][:8]:
            self.use(server, name)
        self.assertEqual(self.ids(server), [kept])

    @staticmethod
    def put(path, chance, contents):
        kind = chance.randrange(12)
        if kind == 0:
            os.mkdir(path)
        elif kind == 1:
            os.mkfifo(path)
        elif kind == 2:
            os.mkfifo(path + "~")
            os.symlink(path + "~", path)
        elif kind == 3:
            os.symlink(path, path)
        elif kind < 11:
            with open(path, "wb") as file:
                file.write(chance.choice(contents))

    def use(self, server, name):
        """Tries to start a session in the directory, and checks that the server survives."""
        session = name.removeprefix("C-")
        try:
            server.client().call("Live.Start", [session, "xterm", "800x600"])
        except zarvo.RpcError as refusal:
            self.assertIn(refusal.error["code"], (-32080, -32099, -32077, -32086))
        for agent in self.agents(server, session):
            with contextlib.suppress(ProcessLookupError):  # an agent that cannot work there has ended
                os.kill(agent, signal.SIGKILL)
        zarvo.wait_until(lambda: session not in self.ids(server), "the end of the session")

    @staticmethod
    def agents(server, session):
        found = []
        for entry in os.listdir("/proc"):
            if entry.isdigit() and zarvo.alive(entry):
                try:
                    if os.readlink(f"/proc/{entry}/cwd") == os.path.realpath(server.directory(session)):
                        found.append(int(entry))
                except OSError:
                    pass
        return found

    def test_endless_file_is_not_read_to_its_end(self):
        server = self.server()
        session, _ = self.start(server)
        server.stop()
        for name in ("window_mode", "name"):
            zarvo.write(os.path.join(server.directory(session), name), "x" * (32 << 20))
        server.start()
        self.assertEqual(self.ids(server), [session])
        self.assertLess(server.peak(), (96 << 20) + server.instrumentation())
        server.client().call("Live.Terminate", [session])

    def test_files_turn_to_garbage_while_the_session_runs(self):
        server = self.server()
        session, answer = self.start(server)
        chance = random.Random(SEED)
        for name in ("display", "window_mode", "name", "monitor_pid", "server_log", "info", "server_exit"):
            with open(os.path.join(server.directory(session), name), "wb") as file:
                file.write(chance.randbytes(5000))
        # The server has read them, and asks the agent.
        self.assertEqual(self.ids(server), [session])
        self.assertEqual(server.client().call("Live.Replay", [session])["password"], answer["password"])
        server.client().call("Live.Terminate", [session])
        self.wait_ids(server)


class Log(zarvo.TestCase):
    def test_log_that_is_removed_a_pipe_or_a_directory_does_not_stop_anything(self):
        server = self.server()
        for damage in (os.unlink, self.make_pipe, self.make_directory):
            with self.subTest(damage=damage):
                damage(server.log_file)
                os.kill(server.pid, signal.SIGHUP)
                session = zarvo.new_id()
                server.client().call("Live.Start", [session, "xterm", "800x600"])
                server.client().call("Live.Terminate", [session])
        os.rmdir(server.log_file)
        os.kill(server.pid, signal.SIGHUP)
        zarvo.wait_until(lambda: os.path.exists(server.log_file), "the new log")
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.logged("Info", "Exiting the server"), 1)

    @staticmethod
    def make_pipe(path):
        os.unlink(path)
        os.mkfifo(path)

    @staticmethod
    def make_directory(path):
        if os.path.exists(path):
            os.unlink(path)
        os.mkdir(path)

    def test_log_that_is_cut_off(self):
        server = self.server()
        server.wait_log("Info", f"Starting the server version {zarvo.VERSION}")  # the last line of a start
        os.truncate(server.log_file, 0)
        with server.client(certificate=None, key=None) as stranger:
            stranger.wait_closed()
        zarvo.wait_until(server.log, "the next line")
        self.assertRegex(server.log(), rf"\A{zarvo.DAY}: Warning: A unverified client")


if __name__ == "__main__":
    unittest.main()
