# SPDX-License-Identifier: MIT
"""The system refuses a descriptor, process or thread at each place that needs one. ZARVO_LONG=1 tests all places."""
import errno
import os
import re
import unittest

import faults
import hosts
import zarvo

# By what failed.
REFUSALS = {
    -32080: "Failed to write a session file.",
    -32083: "Failed to start the application.",
    -32084: "Failed to start the agent.",
    -32086: "Failed to read a session file.",
    -32087: "Failed to create the session directory.",
    -32088: "Failed to generate an xauthority cookie.",
    -32089: "Failed to find an open display.",
}

NO_TLS = "Failed to load Qt's plugin for TLS: it is missing, or descriptors or memory are short"


class Resources(faults.FaultCase):
    def start_up(self, error, kinds, path=""):
        """Lets one call after another fail in a start-up. Returns what was printed."""
        self.instance.stop()
        printed = []
        self.steps(lambda step: self.fail_start_up(step, error, kinds, path, printed))
        return printed

    def fail_start_up(self, step, error, kinds, path, printed):
        self.faults.fail(error, step, kinds=kinds, path=path)
        launch = self.faults.start(self.instance, check=False)
        self.disarm()
        if launch.stderr:
            self.assertTrue(self.hit)
            self.assertRegex(launch.stderr, rf"\A{zarvo.DAY}: Critical: [^\n]+\n\Z", self.met)
            if launch.status == 0:
                self.assertEqual(launch.wait_daemon_exit(), 1)
            printed.append(launch.stderr)
            self.faults.start(self.instance)
        else:
            self.instance.pid = int(zarvo.read(self.instance.pid_file))
            self.instance.port = int(zarvo.read(self.instance.port_file))
        self.assertEqual(self.listed(), {}, self.met)
        self.assertEqual(self.instance.stop(), 0)
        return self.hit

    def start(self, error, kinds):
        """Lets one call after another fail in the start of a session. Returns the refusals by code."""
        refusals = {}
        self.steps(lambda step: self.fail_start(step, error, kinds, refusals))
        return refusals

    def fail_start(self, step, error, kinds, refusals):
        session = zarvo.new_id()
        lines = len(self.instance.log().splitlines())
        refusal = self.refused_in(error, step, kinds, "Live.Start", session, "xterm", "800x600")
        if refusal is not None:
            self.assertTrue(self.hit)
            self.assertEqual(refusal["message"], REFUSALS[refusal["code"]], self.met)
            self.assertRegex("\n".join(self.instance.log().splitlines()[lines:]), r": Warning: Failed to ", self.met)
            refusals[refusal["code"]] = refusal["message"]
        unknown = []
        if session not in self.listed():
            unknown = self.agents(session)
            for agent in unknown:
                self.assertEqual(self.instance.seen(session, "pid"), str(agent))
            self.call("Live.Start", session, "again", "800x600")
        self.assert_ends(session, but=unknown)
        return self.hit

    def test_no_descriptor_for_a_start_up(self):
        printed = "".join(self.start_up(errno.EMFILE, faults.DESCRIPTOR, self.instance.home))
        for file in ("server_log", "server_pid", "server_key", "server_cert", "server_port"):
            self.assertRegex(printed, rf'Failed to open the file "\S+/{file}": Too many open files\n')
        if os.environ.get("ZARVO_LONG"):
            # Worker threads open descriptors at the same time, so the failing places vary from run to run.
            self.faults.start(self.instance)
            self.start_up(errno.EMFILE, faults.DESCRIPTOR)

    def test_session_is_found_if_its_files_are_unreadable_for_a_moment(self):
        for error in (errno.EMFILE, errno.ENFILE, errno.ENOMEM, errno.EIO):
            for path in (self.instance.sessions, *map(self.file_of_the_session, ("display", "name", "monitor_pid"))):
                with self.subTest(error=error, path=path):
                    self.instance.stop()
                    self.faults.fail(error, kinds=faults.DESCRIPTOR, path=path)
                    self.faults.start(self.instance)
                    self.disarm()
                    self.assertEqual((self.hit, self.met), (1, "open " + path))
                    self.assertEqual(self.listed(), {})

    def test_no_descriptor_for_the_tls_library(self):
        self.instance.stop()
        for path in (self.instance.certificate, self.instance.key):
            os.unlink(path)  # so that this start makes the pair
        self.faults.fail(errno.EMFILE, kinds=faults.DESCRIPTOR, path="/libqopensslbackend")
        launch = self.faults.start(self.instance, check=False)
        self.disarm()
        self.assertEqual(self.hit, 1)
        self.assertRegex(launch.stderr, rf"\A{zarvo.DAY}: Critical: {NO_TLS}\n\Z")
        self.assertEqual(launch.wait_daemon_exit(), 1)
        self.assertEqual(self.instance.logged("Critical", NO_TLS), 1)
        pair = [zarvo.read(path) for path in (self.instance.certificate, self.instance.key)]
        self.faults.start(self.instance)
        self.assertEqual(self.listed(), {})
        self.assertEqual([zarvo.read(path) for path in (self.instance.certificate, self.instance.key)], pair)

    def file_of_the_session(self, name):
        return os.path.join(self.instance.directory(self.kept), name)

    def test_session_with_files_unreadable_for_long_is_found_by_the_next_server(self):
        for path in (self.instance.sessions, self.file_of_the_session("display")):
            with self.subTest(path=path):
                self.instance.stop()
                self.faults.fail(errno.EMFILE, kinds=faults.DESCRIPTOR, path=path, last=faults.EVER)
                self.faults.start(self.instance)
                self.disarm()
                self.assertGreater(self.hit, 1)
                with self.instance.client() as client:
                    self.assertEqual(client.local_sessions(), [])
                self.assertRegex(self.instance.log(),
                                 rf': Warning: Failed to open the \w+ "{path}": Too many open files\n')
                self.instance.stop()
                self.faults.start(self.instance)
                self.assertEqual(self.listed(), {})

    def test_session_with_missing_files_is_not_retried(self):
        self.instance.stop()
        path = self.file_of_the_session("display")
        os.rename(path, path + "~")
        self.faults.watch(faults.DESCRIPTOR, path)
        self.faults.start(self.instance)
        self.assertEqual(self.faults.count, 1)
        self.faults.off()
        os.rename(path + "~", path)
        with self.instance.client() as client:
            self.assertEqual(client.local_sessions(), [])

    def test_no_process_for_a_start_up(self):
        printed = self.start_up(errno.EAGAIN, faults.PROCESS)
        self.assertEqual([re.sub(r".*Critical: ", "", line) for line in printed],
                         ["Failed to become a daemon: Resource temporarily unavailable\n"])

    def test_no_thread_for_a_start_up(self):
        self.instance.stop()
        for number in (1, 4):
            self.faults.fail(errno.EAGAIN, number, kinds=faults.THREAD, last=faults.EVER)
            launch = self.faults.start(self.instance, check=False)
            self.assertRegex(launch.stderr, rf"\A{zarvo.DAY}: Critical: Failed to start a thread: "
                             r"Resource temporarily unavailable\n\Z")
            self.assertEqual(launch.wait_daemon_exit(), 1)
        self.disarm()
        self.faults.start(self.instance)
        self.assertEqual(self.listed(), {})

    def test_no_descriptor_for_a_start(self):
        self.start(errno.EMFILE, faults.DESCRIPTOR)
        # Without refreshes in between, so that each place of a start has its turn.
        refusals = self.start(errno.EMFILE, faults.DESCRIPTOR | faults.OTHER_THREADS)
        self.assertLessEqual({-32080, -32083, -32084, -32088}, set(refusals))

    def test_no_process_for_a_start(self):
        self.assertEqual(sorted(self.start(errno.EAGAIN, faults.PROCESS)), [-32084, -32083, -32080])

    def test_requests_need_no_further_thread(self):
        self.faults.fail(errno.EAGAIN, kinds=faults.THREAD, last=faults.EVER)
        clients = [self.instance.client(timeout=20) for _ in range(8)]
        sessions = [zarvo.new_id() for _ in clients]
        pending = [client.begin("Live.Start", [session, "xterm", "800x600"])
                   for client, session in zip(clients, sessions)]
        for client, request in zip(clients, pending):
            client.finish(request)
        for session in sessions:
            self.call("Live.Terminate", session)
        self.assertEqual(self.listed(), {})
        self.assertEqual(self.instance.stop(), 0)


class Queries(hosts.NeighbourCase):
    def setUp(self):
        super().setUp()
        self.faults = faults.Faults(self.instance)
        self.start()

    def test_query_without_a_thread_is_given_up_and_logged(self):
        silent = hosts.Service(self, hosts.wait_hang_up)
        failure = (f'Failed to connect to "{hosts.OTHER_HOST}" port "{silent.port}": '
                   "Failed to start a thread: Resource temporarily unavailable")
        count = 10  # as many as one address may have in a second
        self.faults.fail(errno.EAGAIN, kinds=faults.THREAD, last=faults.EVER)
        for _ in range(count):
            self.say(self.message(silent))
        self.instance.wait_log("Warning", failure, count)
        # The queries have taken no thread from requests.
        clients = [self.instance.client() for _ in range(8)]
        sessions = [zarvo.new_id() for _ in clients]
        pending = [client.begin("Live.Start", [session, "xterm", "800x600"])
                   for client, session in zip(clients, sessions)]
        for client, request in zip(clients, pending):
            client.finish(request)
        self.assertEqual(self.instance.logged("Warning", failure), count)
        self.faults.off()

        far = hosts.entry(zarvo.new_id())
        good = hosts.Service(self, hosts.answering(self.instance.certificate, self.instance.key, hosts.reply([far])))
        self.say(self.message(good))
        zarvo.wait_until(lambda: far in self.listed(), "the session of a peer")
        for session in sessions:
            self.client.call("Live.Terminate", [session])
        self.assertEqual(silent.accepted, 0)
        self.assertEqual(self.instance.stop(), 0)


if __name__ == "__main__":
    unittest.main()
