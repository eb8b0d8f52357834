# SPDX-License-Identifier: MIT
"""A stranger on the user's host tries to be faster than the viewer that "zarvoctl connect" starts."""
import os
import shlex
import socket
import subprocess

import accounts
import ctl
import listing
import zarvo

GREETING = b"RFB 003.008\n"
FLOOD = 60

# Stands in for ssh: carries the stream of a session. An older zarvoctl asks for an offer first.
SSH = """case "$*" in
*"connect --print"*) echo '{"port": 41100, "password": "secret34", "geometry": "1x1"}' ;;
*) printf 'RFB 003.008\\n'; exec cat ;;
esac
"""

# Waits until the stranger has had his try, then reads the greeting as a viewer does.
VIEWER = """
import os, socket, sys, time
folder, address = sys.argv[1], sys.argv[-1]
with open(folder + "/waits~", "w") as file:
    file.write(os.getcwd() + "/" + address)
os.rename(folder + "/waits~", folder + "/waits")
while not os.path.exists(folder + "/go"):
    time.sleep(0.01)
if "::" in address:
    connection = socket.create_connection(("127.0.0.1", int(address.split("::")[1])))
else:
    connection = socket.socket(socket.AF_UNIX)
    connection.connect(address)
connection.sendall(b"from the viewer")
with open(folder + "/seen", "wb") as file:
    file.write(connection.recv(12))
"""


def setUpModule():
    accounts.need_accounts()


def listening_ports(uid):
    """The TCP ports of the loopback interface on which this user's programs listen."""
    rows = [line.split() for line in zarvo.read("/proc/net/tcp").splitlines()[1:]]
    return {int(row[1].split(":")[1], 16) for row in rows
            if row[3] == "0A" and int(row[7]) == uid and row[1].startswith("0100007F")}


def read_port(port):
    """What one who connects gets, relays to his own viewer and so on."""
    with socket.socket() as connection:
        connection.settimeout(3)
        try:
            connection.connect(("127.0.0.1", port))
            return connection.recv(64)
        except TimeoutError:
            return b"silence"
        except OSError:
            return b""


def read_ports(uid, known, times):
    """Finds the new port as a stranger can, and connects to it again and again."""
    ports = zarvo.wait_until(lambda: listening_ports(uid) - set(known), "a port")
    return {read_port(port) for port in ports for _ in range(times)}


def connect_to(path):
    with socket.socket(socket.AF_UNIX) as connection:
        connection.connect(path)


class Tunnel(accounts.AccountTestCase):
    def setUp(self):
        self.instance = self.prepare(account=self.owner)
        self.instance.install_program("fake-ssh", SSH)
        script = os.path.join(self.instance.top, "viewer.py")
        zarvo.write(script, VIEWER)
        self.path = lambda name: os.path.join(self.instance.records, name)
        for name in ("a-viewer", "xtigervncviewer"):
            self.instance.install_program(name, f"exec {shlex.quote(accounts.python())} {shlex.quote(script)} "
                                          f'{shlex.quote(self.instance.records)} "$@"\n')
        self.instance.agent(viewer="yes")
        self.instance.start()

    def list_far_session(self):
        far = listing.entry(zarvo.new_id(), "ssh://far@127.0.0.1:22/zarvo_sci")
        listing.Listing(self, self.instance, [far], [listing.peer("127.0.0.1", far)])

    def connect(self, **environment):
        """The owner connects; his viewer waits."""
        process = self.owner.popen([accounts.program(ctl.CTL), "connect"], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   env={**self.instance.environment, "ZARVO_SSH": "fake-ssh", **environment})
        self.addCleanup(ctl.CtlTestCase.end, process)

        def waits():
            self.assertIsNone(process.poll(), process.stderr.read() if process.poll() is not None else "")
            return os.path.exists(self.path("waits"))
        zarvo.wait_until(waits, "the viewer")
        return process

    def assert_viewer_gets_in(self, process):
        zarvo.write(self.path("go"), "")
        output, errors = process.communicate(timeout=zarvo.DEADLINE)
        self.assertEqual((process.returncode, output), (0, b""), errors)
        with open(self.path("seen"), "rb") as file:
            self.assertEqual(file.read(), GREETING)

    def assert_stranger_gets_nothing(self, known):
        self.assertEqual(self.stranger.call(read_ports, self.owner.uid, list(known), FLOOD), {b""})

    def test_port_of_a_session_elsewhere(self):
        self.list_far_session()
        known = listening_ports(self.owner.uid)
        process = self.connect(ZARVO_VIEWER="a-viewer")
        self.assert_stranger_gets_nothing(known)
        self.assert_viewer_gets_in(process)

    def test_socket_of_a_session_elsewhere(self):
        self.list_far_session()
        known = listening_ports(self.owner.uid)
        process = self.connect(DISPLAY=":1")
        self.assertEqual(listening_ports(self.owner.uid) - known, set())
        with self.assertRaises(PermissionError):
            self.stranger.call(connect_to, zarvo.read(self.path("waits")))
        self.assert_viewer_gets_in(process)
        self.assertEqual([name for name in os.listdir(self.instance.temp) if name.startswith("zarvoctl")], [])

    def start_session(self):
        subprocess.run([accounts.program(ctl.CTL), "start", "xterm"], env=self.instance.environment, check=True,
                       stdout=subprocess.DEVNULL, timeout=zarvo.DEADLINE, **self.owner.identity())

    def test_port_of_a_session_here(self):
        self.start_session()
        known = listening_ports(self.owner.uid)
        process = self.connect(ZARVO_VIEWER="a-viewer")
        self.assert_stranger_gets_nothing(known)
        self.assert_viewer_gets_in(process)

    def test_socket_of_a_session_here(self):
        self.start_session()
        known = listening_ports(self.owner.uid)
        process = self.connect(DISPLAY=":1")
        self.assertEqual(listening_ports(self.owner.uid) - known, set())
        with self.assertRaises(PermissionError):
            self.stranger.call(connect_to, zarvo.read(self.path("waits")))
        self.assert_viewer_gets_in(process)
