# SPDX-License-Identifier: MIT
"""Where the built programs are, and small functions on files and processes."""
import contextlib
import os
import re
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(HERE)))
BUILD = os.environ.get("ZARVO_BUILD_DIR", "")
BINARY = os.path.join(BUILD, "bin", "zarvo_server")
LIBEXEC = os.path.join(BUILD, "libexec", "zarvo")
HOST = os.uname().nodename

# The seconds after which a test gives up on an event. No test waits so long when all is well.
DEADLINE = 40

# The time in front of a line of the server's log.
DAY = r"(?:Mon|Tue|Wed|Thu|Fri|Sat|Sun) [1-9]\d? \d\d:\d\d:\d\d"


def wait_until(condition, what, deadline=DEADLINE):
    """Returns the first true value of condition(). Fails if there is none before the deadline."""
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"waited {deadline} s for {what}")
        time.sleep(0.01)


def read(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def mode(path):
    return oct(os.lstat(path).st_mode & 0o7777)


def new_id():
    return os.urandom(16).hex()


def alive(pid):
    with contextlib.suppress(OSError):
        with open(f"/proc/{pid}/stat", "rb") as stat:
            return stat.read().rpartition(b")")[2].split()[0] != b"Z"
    return False


def need_inspection():
    """Call it before looking at a server's files, environment or memory in /proc: the server hides them from its own user.
    Skips the test unless root runs it; in CI the test fails then."""
    if os.geteuid() == 0:
        return
    if os.environ.get("CI"):
        raise AssertionError("only root can inspect a server")
    raise unittest.SkipTest("only root can inspect a server")


def parent(pid):
    """The id of the process's parent."""
    with open(f"/proc/{pid}/stat", "rb") as stat:
        return int(stat.read().rpartition(b")")[2].split()[1])


VERSION = re.search(r"^project\(zarvo_server VERSION (\S+)", read(os.path.join(ROOT, "CMakeLists.txt")), re.M).group(1)
