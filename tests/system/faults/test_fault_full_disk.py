# SPDX-License-Identifier: MIT
"""A home directory on a file system that is really full, or remounted read-only."""
import contextlib
import os
import re
import resource
import shutil
import subprocess
import unittest

import hosts
import rfb
import zarvo

BYTES = 1 << 20


def setUpModule():
    hosts.need_namespaces()
    hosts.unshare(hosts.CLONE_NEWNS)
    mount("--make-rprivate", "/")


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True, timeout=60)


class SmallDisk(zarvo.TestCase):
    """Mounts the home directory as a small file system of its own."""

    def prepare(self, files=0, **how):
        """files: the number of files that fit, 0 for no limit."""
        server = super().prepare(certificate=False, **how)
        mount("-t", "tmpfs", "-o", f"size={BYTES},mode=700,nr_inodes={files}", "zarvo-test", server.home)
        self.addCleanup(subprocess.run, ["umount", "--lazy", server.home], check=True, timeout=60)
        os.makedirs(server.path)
        server.write_settings()
        return server

    def server(self, **how):
        server = self.prepare(**how)
        server.install_certificate()
        server.start()
        return server

    def fill(self, server):
        """Fills the disk to the last byte."""
        self.filler = os.path.join(server.home, "filler")
        with open(self.filler, "wb", buffering=0) as file:
            for size in (65536, 4096, 1):
                try:
                    while file.write(bytes(size)) == size:
                        pass
                except OSError:
                    pass

    def empty(self):
        os.unlink(self.filler)

    def start(self, server):
        session = zarvo.new_id()
        return session, server.client().call("Live.Start", [session, "xterm", "800x600"])

    def listed(self, server):
        with server.client() as client:
            return {entry["id"]: entry["permissions"] for entry in client.local_sessions()}

    def wait_listed(self, server, expected):
        """Checks that the new server has found these sessions, and that their agents have answered."""
        self.assertEqual(set(self.listed(server)), set(expected))
        zarvo.wait_until(lambda: self.listed(server) == expected, f"the listing to be {expected}")

    def assert_start_is_refused(self, server, *expected):
        with self.assertRaises(zarvo.RpcError) as caught:
            self.start(server)
        self.assertIn((caught.exception.error["code"], caught.exception.error["message"]), expected)

    def assert_log_is_whole(self, server):
        for line in server.log().splitlines():
            self.assertRegex(line, rf"\A{zarvo.DAY}: (Critical|Warning|Info|Debug[123]): ")

    def use(self, server, session, answer):
        """Does all that a client can do with the session, on the full disk."""
        client = server.client()
        viewer = server.viewer(answer["port"], answer["password"])
        self.assertIsNotNone(viewer)
        zarvo.wait_until(lambda: self.listed(server)[session] == "disconnect|terminate", "the client")
        self.assertIsNone(client.call("Live.Suspend", [session]))
        answer = client.call("Live.Resume", [session])
        self.assertEqual(client.call("Live.Replay", [session]), answer)
        self.assertIsNotNone(server.viewer(answer["port"], answer["password"]))
        zarvo.wait_until(lambda: self.listed(server)[session] == "disconnect|terminate", "the next client")

    def test_sessions_go_on_when_the_disk_is_full(self):
        server = self.server()
        session, answer = self.start(server)
        other, _ = self.start(server)
        self.fill(server)
        self.assert_start_is_refused(server, (-32080, "Failed to write a session file."),
                                     (-32087, "Failed to create the session directory."))
        self.use(server, session, answer)
        # This agent cannot write its exit code, but the session has ended.
        agent = int(server.seen(other, "pid"))
        self.assert_fails(-32086, "Failed to read a session file.", server.client().call, "Live.Terminate", [other])
        self.assertFalse(zarvo.alive(agent))
        self.assertEqual(list(self.listed(server)), [session])

        self.empty()
        third, answer = self.start(server)
        self.assertIsNotNone(server.viewer(answer["port"], answer["password"]))
        for each in (session, third):
            server.client().call("Live.Terminate", [each])
        self.assertEqual(self.listed(server), {})
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.logged("Info", "Exiting the server"), 1)
        self.assert_log_is_whole(server)

    def test_limit_on_the_size_of_files_is_like_a_full_disk(self):
        server = self.server()
        session, answer = self.start(server)
        own = resource.getrlimit(resource.RLIMIT_FSIZE)
        resource.prlimit(server.pid, resource.RLIMIT_FSIZE, (2048, own[1]))
        for _ in range(20):  # more such lines are only counted
            with server.client(certificate=None, key=None) as stranger:
                stranger.wait_closed()
        self.assertEqual(os.path.getsize(server.log_file), 2048)
        self.assert_fails(-32080, "Failed to write a session file.", server.client().call, "Live.Start",
                          [zarvo.new_id(), "x" * 5000, "800x600"])
        self.use(server, session, answer)
        other, _ = self.start(server)
        self.assertEqual(set(self.listed(server)), {session, other})
        resource.prlimit(server.pid, resource.RLIMIT_FSIZE, own)
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.logged("Info", "Exiting the server"), 1)
        self.assert_log_is_whole(server)

    def test_bundled_agent_goes_on_when_the_disk_is_full(self):
        server = self.prepare(agent=False)
        server.environment["PATH"] = zarvo.LIBEXEC + ":" + server.environment["PATH"]
        server.install_certificate()
        server.start()
        session, answer = self.start(server)
        agent = int(zarvo.read(os.path.join(server.directory(session), "server_pid")))
        self.fill(server)
        client = server.client()
        for _ in range(2):
            viewer = rfb.Client("127.0.0.1", answer["port"], answer["password"], timeout=zarvo.DEADLINE)
            self.addCleanup(viewer.close)
            zarvo.wait_until(lambda: self.listed(server)[session] == "disconnect|terminate", "the client")
            client.call("Live.Suspend", [session])
            viewer.wait_for_close()
            answer = client.call("Live.Resume", [session])
        # The file system decides whether its exit code fits. The session ends in any case.
        try:
            client.call("Live.Terminate", [session])
        except zarvo.RpcError as failure:
            self.assertEqual(failure.error, {"code": -32086, "message": "Failed to read a session file."})
        zarvo.wait_until(lambda: not zarvo.alive(agent), "the agent's end")
        self.assertEqual(self.listed(server), {})
        self.empty()
        again, _ = self.start(server)
        client.call("Live.Terminate", [again])

    def test_no_room_for_each_file_of_a_start(self):
        """Files of xauth and of the agent too. The log names the file that does not fit."""
        for agent in (True, False):
            with self.subTest(fake_agent=agent):
                server = self.prepare(files=100, agent=agent)
                if not agent:
                    server.environment["PATH"] = zarvo.LIBEXEC + ":" + server.environment["PATH"]
                server.install_certificate()
                server.start()
                kept, _ = self.start(server)
                room = 0
                while not self.starts_with_room_for(room, server, kept):
                    room += 1
                self.assertGreater(room, 7)  # the directory and the server's six files
                self.assertIn("Failed to run the program \"xauth\": ", server.log())

    def starts_with_room_for(self, room, server, kept):
        """Whether a session starts when so many new files fit."""
        folder = os.path.join(server.home, "fillers")
        os.mkdir(folder)
        for number in range(os.statvfs(server.home).f_ffree - room):
            zarvo.write(os.path.join(folder, str(number)), "")
        session, refusal = zarvo.new_id(), None
        try:
            server.client().call("Live.Start", [session, "xterm", "800x600"])
        except zarvo.RpcError as failure:
            refusal = (failure.error["code"], failure.error["message"])
        shutil.rmtree(folder)
        # With room again, the session can be ended in any case, and its id be used.
        if session in self.listed(server):
            with contextlib.suppress(zarvo.RpcError):
                server.client().call("Live.Terminate", [session])
        zarvo.wait_until(lambda: list(self.listed(server)) == [kept], "the end of what was started")
        if refusal is None:
            return True
        self.assertIn(refusal, ((-32087, "Failed to create the session directory."),
                                (-32080, "Failed to write a session file."), (-32099, "An unknown error occurred."),
                                (-32086, "Failed to read a session file.")))
        server.client().call("Live.Start", [session, "again", "800x600"])
        server.client().call("Live.Terminate", [session])
        return False

    def test_start_of_a_server_on_a_full_disk(self):
        server = self.server()
        session, _ = self.start(server)
        before = self.listed(server)
        server.stop()
        self.fill(server)
        launch = server.start(check=False)
        self.assertRegex(launch.stderr, rf'\A{zarvo.DAY}: Critical: Failed to write to the file '
                         rf'"{re.escape(server.pid_file)}": No space left on device\n\Z')
        self.assertEqual(launch.wait_daemon_exit(), 1)
        self.empty()
        server.start()
        self.wait_listed(server, before)
        server.client().call("Live.Terminate", [session])

    def test_first_start_on_a_full_disk(self):
        server = self.prepare()
        self.fill(server)
        launch = server.start(check=False)
        self.assertRegex(launch.stderr, rf"\A{zarvo.DAY}: Critical: Failed to .+\n\Z")
        self.assertEqual(launch.wait_daemon_exit(), 1)
        self.empty()
        server.start()
        self.assert_serves(server)

    def test_sessions_go_on_when_their_directories_become_read_only(self):
        server = self.server()
        mount("--bind", server.sessions, server.sessions)
        self.addCleanup(subprocess.run, ["umount", "--lazy", server.sessions], check=True, timeout=60)
        session, answer = self.start(server)
        mount("-o", "remount,ro,bind", server.sessions)
        self.assert_start_is_refused(server, (-32087, "Failed to create the session directory."))
        self.use(server, session, answer)
        # A new server finds it as well.
        before = self.listed(server)
        server.stop()
        server.start()
        self.wait_listed(server, before)
        mount("-o", "remount,rw,bind", server.sessions)
        server.client().call("Live.Terminate", [session])
        self.assertFalse(os.path.exists(server.directory(session)))

    def test_start_of_a_server_on_a_read_only_disk(self):
        server = self.server()
        session, _ = self.start(server)
        server.stop()
        mount("-o", "remount,ro,bind", server.home)
        launch = server.start(check=False)
        self.assertRegex(launch.stderr, rf'\A{zarvo.DAY}: Critical: Failed to open the file '
                         rf'"{re.escape(server.log_file)}": Read-only file system\n\Z')
        self.assertEqual(launch.wait_daemon_exit(), 1)
        mount("-o", "remount,rw,bind", server.home)
        server.start()
        self.assertEqual(list(self.listed(server)), [session])
        server.client().call("Live.Terminate", [session])


if __name__ == "__main__":
    unittest.main()
