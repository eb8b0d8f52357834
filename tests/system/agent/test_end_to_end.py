# SPDX-License-Identifier: MIT
"""The server with the bundled agent: real X servers, real applications, looked at by a real client."""
import os
import shutil
import signal
import socket
import unittest

import bundled
import rfb
import zarvo

BLUE, GREEN = bytes((0x20, 0x40, 0x80)), bytes((0x10, 0xA0, 0x30))


class EndToEnd(bundled.BundledAgentTestCase):
    def assert_all_gone(self, session, port):
        display = port - 41000
        self.assertFalse(os.path.exists(self.instance.directory(session)))
        zarvo.wait_until(lambda: self.others() == {}, f"the session's processes to end: {self.others()}")
        for path in (f"/tmp/.X{display}-lock", f"/tmp/Xrdp_{display}.sock"):
            self.assertFalse(os.path.exists(path), path)
        with self.assertRaises(ConnectionRefusedError), socket.create_connection(("127.0.0.1", port), 5):
            pass

    def test_picture_of_a_desktop_application(self):
        session, answer = self.start()
        viewer = self.connect(answer)
        self.assertEqual((viewer.width, viewer.height), (640, 480))
        # Background and text of the window: an empty terminal or an empty screen has one colour less.
        def drawn():
            colours = viewer.framebuffer().colours()
            return BLUE in colours and len(colours) > 1
        zarvo.wait_until(drawn, "the window of xterm")
        self.wait_permissions(session, "disconnect|terminate")
        viewer.close()
        self.wait_permissions(session, "connect|terminate")
        self.client.call("Live.Terminate", [session])
        self.assert_all_gone(session, answer["port"])

    def test_what_is_typed_runs_in_the_session(self):
        session, answer = self.start()
        viewer = self.connect(answer)
        zarvo.wait_until(lambda: BLUE in viewer.framebuffer().colours(), "the window of xterm")
        proof = os.path.join(self.instance.home, "proof")
        display = str(answer["port"] - 41000)

        def typed():
            # Keys are lost until the window has the keyboard, and the command may run twice.
            viewer.type(f"echo $DISPLAY > {proof}\n")
            viewer.framebuffer()
            return os.path.exists(proof) and zarvo.read(proof).strip()
        self.assertIn(zarvo.wait_until(typed, "the typed command"), (":" + display, f"unix:{display}", f":{display}.0"))
        self.client.call("Live.Terminate", [session])

    def test_rootless_application_fills_the_screen(self):
        session, answer = self.start("xterm -bg '#10a030' -b 20 -geometry 20x5", "rootless")
        self.assertEqual(answer["geometry"], "rootless")
        viewer = self.connect(answer)

        def corners():
            image = viewer.framebuffer()
            return {bytes(image.pixel(x, y)) for x in (5, image.width - 6) for y in (5, image.height - 6)}
        try:
            zarvo.wait_until(lambda: corners() == {GREEN}, "the application to fill the screen")
        except AssertionError as failure:
            logs = [zarvo.read(os.path.join(self.instance.directory(session), name))
                    for name in ("server_log", "app_log")]
            raise AssertionError(f"{failure}; corners {corners()}, processes {self.others()}, logs {logs}") from None
        self.client.call("Live.Terminate", [session])
        self.assert_all_gone(session, answer["port"])

    def test_password_opens_exactly_once(self):
        session, answer = self.start()
        self.connect(answer)
        with self.assertRaises(rfb.AuthenticationFailed):
            self.connect(answer)
        self.wait_permissions(session, "disconnect|terminate")
        self.client.call("Live.Terminate", [session])

    def test_wrong_password_uses_none_up(self):
        session, answer = self.start()
        with self.assertRaises(rfb.AuthenticationFailed):
            self.connect(dict(answer, password="wrong"))
        self.wait_permissions(session, "retry|terminate")
        self.assertEqual(self.client.call("Live.Replay", [session])["password"], answer["password"])
        self.connect(answer)
        self.client.call("Live.Terminate", [session])

    def test_suspend_and_resume(self):
        session, first = self.start()
        viewer = self.connect(first)
        zarvo.wait_until(lambda: BLUE in viewer.framebuffer().colours(), "the window of xterm")
        self.wait_permissions(session, "disconnect|terminate")
        self.assertIsNone(self.client.call("Live.Suspend", [session]))
        viewer.wait_for_close()
        second = self.client.call("Live.Resume", [session])
        self.assertEqual((second["windowMode"], second["geometry"], second["port"]),
                         ("desktop", "640x480", first["port"]))
        self.assertNotEqual(second["password"], first["password"])
        self.assertEqual(self.client.call("Live.Replay", [session]), second)
        viewer = self.connect(second)
        self.assertIn(BLUE, viewer.framebuffer().colours())  # still the same window
        self.client.call("Live.Terminate", [session])
        viewer.wait_for_close()
        self.assert_all_gone(session, first["port"])

    def test_sessions_outlive_the_server(self):
        session, answer = self.start()
        viewer = self.connect(answer)
        zarvo.wait_until(lambda: BLUE in viewer.framebuffer().colours(), "the window of xterm")
        for number in (signal.SIGTERM, signal.SIGKILL):
            self.instance.stop(number)
            self.assertIn(BLUE, viewer.framebuffer().colours())
            self.instance.start()
            self.client = self.instance.client()
            self.wait_permissions(session, "disconnect|terminate")
        self.client.call("Live.Terminate", [session])
        viewer.wait_for_close()
        self.assert_all_gone(session, answer["port"])

    def test_id_that_is_started_again_gets_a_session_of_its_own(self):
        session, first = self.start()
        before = self.connect(first)
        again = self.client.call("Live.Start", [session, bundled.XTERM, "320x240"])
        self.assertNotEqual(again["port"], first["port"])
        viewer = self.connect(again)
        self.assertEqual((viewer.width, viewer.height), (320, 240))
        self.assertEqual((before.framebuffer().width, before.framebuffer().height), (640, 480))
        self.client.call("Live.Terminate", [session])

    def test_three_sessions_side_by_side(self):
        started = [self.start(bundled.XTERM, size) for size in ("320x240", "640x480", "800x600")]
        self.assertEqual(len({answer["port"] for _, answer in started}), 3)
        for (session, answer), size in zip(started, ((320, 240), (640, 480), (800, 600))):
            viewer = self.connect(answer)
            self.assertEqual((viewer.width, viewer.height), size)
        for session, answer in started:
            self.client.call("Live.Terminate", [session])
        self.assertEqual(self.client.listing("Live.ListSessions"), None)
        self.assert_all_gone(session, answer["port"])

    def test_invalid_geometry_fails_and_leaves_no_process(self):
        for geometry in ("nonsense", "99999x99999", "0x0", "-5x5", "800x600x24", ""):
            with self.subTest(geometry=geometry):
                session = zarvo.new_id()
                self.assert_fails(-32099, "An unknown error occurred.", self.client.call, "Live.Start",
                                  [session, bundled.XTERM, geometry])
                zarvo.wait_until(lambda: self.client.local_sessions() == [], "the session to go")
                self.assertEqual(zarvo.read(os.path.join(self.instance.directory(session), "server_exit")), "2")
        zarvo.wait_until(lambda: self.others() == {}, "the agents to end")

    def test_killed_agent_ends_its_session(self):
        session, answer = self.start()
        viewer = self.connect(answer)
        pid = int(zarvo.read(os.path.join(self.instance.directory(session), "server_pid")))
        os.kill(pid, signal.SIGKILL)
        viewer.wait_for_close()
        zarvo.wait_until(lambda: self.client.local_sessions() == [], "the session to be dropped")
        zarvo.wait_until(lambda: self.others() == {}, "the session's processes to end")
        self.assertEqual(zarvo.read(os.path.join(self.instance.directory(session), "server_exit")), "4")

    def test_display_of_a_session_that_ended_can_be_used_again(self):
        def terminate(session):
            self.client.call("Live.Terminate", [session])

        def kill_agent(session):
            os.kill(int(zarvo.read(os.path.join(self.instance.directory(session), "server_pid"))), signal.SIGKILL)

        def kill_x_server(_):
            (pid,) = [pid for pid, command in self.others().items() if command.startswith("/usr/bin/Xtigervnc ")]
            os.kill(pid, signal.SIGKILL)

        def remove_directory(session):
            shutil.rmtree(self.instance.directory(session))

        # The one display that this server has.
        self.use_server(settings={"DisplayLimit": 1})
        ports = set()
        for end in (terminate, kill_agent, kill_x_server, remove_directory):
            with self.subTest(end.__name__):
                session, answer = self.start()
                self.connect(answer).close()
                ports.add(answer["port"])
                end(session)
                zarvo.wait_until(lambda: self.client.local_sessions() == [], "the session to be dropped")
                zarvo.wait_until(lambda: self.others() == {}, "the session's processes to end")
        _, last = self.start()
        self.connect(last)
        self.assertEqual(ports, {last["port"]})


if __name__ == "__main__":
    unittest.main()
