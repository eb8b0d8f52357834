# SPDX-License-Identifier: MIT
"""Sessions outlive their server, and a new server finds them again."""
import contextlib
import os
import signal
import subprocess
import unittest

import zarvo


class Survival(zarvo.TestCase):
    def start(self, server, command="xterm", geometry="800x600", **behaviour):
        session = zarvo.new_id()
        if behaviour:
            server.agent(session, **behaviour)
        return session, server.client().call("Live.Start", [session, command, geometry])

    def listed(self, server):
        with server.client() as client:
            return client.local_sessions()

    def wait_listed(self, server, expected):
        """Checks that the new server has found these sessions, and that their agents have answered."""
        self.assertEqual([entry["id"] for entry in self.listed(server)], [entry["id"] for entry in expected])
        with contextlib.suppress(AssertionError):
            zarvo.wait_until(lambda: self.listed(server) == expected, "the answers of the agents")
        self.assertEqual(self.listed(server), expected)

    @staticmethod
    def plant(server, folder, agent, /, **files):
        """Makes a session directory by hand."""
        directory = os.path.join(server.sessions, folder)
        os.makedirs(directory)
        content = {"display": str(server.displays.base + 5), "window_mode": "desktop", "name": "planted",
                   "monitor_pid": str(agent), **files}
        for file, text in content.items():
            if text is not None:
                zarvo.write(os.path.join(directory, file), text)
        return directory

    def running(self, directory):
        """Starts a process in that directory, as an agent is."""
        os.makedirs(directory, exist_ok=True)
        process = subprocess.Popen(["sleep", "600"], cwd=directory)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def test_three_sessions_are_found_after_a_kill(self):
        server = self.server()
        sessions = [self.start(server), self.start(server, geometry="rootless"), self.start(server, state="log")]
        before = self.listed(server)
        self.assertEqual(len(before), 3)
        self.assertEqual(server.stop(signal.SIGKILL), -signal.SIGKILL)
        server.start()
        self.wait_listed(server, before)
        for session, answer in sessions:
            self.assertTrue(zarvo.alive(int(server.seen(session, "pid"))))
            self.assertEqual(server.seen(session, "signals"), "USR1\n")
            self.assertIsNotNone(server.viewer(answer["port"], answer["password"]))
        for session, _ in sessions:
            server.client().call("Live.Terminate", [session])
        self.assertEqual(self.listed(server), [])

    def test_sessions_are_found_after_a_normal_end(self):
        server = self.server()
        session, answer = self.start(server)
        before = self.listed(server)
        for _ in range(2):
            self.assertEqual(server.stop(), 0)
            self.assertTrue(zarvo.alive(int(server.seen(session, "pid"))))
            server.start()
            self.wait_listed(server, before)
        self.assertEqual(server.client().call("Live.Replay", [session])["password"], answer["password"])

    def test_viewer_of_a_session_stays_connected(self):
        server = self.server()
        session, answer = self.start(server)
        viewer = server.viewer(answer["port"], answer["password"])
        zarvo.wait_until(lambda: self.listed(server)[0]["permissions"] == "disconnect|terminate", "the client")
        before = self.listed(server)
        server.stop(signal.SIGKILL)
        server.start()
        self.wait_listed(server, before)
        viewer.settimeout(0.0)
        with self.assertRaises(BlockingIOError):
            viewer.recv(1)

    def test_name_comes_back_as_its_first_word(self):
        server = self.server()
        self.start(server, "xterm -e top")
        self.assertEqual(self.listed(server)[0]["name"], "xterm -e top")
        server.stop()
        server.start()
        self.assertEqual(self.listed(server)[0]["name"], "xterm")

    def test_sessions_that_ended_meanwhile_are_cleaned_up_at_the_start(self):
        server = self.server()
        good, _ = self.start(server)
        bad, _ = self.start(server, exit_code=2)
        killed, _ = self.start(server)
        server.stop(signal.SIGKILL)
        for session, number in ((good, signal.SIGTERM), (bad, signal.SIGTERM), (killed, signal.SIGKILL)):
            pid = int(server.seen(session, "pid"))
            os.kill(pid, number)
            zarvo.wait_until(lambda: not zarvo.alive(pid), "the agent's end")
        server.start()
        self.assertEqual(self.listed(server), [])
        self.assertFalse(os.path.exists(server.directory(good)))
        self.assertTrue(os.path.isdir(server.directory(bad)))
        self.assertTrue(os.path.isdir(server.directory(killed)))

    def test_a_process_that_works_elsewhere_is_not_the_agent(self):
        server = self.prepare()
        session = zarvo.new_id()
        other = self.running(server.home)
        self.plant(server, "C-" + session, other.pid, server_exit="4")
        kept = zarvo.new_id()
        agent = self.running(server.directory(kept))
        for name, text in (("display", str(server.displays.base)), ("window_mode", "rootless"), ("name", "kept"),
                           ("monitor_pid", str(agent.pid))):
            zarvo.write(os.path.join(server.directory(kept), name), text)
        server.start()
        self.assertEqual(self.listed(server), [{
            "id": kept, "location": "", "windowMode": "rootless", "name": "kept", "started": "", "lastConnect": "",
            "lastDisconnect": "", "permissions": "connect|terminate"}])
        self.assertIsNone(other.poll())
        self.assertTrue(os.path.isdir(server.directory(session)))

    def test_directories_with_invalid_names_are_ignored_and_kept(self):
        server = self.prepare()
        good = zarvo.new_id()
        agent = self.running(server.directory(good))
        names = ["C-" + good[1:], "C-" + good + "0", "c-" + good, good, "C-" + "g" * 32, "C-", "X-" + good,
                 "x.C-" + good, "C-" + good + "-old", "lost+found"]
        for name in names:
            self.plant(server, name, agent.pid)
        zarvo.write(os.path.join(server.sessions, "C-" + "1" * 32), "a file and no directory")
        for name, text in (("display", str(server.displays.base)), ("window_mode", "desktop"), ("name", "good"),
                           ("monitor_pid", str(agent.pid))):
            zarvo.write(os.path.join(server.directory(good), name), text)
        before = self.snapshot(server)
        server.start()
        self.assertEqual([entry["id"] for entry in self.listed(server)], [good])
        self.assertEqual(self.snapshot(server), before)

    def test_sessions_with_unreadable_files_are_ignored_and_kept(self):
        server = self.prepare()
        for file in ("display", "window_mode", "name", "monitor_pid"):
            for text in (None, "", "\n"):
                directory = server.directory(zarvo.new_id())
                agent = self.running(directory)
                os.rmdir(directory)
                self.plant(server, os.path.basename(directory), agent.pid, **{file: text})
        for file in ("display", "monitor_pid"):
            self.plant(server, "C-" + zarvo.new_id(), os.getpid(), **{file: "abc"})
        broken = self.plant(server, "C-" + zarvo.new_id(), os.getpid(), display=None)
        os.mkdir(os.path.join(broken, "display"))
        before = self.snapshot(server)
        server.start()
        self.assertEqual(self.listed(server), [])
        self.assertEqual(self.snapshot(server), before)

    @staticmethod
    def snapshot(server):
        return sorted((folder, sorted(folders), sorted(files)) for folder, folders, files in os.walk(server.sessions))

    def test_start_with_the_id_of_an_orphaned_directory(self):
        server = self.prepare()
        session = zarvo.new_id()
        self.plant(server, "C-" + session, 2147483647, server_exit="1", server_log="RDP initialized at 'never'\n")
        server.start()
        self.assertEqual(self.listed(server), [])
        answer = server.client().call("Live.Start", [session, "again", "800x600"])
        self.assertEqual(answer["port"], 41000 + server.displays.base)
        self.assertEqual([entry["name"] for entry in self.listed(server)], ["again"])

    def test_server_killed_during_a_start(self):
        server = self.server()
        session = zarvo.new_id()
        server.agent(session, ready="hold")
        client = server.client()
        client.begin("Live.Start", [session, "xterm", "800x600"])
        server.seen(session, "pid")
        monitor = os.path.join(server.directory(session), "monitor_pid")
        zarvo.wait_until(lambda: os.path.exists(monitor) and zarvo.read(monitor), "the pid of the agent")
        server.stop(signal.SIGKILL)
        server.start()
        self.assertEqual([entry["id"] for entry in self.listed(server)], [session])
        server.release(session)
        zarvo.wait_until(lambda: self.listed(server)[0]["started"], "the agent to be ready")
        self.assertEqual(self.listed(server)[0]["permissions"], "connect|terminate")
        answer = server.client().call("Live.Resume", [session])
        self.assertIsNotNone(server.viewer(answer["port"], answer["password"]))

    def test_server_ends_while_a_start_waits(self):
        server = self.server()
        session = zarvo.new_id()
        server.agent(session, ready="hold")
        client = server.client()
        client.begin("Live.Start", [session, "xterm", "800x600"])
        server.seen(session, "pid")
        os.kill(server.pid, signal.SIGTERM)
        server.wait_log("Debug1", "Got signal 'TERM'")
        server.release(session)
        self.assertEqual(server.wait_exit(), 0)
        self.assertFalse(os.path.exists(server.pid_file))
        self.assertTrue(zarvo.alive(int(server.seen(session, "pid"))))
        server.start()
        self.assertEqual([entry["id"] for entry in self.listed(server)], [session])


if __name__ == "__main__":
    unittest.main()
