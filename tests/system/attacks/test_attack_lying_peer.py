# SPDX-License-Identifier: MIT
"""A peer that holds the user's certificate says that its session is on a host of its choice. The test plays the peer
from 127.0.0.2, which no interface has."""
import json
import os
import unittest

import ctl
import hosts
import zarvo
from ctl import NO_SERVER, UNTRUSTED
from hosts import OTHER_HOST, entry, reply
from terminal import Terminal

THIRD = "ssh://me@192.0.2.9:2222/zarvo_sci"
OWN = f"ssh://me@{OTHER_HOST}/zarvo_sci"


class LyingPeer(hosts.NeighbourCase, ctl.CtlTestCase):
    def setUp(self):
        super().setUp()
        hosts.NeighbourCase.start(self)
        self.seen = os.path.join(self.instance.top, "ssh-ran")
        self.instance.install_program("fake-ssh", f'echo "$*" >> "{self.seen}"\nexit 255\n')
        self.instance.install_program("a-viewer", "exit 0\n")
        self.environment = {"ZARVO_SSH": "fake-ssh", "ZARVO_VIEWER": "a-viewer"}
        self.peers = os.path.join(self.instance.path, "server_peers")

    def report(self, *locations):
        """The peer reports a session for each location. Returns the ids."""
        sessions = [zarvo.new_id() for _ in locations]
        entries = [entry(session, location=location) for session, location in zip(sessions, locations)]
        pair = self.instance.certificate, self.instance.key
        self.service = hosts.Service(self, hosts.answering(*pair, reply(entries)))
        self.say(self.message(self.service))
        zarvo.wait_until(lambda: {each["id"] for each in self.listed() or []} == set(sessions), "the peer's sessions")
        return sessions

    def report_and_save(self, *locations):
        """The same, and the server has written it down."""
        sessions = self.report(*locations)
        zarvo.wait_until(lambda: os.path.exists(self.peers) and all(
            session in zarvo.read(self.peers) for session in sessions), "the file of the peers")
        return sessions

    def ssh_calls(self):
        calls = zarvo.read(self.seen) if os.path.exists(self.seen) else ""
        if calls:
            os.unlink(self.seen)
        return calls

    def trust(self):
        return {each["id"]: each["trusted"] for each in self.ctl_json(self.instance, "list")}

    def test_ssh_does_not_run_to_a_third_host_without_consent(self):
        (session,) = self.report(THIRD)
        for options in ((), ("--print",)):
            error = self.ctl_error(self.instance, "connect", *options, session, environment=self.environment,
                                   code=UNTRUSTED)
            self.assertIn("192.0.2.9", error)
            self.assertIn("--trust-location", error)
        self.assertEqual(self.ssh_calls(), "")
        self.ctl_error(self.instance, "connect", "--trust-location", session, environment=self.environment,
                       code=NO_SERVER)
        self.assertIn("-- 192.0.2.9 zarvoctl pipe", self.ssh_calls())

    def test_user_is_asked_on_a_terminal(self):
        (session,) = self.report(THIRD)
        for answer, code, runs in (("\n", UNTRUSTED, False), ("n\n", UNTRUSTED, False), ("y\n", NO_SERVER, True)):
            terminal = Terminal({**self.instance.environment, **self.environment}, ctl.CTL, "connect", session)
            self.addCleanup(terminal.close)
            terminal.wait_for("connect anyway? [y/N] ")
            self.assertEqual(self.ssh_calls(), "")
            terminal.type(answer)
            self.assertEqual(terminal.finish()[0], code)
            self.assertEqual("192.0.2.9" in self.ssh_calls(), runs)

    def test_list_marks_the_session(self):
        lying, honest = self.report_and_save(THIRD, OWN)
        self.assertEqual(self.trust(), {lying: False, honest: True})
        result = self.ctl_result(self.instance, "list")
        self.assertIn("! 192.0.2.9", result.stdout)
        self.assertNotIn("! " + OTHER_HOST, result.stdout)
        self.assertIn("another host has reported", result.stderr)
        self.assertIn("\t! 192.0.2.9\t", self.ctl(self.instance, "list", "--plain"))

    def test_host_that_reports_its_own_session_is_trusted(self):
        (session,) = self.report_and_save(OWN)
        self.ctl_error(self.instance, "connect", session, environment=self.environment, code=NO_SERVER)
        self.assertIn(f"-- {OTHER_HOST} zarvoctl pipe", self.ssh_calls())

    def test_name_without_an_address_and_this_host_are_not_trusted(self):
        sessions = self.report_and_save("ssh://no-such-host.invalid/x", "ssh://localhost/x", "ssh://127.0.0.1/x")
        self.assertEqual(self.trust(), dict.fromkeys(sessions, False))

    def test_file_of_the_peers(self):
        self.assertFalse(os.path.exists(self.peers))
        (session,) = self.report_and_save(OWN)
        self.assertEqual(zarvo.mode(self.peers), "0o600")
        self.assertEqual(json.loads(zarvo.read(self.peers)),
                         [{"address": OTHER_HOST, "port": self.service.port,
                           "sessions": [{"id": session, "location": OWN}]}])
        self.service.close()
        self.say(self.message(self.service))
        zarvo.wait_until(lambda: not os.path.exists(self.peers), "the end of the file")
        self.report_and_save(OWN)
        self.instance.stop()
        self.assertFalse(os.path.exists(self.peers))

    def test_what_a_killed_server_has_left_is_removed(self):
        self.instance.stop()
        zarvo.write(self.peers, "[]")
        self.instance.start()
        self.assertFalse(os.path.exists(self.peers))

    def test_without_the_file_nothing_is_trusted(self):
        (session,) = self.report_and_save(OWN)
        for content in (None, "", "[", "{}", '[{"address": "here", "sessions": []}]',
                        '[{"address": "%s", "sessions": [{"id": "%s", "location": 5}]}]' % (OTHER_HOST, session)):
            os.unlink(self.peers)
            if content is not None:
                zarvo.write(self.peers, content)
            self.assertEqual(self.trust(), {session: False}, content)
            zarvo.write(self.peers, "")


if __name__ == "__main__":
    unittest.main()
