# SPDX-License-Identifier: MIT
"""A stranger with an account of his own looks at what the programs of another user leave on the machine."""
import os

import accounts
import agentsession


def setUpModule():
    accounts.need_accounts()


class OtherUsersFiles(accounts.AccountTestCase):
    def test_server_of_an_ordinary_user_serves_its_owner(self):
        server = self.server(account=self.owner)
        self.assert_serves(server)
        self.assertEqual(os.stat(f"/proc/{server.pid}").st_uid, self.owner.uid)

    def test_stranger_reads_no_file_of_the_server(self):
        server = self.server(account=self.owner)
        server.client().call("Live.Start", [os.urandom(16).hex(), "true", "rootless"])
        found = []
        for folder, _, names in os.walk(os.path.join(server.home, ".zarvo_server")):
            for path in [folder, *(os.path.join(folder, name) for name in names)]:
                if not os.path.islink(path) and os.stat(path).st_mode & 0o077:
                    found.append(path)
        made_by_the_test = {os.path.dirname(server.path), server.path, server.certificate}
        self.assertEqual(set(found) - made_by_the_test, set())
        self.assertGreater(len(os.listdir(server.sessions)), 0)


class OtherUsersAgent(accounts.AccountTestCase, agentsession.AgentTestCase):
    def test_stranger_cannot_ask_for_the_state(self):
        session = self.session(account=self.owner).start()
        self.assertTrue(session.state()["Started"])
        with self.assertRaises(PermissionError):
            self.stranger.call(agentsession.AgentSession.state, session)
