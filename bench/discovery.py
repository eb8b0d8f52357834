# SPDX-License-Identifier: MIT
"""Measures discovery: when another host sees a session, the cost of a datagram and of a query, and memory that stays.

usage: discovery.py BUILD_FOLDER [HOSTS...]

The hosts are network namespaces of this machine, so they share its processors. All servers of a user pass on a change
on one of them. HOSTS are the numbers of servers for which that is measured, by default 2 4 8.
"""
import json
import os
import sys
import time
import unittest

import common
import hosts
import zarvo

STARTS = 20
DATAGRAMS = 100000
QUERIES = 500
CHANGES = 5
QUIET = 1.5  # longer than the servers take to notice a change


def processor_seconds(server):
    with open(f"/proc/{server.pid}/stat", "rb") as stat:
        fields = stat.read().rpartition(b")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def sent_bytes(server):
    return json.loads(server.host.ip("-s", "-j", "link", "show", "eth0"))[0]["stats64"]["tx"]["bytes"]


class Bench(unittest.TestCase):
    """A test case, because the library uses its clean-ups."""

    def site(self, count):
        site = hosts.Site(self, {"LogLevel": "Warning"})
        servers = [site.server(f"host{number}") for number in range(count)]
        for server in servers:
            server.start()
            server.talk = server.client()
        return servers

    def change_until_seen(self, here, there):
        """The seconds from the request, and from its answer, until the other servers list the new session."""
        session = zarvo.new_id()
        begin = time.monotonic()
        here.talk.call("Live.Start", [session, "xterm", "800x600"])
        answered = time.monotonic()
        for other in there:
            zarvo.wait_until(lambda: session in [item["id"] for item in other.talk.call("Live.ListSessions") or []],
                             "the session")
        seen = time.monotonic()
        here.talk.call("Live.Terminate", [session])
        return seen - begin, seen - answered

    def listing(self):
        here, *there = self.site(3)
        times = [self.change_until_seen(here, there) for _ in range(STARTS)]
        print("session listed on two other hosts, since its start was asked for:",
              common.milliseconds([both[0] for both in times]))
        print("                                   since the start was answered: ",
              common.milliseconds([both[1] for both in times]))

    def datagrams(self):
        server, = self.site(1)
        stranger = server.site.host("stranger")
        source = stranger.datagrams()
        closed = stranger.datagrams().getsockname()[1]  # a port where no service listens
        for name, datagram in (("no JSON", b"?"), ("another user's", hosts.announcement("UPDATE", closed, "somebody")),
                               ("greetings, the queries fail", hosts.announcement("HELLO", closed, server.user))):
            before, spent, begin = common.resident_mib(server.pid), processor_seconds(server), time.monotonic()
            dropped = hosts.pour(source, (server.address, hosts.UDP_PORT), (datagram for _ in range(DATAGRAMS)),
                                 lambda: server.host.run(hosts.pending, hosts.UDP_PORT))
            took, spent = time.monotonic() - begin, processor_seconds(server) - spent
            print(f"{DATAGRAMS} datagrams, {name}: {DATAGRAMS / took:.0f} per second, "
                  f"{spent / DATAGRAMS * 1e6:.1f} us of processor time each, {dropped} dropped by the system; "
                  f"resident {before:.1f} -> {common.resident_mib(server.pid):.1f} MiB")

    def queries(self):
        here, there = self.site(2)
        source = there.host.datagrams()
        update = there.announcement("UPDATE")
        for _ in range(3):  # memory that grows once is a cache; memory that grows again is a leak
            self.ask(here, there, source, update)

    def ask(self, here, there, source, update):
        before = [processor_seconds(server) for server in (here, there)]
        sent, memory, begin = sent_bytes(here) + sent_bytes(there), common.resident_mib(here.pid), time.monotonic()
        dropped = hosts.pour(source, (here.address, hosts.UDP_PORT), (update for _ in range(QUERIES)),
                             lambda: here.host.run(hosts.pending, hosts.UDP_PORT))
        assert dropped == 0, "fewer queries than counted"
        self.wait_idle(here)
        took = time.monotonic() - begin
        asking, asked = (processor_seconds(server) - spent for server, spent in zip((here, there), before))
        print(f"{QUERIES} queries in {took:.1f} s: {asking / QUERIES * 1000:.2f} ms of processor time for who asks, "
              f"{asked / QUERIES * 1000:.2f} ms for who is asked, "
              f"{(sent_bytes(here) + sent_bytes(there) - sent) / QUERIES:.0f} bytes on the wire each; "
              f"resident {memory:.1f} -> {common.resident_mib(here.pid):.1f} MiB")

    @staticmethod
    def wait_idle(*servers):
        """Waits until the servers only do their regular refresh."""
        quiet_since, last = time.monotonic(), None
        while time.monotonic() - quiet_since < QUIET:
            now = [sent_bytes(server) // 1000 for server in servers]
            if now != last:
                quiet_since, last = time.monotonic(), now
            time.sleep(0.1)

    def change(self, count):
        servers = self.site(count)
        self.wait_idle(*servers)
        begin = time.monotonic()
        idle = sum(processor_seconds(server) for server in servers)
        time.sleep(QUIET)
        idle = (sum(processor_seconds(server) for server in servers) - idle) / (time.monotonic() - begin)
        begin = time.monotonic()
        spent, sent = (sum(measure(server) for server in servers) for measure in (processor_seconds, sent_bytes))
        for _ in range(CHANGES):
            session = zarvo.new_id()
            for method, parameters in (("Live.Start", [session, "xterm", "800x600"]), ("Live.Terminate", [session])):
                servers[0].talk.call(method, parameters)
                self.wait_idle(*servers)
        took = time.monotonic() - begin
        spent, sent = (sum(measure(server) for server in servers) - before
                       for measure, before in ((processor_seconds, spent), (sent_bytes, sent)))
        print(f"{count} servers, one start or end of a session: {sent / CHANGES / 2 / 1000:.1f} kB sent by all, "
              f"{max(0, spent - idle * took) / CHANGES / 2 * 1000:.0f} ms of processor time of all")


if hosts.missing():
    sys.exit(f"no network namespaces: {hosts.missing()}")
counts = [int(text) for text in sys.argv[2:]] or [2, 4, 8]
for step in (Bench.listing, Bench.datagrams, Bench.queries, *(lambda bench, n=n: bench.change(n) for n in counts)):
    bench = Bench()
    try:
        step(bench)
    finally:
        bench.doCleanups()
unittest.doModuleCleanups()
