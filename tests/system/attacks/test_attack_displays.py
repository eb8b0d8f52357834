# SPDX-License-Identifier: MIT
"""A stranger takes the names and ports of a display before the server does."""
import os
import socket

import accounts
import bundled
import zarvo


def setUpModule():
    accounts.need_accounts()


def squat_abstract(display):
    taken = socket.socket(socket.AF_UNIX)
    taken.bind(f"\0/tmp/.X11-unix/X{display}")
    return taken


def squat_port(address):
    def act(display):
        taken = socket.socket(socket.AF_INET6)
        taken.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
        taken.bind((address, 41000 + display))
        taken.listen(1)
        return taken
    return act


def squat_state_socket(display):
    os.symlink("/nowhere/at/all", f"/tmp/Xrdp_{display}.sock")


class SquattedDisplay(accounts.AccountTestCase, bundled.BundledAgentTestCase):
    """The server's first display is squatted. A start has to take the next one, as often as it is tried."""

    def setUp(self):
        self.prepare_server(account=self.owner)
        self.instance.environment["PATH"] = (os.path.dirname(accounts.program(os.path.join(zarvo.LIBEXEC, "start-agent")))
                                             + ":" + self.instance.environment["PATH"])

    def assert_starts_beside(self, squat):
        first = self.instance.displays.base
        self.held(self.stranger, squat, first)
        self.instance.start()
        self.client = self.instance.client()
        session, answer = self.start("true")
        self.assertEqual(answer["port"], 41000 + first + 1)
        self.client.call("Live.Terminate", [session])

    def test_abstract_x_socket(self):
        self.assert_starts_beside(squat_abstract)

    def test_port_on_ipv6_loopback(self):
        self.assert_starts_beside(squat_port("::1"))

    def test_port_on_all_ipv6_addresses(self):
        self.assert_starts_beside(squat_port("::"))

    def test_dangling_state_socket(self):
        self.assert_starts_beside(squat_state_socket)  # the end of the server's surroundings removes the link
