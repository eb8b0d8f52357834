# SPDX-License-Identifier: MIT
"""A stranger, the environment or a cleaner of old files makes a second server of the same user start."""
import contextlib
import hashlib
import os
import shutil
import socket
import subprocess

import accounts
import zarvo

NAMES = 40


def setUpModule():
    accounts.need_accounts()


def lock_file(path):
    os.close(os.open(path, os.O_CREAT | os.O_RDWR, 0o666))


def dangling_link(path):
    os.symlink("/nowhere/at/all", path)


def pipe(path):
    os.mkfifo(path, 0o666)


def unix_socket(path):
    bound = socket.socket(socket.AF_UNIX)
    bound.bind(path)
    return bound


def squat(make, paths):
    os.umask(0)
    return [make(path) for path in paths]


class SingleInstance(accounts.AccountTestCase):
    def setUp(self):
        # Not that of the server, because the stranger's files must stay his.
        self.temp = self.folder(self.owner, 0o1777)
        self.first = self.prepare(account=self.owner, environment={"TMPDIR": self.temp})
        digest = hashlib.sha256(f"zarvo_server-{self.first.user}".encode()).hexdigest()[:16]
        self.prefix = f"zarvo-{digest}-{self.owner.uid}-"
        self.addCleanup(self.clean, "/tmp", self.prefix)

    @staticmethod
    def clean(folder, prefix):
        """Removes what the stranger has left in a folder of everybody."""
        for name in os.listdir(folder):
            if name.startswith(prefix):
                path = os.path.join(folder, name)
                shutil.rmtree(path) if os.path.isdir(path) and not os.path.islink(path) else os.unlink(path)

    def locks(self, folder):
        """The names of the owner's lock files."""
        return [name for name in os.listdir(folder)
                if name.startswith(self.prefix) and os.lstat(os.path.join(folder, name)).st_uid == self.owner.uid]

    def assert_second_ends(self, **environment):
        """Another start for the same USER prints nothing and leaves no server, and the first one goes on."""
        second = self.prepare(account=self.owner, environment={"USER": self.first.user, **environment})
        launch = second.start(check=False)
        self.assertEqual((launch.status, launch.stdout, launch.stderr), (0, "", ""))
        self.assertEqual(launch.wait_daemon_exit(), 0)
        self.assertFalse(os.path.exists(second.port_file))
        self.assert_serves(self.first)

    def squat(self, make):
        for folder in ("/tmp", self.temp):
            paths = [os.path.join(folder, f"{self.prefix}{number}.lock") for number in range(NAMES)]
            self.held(self.stranger, squat, make, paths)

    def runtime_folder(self):
        path = f"/run/user/{self.owner.uid}"
        os.makedirs(path)
        self.addCleanup(shutil.rmtree, path, True)
        self.owner.own(path)
        os.chmod(path, 0o700)
        return path

    def test_other_home_and_temporary_directory(self):
        self.first.start()
        self.assert_second_ends()

    def test_other_runtime_directory(self):
        self.runtime_folder()
        self.first.start()
        self.assert_second_ends(XDG_RUNTIME_DIR=self.folder(self.owner), TMPDIR=self.folder(self.owner))

    def test_nothing_is_created_in_the_home_for_it(self):
        self.first.start()
        left = [name for _, _, names in os.walk(self.first.home) for name in names if "lock" in name]
        self.assertEqual(left, [])

    def test_no_file_is_left_behind(self):
        self.first.start()
        self.assertEqual(len(self.locks("/tmp")), 1)
        self.assertEqual(self.first.stop(), 0)
        self.assertEqual(self.locks("/tmp") + self.locks(self.temp), [])

    def test_squatted_names(self):
        for make in (lock_file, dangling_link, pipe, os.mkdir, unix_socket):
            with self.subTest(make=make.__name__):
                self.squat(make)
                self.first.start()
                self.assert_second_ends(TMPDIR=self.temp)
                self.first.stop()
                for folder in ("/tmp", self.temp):
                    self.clean(folder, self.prefix)

    def test_names_that_are_squatted_after_the_start(self):
        self.first.start()
        for folder in ("/tmp", self.temp):
            paths = [os.path.join(folder, f"{self.prefix}{number}.lock") for number in range(1, NAMES)]
            self.held(self.stranger, squat, lock_file, paths)
        self.assert_second_ends(TMPDIR=self.temp)

    def test_cleaner_does_not_lift_the_lock(self):
        self.runtime_folder()
        self.first.start()
        for folder in ("/tmp", self.temp):
            for name in self.locks(folder):
                os.unlink(os.path.join(folder, name))
        self.assert_second_ends(TMPDIR=self.temp)

    def test_removed_files_are_made_again(self):
        self.first.start()
        for folder in ("/tmp", self.temp):
            for name in self.locks(folder):
                os.unlink(os.path.join(folder, name))
        zarvo.wait_until(lambda: self.locks("/tmp") and self.locks(self.temp), "new lock files")
        self.assert_second_ends()
        self.assert_second_ends(TMPDIR=self.temp)
        self.assertEqual(self.first.stop(), 0)
        self.assertEqual(self.locks("/tmp") + self.locks(self.temp), [])

    def test_hard_links_do_not_lift_the_lock(self):
        self.first.start()
        # What strangers can do where fs.protected_hardlinks is 0.
        for folder in ("/tmp", self.temp):
            for name in self.locks(folder):
                os.link(os.path.join(folder, name), os.path.join(folder, name + ".link"))
        self.assert_second_ends()
        self.assert_second_ends(TMPDIR=self.temp)

    def test_runtime_folder_that_others_can_write_to_is_not_used(self):
        path = self.runtime_folder()
        os.chmod(path, 0o777)
        self.first.start()
        self.assertEqual(os.listdir(path), [])
        self.assert_second_ends()

    def test_runtime_folder_that_goes_does_not_lift_the_lock(self):
        path = self.runtime_folder()
        self.first.start()
        shutil.rmtree(path)
        self.assert_second_ends()

    def test_one_of_two_simultaneous_starts_wins(self):
        self.first.start()  # gives the files to the owner
        self.first.stop()
        binary = accounts.program(zarvo.BINARY)
        for _ in range(5):
            starts = [self.owner.popen([binary], env=self.first.environment, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT) for _ in range(4)]
            for start in starts:
                self.assertEqual((start.communicate(timeout=zarvo.DEADLINE)[0], start.returncode), (b"", 0))
            zarvo.wait_until(lambda: os.path.exists(self.first.port_file), "the port of the one that stayed")
            pid = int(zarvo.read(self.first.pid_file))
            running = [entry for entry in os.listdir("/proc") if entry.isdigit() and self.is_server(entry)]
            self.assertEqual(running, [str(pid)])
            os.kill(pid, 15)
            zarvo.wait_until(lambda: not zarvo.alive(pid), "its end")

    def is_server(self, pid):
        with contextlib.suppress(OSError):
            return os.stat(f"/proc/{pid}").st_uid == self.owner.uid and zarvo.alive(pid) and \
                zarvo.read(f"/proc/{pid}/comm") == "zarvo_server\n"
        return False

    def test_users_do_not_disturb_each_other(self):
        self.first.start()
        other = self.prepare(account=self.stranger, environment={"USER": self.first.user, "TMPDIR": self.temp})
        other.start()
        self.assert_serves(other)
        self.assert_serves(self.first)
