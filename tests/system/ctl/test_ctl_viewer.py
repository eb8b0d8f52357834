# SPDX-License-Identifier: MIT
"""zarvoctl: connecting with a viewer, screenshots, and one run through all of it with the real programs."""
import os
import struct
import subprocess
import unittest
import zlib

import ctl
import rfb
import zarvo
from ctl import DONE, FAILED, NO_SESSION, NO_VIEWER, WRONG_STATE

PASSWORD_FILE_KEY = bytes.fromhex("e84ad660c4721ae0")

# Records its arguments and the content of the password file, then does as told: "exit N" or "wait".
VIEWER = """
seen={seen}
tr '\\0' '\\n' < /proc/$$/cmdline > "$seen/cmdline"
tr '\\0' '\\n' < /proc/$$/environ > "$seen/environ"
echo $$ > "$seen/pid"
while [ $# -gt 0 ]; do
    if [ "$1" = -passwd ]; then cat "$2" > "$seen/password"; fi
    last=$1
    shift
done
echo "the viewer speaks"
echo "$last" > "$seen/address~" && mv "$seen/address~" "$seen/address"
{then}
"""


def read_png(path):
    """Width, height and rows of an RGB file whose lines have no filter."""
    with open(path, "rb") as file:
        data = file.read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    position, pixels, header = 8, b"", None
    while position < len(data):
        length, kind = struct.unpack(">I4s", data[position:position + 8])
        body = data[position + 8:position + 8 + length]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            pixels += body
        position += length + 12
    width, height = header[:2]
    assert header[2:] == (8, 2, 0, 0, 0), header
    raw = zlib.decompress(pixels)
    rows = [raw[y * (3 * width + 1):(y + 1) * (3 * width + 1)] for y in range(height)]
    assert all(row[0] == 0 for row in rows)
    return width, height, b"".join(row[1:] for row in rows)


class WithFakeViewer(ctl.CtlTestCase):
    def viewer(self, server, then="exit 0", name="the-viewer"):
        self.seen = os.path.join(server.top, "seen")
        os.makedirs(self.seen, exist_ok=True)
        server.install_program(name, VIEWER.format(seen=self.seen, then=then))
        return {"ZARVO_VIEWER": name}

    def recorded(self, name):
        with open(os.path.join(self.seen, name), "rb") as file:
            return file.read()

    def test_password_is_only_in_its_file(self):
        server = self.server()
        environment = self.viewer(server)
        environment["ZARVO_VIEWER"] += " -extra \"one argument\""
        started = self.start(server)
        result = self.ctl_result(server, "connect", environment=environment)
        self.assertEqual((result.returncode, result.stdout, result.stderr), (DONE, "", "the viewer speaks\n"))
        password = started["password"].encode()
        self.assertEqual(self.recorded("address").decode(), f"127.0.0.1::{started['port']}\n")
        self.assertEqual(self.recorded("password"), rfb.des_encrypt(PASSWORD_FILE_KEY, password[:8]))
        self.assertIn(b"-extra\none argument\n-passwd\n", self.recorded("cmdline"))
        for name in ("cmdline", "environ"):
            self.assertNotIn(password, self.recorded(name))

    def test_new_and_start(self):
        server = self.server()
        environment = self.viewer(server)
        self.ctl(server, "connect", "--new", "--geometry", "640x480", "--", "xterm", environment=environment)
        self.assertEqual(len(self.recorded("password")), 8)
        output = self.ctl(server, "start", "--connect", "xterm", environment=environment)
        self.assertEqual(self.recorded("address").decode().strip().split("::")[1], output.split()[5])

    def test_viewer_that_fails(self):
        server = self.server()
        self.start(server)
        environment = self.viewer(server, then="exit 3")
        result = self.ctl_result(server, "connect", environment=environment)
        self.assertEqual(result.returncode, NO_VIEWER)
        self.assertIn("ended with exit code 3", result.stderr)

    def test_viewer_ends_with_zarvoctl(self):
        server = self.server()
        self.start(server)
        process = self.background(server, "connect", environment=self.viewer(server, then="exec sleep 1000"))
        zarvo.wait_until(lambda: os.path.exists(os.path.join(self.seen, "address")), "the viewer")
        pid = int(self.recorded("pid"))
        process.kill()
        zarvo.wait_until(lambda: not zarvo.alive(pid), "the end of the viewer")

    def test_no_viewer(self):
        server = self.prepare(programs=("xauth", "openssl", "sh", "env"))
        error = self.ctl_error(server, "connect", "--new", "xterm", code=NO_VIEWER)
        self.assertIn("ZARVO_VIEWER", error)
        error = self.ctl_error(server, "connect", environment={"ZARVO_VIEWER": "nothing-of-the-kind"}, code=NO_VIEWER)
        self.assertIn("nothing-of-the-kind", error)
        self.viewer(server, name="vncviewer")
        self.assertIn("DISPLAY is not set", self.ctl_error(server, "start", "--connect", "xterm", code=NO_VIEWER))
        self.assertEqual(self.servers(server), [])

    def test_known_viewer(self):
        server = self.server()
        self.viewer(server, name="vncviewer")
        self.viewer(server, name="xtigervncviewer")
        self.start(server)
        self.ctl(server, "connect", environment={"DISPLAY": ":1"})
        self.assertIn(b"xtigervncviewer\n-SecurityTypes\nVncAuth\n-passwd", self.recorded("cmdline"))


    def test_socket_needs_no_password(self):
        server = self.server()
        server.agent(viewer="yes")
        started = self.start(server)
        environment = self.viewer(server, name="xtigervncviewer", then=f'pwd > "{server.top}/seen/folder"')
        del environment["ZARVO_VIEWER"]
        self.ctl(server, "connect", environment={**environment, "DISPLAY": ":1"})
        self.assertIn(b"\n-SecurityTypes\nNone\n./viewer-", self.recorded("cmdline"))
        self.assertEqual(self.recorded("folder").decode().strip(), server.directory(started["id"]))
        self.assertFalse(os.path.exists(os.path.join(self.seen, "password")))
        self.assertEqual(server.seen(started["id"], "signals"), "USR1\n")  # of the start
        self.ctl(server, "connect", "--new", "xterm", environment={**environment, "DISPLAY": ":1"})
        self.assertFalse(os.path.exists(os.path.join(self.seen, "password")))

    def test_session_with_a_viewer_is_refused(self):
        for kind in ("no", "yes"):
            server = self.server()
            server.agent(viewer=kind)
            started = self.start(server)
            environment = self.viewer(server, name="xtigervncviewer")
            viewer = server.viewer(started["port"], started["password"])
            self.wait_state(server, started["id"], "connected")
            error = self.ctl_error(server, "connect", environment={**environment, "DISPLAY": ":1"}, code=WRONG_STATE)
            self.assertEqual(error, "zarvoctl: The requested operation can not be started from the current state. "
                             "A viewer is connected; \"zarvoctl suspend\" disconnects it.\n")
            viewer.close()


class Screenshots(ctl.CtlTestCase):
    def test_errors(self):
        server = self.server()
        path = os.path.join(server.top, "out.png")
        self.ctl_error(server, "screenshot", "x", path, code=NO_SESSION)
        session = self.start(server)["id"]  # this agent has no X server
        self.assertIn("cannot be opened", self.ctl_error(server, "screenshot", session, path, code=FAILED))
        os.unlink(os.path.join(server.directory(session), "authority"))
        self.assertIn("There is no cookie", self.ctl_error(server, "screenshot", session, path, code=FAILED))
        self.assertEqual([name for name in os.listdir(server.top) if name.startswith("out")], [])


class WholeStory(ctl.CtlTestCase):
    XTERM = "xterm -bg '#204080' -fg white -geometry 60x20+10+10"

    def setUp(self):
        self.instance = self.prepare(agent=False)
        self.instance.environment["PATH"] += ":" + zarvo.LIBEXEC
        self.instance.start()

    def screen(self):
        """An X display that shows only viewers."""
        number = self.instance.displays.base + self.instance.displays.count - 1
        authority = os.path.join(self.instance.top, "screen-authority")
        subprocess.run(["xauth", "-q", "-f", authority, "add", f"unix:{number}", "MIT-MAGIC-COOKIE-1",
                        os.urandom(16).hex()], check=True, stderr=subprocess.DEVNULL, timeout=zarvo.DEADLINE)
        process = subprocess.Popen(["Xtigervnc", f":{number}", "-geometry", "1000x800", "-rfbport", "-1",
                                    "-SecurityTypes", "None", "-auth", authority, "-nolisten", "tcp"],
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.end, process)
        self.addCleanup(process.terminate)
        zarvo.wait_until(lambda: os.path.exists(f"/tmp/.X11-unix/X{number}"), "the viewer's display")
        return {"DISPLAY": f":{number}", "XAUTHORITY": authority}

    def picture(self, session):
        path = os.path.join(self.instance.top, "picture.png")
        self.ctl(self.instance, "screenshot", session, path)
        self.assertEqual(zarvo.mode(path), "0o600")
        return read_png(path)

    def wait_colour(self, session, colour):
        def has():
            width, height, pixels = self.picture(session)
            self.assertEqual((width, height), (640, 480))
            at = 3 * (width * 30 + 40)
            return pixels[at:at + 3] == colour
        zarvo.wait_until(has, "the colour of the application")

    @staticmethod
    def are_alike(image, picture):
        """Whether both show the same, apart from the mouse pointer, which is painted into this client's image."""
        width, height, pixels = picture
        if (image.width, image.height) != (width, height):
            return False
        other = [i // 3 for i in range(0, len(pixels), 3) if pixels[i:i + 3] != image.pixels[i:i + 3]]
        columns, rows = {i % width for i in other}, {i // width for i in other}
        return not other or max(max(columns) - min(columns), max(rows) - min(rows)) < 32

    def test_story(self):
        screen = self.screen()
        connected = self.background(self.instance, "connect", "--new", "--geometry", "640x480", "--", self.XTERM,
                                    environment=screen)
        session = zarvo.wait_until(lambda: self.ctl_json(self.instance, "list"), "the session")[0]["id"]
        self.ctl(self.instance, "wait", session, "--for", "connected", "--timeout", str(zarvo.DEADLINE))
        self.wait_colour(session, bytes((0x20, 0x40, 0x80)))
        self.ctl(self.instance, "suspend", session)
        self.wait_state(self.instance, session, "suspended")
        connected.kill()

        again = self.background(self.instance, "connect", environment=screen)
        self.ctl(self.instance, "wait", session, "--for", "connected", "--timeout", str(zarvo.DEADLINE))
        again.kill()
        self.ctl(self.instance, "wait", session, "--for", "suspended", "--timeout", str(zarvo.DEADLINE))

        # The screenshot shows what a client of the session sees, once the application has drawn all of it.
        offer = self.ctl_json(self.instance, "connect", "--print")
        with rfb.Client("127.0.0.1", offer["port"], offer["password"], timeout=zarvo.DEADLINE) as client:
            zarvo.wait_until(lambda: self.are_alike(client.framebuffer(), self.picture(session)), "equal pictures")
        self.assertIn("Client authenticated from", self.ctl(self.instance, "logs", session))
        self.ctl(self.instance, "terminate", session)
        self.assertEqual(self.ctl_json(self.instance, "list"), [])



if __name__ == "__main__":
    unittest.main()
