# SPDX-License-Identifier: MIT
"""Servers of one user on several hosts. Each host is a namespace with its own network, name and /tmp."""
import contextlib
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time
import unittest

import clock
import hosts
import zarvo


def setUpModule():
    hosts.need_namespaces()


class HostsCase(zarvo.TestCase):
    settings = None

    def setUp(self):
        self.site = hosts.Site(self, self.settings)

    def running(self, *names, **how):
        """Started servers on new hosts of these names, each with a client."""
        servers = [self.site.server(name, **how) for name in names]
        for server in servers:
            server.start()
            server.talk = server.client()
        return servers

    @staticmethod
    def start_session(server, **options):
        session = zarvo.new_id()
        server.agent(session, **options)
        answer = server.talk.call("Live.Start", [session, "xterm", "800x600"])
        # A peer may have seen it before, but the server announces its end only if its own refresh has found it.
        server.talk.wait_notification(lambda params: session in [item["id"] for item in params or []],
                                      "the new session")
        return session, answer

    @staticmethod
    def ids(server, method="Live.ListSessions"):
        return [item["id"] for item in server.talk.listing(method) or []]

    def wait_ids(self, server, *ids):
        zarvo.wait_until(lambda: sorted(self.ids(server)) == sorted(ids), f"{len(ids)} sessions on {server.host.name}")

    def wait_same(self, servers, ids):
        """Checks that each server lists these sessions, those of others as the others describe them."""
        for server in servers:
            self.wait_ids(server, *ids)
        for server in servers:
            peers = sorted((other for other in servers if other is not server),
                           key=lambda other: f"{other.address}:{other.port}")

            def agrees():
                # Read anew each time, because an agent on a busy machine answers a new server late.
                own = [item for other in [*peers, server] for item in other.talk.local_sessions()]
                return server.talk.listing("Live.ListSessions") == (own or None)
            zarvo.wait_until(agrees, f"{server.host.name} to list what the others do")

    @staticmethod
    def warnings(server):
        return [line.split(": ", 2)[2] for line in server.log().splitlines() if ": Warning: " in line]


class Broadcast:
    """Tests that hold for each broadcast address."""

    def test_life_of_a_session_is_seen_on_all_hosts(self):
        servers = alpha, beta, gamma = self.running("alpha", "beta", "gamma")
        self.assertEqual([os.path.basename(server.path) for server in servers], ["alpha", "beta", "gamma"])
        self.assertEqual({os.path.dirname(server.path) for server in servers},
                         {os.path.join(self.site.home, ".zarvo_server")})
        for server in servers:
            self.assertTrue(os.path.exists(server.pid_file), "the servers have a directory each")
            self.assertEqual(server.talk.listing("Live.ListSessions"), None)

        first, offer = self.start_session(alpha)
        self.wait_same(servers, [first])
        self.assertEqual(gamma.talk.listing("Live.ListSessions")[0]["location"], alpha.location)
        self.assertEqual(gamma.talk.listing("Live.ListSessions")[0]["permissions"], "retry|terminate")
        second = self.start_session(beta)[0]
        self.wait_same(servers, [first, second])

        viewer = alpha.viewer(offer["port"], offer["password"])

        def connected():
            return next(item for item in gamma.talk.listing("Live.ListSessions")
                        if item["id"] == first)["permissions"] == "disconnect|terminate"
        zarvo.wait_until(connected, "the change to be seen")
        self.wait_same(servers, [first, second])
        viewer.close()
        zarvo.wait_until(lambda: not connected(), "the change to be seen")
        self.wait_same(servers, [first, second])

        alpha.talk.call("Live.Terminate", [first])
        self.wait_same(servers, [second])
        beta.talk.call("Live.Terminate", [second])
        self.wait_same(servers, [])
        # A listing fails if a session ends while it waits, also for a peer. Then the peer learns of the end next.
        for server in servers:
            self.assertLessEqual(set(self.warnings(server)), {"No session exists with the given id."})

    def test_clients_are_told_of_sessions_elsewhere(self):
        alpha, beta = self.running("alpha", "beta")
        session = self.start_session(alpha)[0]
        beta.talk.wait_notification(lambda params: [item["id"] for item in params or []] == [session], "the session")
        alpha.talk.call("Live.Terminate", [session])
        beta.talk.wait_notification(lambda params: params is None, "the end of the session")


class DefaultAddress(Broadcast, HostsCase):
    # Both settings are left out, so the defaults hold.
    settings = {"BroadcastAddress": None, "UserPath": None}


class SubnetAddress(Broadcast, HostsCase):
    settings = {"BroadcastAddress": f"{hosts.NETWORK}.255"}


class ComingAndGoing(HostsCase):
    def test_late_server_learns_of_the_others(self):
        alpha, beta = self.running("alpha", "beta")
        first, second = self.start_session(alpha)[0], self.start_session(beta)[0]
        self.wait_same([alpha, beta], [first, second])
        # Nothing changes on the others, so they know the new server only by its greeting.
        gamma, = self.running("gamma")
        self.wait_same([alpha, beta, gamma], [first, second])

    def test_sessions_of_a_restarted_server_are_seen_again(self):
        self.site.settings["ListenPort"] = 20124  # so that it has the same port again
        alpha, beta = self.running("alpha", "beta")
        session = self.start_session(beta)[0]
        self.wait_same([alpha, beta], [session])
        beta.stop()
        beta.start()
        beta.talk = beta.client()
        self.wait_same([alpha, beta], [session])

    def test_killed_server_is_forgotten_at_the_next_query(self):
        alpha, beta, gamma = self.running("alpha", "beta", "gamma")
        session = self.start_session(gamma)[0]
        self.wait_same([alpha, beta, gamma], [session])
        gamma.stop(signal.SIGKILL)
        # Its last datagram arrives when it is dead.
        gamma.host.datagrams().sendto(gamma.announcement("UPDATE"), (alpha.address, hosts.UDP_PORT))
        self.wait_ids(alpha)
        self.assertEqual(self.ids(beta), [session])
        self.assertEqual(len(self.warnings(alpha)), 1)
        self.assertRegex(self.warnings(alpha)[0],
                         f'^Failed to connect to "{gamma.address}" port "{gamma.port}": Connection refused$')

    def shifted(self, name):
        """A server, and the function that sets its wall clock and its monotonic clock forward."""
        server = self.site.server(name)
        shift = clock.shifting(self, server)
        server.start()
        server.talk = server.client()
        return server, shift

    def test_host_that_vanishes_is_forgotten(self):
        alpha, shift = self.shifted("alpha")
        gamma, = self.running("gamma")
        session = self.start_session(gamma)[0]
        self.wait_ids(alpha, session)
        seen = time.monotonic()
        gamma.host.plug("down")
        shift(370, 0)
        own = self.start_session(alpha)[0]  # found by a refresh with the new time
        if time.monotonic() - seen < 25:
            self.assertEqual(sorted(self.ids(alpha)), sorted([own, session]))
        shift(401, 0)
        self.wait_ids(alpha, own)
        self.assertEqual(self.warnings(alpha), [])
        # When the host is back, its next change makes it known.
        gamma.host.plug("up")
        other = self.start_session(gamma)[0]
        self.wait_ids(alpha, own, session, other)

    def test_server_repeats_itself_every_five_minutes(self):
        ear = self.site.host("beta").datagrams(hosts.UDP_PORT)
        alpha, shift = self.shifted("alpha")
        self.assertEqual(ear.recv(4096), alpha.announcement("HELLO"))
        self.assertEqual(ear.recv(4096), alpha.announcement("UPDATE"))
        shift(0, 280)
        self.assertEqual(alpha.talk.call("Live.GetVersion"), zarvo.VERSION)  # it has read the clock since
        ear.settimeout(0.5)
        with self.assertRaises(TimeoutError):
            ear.recv(4096)
        ear.settimeout(zarvo.DEADLINE)
        for number in (1, 2, 3):
            shift(0, 300 * number + 1)
            zarvo.wait_until(lambda: alpha.talk.call("Live.GetVersion"), "an answer")
            self.assertEqual(ear.recv(4096), alpha.announcement("UPDATE"))


class Strangers(HostsCase):
    def test_servers_of_other_users_are_ignored(self):
        alpha, = self.running("alpha")
        # The same home directory, so they differ only in the user's name.
        other, = self.running("other", user=self.site.user.upper())
        longer, = self.running("longer", user=self.site.user + "x")
        own, theirs = self.start_session(alpha)[0], self.start_session(other)[0]
        beta, = self.running("beta")
        friend = self.start_session(beta)[0]
        self.wait_same([alpha, beta], [own, friend])
        self.assertEqual(self.ids(other), [theirs])
        self.assertEqual(self.ids(longer), [])
        for server in (alpha, beta, other, longer):
            self.assertEqual(self.warnings(server), [])

    def test_server_with_another_certificate_is_refused(self):
        self.site.settings["ListenPort"] = 20124  # so that it has the same port again
        alpha, = self.running("alpha")
        gamma, = self.running("gamma", home=self.site.new_home("elsewhere"))
        own, session = self.start_session(alpha)[0], self.start_session(gamma)[0]
        self.wait_same([alpha, gamma], [own, session])
        self.assertEqual(gamma.stop(), 0)
        zarvo.make_certificate(os.path.dirname(gamma.certificate))
        gamma.start()
        gamma.talk = gamma.client()
        message = 'The certificate at "%s" port "%d" does not match'
        alpha.wait_log("Warning", message % (gamma.address, gamma.port))
        self.wait_ids(alpha, own)
        # The other way round, it is refused as well.
        gamma.wait_log("Warning", message % (alpha.address, alpha.port))
        self.assertEqual(self.ids(gamma), [session])

    def shout_from(self, alpha, *sources):
        """Sends from these addresses of the host itself. Returns the service that must not get a query for it."""
        bait = hosts.Service(self, hosts.wait_hang_up, "0.0.0.0", alpha.host)
        loud = hosts.announcement("HELLO", bait.port, alpha.user)
        for source in sources:
            own = alpha.host.datagrams(0, source)
            for target in ("127.0.0.1", alpha.address, "255.255.255.255", f"{hosts.NETWORK}.255"):
                # If this host cannot reach an address, nothing can come from there either.
                with contextlib.suppress(OSError):
                    own.sendto(loud, (target, hosts.UDP_PORT))
                    own.sendto(b"no JSON from this host", (target, hosts.UDP_PORT))
        return bait

    def test_address_of_an_interface_that_is_down_is_own_as_well(self):
        alpha, = self.running("alpha")
        alpha.host.ip("link", "add", "idle", "type", "bridge")
        alpha.host.ip("address", "add", "203.0.113.7/24", "dev", "idle")
        bait = self.shout_from(alpha, "203.0.113.7")
        beta, = self.running("beta")
        friend = self.start_session(beta)[0]
        self.wait_ids(alpha, friend)  # by now it has read the earlier datagrams
        self.assertEqual(bait.accepted, 0, "an ignored datagram led to a query")
        self.assertEqual(self.warnings(alpha), [])

    def test_own_datagrams_are_ignored(self):
        alpha, = self.running("alpha")
        alpha.host.ip("link", "add", "second", "type", "bridge")
        alpha.host.ip("address", "add", "198.51.100.7/24", "dev", "second")
        alpha.host.ip("link", "set", "second", "up")
        bait = self.shout_from(alpha, "127.0.0.1", "198.51.100.7", alpha.address)
        # Its own broadcasts come back. If it did not ignore them, a session would be listed twice.
        session = self.start_session(alpha)[0]
        beta, = self.running("beta")
        friend = self.start_session(beta)[0]
        self.wait_same([alpha, beta], [session, friend])
        self.assertEqual(bait.accepted, 0, "an ignored datagram led to a query")
        self.assertEqual(self.warnings(alpha), [])

    def test_answer_goes_where_the_greeting_came_from(self):
        beta = self.site.host("beta")
        everybody, source = beta.datagrams(hosts.UDP_PORT), beta.datagrams()
        alpha, = self.running("alpha")
        # Read its own announcements before sending anything to it.
        self.assertEqual(everybody.recv(4096), alpha.announcement("HELLO"))
        self.assertEqual(everybody.recv(4096), alpha.announcement("UPDATE"))
        peer = hosts.Service(self, hosts.answering(alpha.certificate, alpha.key, hosts.reply([hosts.entry("1" * 32)])),
                             "0.0.0.0", beta)
        hello, update = (hosts.announcement(method, peer.port, alpha.user) for method in ("HELLO", "UPDATE"))
        # First an update: an answer to it would come before the one to the greeting.
        source.sendto(update, (alpha.address, hosts.UDP_PORT))
        self.wait_ids(alpha, "1" * 32)
        self.assertEqual(everybody.recv(4096), alpha.announcement("UPDATE"))  # alpha's own list has grown
        source.sendto(hello, (alpha.address, hosts.UDP_PORT))
        self.assertEqual(source.recvfrom(4096), (alpha.announcement("UPDATE"), (alpha.address, hosts.UDP_PORT)))
        source.sendto(hello, ("255.255.255.255", hosts.UDP_PORT))
        answers = []
        while len(answers) < 1:
            content, origin = source.recvfrom(4096)
            answers.append((content, origin))
        self.assertEqual(answers, [(alpha.announcement("UPDATE"), (alpha.address, hosts.UDP_PORT))])
        zarvo.wait_until(lambda: peer.accepted == 3, "a query for each datagram")
        for ear in (source, everybody):
            ear.setblocking(False)
        with self.assertRaises(BlockingIOError):
            source.recv(4096)
        while True:  # beta hears its own broadcast, and nothing of the answers
            try:
                self.assertEqual(everybody.recv(4096), hello)
            except BlockingIOError:
                break

    def test_damaged_datagrams_do_not_stop_discovery(self):
        """The system reports such a datagram as readable, and drops it when it is read."""
        alpha, = self.running("alpha")
        beta = self.site.host("beta")
        peer = hosts.Service(self, hosts.answering(alpha.certificate, alpha.key, hosts.reply(None)), "0.0.0.0", beta)
        source = beta.datagrams()
        # The system drops a damaged packet of up to 76 bytes on arrival, without reporting it as readable.
        hello = hosts.announcement("HELLO", peer.port, alpha.user).ljust(200)

        def wire():
            return socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)
        raw = beta.run(wire)
        self.addCleanup(raw.close)
        head = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 0, 0, 0, 64, socket.IPPROTO_UDP, 0,
                           socket.inet_aton(beta.address), socket.inet_aton(alpha.address))
        for number in range(1, 51):
            damaged = head + struct.pack("!HHHH", 4711, hosts.UDP_PORT, 8 + len(hello), 0xdead) + hello
            raw.sendto(damaged, (alpha.address, 0))
            if number % 10 == 0:
                self.assertEqual(alpha.talk.call("Live.GetVersion"), zarvo.VERSION)
                source.sendto(hello, (alpha.address, hosts.UDP_PORT))
                self.assertEqual(source.recv(4096), alpha.announcement("UPDATE"))
        zarvo.wait_until(lambda: peer.accepted == 5, "a query for each whole datagram")
        names, numbers = [line.split() for line in alpha.host.run(zarvo.read, "/proc/thread-self/net/snmp").splitlines()
                          if line.startswith("Udp:")]
        self.assertEqual(dict(zip(names, numbers))["InCsumErrors"], "50", "the damage was not noticed")


class TheLibraryItself(zarvo.TestCase):
    SCRIPT = """
import signal, unittest, hosts
class Case(unittest.TestCase):
    def test(self):
        assert hosts.missing() is None
        server = hosts.Site(self).server("alpha")
        server.start()
        print(server.pid, server.top, server.site.top, flush=True)
        signal.pause()
unittest.main(argv=["killed"])
"""

    def test_killed_run_leaves_nothing_behind(self):
        run = subprocess.Popen([sys.executable, "-c", self.SCRIPT], cwd=zarvo.HERE, stdout=subprocess.PIPE, text=True)
        self.addCleanup(run.stdout.close)
        self.addCleanup(run.wait)
        self.addCleanup(run.kill)
        pid, top, site = run.stdout.readline().split()
        self.addCleanup(shutil.rmtree, top, ignore_errors=True)
        network = os.readlink(f"/proc/{pid}/ns/net")
        self.assertNotEqual(network, os.readlink("/proc/self/ns/net"))
        run.kill()

        def inside():
            for entry in os.listdir("/proc"):
                with contextlib.suppress(OSError):
                    if entry.isdigit() and os.readlink(f"/proc/{entry}/ns/net") == network:
                        return True
            return False
        zarvo.wait_until(lambda: not inside(), "the end of everything in the namespace")
        # Until it is reaped its pid is not free, and other runs keep its folders.
        os.waitid(os.P_PID, run.pid, os.WEXITED | os.WNOWAIT)
        hosts.remove_leftovers()
        self.assertTrue(os.path.exists(site))
        run.wait()
        hosts.remove_leftovers()
        self.assertFalse(os.path.exists(site))


if __name__ == "__main__":
    unittest.main()
