# SPDX-License-Identifier: MIT
"""The processes that read strangers' bytes, in the hands of such a stranger."""
import contextlib
import errno
import os
import re
import signal
import socket

import attackeddoor
import injection
import zarvo


setUpModule = attackeddoor.need_strangers


class TakenOver(attackeddoor.DoorTestCase):
    """The process that reads a stranger's bytes, in the hands of that stranger."""

    OPENAT, SOCKET, EXECVE, FORK, PTRACE, KILL, PRCTL = 257, 41, 59, 57, 101, 62, 157

    def visitors(self, session):
        """The pids of the processes that receive visitors: the servant, and its children."""
        servant = [pid for pid in children(session.pid()) if name(pid) == "session-door"]
        self.assertEqual(len(servant), 1)
        return servant[0], children(servant[0])

    def receive(self, session):
        """Has a stranger received. Returns the servant and the stranger's process."""
        connection = self.raw_from_afar(session)
        connection.recv(12, socket.MSG_WAITALL)
        connection.sendall(b"RFB 003.008\n")
        connection.recv(2, socket.MSG_WAITALL)
        servant, visitors = self.visitors(session)
        self.assertEqual(len(visitors), 1)
        return servant, visitors[0]

    def test_it_can_neither_open_a_file_nor_run_a_program(self):
        injection.need_injection()
        session = self.session()
        _, visitor = self.receive(session)
        puppet = injection.Puppet(visitor)
        try:
            self.assertGreater(puppet.call(39), 0)  # getpid, to see that calls work
            refused = {
                "open": puppet.call(self.OPENAT, -100, b"/etc/passwd", os.O_RDONLY),
                "open the log": puppet.call(self.OPENAT, -100, b"server_log", os.O_WRONLY),
                "socket": puppet.call(self.SOCKET, socket.AF_INET, socket.SOCK_STREAM, 0),
                "local socket": puppet.call(self.SOCKET, socket.AF_UNIX, socket.SOCK_STREAM, 0),
                "execve": puppet.call(self.EXECVE, b"/bin/true", 0, 0),
                "fork": puppet.call(self.FORK),
                "ptrace": puppet.call(self.PTRACE, 16, session.pid(), 0, 0),
                "kill": puppet.call(self.KILL, session.pid(), 0),
                "prctl": puppet.call(self.PRCTL, 4, 1),
            }
        finally:
            puppet.close()
        self.assertEqual({call: result for call, result in refused.items() if result != -errno.EPERM}, {})
        self.at_home(session)

    def test_it_is_confined_and_no_other_process_is(self):
        session = self.session()
        for pid in self.receive(session):
            status = zarvo.read(f"/proc/{pid}/status")
            self.assertRegex(status, r"Seccomp:\s+2\n")
            self.assertRegex(status, r"NoNewPrivs:\s+1\n")
        for pid in (session.pid(), session.process.pid, session.x_server()):
            self.assertRegex(zarvo.read(f"/proc/{pid}/status"), r"NoNewPrivs:\s+0\n")
        # "sudo" inside the session goes on working.
        self.assertRegex(session.run("grep NoNewPrivs /proc/self/status"), r"NoNewPrivs:\s+0\n")

    def test_it_does_not_hold_the_private_key(self):
        session = self.session()
        viewer = self.from_afar(session, tls=attackeddoor.context(session.certificate))
        servant, visitors = self.visitors(session)
        prime = private_prime(session.key)
        self.assertTrue(any(is_in_memory(session.pid(), form) for form in (prime, prime[::-1])))
        for pid in (servant, *visitors):
            self.assertFalse(any(is_in_memory(pid, form) for form in (prime, prime[::-1])))
        viewer.framebuffer()

    def test_it_knows_nothing_of_the_users_environment(self):
        session = self.session()
        servant, visitor = self.receive(session)
        for pid in (servant, visitor):
            self.assertEqual(zarvo.read(f"/proc/{pid}/environ"), "")

    def test_killed_servant_is_started_again(self):
        session = self.session()
        servant, _ = self.receive(session)
        os.kill(servant, signal.SIGKILL)
        zarvo.wait_until(lambda: not zarvo.alive(servant), "the servant's end")
        self.at_home(session)
        self.from_afar(session, tls=attackeddoor.context(session.certificate)).framebuffer()

    def test_servant_ends_with_the_session(self):
        session = self.session()
        servant, visitor = self.receive(session)
        session.signal(signal.SIGTERM)
        self.assert_over(session, 0)
        zarvo.wait_until(lambda: not (zarvo.alive(servant) or zarvo.alive(visitor)), "the end of the door's processes")


def children(pid):
    return [int(child) for child in zarvo.read(f"/proc/{pid}/task/{pid}/children").split()]


def name(pid):
    return zarvo.read(f"/proc/{pid}/comm").strip()


def private_prime(key):
    """The first prime of an RSA key, in the middle: without its outer bytes, so that no padding matters."""
    text = os.popen(f"openssl rsa -in '{key}' -noout -text").read()
    digits = re.search(r"prime1:\n((?:\s+[0-9a-f:]+\n)+)", text).group(1)
    return bytes.fromhex(re.sub(r"[\s:]", "", digits))[8:-8]


def is_in_memory(pid, wanted):
    with open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        for line in zarvo.read(f"/proc/{pid}/maps").splitlines():
            if " rw" not in line:
                continue
            start, end = (int(number, 16) for number in line.split()[0].split("-"))
            if end - start > 1 << 30:
                continue  # a sanitizer's shadow
            with contextlib.suppress(OSError, OverflowError):
                memory.seek(start)
                if wanted in memory.read(end - start):
                    return True
    return False
