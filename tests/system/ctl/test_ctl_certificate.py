# SPDX-License-Identifier: MIT
"""zarvoctl certificate: shows the server's certificate, and renews it on all hosts of the user."""
import hashlib
import json
import os
import re
import shlex
import signal
import ssl
import subprocess
import threading

import ctl
import faults
import zarvo
from ctl import DONE, NEGATIVE, REFUSED, USAGE


def fits(certificate, key):
    """Whether the certificate and the key belong together."""
    try:
        ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER).load_cert_chain(certificate, key)
    except (OSError, ssl.SSLError):
        return False
    return True


def fingerprint(server):
    der = ssl.PEM_cert_to_DER_cert(zarvo.read(server.certificate))
    return ":".join(re.findall("..", hashlib.sha256(der).hexdigest().upper()))


class CertificateCase(ctl.CtlTestCase):
    def stored_pairs(self, server):
        folder = os.path.dirname(server.certificate)
        return sorted(name for name in os.listdir(folder) if name.startswith("server_pair-"))

    def age_pairs(self, server):
        """Makes the stored pairs older than a renewal can last, so that the next one may remove them."""
        for name in self.stored_pairs(server):
            os.utime(os.path.join(os.path.dirname(server.certificate), name), (0, 0), follow_symlinks=False)

    def assert_sound(self, server):
        """Certificate and key belong together, and the key is private."""
        self.assertTrue(fits(server.certificate, server.key))
        self.assertEqual(os.stat(server.key).st_mode & 0o7777, 0o600)


class Show(CertificateCase):
    def test_show(self):
        server = self.server()
        shown = self.ctl_json(server, "certificate", "show")
        self.assertEqual(shown["fingerprint"], fingerprint(server))
        self.assertIn("O=Internet Widgits Pty Ltd", shown["subject"])
        self.assertIn(shown["daysLeft"], (364, 365))
        self.assertIs(shown["serverAgrees"], True)
        self.assertEqual(os.path.realpath(shown["certificate"]), os.path.realpath(server.certificate))
        self.assertEqual(os.path.realpath(shown["key"]), os.path.realpath(server.key))
        self.assertLess(shown["notBefore"], shown["notAfter"])
        text = self.ctl(server, "certificate", "show")
        self.assertIn(fingerprint(server), text)
        self.assertIn("uses this certificate", text)

    def test_show_without_a_server(self):
        server = self.prepare()
        self.assertIsNone(self.ctl_json(server, "certificate", "show")["serverAgrees"])

    def test_show_when_the_server_uses_another_one(self):
        server = self.server()
        for path, other in zip((server.certificate, server.key), zarvo.make_certificate(server.top, name="other")):
            os.replace(other, path)
        result = self.ctl_result(server, "certificate", "show", "--json")
        self.assertEqual(result.returncode, NEGATIVE)
        self.assertIs(json.loads(result.stdout)["serverAgrees"], False)

    def test_show_without_a_certificate(self):
        server = self.prepare(certificate=False)
        self.assertIn("No such file", self.ctl_error(server, "certificate", "show", code=REFUSED))

    def test_wrong_usage(self):
        server = self.prepare()
        for arguments in (["frobnicate"], ["switch"], ["switch", "../../x"], ["discard", "zz"],
                          ["renew", "-oProxyCommand=x"], ["renew", "a b"], ["renew", "$(id)"],
                          ["show", "extra"], ["renew", "--json"]):
            with self.subTest(arguments=arguments):
                self.assertEqual(self.ctl_result(server, "certificate", *arguments).returncode, USAGE)


class Renew(CertificateCase):
    def test_server_takes_the_new_pair_and_sessions_go_on(self):
        server = self.server()
        session = zarvo.new_id()
        answer = server.client().call("Live.Start", [session, "true", "640x480"])
        viewer = server.viewer(answer["port"], answer["password"])
        before, pid = fingerprint(server), server.pid
        self.ctl(server, "certificate", "renew")
        self.assertNotEqual(fingerprint(server), before)
        self.assert_sound(server)
        server.wait_exit()
        server.pid, server.port = int(zarvo.read(server.pid_file)), int(zarvo.read(server.port_file))
        self.addCleanup(self.ctl, server, "server", "stop")
        self.assertNotEqual(server.pid, pid)
        self.assertIn(session, [entry["id"] for entry in server.client().local_sessions()])
        self.assertIs(self.ctl_json(server, "certificate", "show")["serverAgrees"], True)
        viewer.setblocking(False)
        with self.assertRaises(BlockingIOError):
            viewer.recv(1)  # still connected
        server.pid = None

    def test_renewal_without_a_server_starts_none(self):
        server = self.prepare()
        before = fingerprint(server)
        self.ctl(server, "certificate", "renew")
        self.assertNotEqual(fingerprint(server), before)
        self.assertFalse(os.path.exists(server.port_file))
        server.start()
        self.assert_serves(server)

    def test_first_pair(self):
        server = self.prepare(certificate=False)
        self.ctl(server, "certificate", "renew")
        self.assert_sound(server)
        server.start()
        self.assert_serves(server)

    def test_many_renewals_leave_two_pairs(self):
        server = self.prepare()
        seen = {fingerprint(server)}
        for _ in range(4):
            self.age_pairs(server)
            self.ctl(server, "certificate", "renew")
            self.assert_sound(server)
            seen.add(fingerprint(server))
        self.assertEqual(len(seen), 5)
        self.assertEqual(len(self.stored_pairs(server)), 2)

    def test_broken_pair_is_replaced(self):
        server = self.prepare()
        zarvo.write(server.certificate, "none")
        os.unlink(server.key)
        self.ctl(server, "certificate", "renew")
        self.assert_sound(server)

    def test_failing_openssl_changes_nothing(self):
        server = self.prepare()
        before = fingerprint(server)
        for script in ("exit 1\n", 'echo none > "$7"; echo none > "$9"\n'):
            server.install_program("openssl", script)
            self.assertIn("not renewed", self.ctl_error(server, "certificate", "renew", code=NEGATIVE))
            self.assertEqual(fingerprint(server), before)
            self.assertEqual(self.stored_pairs(server), [])

    def test_reason_of_openssl_is_its_last_line(self):
        server = self.prepare()
        server.install_program("openssl", 'echo "....+++++" >&2; echo "no entropy" >&2; exit 1\n')
        error = self.ctl_error(server, "certificate", "renew", code=NEGATIVE)
        self.assertIn("no entropy", error)
        self.assertNotIn("+++", error)

    def test_second_renewal_at_the_same_time_is_refused(self):
        server = self.prepare()
        ready = os.path.join(server.top, "openssl-runs")
        server.install_program("openssl", f"touch {shlex.quote(ready)}; exec sleep 600\n")
        first = self.background(server, "certificate", "renew")
        zarvo.wait_until(lambda: os.path.exists(ready), "the first renewal")
        pairs = self.stored_pairs(server)
        server.install_program("openssl", "exit 1\n")
        self.assertIn("Another renewal", self.ctl_error(server, "certificate", "renew", code=NEGATIVE))
        self.assertEqual(self.stored_pairs(server), pairs)
        first.kill()

    def test_young_pair_of_another_host_stays(self):
        server = self.prepare()
        folder = os.path.dirname(server.certificate)
        os.mkdir(os.path.join(folder, "server_pair-" + "0" * 32))
        self.ctl(server, "certificate", "renew")
        self.assertIn("server_pair-" + "0" * 32, self.stored_pairs(server))
        self.age_pairs(server)
        self.ctl(server, "certificate", "renew")
        self.assertNotIn("server_pair-" + "0" * 32, self.stored_pairs(server))

    def test_host_with_the_same_home_that_was_not_named_is_told(self):
        server = self.prepare()
        other = os.path.join(os.path.dirname(server.certificate), "neighbour")
        os.mkdir(other)
        zarvo.write(os.path.join(other, "server_port"), "41000")
        error = self.ctl_error(server, "certificate", "renew", code=NEGATIVE)
        self.assertIn("neighbour shares this home directory", error)
        self.assertIn("zarvoctl server stop", error)

    def test_deleted_certificate_is_made_again_by_the_server(self):
        server = self.prepare()
        self.ctl(server, "certificate", "renew")
        os.unlink(server.certificate)
        server.start()
        self.assert_serves(server)

    def test_readers_always_get_a_whole_pair(self):
        server = self.prepare()
        ended = threading.Event()
        wrong, reads = [], []

        def keep_reading():
            copies = [os.path.join(server.top, name) for name in ("copy_cert", "copy_key")]
            while not ended.is_set():
                key = zarvo.read(server.key)
                certificate = zarvo.read(server.certificate)
                if key != zarvo.read(server.key):
                    continue  # exchanged meanwhile: the server reads again, too
                reads.append(certificate)
                zarvo.write(copies[0], certificate)
                zarvo.write(copies[1], key)
                if not fits(*copies):
                    wrong.append((certificate, key))

        reader = threading.Thread(target=keep_reading)
        reader.start()
        try:
            for _ in range(3):
                self.ctl(server, "certificate", "renew")
        finally:
            ended.set()
            reader.join()
        self.assertEqual(wrong, [])
        self.assertGreater(len(set(reads)), 1)

    def test_kill_at_each_step_leaves_a_whole_pair(self):
        server = self.prepare()
        # Two pairs that are there already, because making one is slow.
        pairs = [zarvo.make_certificate(server.top, name=name) for name in ("first", "second")]
        fault = faults.Faults(server)
        preload = server.environment.pop("ZARVO_PRELOAD")
        seen = set()
        for step in range(1, 200):
            certificate, key = pairs[step % 2]
            server.install_program("openssl", f'cp {shlex.quote(key)} "$7"; cp {shlex.quote(certificate)} "$9"\n')
            if step % 3 == 0:  # from files that are no symlinks yet, as the server makes them
                for path in (server.certificate, server.key):
                    os.unlink(path)
                server.install_certificate()
            fault.set(faults.SERVER, 0)
            fault.kill(step)
            result = self.ctl_result(server, "certificate", "renew", environment={"LD_PRELOAD": preload})
            fault.off()
            self.assert_sound(server)
            seen.add(fingerprint(server))
            if fault.acted == 0:
                self.assertEqual(result.returncode, DONE, result.stderr)
                break
            self.assertEqual(result.returncode, -9)
        else:
            self.fail("too many steps")
        self.assertGreater(step, 10)
        self.assertGreater(len(seen), 1)
        server.environment.pop("ZARVO_FAULTS")
        certificate, key = pairs[(step + 1) % 2]  # another one than the pair in use
        server.install_program("openssl", f'cp {shlex.quote(key)} "$7"; cp {shlex.quote(certificate)} "$9"\n')
        self.age_pairs(server)
        self.ctl(server, "certificate", "renew")
        self.assertLessEqual(len(self.stored_pairs(server)), 2)
        server.start()
        self.assert_serves(server)


class RenewOnHosts(CertificateCase):
    """The other hosts are servers in homes of their own. A script plays ssh."""

    def setUp(self):
        self.near = self.prepare()
        self.far = {name: self.prepare() for name in ("far1", "far2")}
        self.log = os.path.join(self.near.top, "ssh-log")
        self.waiting = os.path.join(self.near.top, "ssh-waits")
        folder = os.path.join(self.near.top, "hosts")
        os.mkdir(folder)
        for name, server in self.far.items():
            self.describe(folder, name, server)
        self.describe(folder, "same", self.near)
        script = os.path.join(self.near.top, "ssh")
        zarvo.write(script, f"""#!/bin/sh
options=
while [ "$1" != -- ]; do options="$options $1"; shift; done
host=$2; shift 2
echo "$options: $host $*" >> {shlex.quote(self.log)}
[ -e {shlex.quote(folder)}/"$host" ] || {{ echo "no such host" >&2; exit 255; }}
. {shlex.quote(folder)}/"$host"
[ "$fails" != "$3" ] || {{ echo "zarvoctl: it broke." >&2; exit 8; }}
case $waits in *" $3 "*)
    echo $$ > {shlex.quote(self.waiting)}.new; mv {shlex.quote(self.waiting)}.new {shlex.quote(self.waiting)}
    exec sleep 600;;
esac
exec "$@"
""")
        os.chmod(script, 0o755)
        self.folder = folder
        self.environment = {"ZARVO_SSH": script}

    def describe(self, folder, name, server, fails="", waits=""):
        lines = [f"export {key}={shlex.quote(value)}\n" for key, value in server.environment.items()]
        path = os.path.dirname(ctl.CTL) + ":" + server.environment["PATH"]
        lines.append(f"export PATH={shlex.quote(path)}\nfails={fails}\nwaits=' {waits} '\n")
        zarvo.write(os.path.join(folder, name), "".join(lines))

    def fingerprints(self):
        return [fingerprint(server) for server in (self.near, *self.far.values())]

    def test_all_hosts_get_the_same_pair(self):
        far = self.far["far1"]
        far.start()
        session = zarvo.new_id()
        far.client().call("Live.Start", [session, "true", "640x480"])
        before = fingerprint(self.near)
        self.ctl(self.near, "certificate", "renew", "far1", "far2", environment=self.environment)
        self.assertEqual(len(set(self.fingerprints())), 1)
        self.assertNotEqual(fingerprint(self.near), before)
        for server in (self.near, *self.far.values()):
            self.assert_sound(server)
            self.assertEqual(zarvo.read(server.key), zarvo.read(self.near.key))
        self.assertNotIn("PRIVATE KEY", zarvo.read(self.log))
        far.wait_exit()
        far.pid, far.port = int(zarvo.read(far.pid_file)), int(zarvo.read(far.port_file))
        self.addCleanup(self.ctl, far, "server", "stop")
        self.assertIn(session, [entry["id"] for entry in far.client().local_sessions()])
        far.pid = None
        self.assertFalse(os.path.exists(self.far["far2"].port_file))

    def test_host_that_shares_the_home(self):
        self.ctl(self.near, "certificate", "renew", "same", environment=self.environment)
        self.assert_sound(self.near)
        self.assertEqual(len(self.stored_pairs(self.near)), 2)

    def test_unreachable_host_changes_nothing_anywhere(self):
        before = self.fingerprints()
        error = self.ctl_error(self.near, "certificate", "renew", "far1", "nowhere", "far2", code=NEGATIVE,
                               environment=self.environment)
        self.assertIn("not renewed on any host", error)
        self.assertIn("nowhere: ssh failed: no such host", error)
        self.assertNotIn("far1", error)
        self.assertEqual(self.fingerprints(), before)
        for server in (self.near, *self.far.values()):
            self.assertEqual(self.stored_pairs(server), [])
        self.assertNotIn("switch", zarvo.read(self.log))

    def test_host_that_fails_later_is_named_with_what_to_do(self):
        self.describe(self.folder, "far1", self.far["far1"], fails="switch")
        error = self.ctl_error(self.near, "certificate", "renew", "far1", "far2", code=NEGATIVE,
                               environment=self.environment)
        self.assertIn("far1 may still use the old certificate: it broke. Run", error)
        command = re.search(r"zarvoctl (certificate switch [0-9a-f]{32})", error).group(1)
        self.assertEqual(fingerprint(self.near), fingerprint(self.far["far2"]))
        self.assertNotEqual(fingerprint(self.near), fingerprint(self.far["far1"]))
        self.ctl(self.far["far1"], *command.split())
        self.assertEqual(len(set(self.fingerprints())), 1)

    def interrupt(self, number):
        """Renews on both hosts, sends the signal once the script of a host waits, and returns standard error."""
        process = self.background(self.near, "certificate", "renew", "far1", "far2", environment=self.environment)
        zarvo.wait_until(lambda: os.path.exists(self.waiting), "a host that waits")
        process.send_signal(number)
        error = process.communicate(timeout=2 * zarvo.DEADLINE)[1]
        self.assertEqual(process.returncode, -number)
        return error

    def test_signal_before_the_switch_undoes_all(self):
        before = self.fingerprints()
        self.describe(self.folder, "far2", self.far["far2"], waits="receive")
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number=number):
                self.assertIn("was not renewed on any host", self.interrupt(number))
                self.assertEqual(self.fingerprints(), before)
                for server in (self.near, *self.far.values()):
                    self.assertEqual(self.stored_pairs(server), [])
                os.unlink(self.waiting)

    def test_signal_after_the_switch_names_each_host_that_is_missing(self):
        self.near.start()
        self.describe(self.folder, "far1", self.far["far1"], waits="switch")
        error = self.interrupt(signal.SIGTERM)
        self.near.wait_exit()
        self.near.pid = None
        self.addCleanup(self.ctl, self.near, "server", "stop")
        self.assertIs(self.ctl_json(self.near, "certificate", "show")["serverAgrees"], True)
        for host in ("far1", "far2"):
            self.assertRegex(error, f"{host} may still use the old certificate: .* zarvoctl certificate switch [0-9a-f]")

    def test_ssh_ends_with_a_killed_renewal(self):
        self.describe(self.folder, "far1", self.far["far1"], waits="receive")
        process = self.background(self.near, "certificate", "renew", "far1", environment=self.environment)
        zarvo.wait_until(lambda: os.path.exists(self.waiting), "a host that waits")
        process.kill()
        ssh = int(zarvo.read(self.waiting))
        zarvo.wait_until(lambda: not zarvo.alive(ssh), "the end of ssh")

    def test_ssh_forwards_nothing(self):
        self.ctl(self.near, "certificate", "renew", "far1", environment=self.environment)
        for line in zarvo.read(self.log).splitlines():
            for option in ("-T", "-a", "-x", "ClearAllForwardings=yes", "PermitLocalCommand=no", "RemoteCommand=none",
                           "GSSAPIDelegateCredentials=no", "Tunnel=no"):
                self.assertIn(f" {option}", line.partition(":")[0])

    def test_received_pair_must_belong_together(self):
        _, other = zarvo.make_certificate(self.near.top, name="other")
        for text in ("", "none", zarvo.read(other) + zarvo.read(self.near.certificate)):
            result = subprocess.run([ctl.CTL, "certificate", "receive"], env=self.near.environment, text=True, input=text,
                                    capture_output=True, timeout=zarvo.DEADLINE, check=False)
            self.assertNotEqual(result.returncode, DONE)
            self.assertEqual(self.stored_pairs(self.near), [])
