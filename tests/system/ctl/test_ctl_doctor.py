# SPDX-License-Identifier: MIT
"""zarvoctl doctor: its findings. It changes nothing."""
import json
import os
import shutil
import subprocess
import unittest

import ctl
import zarvo
from ctl import DONE, NEGATIVE


class Doctor(ctl.CtlTestCase):
    def findings(self, server, code=DONE, environment=None):
        """The findings of a check, by its title."""
        result = self.ctl_result(server, "doctor", "--json", environment=environment)
        self.assertEqual(result.returncode, code, result.stdout)
        found = {}
        for finding in json.loads(result.stdout):
            found.setdefault(finding["check"], []).append(finding)
        return found

    def assert_found(self, findings, check, level, text):
        for finding in findings[check]:
            if finding["level"] == level and text in finding["text"]:
                self.assertEqual(bool(finding["remedy"]), level != "OK", finding)
                return
        self.fail(f"no {level} with '{text}' in {findings[check]}")

    def test_healthy_server_has_no_findings(self):
        server = self.server()
        lines = self.ctl(server, "doctor").splitlines()
        for line in lines:
            self.assertRegex(line, r"^(OK|WARN)  +\w")
            self.assertEqual(line.startswith("WARN"), "Remedy: " in line, line)
        self.assertIn(f"{server.port} and accepts our certificate", "\n".join(lines))
        findings = self.findings(server)
        self.assert_found(findings, "displays", "OK", "20 of 20 displays")
        self.assert_found(findings, "certificate", "OK", "belong together")

    def test_before_the_first_start(self):
        server = self.unattended(certificate=False)
        shutil.rmtree(os.path.dirname(server.path))
        findings = self.findings(server)
        self.assert_found(findings, "user path", "OK", "first start")
        self.assert_found(findings, "certificate", "OK", "first start")
        self.assertFalse(os.path.exists(os.path.dirname(server.path)))
        self.assertEqual(self.servers(server), [])

    def test_user_path(self):
        server = self.unattended()
        os.chmod(server.path, 0o755)
        self.assert_found(self.findings(server), "user path", "WARN", "open to others")

    def test_settings(self):
        server = self.unattended(settings={"ListenPort": 70000, "DisplayBase": "many", "LogLevel": "Loud",
                                           "Colour": "red", "SuspendTimeout": "never", "DisplayLimit": 0,
                                           "BroadcastAddress": "here"})
        findings = self.findings(server, NEGATIVE)
        for text in ('ListenPort is "70000", which becomes 4464', 'DisplayBase is "many", which becomes 0',
                     'LogLevel is "Loud", which becomes Info', "no setting Colour",
                     'SuspendTimeout is "never", which becomes 0', "sessions end as soon"):
            self.assert_found(findings, "settings", "WARN", text)
        self.assert_found(findings, "settings", "FAIL", "DisplayLimit is 0")
        self.assert_found(findings, "broadcast", "FAIL", '"here" is not an address')

    def test_agent_settings(self):
        server = self.unattended()
        self.assert_found(self.findings(server), "agent", "OK", "defaults")
        path = os.path.join(server.home, ".config", "Halvorn Media", "Zarvo Agent.conf")
        zarvo.write(path, "[General]\nAllowPlainFromNetwork=true\nAllowLocalUsers=yes\nListenAddress=10\n"
                    "PasswordMinutes=0\nListenPort=5900\n")
        findings = self.findings(server)
        for text in ("AllowPlainFromNetwork is true", 'AllowLocalUsers is "yes": it is neither true nor false',
                     'ListenAddress is "10": it is neither an address', 'PasswordMinutes is "0": it is no number',
                     "no setting ListenPort"):
            self.assert_found(findings, "agent", "WARN", text)
        zarvo.write(path, "[General]\nAllowLocalUsers=true\nPasswordMinutes=1\n")
        self.assert_found(self.findings(server), "agent", "OK", "is valid")

    def test_certificate(self):
        server = self.unattended()
        subprocess.run(["openssl", "x509", "-in", server.certificate, "-signkey", server.key, "-days", "1", "-out",
                        server.certificate + "2"], check=True, stderr=subprocess.DEVNULL, timeout=zarvo.DEADLINE)
        os.replace(server.certificate + "2", server.certificate)
        os.chmod(server.key, 0o644)
        findings = self.findings(server)
        self.assert_found(findings, "certificate", "WARN", "expires on")
        self.assert_found(findings, "certificate", "WARN", "open to others")
        os.chmod(server.key, 0o600)
        _, other = zarvo.make_certificate(server.top, name="other")
        shutil.copy(other, server.key)
        self.assert_found(self.findings(server, NEGATIVE), "certificate", "FAIL", "do not belong together")
        os.unlink(server.key)
        self.assert_found(self.findings(server, NEGATIVE), "certificate", "FAIL", "server_key")
        zarvo.write(server.certificate, "none")
        zarvo.write(server.key, "none")
        self.assert_found(self.findings(server, NEGATIVE), "certificate", "FAIL", "no certificate")

    def test_files_without_a_server(self):
        server = self.unattended()
        zarvo.write(server.port_file, "1")
        zarvo.write(server.pid_file, "999999999")
        self.assert_found(self.findings(server), "server", "WARN", "without removing its files")

    def test_programs(self):
        server = self.unattended(programs=("env",), agent=False, certificate=False)
        findings = self.findings(server, NEGATIVE)
        self.assert_found(findings, "programs", "FAIL", "xauth")
        self.assert_found(findings, "programs", "FAIL", "openssl")
        self.assert_found(findings, "viewer", "WARN", "no VNC viewer")
        bundled = os.path.realpath(zarvo.LIBEXEC)
        self.assert_found(findings, "programs", "OK", f'start-agent is "{bundled}/start-agent"')
        self.assert_found(findings, "programs", "FAIL", "Xtigervnc")

    def test_displays_in_use(self):
        server = self.unattended(settings={"DisplayLimit": 1})
        lock = f"/tmp/.X{server.displays.base}-lock"
        zarvo.write(lock, "")
        self.addCleanup(os.unlink, lock)
        self.assert_found(self.findings(server, NEGATIVE), "displays", "FAIL", "0 of 1")


if __name__ == "__main__":
    unittest.main()
