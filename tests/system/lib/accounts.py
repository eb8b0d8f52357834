# SPDX-License-Identifier: MIT
"""Two users on one machine: the one whose programs are tested, and a stranger who attacks them.

    class Example(accounts.AccountTestCase):
        def test_stranger_reads_nothing(self):
            server = self.server(account=self.owner)
            self.stranger.call(os.listdir, server.home)     # runs as the stranger; raises what that raises

Both are ordinary users, because root may do everything. Each test process has users of its own, so tests can run side
by side. Only root can play other users; as somebody else the tests skip, and in CI they fail.
"""
import contextlib
import encodings.idna  # noqa: F401  (another user may be unable to load it when a socket needs it)
import functools
import os
import pickle
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import traceback
import unittest

import zarvo

NOBODY = 65534


def need_accounts():
    """Call it first in setUpModule(). Without the right to play other users it skips the module; in CI it fails."""
    if os.geteuid() == 0:
        return
    if os.environ.get("CI"):
        raise AssertionError("only root can play other users")
    print("skipped, only root can play other users", file=sys.stderr)
    raise unittest.SkipTest("only root can play other users")


@functools.cache
def published():
    """A copy of the built programs that every user may run; the build folder itself may be out of their reach."""
    folder = tempfile.mkdtemp(prefix="zarvo-programs-")
    os.chmod(folder, 0o755)
    for name in ("bin", "libexec"):
        shutil.copytree(os.path.join(zarvo.BUILD, name), os.path.join(folder, name), symlinks=True)
    shutil.copytree(zarvo.HERE, os.path.join(folder, "lib"), ignore=shutil.ignore_patterns("__pycache__"))
    subprocess.run(["chmod", "-R", "go+rX", folder], check=True)
    unittest.addModuleCleanup(shutil.rmtree, folder, True)
    unittest.addModuleCleanup(published.cache_clear)  # another module may follow in this process
    return folder


def everybody_may_run(path):
    folders = os.path.realpath(path).split("/")
    return all(os.stat("/".join(folders[:end]) or "/").st_mode & 0o001 for end in range(1, len(folders) + 1))


@functools.cache
def python():
    """A Python that every user may run."""
    for path in (sys.executable, "/usr/bin/python3"):
        if os.path.exists(path) and everybody_may_run(path):
            return path
    raise AssertionError("there is no Python that other users may run")


def program(path):
    """The copy of a built program, given by its path in the build folder."""
    return os.path.join(published(), os.path.relpath(path, zarvo.BUILD))


class Account:
    """An ordinary user, with no groups but its own."""

    def __init__(self, uid):
        self.uid = uid
        self.processes = []

    def identity(self):
        """Arguments of subprocess.Popen() that make the child this user's."""
        return {"user": self.uid, "group": self.uid, "extra_groups": []}

    def own(self, path):
        """Gives this user a file or a folder with all that is in it."""
        subprocess.run(["chown", "-Rh", f"{self.uid}:{self.uid}", path], check=True)

    def popen(self, arguments, **how):
        process = subprocess.Popen(arguments, **self.identity(), **how)
        self.processes.append(process.pid)
        return process

    def call(self, function, *arguments):
        """Runs the function as this user, in a process of its own, and returns its result or raises its exception."""
        process = Acting(self, function, arguments, stays=False)
        try:
            return process.result
        finally:
            process.close()

    def hold(self, function, *arguments):
        """The same, but the process stays, with all that the function has opened, until close() of what is returned.
        Its result is in "result"."""
        return Acting(self, function, arguments, stays=True)

    def become(self):
        os.setgroups([])
        os.setresgid(self.uid, self.uid, self.uid)
        os.setresuid(self.uid, self.uid, self.uid)


class Acting:
    """A process of another user that runs a Python function. The function's globals are kept alive in it."""

    def __init__(self, account, function, arguments, stays):
        reader, writer = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            os.close(reader)
            self.act(account, function, arguments, stays, writer)
        os.close(writer)
        with open(reader, "rb") as pipe:
            answer = pipe.read()
        if not answer:
            self.close()
            raise AssertionError("the other user's process died")
        good, self.result = pickle.loads(answer)
        if not good:
            self.close()
            raise self.result

    @staticmethod
    def act(account, function, arguments, stays, writer):
        try:
            account.become()
            kept = function(*arguments)
            answer = (True, kept if not stays else None)
            try:
                text = pickle.dumps(answer)
            except Exception:  # what is open cannot be sent, and need not be
                text = pickle.dumps((True, None))
        except BaseException as failure:
            try:
                text = pickle.dumps((False, failure))
            except Exception:
                text = pickle.dumps((False, AssertionError(traceback.format_exc())))
        os.write(writer, text)
        os.close(writer)
        while stays:
            signal.pause()
        os._exit(0)

    def close(self):
        if self.pid:
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
            self.pid = 0


class AccountTestCase(zarvo.TestCase):
    """Tests with an owner, whose programs are tested, and a stranger."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        first = 200000 + 2 * random.randrange(100000)
        cls.owner, cls.stranger = Account(first), Account(first + 1)

    def held(self, account, function, *arguments):
        """Account.hold() until the end of the test."""
        acting = account.hold(function, *arguments)
        self.addCleanup(acting.close)
        return acting

    def folder(self, account, mode=0o700):
        """A folder of this user, directly in /tmp, where others may have folders too."""
        path = tempfile.mkdtemp(prefix="zarvo-account-", dir="/tmp")
        self.addCleanup(shutil.rmtree, path, True)
        account.own(path)
        os.chmod(path, mode)
        return path
