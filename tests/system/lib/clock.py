# SPDX-License-Identifier: MIT
"""Puts a server's clocks forward, so that what counts in minutes is tested in seconds: see clockshift.cpp."""
import os
import struct
import sys

import zarvo

LIBRARY = os.path.join(zarvo.BUILD, "tests", "discovery", "libclockshift.so")


def shifting(test, server):
    """
    Prepares a server that is not running. Returns a function that puts its clocks forward, by the seconds for the one
    on the wall and for the one that only runs forward.
    """
    if not os.path.exists(LIBRARY):
        reason = f"no \"{LIBRARY}\": the build folder's tests are not built"
        if os.environ.get("CI") or os.environ.get("ZARVO_REQUIRE_NETNS"):
            test.fail(reason)
        print(f"skipped, {reason}", file=sys.stderr)
        test.skipTest(reason)
    path = os.path.join(server.top, "clock")

    def shift(wall, monotonic):
        with open(path, "r+b" if os.path.exists(path) else "wb") as file:  # it stays the file that is mapped
            file.write(struct.pack("=qq", wall, monotonic))
    shift(0, 0)
    server.environment.update(LD_PRELOAD=LIBRARY, ZARVO_CLOCK_SHIFT=path)
    # Of two libraries that both want to be the first the sanitizer's lets this one pass.
    server.environment["ASAN_OPTIONS"] += ":verify_asan_link_order=0"
    return shift
