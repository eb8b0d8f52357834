# SPDX-License-Identifier: MIT
"""A client of X servers that only connects, by one name of the display or the other."""
import contextlib
import os
import socket
import struct
import subprocess

import zarvo

METHOD = b"MIT-MAGIC-COOKIE-1"
FOLDER = "/tmp/.X11-unix"


def names(display):
    """The addresses of the display's local sockets: the abstract one and the file."""
    path = f"{FOLDER}/X{display}"
    return ["\0" + path, path]


def connected(name):
    """A connection to the socket, or None if that is refused."""
    client = socket.socket(socket.AF_UNIX)
    client.settimeout(zarvo.DEADLINE)
    try:
        client.connect(name)
    except OSError:
        client.close()
        return None
    return client


def is_let_in(client, cookie):
    """Sends the cookie; whether the X server accepts it."""
    def padded(data):
        return data + bytes(-len(data) % 4)
    try:
        client.sendall(struct.pack("<cxHHHHxx", b"l", 11, 0, len(METHOD), len(cookie)) + padded(METHOD) + padded(cookie))
        return client.recv(1) == b"\1"
    except OSError:
        return False


def opens(display, cookie):
    """Whether the cookie opens the display by any of its names."""
    for name in names(display):
        client = connected(name)
        if client:
            with client:
                if is_let_in(client, cookie):
                    return True
    return False


def program_connects(display, cookie):
    """Connects as programs do: by the abstract name, and by the file if nobody listens there. Whether it is let in."""
    client = connected(names(display)[0]) or connected(names(display)[1])
    if client is None:
        return False
    with client:
        return is_let_in(client, cookie)


def connections(display, count):
    """Opens so many connections by each of the display's names, as far as they are accepted."""
    opened = []
    for name in names(display):
        for _ in range(count):
            client = connected(name)
            if client is None:
                break
            opened.append(client)
    return opened


def cookies(authority):
    """The cookies by name in an authority file."""
    listed = subprocess.run(["xauth", "-f", authority, "list"], capture_output=True, text=True, check=True,
                            timeout=zarvo.DEADLINE)
    return {name: bytes.fromhex(cookie) for name, _, cookie in map(str.split, listed.stdout.splitlines())}


def seen_in_arguments(seconds):
    """Looks at the command lines of all processes until one is an xauth that adds a cookie. Returns display and
    cookie."""
    def found():
        for entry in os.listdir("/proc"):
            if entry.isdigit():
                with contextlib.suppress(OSError, ValueError):
                    with open(f"/proc/{entry}/cmdline", encoding="utf-8", errors="replace") as file:
                        words = file.read().split("\0")
                    start = words.index("add")
                    if words[start + 2] == METHOD.decode() and words[start + 1].startswith("unix:"):
                        return int(words[start + 1].rpartition(":")[2]), bytes.fromhex(words[start + 3])
        return None
    return zarvo.wait_until(found, "a cookie in the arguments of xauth", seconds)
