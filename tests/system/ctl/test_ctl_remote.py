# SPDX-License-Identifier: MIT
"""zarvoctl: sessions on another host. A real sshd on the loopback interface, with its own keys, plays it."""
import contextlib
import getpass
import os
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import unittest

import ctl
import listing
import zarvo
from ctl import DONE, FAILED, NO_SERVER, NO_SESSION, WRONG_STATE

SSHD = shutil.which("sshd", path=os.environ.get("PATH", "") + ":/usr/sbin:/sbin")

# Connects as a viewer, and prints what comes back.
VIEWER = """
import os, socket, sys
host, _, port = sys.argv[-1].partition("::")
with socket.create_connection((host, int(port)), {deadline}) as connection:
    connection.sendall(b"hello")
    answer = b""
    while len(answer) < 17:
        answer += connection.recv(16)
    print("answer", answer, flush=True)
    connection.recv(1)
"""


def run_ssh_keygen(path):
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", path], check=True, timeout=zarvo.DEADLINE)


class Sshd:
    """An sshd for this user only. Every command runs in the environment of one server."""

    def __init__(self, folder, environment, port):
        os.makedirs(folder)
        self.port = port
        self.path = lambda name: os.path.join(folder, name)
        for name in ("host_key", "user_key"):
            run_ssh_keygen(self.path(name))
        shutil.copy(self.path("user_key.pub"), self.path("authorized_keys"))
        with open(self.path("command"), "w", encoding="utf-8") as file:
            exports = "".join(f"export {key}={shlex.quote(value)}\n" for key, value in environment.items())
            file.write(f'#!/bin/sh\n{exports}exec /bin/sh -c "$SSH_ORIGINAL_COMMAND"\n')
        os.chmod(self.path("command"), 0o755)
        zarvo.write(self.path("sshd_config"), f"""
ListenAddress 127.0.0.1
Port {self.port}
HostKey {self.path("host_key")}
AuthorizedKeysFile {self.path("authorized_keys")}
PidFile none
StrictModes no
UsePAM no
PasswordAuthentication no
PermitRootLogin prohibit-password
ForceCommand {self.path("command")}
""")
        # The client's configuration, so that it neither reads nor writes the user's own files.
        zarvo.write(self.path("ssh_config"), f"""
IdentityFile {self.path("user_key")}
IdentitiesOnly yes
UserKnownHostsFile {self.path("known_hosts")}
StrictHostKeyChecking yes
BatchMode yes
""")
        key = zarvo.read(self.path("host_key.pub"))
        zarvo.write(self.path("known_hosts"), f"[127.0.0.1]:{self.port} {key}")
        self.log = open(self.path("log"), "wb")
        self.process = subprocess.Popen([SSHD, "-D", "-e", "-f", self.path("sshd_config")], stdin=subprocess.DEVNULL,
                                        stdout=self.log, stderr=self.log)
        zarvo.wait_until(self.listens, "sshd: " + zarvo.read(self.path("log")))

    def listens(self):
        if self.process.poll() is not None:
            raise AssertionError("sshd ended: " + zarvo.read(self.path("log")))
        return "Server listening" in zarvo.read(self.path("log"))

    def close(self):
        self.process.terminate()
        self.process.wait(zarvo.DEADLINE)
        self.log.close()


class Remote(ctl.CtlTestCase):
    def setUp(self):
        if not SSHD or not shutil.which("ssh"):
            self.skipTest("openssh-server and openssh-client are not installed")
        if os.geteuid() == 0:
            os.makedirs("/run/sshd", mode=0o755, exist_ok=True)  # sshd needs it, and its service would make it
        self.far = self.server({"DisplayLimit": 10})
        self.near = self.server()
        path = os.path.dirname(ctl.CTL) + ":" + self.far.environment["PATH"]
        # The port of an unused display number of ours, so that no other program has it.
        port = 6000 + self.far.displays.base + 15
        self.sshd = Sshd(os.path.join(self.far.top, "ssh"), {**self.far.environment, "PATH": path}, port)
        self.addCleanup(self.sshd.close)
        self.environment = {"ZARVO_SSH": f'ssh -F "{self.sshd.path("ssh_config")}"'}
        self.location = f"ssh://{getpass.getuser()}@127.0.0.1:{self.sshd.port}/zarvo_sci"

    def list_far_sessions(self, location=None, peer="127.0.0.1"):
        """Replaces the near server by a fake that lists the far one's sessions with their location."""
        entries = self.far.client().local_sessions()
        for entry in entries:
            entry["location"] = self.location if location is None else location
        listing.Listing(self, self.near, entries, [listing.peer(peer, *entries)])

    def connected(self, *arguments):
        """A zarvoctl whose viewer has got the greeting and its own bytes back."""
        viewer = os.path.join(self.near.top, "viewer.py")
        zarvo.write(viewer, VIEWER.format(deadline=zarvo.DEADLINE))
        environment = {**self.environment, "ZARVO_VIEWER": f'"{sys.executable}" "{viewer}"'}
        process = self.background(self.near, "connect", *arguments, environment=environment)
        self.assertEqual(process.stderr.readline(), "answer b'RFB 003.008\\nhello'\n")
        return process

    def test_connect(self):
        self.far.agent(viewer="yes")
        started = self.start(self.far)
        self.list_far_sessions()
        process = self.connected(started["id"])
        self.wait_state(self.far, started["id"], "connected")
        self.ctl(self.far, "suspend")
        self.assertEqual(process.wait(zarvo.DEADLINE), DONE, process.stderr.read())

    def test_text_of_a_login_script_is_skipped(self):
        self.far.agent(viewer="yes")
        self.start(self.far)
        self.list_far_sessions()
        command = zarvo.read(self.sshd.path("command"))
        zarvo.write(self.sshd.path("command"), command.replace("#!/bin/sh\n", "#!/bin/sh\necho Welcome to RF\n"))
        self.connected()

    def test_ssh_forwards_nothing(self):
        self.far.agent(viewer="yes")
        self.start(self.far)
        self.list_far_sessions()
        seen = os.path.join(self.far.top, "environ")
        command = zarvo.read(self.sshd.path("command"))
        zarvo.write(self.sshd.path("command"), command.replace("#!/bin/sh\n", f"#!/bin/sh\nenv > {seen}\n"))
        socket_path = os.path.join(self.near.top, "agent.sock")
        agent = subprocess.Popen(["ssh-agent", "-D", "-a", socket_path], stdout=subprocess.DEVNULL)
        self.addCleanup(agent.wait, zarvo.DEADLINE)
        self.addCleanup(agent.terminate)
        zarvo.wait_until(lambda: os.path.exists(socket_path), "the agent of ssh")
        port = 6000 + self.far.displays.base + 16
        with open(self.sshd.path("ssh_config"), "a", encoding="utf-8") as file:
            file.write(f"ForwardAgent yes\nForwardX11 yes\nRemoteForward {port} 127.0.0.1:1\nRemoteCommand false\n"
                       f"PermitLocalCommand yes\nLocalCommand touch {seen}-local\n")
        self.environment["SSH_AUTH_SOCK"] = socket_path
        self.environment["DISPLAY"] = ":1"
        self.connected()
        self.assertNotRegex(zarvo.read(seen), "SSH_AUTH_SOCK|DISPLAY")
        self.assertFalse(os.path.exists(seen + "-local"))
        with socket.socket() as client:
            self.assertNotEqual(client.connect_ex(("127.0.0.1", port)), 0)

    def test_interrupt_leaves_nothing_behind(self):
        self.far.agent(viewer="yes")
        started = self.start(self.far)
        self.list_far_sessions()
        seen = os.path.join(self.near.top, "viewer-pid")
        self.near.install_program("xtigervncviewer",
                                  f'echo $$ > "{seen}~" && mv "{seen}~" "{seen}"\nexec sleep 1000\n')
        environment = {**self.environment, "DISPLAY": ":1"}
        process = self.background(self.near, "connect", started["id"], environment=environment)
        zarvo.wait_until(lambda: os.path.exists(seen), "the viewer")
        (folder,) = (name for name in os.listdir(self.near.temp) if name.startswith("zarvoctl-"))
        self.assertEqual(os.listdir(os.path.join(self.near.temp, folder)), ["viewer.sock"])
        self.assertIn(self.sshd.path("ssh_config"), self.command_lines())
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(zarvo.DEADLINE), -signal.SIGINT)
        self.assertEqual(process.stderr.read(), "")
        self.assertFalse(os.path.exists(os.path.join(self.near.temp, folder)))
        viewer = int(zarvo.read(seen))
        zarvo.wait_until(lambda: not zarvo.alive(viewer), "the end of the viewer")
        zarvo.wait_until(lambda: self.sshd.path("ssh_config") not in self.command_lines(), "the end of ssh")

    @staticmethod
    def command_lines():
        lines = []
        for entry in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError):
                lines.append(zarvo.read(f"/proc/{entry}/cmdline"))
        return "\n".join(lines)

    def test_print(self):
        started = self.start(self.far)
        self.list_far_sessions()
        offer = self.ctl_json(self.near, "connect", "--print", started["id"][:6], environment=self.environment)
        self.assertEqual(offer, {**started, "host": "127.0.0.1"})
        self.assertEqual(self.ctl_json(self.near, "list")[0]["location"], self.location)
        (line,) = self.ctl(self.near, "list", "--no-legend").splitlines()
        self.assertIn(" 127.0.0.1 ", line)

    def fails(self, code, text):
        """Both ways to a session elsewhere fail like this, before a viewer starts."""
        self.near.install_program("no-viewer", f'touch "{self.near.top}/viewer-ran"\n')
        environment = {**self.environment, "ZARVO_VIEWER": "no-viewer"}
        for options in (("--print",), ()):
            error = self.ctl_error(self.near, "connect", *options, environment=environment, code=code)
            self.assertIn(text, error)
        self.assertFalse(os.path.exists(os.path.join(self.near.top, "viewer-ran")))

    def test_failures_on_the_other_host(self):
        self.far.agent(viewer="yes")
        started = self.start(self.far)
        self.list_far_sessions()
        viewer = self.far.viewer(started["port"], started["password"])
        self.wait_state(self.far, started["id"], "connected")
        self.fails(WRONG_STATE, "A viewer is connected")
        viewer.close()
        self.ctl(self.far, "terminate")
        self.fails(NO_SESSION, "127.0.0.1: zarvoctl: There is no session")

    def test_agent_without_a_socket_on_the_other_host(self):
        self.start(self.far)
        self.list_far_sessions()
        error = self.ctl_error(self.near, "connect", environment={**self.environment, "ZARVO_VIEWER": "true"},
                               code=FAILED)
        self.assertIn("no socket for the user's own viewers", error)

    def test_unreachable_host(self):
        self.start(self.far)
        self.list_far_sessions()
        zarvo.write(self.sshd.path("authorized_keys"), "")
        self.fails(NO_SERVER, "Permission denied")

    def test_no_zarvoctl_on_the_other_host(self):
        self.start(self.far)
        self.list_far_sessions()
        zarvo.write(self.sshd.path("command"), "#!/bin/sh\nexit 127\n")
        self.fails(NO_SERVER, "no zarvoctl")

    def test_old_zarvoctl_on_the_other_host(self):
        self.start(self.far)
        self.list_far_sessions()
        zarvo.write(self.sshd.path("command"),
                    "#!/bin/sh\necho 'zarvoctl: There is no verb \"pipe\".' >&2\nexit 2\n")
        self.fails(NO_SERVER, "too old")

    def test_location_that_is_no_host(self):
        self.start(self.far)
        self.list_far_sessions(location="ssh://-oProxyCommand=true/x")
        error = self.ctl_error(self.near, "connect", "--print", environment=self.environment, code=WRONG_STATE)
        self.assertIn("names no host", error)
        self.assertIn("\t?\t", self.ctl(self.near, "list", "--plain"))

    def test_control_characters_of_a_location_are_not_printed(self):
        self.start(self.far)
        self.list_far_sessions(location="nonsense \x1b[31m\x07")
        error = self.ctl_error(self.near, "connect", "--print", environment=self.environment, code=WRONG_STATE)
        self.assertIn("names no host", error)
        self.assertNotRegex(error, "[\x1b\x07]")

    def test_other_verbs_name_the_host(self):
        started = self.start(self.far)
        self.list_far_sessions()
        for verb in ("terminate", "logs"):
            error = self.ctl_error(self.near, verb, started["id"], code=WRONG_STATE)
            self.assertIn('on the host "127.0.0.1"', error)


if __name__ == "__main__":
    unittest.main()
