# SPDX-License-Identifier: MIT
"""Sets a server's clocks forward, so that a test of minutes takes seconds. See clockshift.cpp."""
import os
import struct
import sys

import zarvo

LIBRARY = os.path.join(zarvo.BUILD, "tests", "discovery", "libclockshift.so")


def shifting(test, server):
    """
    Prepares a server that is not running. Returns a function that sets its wall clock and its monotonic
    clock forward, each by its own number of seconds.
    """
    if not os.path.exists(LIBRARY):
        reason = f"no \"{LIBRARY}\": the build folder's tests are not built"
        if os.environ.get("CI") or os.environ.get("ZARVO_REQUIRE_NETNS"):
            test.fail(reason)
        print(f"skipped, {reason}", file=sys.stderr)
        test.skipTest(reason)
    path = os.path.join(server.top, "clock")

    def shift(wall, monotonic):
        with open(path, "r+b" if os.path.exists(path) else "wb") as file:  # the server has mapped it
            file.write(struct.pack("=qq", wall, monotonic))
    shift(0, 0)
    server.environment.update(LD_PRELOAD=LIBRARY, ZARVO_CLOCK_SHIFT=path)
    # The sanitizer's library insists on being loaded first, unless it is told not to.
    server.environment["ASAN_OPTIONS"] += ":verify_asan_link_order=0"
    return shift
