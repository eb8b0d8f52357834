# SPDX-License-Identifier: MIT
"""Wall time of zarvoctl: listing 1 and 200 sessions, starting one, and from nothing to the first picture.

usage: zarvoctl.py BUILD_FOLDER
"""
import json
import os
import shutil
import subprocess
import time

import common
import rfb
import zarvo

CTL = os.path.join(zarvo.BUILD, "bin", "zarvoctl")

# A minimal agent, so that 200 of them do not slow down what is measured.
AGENT = """
trap 'echo "Added new password 12345678" >> server_log' USR1
trap 'echo 0 > server_exit; kill $!; exit 0' TERM
echo $$ > server_pid
echo "RDP initialized at '2026-01-01T00:00:00'" > server_log
while :; do sleep 1000 & wait $!; done
"""


def run(server, *arguments):
    begin = time.monotonic()
    result = subprocess.run([CTL, *arguments], env=server.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, check=True, text=True)
    return time.monotonic() - begin, result.stdout


def report(what, durations):
    """Prints the best time as well: on a busy machine it says most about the program."""
    print(f"{what}: {common.milliseconds(durations)}, best {min(durations) * 1000:.1f} ms", flush=True)


def listing():
    server = zarvo.Server(agent=False, displays=220, settings={"LogLevel": "Info"})
    try:
        server.install_program("start-agent", AGENT)
        server.install_program("start-app", "exit 0\n")
        server.start()
        with server.client() as client:
            for count in (1, 200):
                while len(client.call("Live.ListSessions") or []) < count:
                    client.call("Live.Start", [zarvo.new_id(), "an application of some kind", "1280x800"])
                durations = [run(server, "list", "--no-legend") for _ in range(50)]
                assert all(text.count("\n") == count for _, text in durations)
                report(f"list, {count} sessions", [seconds for seconds, _ in durations])
    finally:
        server.close()


def starting():
    server = common.server()
    try:
        durations = []
        for _ in range(20):
            seconds, text = run(server, "start", "--json", "--geometry", "1280x800", "xterm")
            durations.append(seconds)
            run(server, "terminate", json.loads(text)["id"])
        report("start, bundled agent", durations)
    finally:
        server.close()


def first_picture():
    """From no server, no certificate and no user path until a viewer has the whole screen."""
    durations = []
    for _ in range(5):
        server = zarvo.Server(agent=False, certificate=False)
        try:
            shutil.rmtree(os.path.dirname(server.path))
            begin = time.monotonic()
            offer = json.loads(run(server, "connect", "--new", "--print", "--json", "--", "xterm")[1])
            with rfb.Client("127.0.0.1", offer["port"], offer["password"], timeout=zarvo.DEADLINE) as client:
                client.framebuffer()
            durations.append(time.monotonic() - begin)
            run(server, "terminate")
            run(server, "server", "stop")
        finally:
            server.close()
    report("cold connect --new to the first picture", durations)


listing()
starting()
first_picture()
