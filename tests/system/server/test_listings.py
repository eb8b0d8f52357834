# SPDX-License-Identifier: MIT
"""Live.ListSessions and Live.ListLocalSessions: the sessions, their order and their fields."""
import json
import os
import time
import unittest

import zarvo

STAMP = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d$"
LISTINGS = ("Live.ListSessions", "Live.ListLocalSessions")


class Listings(zarvo.TestCase):
    def setUp(self):
        self.instance = self.server()
        self.client = self.instance.client()

    def start(self, command="xterm", geometry="800x600", session=None, **behaviour):
        session = session or zarvo.new_id()
        if behaviour:
            self.instance.agent(session, **behaviour)
        return session, self.client.call("Live.Start", [session, command, geometry])

    def entry(self, session):
        return next(entry for entry in self.client.listing() if entry["id"] == session)

    def wait_entry(self, session, key, value):
        zarvo.wait_until(lambda: self.entry(session)[key] == value, f"{key} to be {value}")

    def permissions(self, session):
        return self.entry(session)["permissions"]

    def test_no_sessions_is_null_and_no_empty_list(self):
        for method in LISTINGS:
            self.client.send({"id": 1, "jsonrpc": "2.0", "method": method})
            self.assertEqual(self.client.answer_bytes(), b'{"id":1,"jsonrpc":"2.0","result":null}\n')

    def test_fields_of_a_session(self):
        before = time.strftime("%Y-%m-%dT%H:%M:%S")
        session, _ = self.start("xterm -e top", "rootless")
        self.assertEqual(self.entry(session), {
            "id": session, "location": "", "windowMode": "rootless", "name": "xterm -e top",
            "started": self.entry(session)["started"], "lastConnect": "", "lastDisconnect": "",
            "permissions": "retry|terminate"})
        self.assertRegex(self.entry(session)["started"], STAMP)
        self.assertLessEqual(before, self.entry(session)["started"])
        for method in LISTINGS:
            self.assertEqual(self.client.call(method), [self.entry(session)])
        self.client.send({"id": 1, "jsonrpc": "2.0", "method": "Live.ListSessions"})
        self.assertEqual(self.client.answer_bytes().decode(),
                         zarvo.compact({"id": 1, "jsonrpc": "2.0", "result": [self.entry(session)]}))

    def test_permissions_follow_the_clients(self):
        session, answer = self.start()
        self.assertEqual(self.permissions(session), "retry|terminate")
        viewer = self.instance.viewer(answer["port"], answer["password"])
        self.wait_entry(session, "permissions", "disconnect|terminate")
        self.assertRegex(self.entry(session)["lastConnect"], STAMP)
        self.assertEqual(self.entry(session)["lastDisconnect"], "")
        viewer.close()
        self.wait_entry(session, "permissions", "connect|terminate")
        self.assertRegex(self.entry(session)["lastDisconnect"], STAMP)

    def test_client_and_open_password_give_disconnect(self):
        session, _ = self.start()
        self.reply(session, Clients=1, Passwords=["a", "b"])
        self.wait_entry(session, "permissions", "disconnect|terminate")
        self.reply(session, Clients=0, Passwords=["a", "b"])
        self.wait_entry(session, "permissions", "retry|terminate")

    def reply(self, session, **state):
        path = os.path.join(self.instance.records, "C-" + session, "reply")
        zarvo.write(path + "~", json.dumps(state))
        os.rename(path + "~", path)

    def test_state_of_the_agent_field_by_field(self):
        session, _ = self.start()
        started = self.entry(session)["started"]
        # If the server took the bad part of a reply, the next reply would show it.
        self.reply(session, Clients=2, Started=5, LastConnect="2020-01-02T03:04:05")
        self.wait_entry(session, "lastConnect", "2020-01-02T03:04:05")
        self.assertEqual(self.entry(session)["started"], started)
        self.assertEqual(self.permissions(session), "disconnect|terminate")
        self.reply(session, Clients="0", LastDisconnect="2021-01-02T03:04:05")
        self.wait_entry(session, "lastDisconnect", "2021-01-02T03:04:05")
        self.assertEqual(self.permissions(session), "disconnect|terminate")
        self.assertEqual(self.entry(session)["lastConnect"], "2020-01-02T03:04:05")
        self.reply(session, Clients=0, Passwords="no list", LastDisconnect="2022-01-02T03:04:05")
        self.wait_entry(session, "lastDisconnect", "2022-01-02T03:04:05")
        self.assertEqual(self.permissions(session), "connect|terminate")
        self.reply(session, Passwords=[5, "one", None], LastConnect="2023-01-02T03:04:05")
        self.wait_entry(session, "lastConnect", "2023-01-02T03:04:05")
        self.assertEqual(self.permissions(session), "retry|terminate")
        self.reply(session, Passwords=[5, None, {}], LastConnect="2024-01-02T03:04:05")
        self.wait_entry(session, "lastConnect", "2024-01-02T03:04:05")
        self.assertEqual(self.permissions(session), "connect|terminate")
        self.reply(session, LastConnect="not a date", LastDisconnect="2025-01-02T03:04:05")
        self.wait_entry(session, "lastDisconnect", "2025-01-02T03:04:05")
        self.assertEqual(self.entry(session)["lastConnect"], "")

    def test_sessions_are_sorted_by_id(self):
        sessions = ["f" * 32, "0" * 32, "A" * 32, "a" * 32, "5" * 32, "F" * 32]
        for session in sessions:
            self.start(session=session)
        for method in LISTINGS:
            self.assertEqual([entry["id"] for entry in self.client.call(method)], sorted(sessions))

    def test_names_are_listed_whole_also_beyond_ascii(self):
        name = "xterm -T 'a \"b\"' \u00e4\u20ac\U0001f600 \\ \t end"
        session, _ = self.start(name)
        self.assertEqual(self.entry(session)["name"], name)

    def test_session_that_ended_well_is_removed_with_its_directory(self):
        session, _ = self.start()
        os.kill(int(self.instance.seen(session, "pid")), 15)
        zarvo.wait_until(lambda: self.client.listing("Live.ListSessions") is None, "the session to go")
        zarvo.wait_until(lambda: not os.path.exists(self.instance.directory(session)), "the directory to go")

    def test_session_that_ended_badly_leaves_its_directory(self):
        session, _ = self.start(exit_code=3)
        os.kill(int(self.instance.seen(session, "pid")), 15)
        zarvo.wait_until(lambda: self.client.listing("Live.ListSessions") is None, "the session to go")
        self.assertEqual(zarvo.read(os.path.join(self.instance.directory(session), "server_exit")), "3")

    def test_session_whose_agent_was_killed_is_dropped(self):
        session, _ = self.start()
        other, _ = self.start()
        os.kill(int(self.instance.seen(session, "pid")), 9)
        zarvo.wait_until(lambda: [entry["id"] for entry in self.client.listing("Live.ListSessions")] == [other],
                         "the session to go")
        self.assertTrue(os.path.isdir(self.instance.directory(session)))

    def test_directory_with_a_folder_in_it_is_kept(self):
        session, _ = self.start()
        directory = self.instance.directory(session)
        os.mkdir(os.path.join(directory, "folder"))
        os.kill(int(self.instance.seen(session, "pid")), 15)
        zarvo.wait_until(lambda: self.client.listing("Live.ListSessions") is None, "the session to go")
        self.instance.wait_log("Warning", f'Failed to remove the directory "{directory}"')
        self.assertEqual(os.listdir(directory), ["folder"])

    # Without a socket, the server counts clients and passwords in the log. It reads the log again at each refresh, and
    # adds to the numbers of before.

    def log_line(self, session, text):
        with open(os.path.join(self.instance.directory(session), "server_log"), "a", encoding="utf-8") as file:
            file.write(text + "\n")

    def wait_refreshes(self, session, count):
        """Waits until the server has read the log so many times more. Each reading sees a new time in it."""
        for number in range(count):
            stamp = f"20{number % 100:02}-01-01T00:00:00"
            self.log_line(session, f"RDP initialized at '{stamp}'")
            self.wait_entry(session, "started", stamp)

    def test_without_a_socket_clients_add_up_with_each_reading(self):
        session, _ = self.start(state="log")
        self.log_line(session, "Client authenticated from 'a' at '2020-01-02T03:04:05' with password 'none'")
        self.wait_entry(session, "permissions", "disconnect|terminate")
        self.assertEqual(self.entry(session)["lastConnect"], "2020-01-02T03:04:05")
        self.wait_refreshes(session, 2)
        # From here on the log adds as many clients as it removes, so the number stays.
        self.log_line(session, "Client disconnected from 'a' at '2021-01-02T03:04:05'")
        self.wait_entry(session, "lastDisconnect", "2021-01-02T03:04:05")
        self.wait_refreshes(session, 2)
        self.assertEqual(self.permissions(session), "disconnect|terminate")

    def test_without_a_socket_clients_fall_below_zero(self):
        session, _ = self.start(state="log")
        self.log_line(session, "Client disconnected from 'a' at '2021-01-02T03:04:05'")
        self.wait_entry(session, "lastDisconnect", "2021-01-02T03:04:05")
        self.assertEqual(self.permissions(session), "disconnect|terminate")

    def test_without_a_socket_passwords_add_up_with_each_reading(self):
        session, answer = self.start(state="log")
        self.wait_refreshes(session, 2)
        self.log_line(session, f"Expiring password {answer['password']}")
        self.wait_refreshes(session, 2)
        self.assertEqual(self.permissions(session), "retry|terminate")
        for _ in range(3):
            self.log_line(session, f"Expiring password {answer['password']}")
        self.wait_entry(session, "permissions", "connect|terminate")

    def test_log_lines_after_an_empty_one_are_not_read(self):
        session, _ = self.start(state="log")
        self.wait_refreshes(session, 1)
        self.log_line(session, "Client disconnected from 'a' at '2021-01-02T03:04:05'")
        self.wait_entry(session, "lastDisconnect", "2021-01-02T03:04:05")
        self.log_line(session, "")
        self.log_line(session, "Client disconnected from 'a' at '2022-01-02T03:04:05'")
        # The moved line of a disconnection proves that the log has been read again.
        path = os.path.join(self.instance.directory(session), "server_log")
        text = zarvo.read(path).replace("2021-01-02T03:04:05", "2019-01-02T03:04:05")
        zarvo.write(path + "~", text)
        os.rename(path + "~", path)
        self.wait_entry(session, "lastDisconnect", "2019-01-02T03:04:05")

    def test_log_lines_are_matched_exactly(self):
        session, _ = self.start(state="log")
        for line in ("RDP initialized at '2030-01-01T00:00:00' ", " RDP initialized at '2030-01-01T00:00:00'",
                     "rdp initialized at '2030-01-01T00:00:00'", "RDP initialized at '2030-01-01 00:00:00'",
                     "x RDP initialized at '2030-01-01T00:00:00'", "RDP initialized at 2030-01-01T00:00:00"):
            self.log_line(session, line)
        self.log_line(session, "Client disconnected from 'a' at '2021-01-02T03:04:05'")
        self.wait_entry(session, "lastDisconnect", "2021-01-02T03:04:05")
        self.assertNotRegex(self.entry(session)["started"], "^2030")


class Location(zarvo.TestCase):
    def listed_location(self, **settings):
        server = self.prepare()
        server.settings.update(BroadcastAddress="127.0.0.1", BroadcastPort=6000 + server.displays.base + 19,
                               DisplayLimit=10)
        server.settings.update(settings)
        server.write_settings()
        server.start()
        client = server.client()
        client.call("Live.Start", [zarvo.new_id(), "xterm", "800x600"])
        return server, client.listing()[0]["location"]

    def test_default_names_user_and_host(self):
        server, location = self.listed_location()
        self.assertEqual(location, f"ssh://{server.user}@{zarvo.HOST}:22/zarvo_sci")

    def test_setting_is_expanded(self):
        server, location = self.listed_location(SciUrl="https://@USER@.example.org/@HOST@/x")
        self.assertEqual(location, f"https://{server.user}.example.org/{zarvo.HOST}/x")

    def test_without_discovery_it_is_empty(self):
        _, location = self.listed_location(SciUrl="https://example.org/", BroadcastPort=0)
        self.assertEqual(location, "")


if __name__ == "__main__":
    unittest.main()
