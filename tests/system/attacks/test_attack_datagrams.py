# SPDX-License-Identifier: MIT
"""Somebody on the network sends datagrams in other hosts' names, or datagrams that mean nothing."""
import contextlib
import os
import re
import socket
import struct
import threading
import time

import hosts
import zarvo

# As many as make 65 kB.
FLOOD = 1400
# Bytes that we may send to a victim for each byte of an attacker.
MAX_RATIO = 3

# A query is over by then, its repeated attempts to connect included.
EXCHANGE = 15

JUNK_PER_SECOND = 10000
JUNK_SECONDS = 3
SECONDS, SLOW_SECONDS = 1, 8


def setUpModule():
    hosts.need_namespaces()


def forged(source, target, port, content):
    """An IP packet with a UDP datagram. The system fills in length and checksum of the IP header."""
    udp = struct.pack("!HHHH", port, port, 8 + len(content), 0) + content
    return struct.pack("!BBHHHBBH4s4s", 0x45, 0, 0, 0, 0, 64, socket.IPPROTO_UDP, 0, socket.inet_aton(source),
                       socket.inet_aton(target)) + udp


def traffic(column):
    """The bytes that went through the host's network card: 0 received, 8 sent."""
    text = re.search(r"eth0:(.*)", zarvo.read("/proc/thread-self/net/dev")).group(1)
    return int(text.split()[column])


class Network(zarvo.TestCase):
    def setUp(self):
        self.site = hosts.Site(self, {"LogLevel": "Info"})
        self.instance = self.site.server("alpha")
        self.instance.start()
        self.attacker = self.site.host("attacker")

    def processor_seconds(self):
        fields = zarvo.read(f"/proc/{self.instance.pid}/stat").rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Forged(Network):
    """The victim is a host that the attacker cannot be asked to spare. All that it receives comes from the server."""

    def setUp(self):
        super().setUp()
        self.victim = self.site.host("victim")
        self.sources = [self.victim.address]

    def victim_owns(self, count):
        """Gives the victim more addresses, because each is a source of its own."""
        network, _, own = self.victim.address.rpartition(".")
        for number in range(100, 100 + count):
            address = f"{network}.{number}"
            self.victim.ip("address", "add", f"{address}/24", "dev", "eth0")
            self.sources.append(address)

    def service(self):
        """Accepts connections on the victim, reads what the server says first, and closes."""
        service = hosts.Service(self, lambda raw: raw.recv(65536), address="0.0.0.0", host=self.victim)
        return service.port

    def flood(self, port, count=FLOOD):
        content = hosts.announcement("HELLO", port, self.instance.user)

        def send():
            with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW) as raw:
                for number in range(count):
                    source = self.sources[number % len(self.sources)]
                    raw.sendto(forged(source, self.instance.address, hosts.UDP_PORT, content),
                               (self.instance.address, 0))
                    if number % 50 == 49:
                        time.sleep(0.005)  # or the network card's queue drops some
        self.attacker.run(send)

    def assert_ratio(self, port, settle):
        """Floods, and compares the bytes that the attacker has sent with those that the victim has received."""
        received, sent = self.victim.run(traffic, 0), self.attacker.run(traffic, 8)
        used = self.processor_seconds()
        self.flood(port)
        last, since = -1, time.monotonic()
        end = time.monotonic() + 2 * settle  # other packets of the system go on without end
        while time.monotonic() < end and time.monotonic() - since < settle:
            now = self.victim.run(traffic, 0)
            if now != last:
                last, since = now, time.monotonic()
            time.sleep(0.05)
        victim, attacker = self.victim.run(traffic, 0) - received, self.attacker.run(traffic, 8) - sent
        print(f"{attacker} bytes in, {victim} bytes out, ratio {victim / attacker:.2f}, "
              f"{self.processor_seconds() - used:.1f} s of processor time")
        self.assertGreater(attacker, FLOOD * 46)
        self.assertGreater(victim, 0)
        self.assertLessEqual(victim / attacker, MAX_RATIO)
        with self.instance.client() as client:
            self.assertIsNone(client.listing("Live.ListSessions"))

    def test_one_victim_that_accepts_connections(self):
        self.assert_ratio(self.service(), settle=3)

    def test_hundred_victims_that_accept_connections(self):
        self.victim_owns(100)
        self.assert_ratio(self.service(), settle=3)

    def test_victim_that_drops_the_attempts_to_connect(self):
        """The server's system repeats them, after 1, 2, 4 and 8 seconds."""
        self.victim_owns(100)
        self.victim.ip("route", "add", "blackhole", f"{self.instance.address}/32")
        self.assert_ratio(9, settle=EXCHANGE * 0.6)
        self.instance.stop(9)  # its end would wait for the queries, which another test checks

    def test_ten_greetings_of_a_source_are_answered_and_lead_to_queries(self):
        answers = self.victim.datagrams(hosts.UDP_PORT)
        asked = hosts.Service(self, hosts.wait_hang_up, address=self.victim.address, host=self.victim)
        self.flood(asked.port, 10)
        for _ in range(10):
            self.assertEqual(answers.recv(4096), self.instance.announcement("UPDATE"))
        zarvo.wait_until(lambda: asked.accepted == 10, "the queries")
        self.instance.stop(9)


class Junk(Network):
    def junk(self, content, stop):
        """Sends datagrams at the rate until it is told to stop, and returns their number."""
        source = self.attacker.datagrams()
        target, count, begin = (self.instance.address, hosts.UDP_PORT), 0, time.monotonic()
        while not stop.is_set():
            while count < (time.monotonic() - begin) * JUNK_PER_SECOND:
                source.sendto(content, target)
                count += 1
            stop.wait(0.002)
        return count

    def longest_wait(self):
        """How long a client waits for its list, at most, while the junk comes."""
        longest, end = 0, time.monotonic() + JUNK_SECONDS
        while time.monotonic() < end:
            begin = time.monotonic()
            with self.instance.client() as client:
                client.listing("Live.ListSessions")
            longest = max(longest, time.monotonic() - begin)
        return longest

    def assert_harmless(self, content):
        stop, sent = threading.Event(), []
        size = os.path.getsize(self.instance.log_file)
        thread = threading.Thread(target=lambda: sent.append(self.junk(content, stop)))
        thread.start()
        with contextlib.ExitStack() as stack:
            stack.callback(thread.join)
            stack.callback(stop.set)
            longest = self.longest_wait()
        growth = os.path.getsize(self.instance.log_file) - size
        print(f"{sent[0]} datagrams, {growth} bytes of log, the longest wait took {longest * 1000:.0f} ms")
        self.assertGreater(sent[0], JUNK_PER_SECOND)
        self.assertLess(longest, SLOW_SECONDS if self.instance.instrumentation() else SECONDS)
        self.assertLess(growth, 16384)

    def test_junk_fills_no_log_and_delays_nobody(self):
        self.assert_harmless(b"no JSON")
        self.assertEqual(self.instance.stop(), 0)
        more = re.search(r"Warning: (\d+) more in the last minute: Received invalid JSON\n", self.instance.log())
        self.assertGreater(int(more.group(1)), 1000)

    def test_greetings_fill_no_log_and_delay_nobody(self):
        self.assert_harmless(hosts.announcement("HELLO", 9, self.instance.user))

    def test_other_lines_are_written_whole_meanwhile(self):
        self.assert_harmless(b"no JSON")
        clients = [self.instance.client() for _ in range(30)]
        for client in clients:
            client.send_raw(b"bad frame")  # of a client that is admitted
            client.wait_closed()
        self.instance.wait_log("Warning", "Invalid NetString length", 30)


class Rotation(Network):
    def test_log_is_rotated_and_one_old_file_is_kept(self):
        limit = 16 << 20
        old = self.instance.log_file + ".old"
        zarvo.write(old, "earlier\n")
        with open(self.instance.log_file, "a", encoding="ascii") as log:
            log.write("x" * 99 + "\n")
            log.truncate(limit)
        with self.instance.client() as client:
            client.send_raw(b"bad frame")
            client.wait_closed()
        self.instance.wait_log("Warning", "Invalid NetString length")
        self.assertEqual(os.path.getsize(old), limit)
        self.assertLess(os.path.getsize(self.instance.log_file), 1000)
        self.assertEqual({zarvo.mode(path) for path in (old, self.instance.log_file)}, {"0o600"})
        self.assertEqual(self.instance.stop(), 0)
