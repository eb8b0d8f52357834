# SPDX-License-Identifier: MIT
"""Measures the ways into a session: plain and TLS at its port, and its local socket."""
import contextlib
import os
import re
import socket
import ssl
import statistics
import struct
import time

import agentsession
import common  # noqa: F401  (sets the search path)
import rfb
import server
import zarvo

WIDTH, HEIGHT = 1920, 1080
FRAME_BYTES = 16 + 4 * WIDTH * HEIGHT  # header of the message and of its one rectangle, and pixels
SMALL = 16
SECONDS = 4
ROUND_TRIPS = 3000
CLIENTS = 20


@contextlib.contextmanager
def session():
    agentsession.become_subreaper()
    displays = zarvo.Displays(20)
    made = agentsession.AgentSession(displays.base)
    try:
        folder = os.path.join(made.home, ".zarvo_server")
        os.makedirs(os.path.join(folder, zarvo.HOST))
        server.make_certificate(folder)
        made.start(f"{WIDTH}x{HEIGHT}")
        yield made
    finally:
        made.close()
        displays.close()


def plain(made):
    return made.connect()


def tls(made):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.load_verify_locations(os.path.join(made.home, ".zarvo_server", "server_cert"))
    return made.connect(tls=context)


def local(made):
    connection = socket.socket(socket.AF_UNIX)
    connection.settimeout(zarvo.DEADLINE)
    connection.connect(made.path(f"viewer-{made.display}.sock"))
    return rfb.Client(None, None, None, connection=connection)


WAYS = {"plain": plain, "TLS": tls, "local socket": local}


def ask(viewer, width, height):
    viewer.socket.sendall(struct.pack(">BBHHHH", 3, 0, 0, 0, width, height))


def receive(viewer, buffer, length):
    view = memoryview(buffer)
    have = 0
    while have < length:
        count = viewer.socket.recv_into(view[have:length])
        if count == 0:
            raise AssertionError("the session closed the connection")
        have += count


def frames_per_second(viewer):
    buffer = bytearray(FRAME_BYTES)
    count, start = 0, time.monotonic()
    while time.monotonic() - start < SECONDS:
        ask(viewer, WIDTH, HEIGHT)
        receive(viewer, buffer, FRAME_BYTES)
        count += 1
    return count / (time.monotonic() - start)


def round_trips(viewer):
    """The microseconds from the request of a small update to its last byte, each."""
    length = 16 + 4 * SMALL * SMALL
    buffer, times = bytearray(length), []
    for _ in range(ROUND_TRIPS):
        start = time.perf_counter()
        ask(viewer, SMALL, SMALL)
        receive(viewer, buffer, length)
        times.append((time.perf_counter() - start) * 1e6)
    return times


def private_bytes(pid):
    return 1024 * sum(int(number) for number in re.findall(r"^Private_\w+:\s+(\d+) kB",
                                                           zarvo.read(f"/proc/{pid}/smaps_rollup"), re.M))


def door_processes(made):
    """The agent, and the processes that receive its visitors."""
    found = [made.pid()]
    for pid in found:
        children = map(int, zarvo.read(f"/proc/{pid}/task/{pid}/children").split())
        found += [child for child in children if zarvo.read(f"/proc/{child}/comm").strip() == "session-door"]
    return found


def memory_per_client(made, way):
    way(made).close()  # so the first one's costs do not count
    made.wait_state("no client", lambda state: state["Clients"] == 0)
    before = sum(map(private_bytes, door_processes(made)))
    viewers = [way(made) for _ in range(CLIENTS)]
    after = sum(map(private_bytes, door_processes(made)))
    for viewer in viewers:
        viewer.close()
    made.wait_state("no client", lambda state: state["Clients"] == 0)
    return (after - before) / CLIENTS / 1024


def measure(figures):
    with session() as made:
        plain_rate = None
        for name, way in WAYS.items():
            with way(made) as viewer:
                rate = frames_per_second(viewer)
            plain_rate = plain_rate or rate
            aim = {"at_least": round(plain_rate / 2)} if name == "TLS" else {}
            figures.add("Raw frames of 1920x1080 through the door", name, round(rate), "per second", **aim)
        for name, way in WAYS.items():
            with way(made) as viewer:
                times = round_trips(viewer)
            figures.add("Update of 16x16, there and back", name, round(statistics.median(times)), "us",
                        p99_us=round(sorted(times)[len(times) * 99 // 100]))
        for name, way in WAYS.items():
            figures.add("Private memory per client of the door", name, round(memory_per_client(made, way)), "kB")
