# SPDX-License-Identifier: MIT
"""Measures many sessions, with fake agents."""
import contextlib
import os
import random
import signal
import statistics
import subprocess
import time

import common
import load
import zarvo
from common import PROGRAMS, program

COUNTS = (1, 50, 200)
INTERVAL_MS = 400  # between two refresh passes
CONNECTIONS = 200


def some(count):
    return f"{count} session{'' if count == 1 else 's'}"


class Agents:
    """Fake sessions in the directory of a server that is not started yet."""

    def __init__(self, server, count, mode="socket"):
        os.makedirs(server.sessions, exist_ok=True)
        self.process = subprocess.Popen(
            [os.path.join(PROGRAMS, "bench_agents"), server.sessions, str(count), mode, str(server.displays.base)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        if self.process.stdout.readline() != "ready\n":
            raise AssertionError("no sessions")

    def set_clients(self, count):
        self.process.stdin.write(f"{count}\n")
        self.process.stdin.flush()
        self.process.stdout.readline()

    def close(self):
        self.process.stdin.close()
        self.process.wait()
        self.process.stdout.close()


@contextlib.contextmanager
def server_with(count, start=True):
    server = zarvo.Server(agent=False, displays=220, settings={"LogLevel": "Info"})
    try:
        agents = Agents(server, count)
        try:
            if start:
                server.start()
                with server.client() as client:
                    assert len(client.local_sessions()) == count
            yield server, agents
        finally:
            agents.close()
    finally:
        server.close()


def listing(figures):
    request = zarvo.frame('{"jsonrpc":"2.0","id":1,"method":"Live.ListLocalSessions"}').decode()
    for count in COUNTS:
        with server_with(count) as (server, _):
            result = load.Peer(server.pid, server.port, "frames", request).run(server, 1)
            figures.add("Live.ListLocalSessions, 1 connection", some(count), round(result["per_second"]),
                        "per second", p50_us=round(result["p50_us"]), p99_us=round(result["p99_us"]),
                        cpu_us=round(result["cpu_us"], 1))


@contextlib.contextmanager
def some_displays(count):
    """Gives the first of several display numbers, and removes their sockets afterwards."""
    displays = zarvo.Displays(count)
    try:
        yield displays.base
    finally:
        for number in range(displays.base, displays.base + count):
            with contextlib.suppress(OSError):
                os.unlink(f"/tmp/Xrdp_{number}.sock")
        displays.close()


def refresh(figures):
    for mode in ("socket", "log"):
        for count in COUNTS:
            with some_displays(count) as first:
                result = program("bench_refresh", count, mode, first)
            assert result["sessions"] == count
            figures.add("One refresh pass", f"{some(count)}, {mode} mode", round(result["median_ms"], 2), "ms",
                        at_most=40 if (count, mode) == (200, "socket") else None,
                        worst_ms=round(result["worst_ms"], 2),
                        percent_of_main_thread=round(result["median_ms"] / INTERVAL_MS * 100, 1))


def change(figures):
    for count in (1, 200):
        with server_with(count) as (server, agents), server.client() as client:
            seconds = []
            for clients in [1, 0] * 15:
                time.sleep(random.uniform(0, INTERVAL_MS / 1000))  # a random moment between two passes
                begin = time.monotonic()
                agents.set_clients(clients)
                action = "disconnect" if clients else "connect"
                client.wait_notification(
                    lambda params: all(item["permissions"].startswith(action) for item in params or [{}]), "the change")
                seconds.append(time.monotonic() - begin)
            figures.add("From an agent's change to the notification", some(count),
                        round(statistics.median(seconds) * 1000), "ms", worst_ms=round(max(seconds) * 1000))


def start_once(server):
    """The seconds that a start takes."""
    begin = time.monotonic()
    try:
        # Returns when the server serves.
        subprocess.run([zarvo.BINARY], env=server.environment, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
        return time.monotonic() - begin
    finally:
        pid = int(zarvo.read(server.pid_file))
        os.kill(pid, signal.SIGTERM)
        zarvo.wait_until(lambda: not zarvo.alive(pid), "the end of the server")


def startup(figures):
    for count in (0, 200):
        with server_with(count, start=False) as (server, _):
            seconds = [start_once(server) for _ in range(15)]
            figures.add("From the command to a server that serves", f"{count} session directories",
                        round(statistics.median(seconds) * 1000), "ms", at_most=200 if count else None,
                        worst_ms=round(max(seconds) * 1000))


def settled(server):
    """The memory in bytes once it does not grow any more."""
    last = None
    while server.resident() != last:
        last = server.resident()
        time.sleep(1.5)
    return last


def memory(figures):
    with server_with(0) as (server, _):
        idle = settled(server)
        clients = [server.client() for _ in range(CONNECTIONS)]
        for client in clients:
            client.call("Live.GetVersion")
        connected = settled(server)
    with server_with(200) as (server, _):
        full = settled(server)
    group = "Resident memory"
    figures.add(group, "idle", round(idle / 1e6, 1), "MB")
    figures.add(group, "200 sessions", round(full / 1e6, 1), "MB", at_most=25)
    figures.add(group, "per session", round((full - idle) / 200 / 1000, 1), "kB")
    figures.add(group, "per connection", round((connected - idle) / CONNECTIONS / 1000, 1), "kB", at_most=80)
