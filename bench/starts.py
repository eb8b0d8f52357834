# SPDX-License-Identifier: MIT
"""Measures the start of a session: the server alone, all of it with the bundled agent, and the X server alone."""
import os
import shutil
import statistics
import subprocess
import time

import common
import zarvo
from common import PROGRAMS, program

REPEATS = 20


def measure(figures):
    group = "Live.Start"
    result = ready_at_once()
    figures.add(group, "agent that is ready at once", result["median_ms"], "ms")
    figures.add(group, "of it the server's own, without its waits", result["own_median_ms"], "ms", at_most=60,
                worst_ms=result["own_worst_ms"])
    if not shutil.which("Xtigervnc"):
        print("  (no Xtigervnc here, so nothing on the bundled agent)")
        return
    for name, seconds in (("bundled agent, xterm", bundled()), ("Xtigervnc alone, until it takes clients", bare())):
        figures.add(group, name, round(statistics.median(seconds) * 1000), "ms", worst_ms=round(max(seconds) * 1000))


def ready_at_once():
    server = zarvo.Server(agent=False)  # for its folder and its display numbers
    try:
        os.symlink(os.path.join(PROGRAMS, "ready_agent"), os.path.join(server.bin, "start-agent"))
        server.install_program("start-app", "exit 0\n")
        return program("bench_start", REPEATS, server.displays.base, env=server.environment)
    finally:
        server.close()


def bundled():
    server = common.server()
    try:
        with server.client() as client:
            return [start(client) for _ in range(REPEATS)]
    finally:
        server.close()


def start(client):
    session = zarvo.new_id()
    begin = time.monotonic()
    client.call("Live.Start", [session, "xterm", "1280x800"])
    seconds = time.monotonic() - begin
    client.call("Live.Terminate", [session])
    return seconds


def bare():
    displays = zarvo.Displays(1)
    try:
        return [start_bare(displays.base) for _ in range(REPEATS)]
    finally:
        displays.close()


def start_bare(display):
    read_end, write_end = os.pipe()
    begin = time.monotonic()
    process = subprocess.Popen(["Xtigervnc", f":{display}", "-geometry", "1280x800", "-SecurityTypes", "None",
                                "-localhost", "-rfbport", str(41000 + display), "-displayfd", str(write_end)],
                               pass_fds=(write_end,), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(write_end)
    try:
        if not os.read(read_end, 16):
            raise AssertionError("Xtigervnc did not start")
        return time.monotonic() - begin
    finally:
        os.close(read_end)
        process.terminate()
        process.wait()
