# SPDX-License-Identifier: MIT
"""Programs on a pseudo-terminal."""
import codecs
import fcntl
import os
import pty
import select
import struct
import subprocess
import termios
import time

import zarvo


class Terminal:
    """A program on a pseudo-terminal of its own."""

    def __init__(self, environment, *command, columns=80, rows=24):
        self.master, slave = pty.openpty()
        self.resize(columns, rows)
        self.process = subprocess.Popen(command, stdin=slave, stdout=slave, stderr=slave,
                                        env={"TERM": "xterm", **environment})
        os.close(slave)
        self.text = ""
        self.decoder = codecs.getincrementaldecoder("utf-8")("replace")

    def resize(self, columns, rows):
        """Send SIGWINCH yourself: it comes by itself only to a foreground process of a session."""
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def read_some(self, timeout):
        if not select.select([self.master], [], [], timeout)[0]:
            return False
        try:
            data = os.read(self.master, 65536)
        except OSError:
            data = b""
        self.text += self.decoder.decode(data)  # a character may come in two pieces
        return bool(data)

    def wait_for(self, text):
        end = time.monotonic() + zarvo.DEADLINE
        while text not in self.text:
            if not self.read_some(max(0, end - time.monotonic())):
                raise AssertionError(f"no {text!r} on the terminal: {self.text!r}")

    def type(self, text):
        os.write(self.master, text.encode())

    def finish(self):
        """Reads until the program ends. Returns its exit code and the text of the terminal."""
        while self.read_some(zarvo.DEADLINE):
            pass
        code = self.process.wait(zarvo.DEADLINE)
        return code, self.text.replace("\r\n", "\n")

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(zarvo.DEADLINE)
        os.close(self.master)
