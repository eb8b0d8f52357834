# SPDX-License-Identifier: MIT
"""Shared by the benchmarks: starting a server with the bundled agent through the library of the system tests."""
import json
import os
import re
import statistics
import subprocess
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "system", "lib"))
if len(sys.argv) < 2:
    sys.exit(f"usage: {sys.argv[0]} BUILD_FOLDER")
os.environ["ZARVO_BUILD_DIR"] = os.path.abspath(sys.argv[1])

import zarvo  # noqa: E402  (after the lines above, which it needs)

PROGRAMS = os.path.join(zarvo.BUILD, "bench")


def server(**settings):
    """A started server that finds the bundled agent."""
    made = zarvo.Server(agent=False, settings={"LogLevel": "Info", **settings})
    made.environment["PATH"] = zarvo.LIBEXEC + ":" + made.environment["PATH"]
    made.start()
    return made


def milliseconds(seconds):
    return f"median {statistics.median(seconds) * 1000:.1f} ms, worst {max(seconds) * 1000:.1f} ms of {len(seconds)}"


def resident_mib(pid):
    return int(re.search(r"VmRSS:\s+(\d+) kB", zarvo.read(f"/proc/{pid}/status")).group(1)) / 1024


def program(name, *arguments, **how):
    """Runs a benchmark program and returns what it prints, which is JSON."""
    result = subprocess.run([os.path.join(PROGRAMS, name), *map(str, arguments)], stdout=subprocess.PIPE, check=True,
                            timeout=600, **how)
    return json.loads(result.stdout)
