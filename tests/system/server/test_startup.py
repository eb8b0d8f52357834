# SPDX-License-Identifier: MIT
"""A successful start: files and their modes, settings, one server per user, the daemon's environment, its end."""
import fcntl
import os
import pwd
import re
import signal
import shutil
import socket
import subprocess
import threading
import unittest

import zarvo


def start_with(server, words):
    """Starts the server from a shell with these arguments."""
    server.install_program("zarvo-with-words", f"exec {zarvo.BINARY} {words}\n")
    binary, zarvo.BINARY = zarvo.BINARY, os.path.join(server.bin, "zarvo-with-words")
    try:
        server.start()
    finally:
        zarvo.BINARY = binary


class Files(zarvo.TestCase):
    def test_first_start_with_defaults(self):
        server = self.prepare(certificate=False)
        os.unlink(os.path.join(server.home, ".config", "Halvorn Media", "Zarvo Server.conf"))
        server.start()
        self.assertEqual(sorted(os.listdir(server.path)), ["server_log", "server_pid", "server_port", "sessions"])
        self.assertEqual(sorted(os.listdir(os.path.dirname(server.path))),
                         sorted(["server_cert", "server_key", zarvo.HOST]))
        for path in (server.log_file, server.pid_file, server.port_file, server.certificate, server.key):
            self.assertEqual(zarvo.mode(path), "0o600", path)
        self.assertEqual(zarvo.mode(server.sessions), "0o700")
        self.assertEqual(zarvo.read(server.pid_file), str(server.pid))
        self.assertEqual(zarvo.read(server.port_file), str(server.port))
        self.assertIn("(zarvo_server)", zarvo.read(f"/proc/{server.pid}/stat"))
        self.assert_serves(server)

    def test_default_level_logs_start_and_end_only(self):
        server = self.server({"LogLevel": None})
        self.assertEqual(server.stop(), 0)
        lines = server.log().split("\n")
        self.assertEqual(len(lines), 3, lines)
        self.assertRegex(lines[0], f"^{zarvo.DAY}: Info: Starting the server version 1\\.0\\.38$")
        self.assertRegex(lines[1], f"^{zarvo.DAY}: Info: Exiting the server$")
        self.assertEqual(lines[2], "")

    def test_no_udp_socket_by_default(self):
        server = self.server()
        inodes = {target[8:-1] for target in server.descriptors().values() if target.startswith("socket:[")}
        for table in ("udp", "udp6"):
            for line in zarvo.read(f"/proc/{server.pid}/net/{table}").splitlines()[1:]:
                self.assertNotIn(line.split()[9], inodes)

    def test_every_step_is_named_at_debug1(self):
        server = self.server({"LogLevel": "Debug1"})
        server.wait_log("Info", "Starting the server version " + zarvo.VERSION)
        steps = ["Writing the pid file", "Creating certificate files", "Creating the session directory",
                 "Initializing data stores", "Reading the certificate files", "Creating the SSL socket",
                 "Writing the port file", "Creating the UDP socket", "Setting up signal handlers"]
        logged = [line.split(": ", 2)[2] for line in server.log().splitlines() if ": Debug1: " in line]
        self.assertEqual([step for step in logged if step in steps], steps)

    def test_log_is_appended_to(self):
        server = self.prepare()
        zarvo.write(server.log_file, "from an earlier life\n")
        server.start()
        self.assertTrue(server.log().startswith("from an earlier life\n"))

    def test_modes_do_not_depend_on_the_callers_mask(self):
        server = self.prepare(certificate=False)
        mask = os.umask(0)
        try:
            server.start()
        finally:
            os.umask(mask)
        for path in (server.log_file, server.pid_file, server.port_file, server.certificate, server.key):
            self.assertEqual(zarvo.mode(path), "0o600", path)
        self.assertEqual(zarvo.mode(server.sessions), "0o700")

    def test_modes_of_stale_files_are_corrected(self):
        server = self.prepare()
        for path in (server.pid_file, server.port_file):
            zarvo.write(path, "a number that is longer than any other: 12345678901234567890")
            os.chmod(path, 0o666)
        server.start()
        for path, value in ((server.pid_file, server.pid), (server.port_file, server.port)):
            self.assertEqual(zarvo.mode(path), "0o600")
            self.assertEqual(zarvo.read(path), str(value))

    def test_existing_certificate_is_used_unchanged(self):
        server = self.prepare()
        before = [(zarvo.read(path), os.stat(path).st_mtime_ns) for path in (server.certificate, server.key)]
        server.start()
        self.assert_serves(server)
        self.assertEqual([(zarvo.read(path), os.stat(path).st_mtime_ns) for path in (server.certificate, server.key)],
                         before)

    def test_openssl_is_not_needed_when_the_certificate_exists(self):
        self.assert_serves(self.server(programs=["sh"]))

    def test_only_the_certificate_deleted_makes_a_new_pair(self):
        server = self.prepare()
        os.unlink(server.certificate)
        key = zarvo.read(server.key)
        server.start()
        self.assertNotEqual(zarvo.read(server.key), key)
        self.assert_serves(server)

    def test_arguments_of_openssl(self):
        server = self.prepare(certificate=False)
        seen = os.path.join(server.records, "openssl")
        real = shutil.which("openssl")
        server.install_program("openssl", f'printf "%s\\n" "$PWD" "$@" > {seen}\nexec {real} "$@"\n')
        server.start()
        self.assertEqual(zarvo.read(seen).splitlines(), [
            "/", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", server.path + "/../server_key", "-out",
            server.path + "/../server_cert", "-days", "365", "-batch"])

    def test_expired_certificate_is_served(self):
        server = self.prepare()
        subprocess.run(["openssl", "x509", "-in", server.certificate, "-signkey", server.key, "-days", "0", "-out",
                        server.certificate + "2"], check=True, stderr=subprocess.DEVNULL, timeout=60)
        os.rename(server.certificate + "2", server.certificate)
        zarvo.wait_until(lambda: subprocess.run(["openssl", "x509", "-in", server.certificate, "-checkend", "0"],
                                                stdout=subprocess.DEVNULL, timeout=60).returncode, "its end")
        server.start()
        self.assert_serves(server)


class Settings(zarvo.TestCase):
    def test_log_levels(self):
        critical, warning, info, debug1, debug2, debug3 = "Critical", "Warning", "Info", "Debug1", "Debug2", "Debug3"
        for name, shown in ((critical, 0), (warning, 1), (info, 2), (debug1, 3), (debug2, 4), (debug3, 5),
                            ("debug1", 2), ("DEBUG1", 2), ("", 2), ("5", 2), ("Debug4", 2), ("Debug1 ", 2), (None, 2)):
            with self.subTest(level=name):
                server = self.server({"LogLevel": name})
                with server.client() as client:
                    client.send_raw(b"nonsense")
                    client.wait_closed()
                self.assertEqual(server.stop(), 0)
                self.assertEqual(server.logged("Warning", "Invalid NetString length"), 1 if shown >= 1 else 0)
                self.assertEqual(server.logged("Info", "Exiting the server"), 1 if shown >= 2 else 0)
                self.assertEqual(server.logged("Debug1", "Writing the pid file"), 1 if shown >= 3 else 0)

    def test_listen_port_is_used_and_kept_in_16_bits(self):
        server = self.prepare()
        # Outside the range of outgoing connections, so that none takes it before the start.
        port = 6000 + server.displays.base
        for stored in (port, 65536 + port):
            server.settings["ListenPort"] = stored
            server.write_settings()
            server.start()
            self.assertEqual(server.port, port)
            self.assert_serves(server)
            self.assertEqual(server.stop(), 0)

    def test_display_base_is_kept_in_16_bits(self):
        server = self.prepare()
        server.settings["DisplayBase"] = 65536 + server.displays.base
        server.settings["DisplayLimit"] = 65536 + 20
        server.write_settings()
        server.start()
        answer = server.client().call("Live.Start", [zarvo.new_id(), "xterm", "800x600"])
        self.assertEqual(answer["port"], 41000 + server.displays.base)

    def test_range_of_displays_wraps_in_16_bits(self):
        # The range ends at 64, so the search passes 65535.
        server = self.prepare({"DisplayBase": 65500, "DisplayLimit": 100})
        server.agent(listen="no")  # another process may hold the port
        server.start()
        session = zarvo.new_id()
        answer = server.client().call("Live.Start", [session, "xterm", "800x600"])
        display = int(zarvo.read(os.path.join(server.directory(session), "display")))
        self.assertTrue(display >= 65500 or display < 64, display)
        self.assertEqual(answer["port"], (41000 + display) % 65536)
        server.client().call("Live.Terminate", [session])

    def test_placeholders_of_the_user_path(self):
        cases = {
            "@HOME@/state": lambda s: f"{s.home}/state",
            "@TEMP@/state-@USER@": lambda s: f"{s.temp}/state-{s.user}",
            "@HOME@/@USER@@HOST@": lambda s: f"{s.home}/{s.user}{zarvo.HOST}",
            "@HOME@/@home@": lambda s: f"{s.home}/@home@",
            "@HOME@/a|b@USER": lambda s: f"{s.home}/a|b@USER",
            "@HOME@/~/$HOME": lambda s: f"{s.home}/~/$HOME",
        }
        for setting, expected in cases.items():
            with self.subTest(setting=setting):
                server = self.prepare({"UserPath": setting})
                server.path = expected(server)
                os.makedirs(server.path)
                server.certificate = os.path.join(os.path.dirname(server.path), "server_cert")
                server.key = os.path.join(os.path.dirname(server.path), "server_key")
                server.install_certificate()
                server.start()
                self.assert_serves(server)
                self.assertEqual(server.stop(), 0)

    def test_inserted_values_are_not_expanded_again(self):
        server = self.prepare({"UserPath": "@HOME@/x"})
        server.home = os.path.join(server.top, "@USER@")
        os.rename(os.path.join(server.top, "home"), server.home)
        server.environment["HOME"] = server.home
        server.path = os.path.join(server.home, "x")
        os.mkdir(server.path)
        server.certificate, server.key = (os.path.join(server.home, name) for name in ("server_cert", "server_key"))
        server.install_certificate()
        server.start()
        self.assertTrue(os.path.exists(server.log_file))

    def test_unset_user_is_replaced_by_nothing(self):
        server = self.prepare({"UserPath": "@HOME@/[@USER@]"}, environment={"USER": None})
        server.path = os.path.join(server.home, "[]")
        os.mkdir(server.path)
        server.certificate, server.key = (os.path.join(server.home, name) for name in ("server_cert", "server_key"))
        server.install_certificate()
        server.start()
        self.assert_serves(server)

    def test_relative_user_path_is_resolved_against_the_root(self):
        server = self.prepare()
        server.settings["UserPath"] = server.path[1:]
        server.write_settings()
        server.start()
        self.assert_serves(server)

    def test_arguments_are_not_interpreted(self):
        server = self.prepare()
        start_with(server, "--help --version -platform foo /tmp")
        self.assert_serves(server)


class OneServerPerUser(zarvo.TestCase):
    def test_second_instance_is_silent_and_ends_with_0(self):
        server = self.server()
        server.wait_log("Info", "Starting the server version " + zarvo.VERSION)  # the last line of a start
        before = server.log(), server.pid, server.port
        launch = server.start(check=False)
        self.assertEqual((launch.stdout, launch.stderr, launch.status), ("", "", 0))
        self.assertEqual(launch.wait_daemon_exit(), 0)
        self.assertEqual((server.log(), int(zarvo.read(server.pid_file)), int(zarvo.read(server.port_file))), before)
        self.assert_serves(server)
        server.launches.remove(launch)
        launch.close()

    def test_other_user_gets_a_server_of_its_own(self):
        first, second = self.server(), self.prepare()
        second.environment["TMPDIR"] = first.temp
        second.start()
        self.assert_serves(first)
        self.assert_serves(second)

    def test_many_starts_at_once_leave_one_server(self):
        server = self.prepare()
        launches = []
        threads = [threading.Thread(target=lambda: launches.append(zarvo.Launch(server.environment))) for _ in range(6)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        server.launches += launches
        self.assertEqual(len(launches), 6)
        self.assertEqual([(launch.stdout, launch.stderr, launch.status) for launch in launches], [("", "", 0)] * 6)

        def still_running():
            for launch in launches:
                launch.poll()
            # The keeper of each start reports two ends: the parent's and the daemon's.
            return [launch for launch in launches if len(launch.exits) == 1]
        zarvo.wait_until(lambda: len(still_running()) == 1, "five of six to end")
        running = still_running()
        server.launches.remove(running[0])
        server.launches.append(running[0])  # stop() asks the last one
        zarvo.wait_until(lambda: os.path.exists(server.port_file), "the port file")
        server.pid, server.port = int(zarvo.read(server.pid_file)), int(zarvo.read(server.port_file))
        self.assert_serves(server)

    def test_restart_at_once_after_a_kill(self):
        server = self.server()
        first = server.pid
        self.assertEqual(server.stop(signal.SIGKILL), -signal.SIGKILL)
        self.assertEqual(zarvo.read(server.pid_file), str(first))
        server.start()
        self.assertNotEqual(server.pid, first)
        self.assert_serves(server)

    def test_restart_at_once_after_a_normal_end(self):
        server = self.server()
        for _ in range(3):
            self.assertEqual(server.stop(), 0)
            server.start()
        self.assert_serves(server)

    def hostile_names(self):
        """The files that a server puts into the temporary directory."""
        probe = self.server()
        names = [name for name in os.listdir(probe.temp) if not os.path.isdir(os.path.join(probe.temp, name))]
        self.assertTrue(names, "no lock file there: these tests have to learn where it is now")
        return probe, names

    def test_foreign_lock_file_does_not_count_as_another_instance(self):
        server, names = self.hostile_names()
        self.assertEqual(server.stop(), 0)
        foreign = pwd.getpwnam("nobody").pw_uid
        if os.geteuid() != 0:
            self.skipTest("not root: the file cannot be given to another user")
        for name in names:
            path = os.path.join(server.temp, name)
            if os.path.lexists(path):
                os.unlink(path)
            with open(path, "w", encoding="ascii") as file:
                os.chmod(path, 0o666)
                os.chown(path, foreign, foreign)
                fcntl.flock(file, fcntl.LOCK_EX)
                fcntl.lockf(file, fcntl.LOCK_EX)
                server.start()
                self.assert_serves(server)
                # It is still the only instance.
                launch = server.start(check=False)
                self.assertEqual((launch.stderr, launch.wait_daemon_exit()), ("", 0))
                server.launches.remove(launch)
                launch.close()
                self.assertEqual(server.stop(), 0)
            self.assertEqual(os.stat(path).st_uid, foreign)

    def test_directories_links_and_pipes_named_as_the_lock_are_skipped(self):
        server, names = self.hostile_names()
        self.assertEqual(server.stop(), 0)
        precious = os.path.join(server.home, "precious")
        zarvo.write(precious, "as it was")
        absent = os.path.join(server.home, "absent")
        makers = {
            "link": lambda path: os.symlink(precious, path),
            "dangling link": lambda path: os.symlink(absent, path),
            "hard link": lambda path: os.link(precious, path),
            "pipe": os.mkfifo,
            "directory": os.mkdir,
        }
        for name in names:
            for kind, make in makers.items():
                with self.subTest(name=name, kind=kind):
                    path = os.path.join(server.temp, name)
                    if os.path.lexists(path):
                        os.unlink(path)
                    make(path)
                    held = open(precious, "rb+")
                    fcntl.flock(held, fcntl.LOCK_EX)
                    try:
                        server.start()
                        self.assert_serves(server)
                        self.assertEqual(server.stop(), 0)
                    finally:
                        held.close()
                        os.rmdir(path) if kind == "directory" else os.unlink(path)
                    self.assertEqual(zarvo.read(precious), "as it was")
                    self.assertFalse(os.path.lexists(absent))


class Daemon(zarvo.TestCase):
    def test_surroundings(self):
        server = self.prepare()
        launch = server.start(stdin="/etc/passwd")
        proc = f"/proc/{server.pid}"
        descriptors = server.descriptors()
        self.assertEqual(os.readlink(proc + "/cwd"), "/")
        self.assertEqual([descriptors[number] for number in (0, 1, 2)], ["/dev/null"] * 3)
        stat = zarvo.read(proc + "/stat").rpartition(")")[2].split()
        parent, group, session, terminal = (int(field) for field in stat[1:5])
        self.assertEqual((group, session), (server.pid, server.pid))
        self.assertEqual(terminal, 0)
        self.assertEqual(parent, launch.keeper.pid)  # the starting process has ended
        self.assertIn("Umask:\t0077", zarvo.read(proc + "/status"))
        self.assertEqual(server.children(), {})

    def test_agent_inherits_only_its_standard_streams(self):
        server = self.prepare()
        # Descriptors that the server's caller left open do not reach the agent either.
        with open("/etc/passwd", "rb") as left_open:
            server.start(descriptors=[left_open.fileno()])
        client = server.client()
        for _ in range(2):
            session = zarvo.new_id()
            client.call("Live.Start", [session, "xterm", "800x600"])
            seen = [line.split(" ", 1) for line in server.seen(session, "fds").splitlines()]
            self.assertEqual([number for number, _ in seen], ["0", "1", "2"], seen)
            for _, target in seen:
                self.assertEqual(target, "/dev/null")

    def test_agent_has_standard_streams_if_the_caller_closed_its_own(self):
        for closed in ("<&-", ">&-", "2>&-", "<&- >&-", ">&- 2>&-", "<&- >&- 2>&-"):
            with self.subTest(closed=closed):
                server = self.prepare()
                start_with(server, closed)
                session = zarvo.new_id()
                server.client().call("Live.Start", [session, "xterm", "800x600"])
                self.assertEqual(server.seen(session, "fds").splitlines(),
                                 ["0 /dev/null", "1 /dev/null", "2 /dev/null"])

    def test_agent_is_not_touched_by_the_servers_signals(self):
        server = self.server()
        session = zarvo.new_id()
        server.client().call("Live.Start", [session, "xterm", "800x600"])
        sid, pid = server.seen(session, "sid").split()
        self.assertNotEqual(int(sid), server.pid)
        status = server.seen(session, "status")
        blocked = int(re.search(r"SigBlk:\s+(\w+)", status).group(1), 16)
        ignored = int(re.search(r"SigIgn:\s+(\w+)", status).group(1), 16)
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2):
            self.assertFalse(blocked >> (number - 1) & 1, number)
            if number != signal.SIGINT:  # Python handles this one itself
                self.assertFalse(ignored >> (number - 1) & 1, number)
        self.assertTrue(zarvo.alive(int(pid)))


class Signals(zarvo.TestCase):
    def test_terminate_and_interrupt_end_the_server(self):
        for number, name in ((signal.SIGTERM, "TERM"), (signal.SIGINT, "INT")):
            with self.subTest(signal=name):
                server = self.server()
                port = server.port
                self.assertEqual(server.stop(number), 0)
                self.assertEqual(server.logged("Debug1", f"Got signal '{name}'"), 1)
                self.assertEqual(server.logged("Info", "Exiting the server"), 1)
                self.assertTrue(server.log().splitlines()[-1].endswith(": Info: Exiting the server"))
                self.assertFalse(os.path.exists(server.pid_file))
                self.assertFalse(os.path.exists(server.port_file))
                self.assertTrue(os.path.isdir(server.sessions))
                with self.assertRaises(ConnectionRefusedError), socket.create_connection(("127.0.0.1", port), 5):
                    pass

    def test_end_with_clients_connected(self):
        server = self.server()
        clients = [server.client() for _ in range(5)]
        raw = socket.create_connection(("127.0.0.1", server.port), zarvo.DEADLINE)
        self.addCleanup(raw.close)
        clients[0].call("Live.GetVersion")
        clients[1].send_raw(b"100:half a frame")
        self.assertEqual(server.stop(), 0)
        for client in clients:
            client.wait_closed()

    def test_hangup_reopens_a_moved_log(self):
        server = self.server({"LogLevel": "Debug1"})
        moved = server.log_file + ".1"
        os.rename(server.log_file, moved)
        with server.client() as client:
            client.send_raw(b"nonsense")
            client.wait_closed()
        zarvo.wait_until(lambda: "Invalid NetString length" in zarvo.read(moved), "a line in the moved file")
        self.assertFalse(os.path.exists(server.log_file))
        os.kill(server.pid, signal.SIGHUP)
        zarvo.wait_until(lambda: os.path.exists(server.log_file), "the new log")
        self.assertRegex(zarvo.read(moved), f"(?m)^{zarvo.DAY}: Debug1: Got signal 'HUP'$")
        before = zarvo.read(moved)
        self.assertEqual(zarvo.mode(server.log_file), "0o600")
        self.assertEqual(server.stop(), 0)
        self.assertEqual(server.logged("Info", "Exiting the server"), 1)
        self.assertEqual(zarvo.read(moved), before)

    def test_hangup_without_a_move_appends(self):
        server = self.server({"LogLevel": "Debug1"})
        for count in (1, 2, 3):
            os.kill(server.pid, signal.SIGHUP)
            server.wait_log("Debug1", "Got signal 'HUP'", count)
        self.assertEqual(server.logged("Debug1", "Writing the pid file"), 1)
        self.assertTrue(os.path.exists(server.pid_file))

    def test_log_that_cannot_be_reopened_does_not_end_the_server(self):
        server = self.server()
        moved = server.log_file + ".1"
        os.rename(server.log_file, moved)
        os.mkdir(server.log_file)
        os.kill(server.pid, signal.SIGHUP)
        zarvo.wait_until(lambda: "Got signal 'HUP'" in zarvo.read(moved), "the signal")
        zarvo.wait_until(lambda: moved not in server.descriptors().values(), "the old file to be closed")
        with server.client() as client:
            client.send_raw(b"nonsense")
            client.wait_closed()
        self.assert_serves(server)
        self.assertNotIn("Invalid NetString length", zarvo.read(moved))
        os.rmdir(server.log_file)
        os.kill(server.pid, signal.SIGHUP)
        zarvo.wait_until(lambda: os.path.isfile(server.log_file), "the log to come back")



class TemporaryDirectory(zarvo.TestCase):
    """The single instance works with any temporary directory, and without one."""

    def assert_one_server(self, folder):
        server = self.server(environment={"TMPDIR": folder})
        second = server.start(check=False)
        self.assertEqual((second.stdout, second.stderr, second.status, second.wait_daemon_exit()), ("", "", 0, 0))
        server.launches.remove(second)  # stop() has to end the first one
        second.close()
        self.assertEqual(zarvo.read(server.pid_file), str(server.pid))
        self.assert_serves(server)

    def test_default_temporary_directory(self):
        self.assert_one_server(None)

    def test_missing_folder(self):
        self.assert_one_server("/no/such/folder")


class OddLaunchers(zarvo.TestCase):
    def test_ignored_signals_are_not_inherited(self):
        server = self.prepare()
        ignored = [signal.SIGCHLD, signal.SIGUSR1, signal.SIGUSR2, signal.SIGQUIT]
        before = [signal.signal(number, signal.SIG_IGN) for number in ignored]
        try:
            server.start()
        finally:
            for number, handler in zip(ignored, before):
                signal.signal(number, handler)
        ignoring = next(line for line in zarvo.read(f"/proc/{server.pid}/status").splitlines()
                        if line.startswith("SigIgn:"))
        mask = int(ignoring.split()[1], 16)
        self.assertEqual([number for number in ignored if mask >> (number - 1) & 1], [])
        with server.client() as client:
            client.call("Live.Start", [zarvo.new_id(), "xterm", "800x600"])


if __name__ == "__main__":
    unittest.main()
