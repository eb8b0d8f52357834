# SPDX-License-Identifier: MIT
"""Time from a viewer's connection to the notification at every subscriber, with the bundled agent.

usage: notifications.py BUILD_FOLDER
"""
import time

import common
import rfb
import zarvo

SUBSCRIBERS = 10
REPEATS = 20


def is_connected(params):
    return bool(params) and params[0]["permissions"].startswith("disconnect")


server = common.server()
try:
    control = server.client()
    subscribers = [server.client() for _ in range(SUBSCRIBERS)]
    session = zarvo.new_id()
    offer = control.call("Live.Start", [session, "xterm", "800x600"])
    durations = []
    for _ in range(REPEATS):
        with rfb.Client("127.0.0.1", offer["port"], offer["password"]):
            begin = time.monotonic()
            for subscriber in subscribers:
                subscriber.wait_notification(is_connected, "the viewer")
            durations.append(time.monotonic() - begin)
        for subscriber in subscribers:
            subscriber.wait_notification(lambda params: not is_connected(params), "its end")
        offer = control.call("Live.Resume", [session])
    print(f"viewer connected to the last of {SUBSCRIBERS} subscribers told:", common.milliseconds(durations))
    control.call("Live.Terminate", [session])
finally:
    server.close()
