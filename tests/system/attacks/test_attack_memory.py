# SPDX-License-Identifier: MIT
"""What our programs have in memory stays there: no core files, and no looks by other processes of the user."""
import contextlib
import json
import os
import re
import resource
import signal
import subprocess
import unittest

import accounts
import agentsession
import zarvo

# The soft limit on core files that the user has set, in the blocks of "ulimit" and in bytes.
BLOCKS = 2000
USER_LIMIT = BLOCKS * 512


def setUpModule():
    accounts.need_accounts()


def core_limits(pid):
    """The soft and the hard limit on core files, as texts."""
    return re.search(r"Max core file size +(\S+) +(\S+)", zarvo.read(f"/proc/{pid}/limits")).groups()


def can_inspect(pid):
    with contextlib.suppress(PermissionError):
        os.readlink(f"/proc/{pid}/cwd")
        return True
    return False


def look(path):
    """Reads a file, a link or a folder in /proc."""
    if os.path.islink(path):
        return os.readlink(path)
    return os.listdir(path) if os.path.isdir(path) else zarvo.read(path)


class Memory(accounts.AccountTestCase, agentsession.AgentTestCase):
    def setUp(self):
        before = resource.getrlimit(resource.RLIMIT_CORE)
        self.addCleanup(resource.setrlimit, resource.RLIMIT_CORE, before)
        resource.setrlimit(resource.RLIMIT_CORE, (USER_LIMIT, before[1]))
        self.hard = "unlimited" if before[1] == resource.RLIM_INFINITY else str(before[1])

    def surroundings(self):
        instance = self.prepare(agent=False, account=self.owner)
        libexec = os.path.join(accounts.published(), "libexec", "zarvo")
        instance.environment["PATH"] = instance.environment["PATH"].replace(":", f":{libexec}:", 1)
        instance.environment["ASAN_OPTIONS"] += ":disable_coredump=0"  # which would lower the limits itself
        return instance

    def serve(self):
        instance = self.surroundings()
        instance.start()
        return instance

    def end(self, instance, session):
        for arguments in (["terminate", session], ["server", "stop"]):
            ending = self.ctl(instance, *arguments)
            output = ending.communicate(timeout=zarvo.DEADLINE)[0]
            self.assertEqual(ending.returncode, 0, output)

    def ctl(self, instance, *arguments):
        """zarvoctl of the owner, with pipes."""
        return self.owner.popen([accounts.program(os.path.join(zarvo.BUILD, "bin", "zarvoctl")), *arguments],
                                env=instance.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, cwd="/")

    def status(self, instance):
        """The pid of the server that zarvoctl finds."""
        asking = self.ctl(instance, "server", "status", "--json")
        output = asking.communicate(timeout=zarvo.DEADLINE)[0]
        self.assertEqual(asking.returncode, 0, output)
        return json.loads(output)["pid"]

    def test_programs_leave_no_core_file_and_the_session_has_the_users_limit(self):
        instance = self.serve()
        session = zarvo.new_id()
        instance.client().call("Live.Start", [session, "ulimit -Sc; ulimit -Hc; sleep 1000", "rootless"])
        directory = instance.directory(session)
        guard, agent = (int(zarvo.read(os.path.join(directory, name))) for name in ("monitor_pid", "server_pid"))
        for pid in (instance.pid, guard, agent):
            self.assertEqual(core_limits(pid), ("0", self.hard))
        # By blocks of 512 bytes or of 1024, as the shell is.
        soft = zarvo.wait_until(lambda: zarvo.read(os.path.join(directory, "app_log")).split()[:2],
                                "the limits in the session")
        self.assertIn(int(soft[0]), (BLOCKS, BLOCKS // 2))
        self.assertEqual([self.owner.call(can_inspect, pid) for pid in (guard, agent)], [True, False])

    def test_server_is_hidden_from_other_processes_of_the_user(self):
        instance = self.serve()
        for name in ("environ", "fd", "cwd", "exe", "mem", "maps"):
            with self.subTest(name), self.assertRaises(PermissionError):
                self.owner.call(look, f"/proc/{instance.pid}/{name}")

    def test_zarvoctl_finds_the_hidden_server(self):
        instance = self.serve()
        self.assertEqual(self.status(instance), instance.pid)
        os.unlink(instance.pid_file)
        self.assertEqual(self.status(instance), instance.pid)
        other = self.folder(self.owner)
        process = self.owner.popen([accounts.program(os.path.join(zarvo.BUILD, "bin", "zarvoctl")), "doctor"],
                                   env={**instance.environment, "HOME": other, "TMPDIR": other}, text=True, cwd="/",
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertIn(f'already runs with other files: process {instance.pid}, whose HOME is "{instance.home}"',
                      " ".join(process.communicate(timeout=zarvo.DEADLINE)[0].split()))

    def test_zarvoctl_finds_the_server_where_proc_hides_it(self):
        for level in (1, 2):
            with self.subTest(level=level):
                instance = self.serve()
                for arguments in (["server", "status", "--json"], ["server", "stop"]):
                    hiding = self.where_proc_hides(level, instance, *arguments)
                    output = hiding.communicate(timeout=zarvo.DEADLINE)[0]
                    self.assertEqual(hiding.returncode, 0, output)
                self.assertFalse(zarvo.alive(instance.pid))

    def where_proc_hides(self, level, instance, *arguments):
        """zarvoctl of the owner, in a mount namespace where /proc tells nothing of a process that cannot be inspected."""
        uid = str(self.owner.uid)
        script = (f"mount -t proc -o hidepid={level} proc /proc && "
                  'exec setpriv --reuid "$0" --regid "$0" --clear-groups "$@"')
        program = accounts.program(os.path.join(zarvo.BUILD, "bin", "zarvoctl"))
        return subprocess.Popen(["unshare", "-m", "sh", "-c", script, uid, program, *arguments],
                                env=instance.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True, cwd="/")

    def test_owner_of_the_server_can_do_all(self):
        instance = self.serve()
        session = zarvo.new_id()
        instance.client().call("Live.Start", [session, "sleep 1000", "rootless"])
        picture = os.path.join(instance.home, "picture.png")
        for arguments in (["list"], ["screenshot", session, picture], ["logs", session],
                          ["replay", session], ["terminate", session], ["server", "status"]):
            process = self.ctl(instance, *arguments)
            output = process.communicate(timeout=zarvo.DEADLINE)[0]
            self.assertEqual(process.returncode, 0, (arguments, output))

    def test_zarvoctl_is_hidden_and_leaves_no_core_file(self):
        instance = self.serve()
        watching = self.ctl(instance, "watch")
        self.addCleanup(watching.stdout.close)
        self.addCleanup(watching.wait, zarvo.DEADLINE)
        self.addCleanup(watching.kill)
        zarvo.wait_until(lambda: core_limits(watching.pid)[0] == "0", "zarvoctl to run")
        zarvo.wait_until(lambda: not self.owner.call(can_inspect, watching.pid), "zarvoctl to hide")

    def test_server_that_zarvoctl_starts_hands_on_the_users_limit(self):
        instance = self.surroundings()
        instance.hand_over()
        starting = self.ctl(instance, "start", "--json", "--", "ulimit -Sc; sleep 1000")
        output = starting.communicate(timeout=zarvo.DEADLINE)[0]
        self.assertEqual(starting.returncode, 0, output)
        session = json.loads(output)["id"]
        self.addCleanup(self.end, instance, session)
        log = os.path.join(instance.directory(session), "app_log")
        soft = zarvo.wait_until(lambda: zarvo.read(log).split()[:1], "the limit in the session")
        self.assertIn(int(soft[0]), (BLOCKS, BLOCKS // 2))

    def test_crash_leaves_no_core_file(self):
        for name in ("guard", "agent"):
            with self.subTest(name):
                session = self.session(account=self.owner).start()
                os.kill(session.process.pid if name == "guard" else session.pid(), signal.SIGABRT)
                session.wait_exit()
                zarvo.wait_until(lambda: session.processes() == [], "the end of the session")
                self.assertEqual([file for file in os.listdir(session.directory) if file.startswith("core")], [])


if __name__ == "__main__":
    unittest.main()
