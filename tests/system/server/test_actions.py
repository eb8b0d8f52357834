# SPDX-License-Identifier: MIT
"""Live.Resume, Live.Replay, Live.Suspend and Live.Terminate on sessions in every state."""
import json
import os
import socket
import unittest

import zarvo

NO_SESSION = (-32094, "No session exists with the given id.")
WRONG_STATE = (-32092, "The requested operation can not be started from the current state.")
NOT_READ = (-32086, "Failed to read a session file.")
UNKNOWN = (-32099, "An unknown error occurred.")


class Actions(zarvo.TestCase):
    def setUp(self):
        self.instance = self.server()
        self.client = self.instance.client()

    def start(self, command="xterm", geometry="800x600", **behaviour):
        session = zarvo.new_id()
        if behaviour:
            self.instance.agent(session, **behaviour)
        return session, self.client.call("Live.Start", [session, command, geometry])

    def permissions(self, session):
        return {entry["id"]: entry["permissions"] for entry in self.client.local_sessions()}.get(
            session)

    def wait_permissions(self, session, expected):
        zarvo.wait_until(lambda: self.permissions(session) == expected, f"the permissions {expected}")

    def connect(self, session, answer):
        viewer = self.instance.viewer(answer["port"], answer["password"])
        self.assertIsNotNone(viewer, "the agent does not know this password")
        self.wait_permissions(session, "disconnect|terminate")
        return viewer

    def start_idle(self, **how):
        """A session that offers no password and has no client."""
        session, answer = self.start(**how)
        self.connect(session, answer).close()
        self.wait_permissions(session, "connect|terminate")
        return session, answer

    def signals(self, session):
        return self.instance.seen(session, "signals").split()

    @staticmethod
    def agent_state(port):
        """What the agent itself says."""
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(zarvo.DEADLINE)
            connection.connect(f"/tmp/Xrdp_{port - 41000}.sock")
            return json.loads(connection.makefile("rb").read())

    # Replay

    def test_replay_hands_out_the_offered_password_again(self):
        session, answer = self.start(geometry="1280x720")
        expected = {"windowMode": "desktop", "geometry": "1280x720", "password": answer["password"],
                    "port": answer["port"]}
        zarvo.wait_until(lambda: self.client.call("Live.Replay", [session])["geometry"] == "1280x720", "the size")
        for params in ([session], {"id": session}, [session, 5], {"id": session, "other": []}):
            with self.subTest(params=params):
                self.assertEqual(self.client.call("Live.Replay", params), expected)
        self.assertEqual(self.signals(session), ["USR1"])
        self.connect(session, expected)

    def test_replay_of_a_rootless_session(self):
        session, _ = self.start(geometry="rootless")
        self.assertEqual(self.client.call("Live.Replay", [session])["windowMode"], "rootless")
        # The size is that of the screen, not the one asked for at the start.
        self.assertEqual(self.client.call("Live.Replay", [session])["geometry"], "1024x768")

    def test_replay_without_a_password_is_refused(self):
        session, _ = self.start_idle()
        self.assert_fails(*WRONG_STATE, self.client.call, "Live.Replay", [session])

    def test_replay_with_a_client_connected_is_refused(self):
        session, answer = self.start()
        self.connect(session, answer)
        self.assert_fails(*WRONG_STATE, self.client.call, "Live.Replay", [session])

    def test_unknown_size_is_minus_one(self):
        session, _ = self.start()
        path = os.path.join(self.instance.records, "C-" + session, "reply")
        # A new server knows only what the agent says.
        zarvo.write(path, '{"Passwords":["first","last"],"Clients":0,"ScreenWidth":800}')
        self.instance.stop()
        self.instance.start()
        with self.instance.client() as client:
            zarvo.wait_until(lambda: client.local_sessions()[0]["permissions"] == "retry|terminate", "an answer of the agent")
            self.assertEqual(client.call("Live.Replay", [session])["geometry"], "-1x-1")
            # The newest password counts.
            self.assertEqual(client.call("Live.Replay", [session])["password"], "last")

    # Resume

    def test_resume_makes_the_agent_offer_a_new_password(self):
        session, first = self.start_idle(geometry="1280x720")
        second = self.client.call("Live.Resume", [session])
        self.assertEqual(second, {"windowMode": "desktop", "geometry": "1280x720", "password": second["password"],
                                  "port": first["port"]})
        self.assertNotEqual(second["password"], first["password"])
        self.assertEqual(self.signals(session), ["USR1", "USR1"])
        self.assertEqual(self.permissions(session), "retry|terminate")
        self.connect(session, second)

    def test_resume_and_replay_give_the_same(self):
        session, _ = self.start_idle()
        resumed = self.client.call("Live.Resume", [session])
        self.assertEqual(self.client.call("Live.Replay", [session]), resumed)
        self.assertEqual(self.client.call("Live.Replay", [session]), resumed)

    def test_resume_while_a_password_is_offered_is_refused(self):
        session, _ = self.start()
        self.assert_fails(*WRONG_STATE, self.client.call, "Live.Resume", [session])
        self.assertEqual(self.signals(session), ["USR1"])

    def test_resume_with_a_client_connected_is_refused(self):
        session, answer = self.start()
        self.connect(session, answer)
        self.assert_fails(*WRONG_STATE, self.client.call, "Live.Resume", [session])
        self.assertEqual(self.signals(session), ["USR1"])

    def test_resume_fails_if_its_signal_kills_the_agent(self):
        session, _ = self.start()
        path = os.path.join(self.instance.records, "C-" + session, "reply")
        zarvo.write(path, '{"Passwords":[],"Clients":0}')
        self.wait_permissions(session, "connect|terminate")
        # The next signal kills it, and it writes no exit code.
        self.kill_on_next_signal(session)
        self.assert_fails(*NOT_READ, self.client.call, "Live.Resume", [session])
        self.assert_fails(*NO_SESSION, self.client.call, "Live.Resume", [session])
        self.assertTrue(os.path.isdir(self.instance.directory(session)))

    def kill_on_next_signal(self, session):
        zarvo.write(os.path.join(self.instance.records, "C-" + session, "die"), "")

    def test_of_four_resumes_at_once_one_succeeds(self):
        session, _ = self.start_idle()
        clients = [self.instance.client() for _ in range(4)]
        for client in clients:
            client.call("Live.GetVersion")
        pending = [client.begin("Live.Resume", [session]) for client in clients]
        results, errors = [], []
        for client, request in zip(clients, pending):
            try:
                results.append(client.finish(request))
            except zarvo.RpcError as failure:
                errors.append((failure.error["code"], failure.error["message"]))
        # They run one after the other, and the others find the password that the first one has asked for.
        self.assertEqual((len(results), errors), (1, [WRONG_STATE] * 3))
        self.assertEqual(self.signals(session), ["USR1", "USR1"])

    # Suspend

    def test_suspend_disconnects_every_client(self):
        session, answer = self.start()
        viewers = [self.connect(session, answer)]
        # The server never arranges a second client, but the agent may have one.
        os.kill(int(self.instance.seen(session, "pid")), 10)
        state = zarvo.wait_until(lambda: self.agent_state(answer["port"])["Passwords"], "the second password")
        viewers.append(self.instance.viewer(answer["port"], state[0]))
        os.kill(int(self.instance.seen(session, "pid")), 10)
        zarvo.wait_until(lambda: self.agent_state(answer["port"])["Passwords"], "a third one, which stays open")
        self.assertEqual(self.client.call("Live.Suspend", [session]), None)
        for viewer in viewers:
            self.assertEqual(viewer.recv(16), b"")
        self.assertEqual(self.signals(session), ["USR1", "USR1", "USR1", "USR2"])
        self.assertTrue(zarvo.alive(int(self.instance.seen(session, "pid"))))
        self.wait_permissions(session, "retry|terminate")

    def test_suspend_and_resume_can_be_repeated(self):
        session, answer = self.start()
        for _ in range(3):
            viewer = self.connect(session, answer)
            self.assertEqual(self.client.call("Live.Suspend", {"id": session}), None)
            self.assertEqual(viewer.recv(16), b"")
            self.assertEqual(self.permissions(session), "connect|terminate")
            answer = self.client.call("Live.Resume", [session])

    def test_suspend_without_a_client_is_refused(self):
        session, _ = self.start()
        self.assert_fails(*WRONG_STATE, self.client.call, "Live.Suspend", [session])
        self.assertEqual(self.permissions(session), "retry|terminate")
        self.assertEqual(self.signals(session), ["USR1"])

    def test_suspend_fails_if_the_agent_ends_instead(self):
        session, answer = self.start()
        self.connect(session, answer)
        zarvo.write(os.path.join(self.instance.directory(session), "server_exit"), "9")
        self.kill_on_next_signal(session)
        self.assert_fails(*UNKNOWN, self.client.call, "Live.Suspend", [session])
        zarvo.wait_until(lambda: self.permissions(session) is None, "the session to be dropped")
        self.assertTrue(os.path.isdir(self.instance.directory(session)))

    # Terminate

    def test_terminate_ends_the_session_and_removes_its_directory(self):
        session, answer = self.start()
        pid = int(self.instance.seen(session, "pid"))
        self.assertEqual(self.client.call("Live.Terminate", [session]), None)
        self.assertFalse(zarvo.alive(pid))
        self.assertFalse(os.path.exists(self.instance.directory(session)))
        self.assertEqual(self.client.listing("Live.ListSessions"), None)
        self.assertEqual(self.signals(session), ["USR1", "TERM"])
        self.assert_fails(*NO_SESSION, self.client.call, "Live.Terminate", [session])

    def test_terminate_works_in_every_state(self):
        waiting, _ = self.start()
        idle, _ = self.start_idle()
        connected, answer = self.start()
        viewer = self.connect(connected, answer)
        for session in (waiting, idle, connected):
            self.assertEqual(self.client.call("Live.Terminate", [session]), None)
            self.assertFalse(os.path.exists(self.instance.directory(session)))
        self.assertEqual(viewer.recv(16), b"")
        self.assertEqual(self.client.listing("Live.ListSessions"), None)

    def test_terminate_of_an_agent_that_ends_badly_keeps_the_directory(self):
        session, _ = self.start(exit_code=3)
        self.assertEqual(self.client.call("Live.Terminate", [session]), None)
        self.assertEqual(zarvo.read(os.path.join(self.instance.directory(session), "server_exit")), "3")
        self.assert_fails(*NO_SESSION, self.client.call, "Live.Terminate", [session])
        self.assertEqual(self.client.listing("Live.ListSessions"), None)

    def test_terminate_leaves_a_folder_in_the_directory(self):
        session, _ = self.start()
        directory = self.instance.directory(session)
        os.mkdir(os.path.join(directory, "folder"))
        zarvo.write(os.path.join(directory, "folder", "file"), "kept")
        self.assertEqual(self.client.call("Live.Terminate", [session]), None)
        self.assertEqual(self.instance.logged("Warning", f'Failed to remove the directory "{directory}"'), 1)
        self.assertEqual(os.listdir(directory), ["folder"])
        self.assertEqual(zarvo.read(os.path.join(directory, "folder", "file")), "kept")

    def test_links_in_the_directory_are_removed_and_not_followed(self):
        session, _ = self.start()
        precious = os.path.join(self.instance.home, "precious")
        os.mkdir(precious)
        zarvo.write(os.path.join(precious, "file"), "kept")
        directory = self.instance.directory(session)
        os.symlink(os.path.join(precious, "file"), os.path.join(directory, "link"))
        zarvo.write(os.path.join(directory, ".hidden"), "goes too")
        self.assertEqual(self.client.call("Live.Terminate", [session]), None)
        self.assertEqual(zarvo.read(os.path.join(precious, "file")), "kept")
        zarvo.wait_until(lambda: not os.path.exists(directory) or os.listdir(directory), "the end of the removal")
        self.assertFalse(os.path.exists(directory), os.path.exists(directory) and os.listdir(directory))

    def test_terminate_without_a_pid_file_fails_and_can_be_repeated(self):
        session, _ = self.start()
        path = os.path.join(self.instance.directory(session), "server_pid")
        pid = zarvo.read(path)
        os.unlink(path)
        self.assert_fails(*NOT_READ, self.client.call, "Live.Terminate", [session])
        self.assertEqual(self.permissions(session), "retry|terminate")
        zarvo.write(path, pid)
        self.assertEqual(self.client.call("Live.Terminate", [session]), None)

    def test_of_three_terminates_at_once_one_succeeds(self):
        session, _ = self.start()
        clients = [self.instance.client() for _ in range(3)]
        for client in clients:
            client.call("Live.GetVersion")
        pending = [client.begin("Live.Terminate", [session]) for client in clients]
        outcomes = []
        for client, request in zip(clients, pending):
            try:
                outcomes.append(client.finish(request))
            except zarvo.RpcError as failure:
                outcomes.append(failure.error["code"])
        self.assertEqual(sorted(outcomes, key=str), [-32094, -32094, None])
        self.assertEqual(self.signals(session), ["USR1", "TERM"])

    def test_id_of_a_terminated_session_can_be_used_again(self):
        session, _ = self.start()
        for _ in range(2):
            self.client.call("Live.Terminate", [session])
            answer = self.client.call("Live.Start", [session, "xterm", "800x600"])
            self.assertEqual(answer["port"], 41000 + self.instance.displays.base)

    def test_ids_differ_by_case(self):
        session, _ = self.start()
        swapped = session.swapcase()
        if swapped == session:
            self.skipTest("an id of digits only")
        self.assert_fails(*NO_SESSION, self.client.call, "Live.Terminate", [swapped])
        self.assertEqual(self.permissions(session), "retry|terminate")

    def test_different_sessions_do_not_wait_for_each_other(self):
        quick, _ = self.start()
        slow = zarvo.new_id()
        self.instance.agent(slow, ready="hold")
        starter = self.instance.client()
        pending = starter.begin("Live.Start", [slow, "xterm", "800x600"])
        self.instance.seen(slow, "pid")
        self.assertEqual(self.client.call("Live.Terminate", [quick]), None)
        self.assertFalse(os.path.exists(os.path.join(self.instance.records, "C-" + slow, "signals")))
        self.instance.release(slow)
        self.assertIn("port", starter.finish(pending))

    def test_action_waits_for_the_start_of_its_session(self):
        session = zarvo.new_id()
        self.instance.agent(session, ready="hold")
        starter = self.instance.client()
        pending = starter.begin("Live.Start", [session, "xterm", "800x600"])
        monitor = os.path.join(self.instance.directory(session), "monitor_pid")
        zarvo.wait_until(lambda: os.path.exists(monitor) and zarvo.read(monitor), "the agent's start")
        self.client.call("Live.GetVersion")
        waiting = self.client.begin("Live.Terminate", [session])
        self.assert_serves(self.instance)  # by now the server has read the Terminate too
        self.instance.release(session)
        self.assertEqual(self.client.finish(waiting), None)
        self.assertIn("port", starter.finish(pending))
        self.assertEqual(self.signals(session), ["USR1", "TERM"])


if __name__ == "__main__":
    unittest.main()
