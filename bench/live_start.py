# SPDX-License-Identifier: MIT
"""Time from "Live.Start" to its answer with the bundled agent, and what server and agent keep in memory.

usage: live_start.py BUILD_FOLDER
"""
import os
import time

import common
import zarvo

REPEATS = 20

server = common.server()
try:
    with server.client() as client:
        durations, agents = [], []
        for _ in range(REPEATS):
            session = zarvo.new_id()
            begin = time.monotonic()
            client.call("Live.Start", [session, "xterm", "1280x800"])
            durations.append(time.monotonic() - begin)
            agents.append(common.resident_mib(zarvo.read(os.path.join(server.directory(session), "server_pid"))))
            client.call("Live.Terminate", [session])
    print("Live.Start with xterm:", common.milliseconds(durations))
    print(f"resident: server {common.resident_mib(server.pid):.1f} MiB, agent {max(agents):.1f} MiB")
finally:
    server.close()
