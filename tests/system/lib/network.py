# SPDX-License-Identifier: MIT
"""Two hosts with a cable between them, for tests of one program that strangers on the network attack."""
import contextlib

import hosts

HERE, THERE = "192.0.2.1", "192.0.2.2"


class Cable:
    """The host "near", where the tested program runs, and "far", where its enemies are. What run() of a host starts or
    opens belongs to it."""

    def __init__(self, test):
        self.near, self.far = (self.host(test, name) for name in ("near", "far"))
        self.connect("eth0", HERE, self.far, THERE)

    def third(self, test):
        """One more host, in another network than the enemies'."""
        made = self.host(test, "third")
        self.connect("eth1", "198.51.100.1", made, "198.51.100.2")
        made.ip("route", "add", "192.0.2.0/24", "dev", "eth0")
        return made

    def connect(self, port, own_address, other, address):
        self.near.ip("link", "add", port, "type", "veth", "peer", "name", "eth0", "netns", str(other.id))
        self.near.ip("address", "add", f"{own_address}/24", "dev", port)
        self.near.ip("link", "set", port, "up")
        other.ip("address", "add", f"{address}/24", "dev", "eth0")
        other.ip("link", "set", "eth0", "up")

    @staticmethod
    def host(test, name):
        made = hosts.Namespace(name)
        test.addCleanup(contextlib.closing(made).__exit__)
        return made
