# SPDX-License-Identifier: MIT
"""zarvoctl: races with a server that starts or ends between two reads of its files."""
import json
import os
import unittest

import ctl
import zarvo
from ctl import DONE, NO_SERVER


class Finding(ctl.CtlTestCase):
    def test_server_ends_after_its_files_were_read(self):
        server = self.server()
        process = self.held(server, "list", "--no-start", path=f"/proc/{server.pid}/")
        server.stop()
        code, output, error = self.let_go(server, process)
        self.assertEqual((code, output), (NO_SERVER, ""))
        self.assertIn(f'No server is running: there is no file "{server.port_file}"', error)

    def test_port_is_written_after_a_stale_one_was_read(self):
        server = self.server()
        zarvo.write(server.port_file, "1")
        os.utime(server.port_file, (1000, 1000))
        process = self.held(server, "list", "--json", "--no-start", path=f"/proc/{server.pid}/")
        zarvo.write(server.port_file, str(server.port))
        self.assertEqual(self.let_go(server, process), (DONE, "[]\n", ""))

    # zarvoctl reads the certificate after the port, and before it connects.

    def test_server_restarts_after_its_port_was_read(self):
        server = self.server()
        process = self.held(server, "list", "--json", "--no-start", path=server.certificate)
        server.stop()
        server.start()
        self.assertEqual(self.let_go(server, process), (DONE, "[]\n", ""))

    def test_server_ends_after_its_port_was_read(self):
        server = self.server()
        process = self.held(server, "server", "status", "--json", path=server.certificate)
        server.stop()
        code, output, error = self.let_go(server, process)
        self.assertEqual((code, json.loads(output)["files"], error), (NO_SERVER, "missing", ""))

    def test_certificate_is_replaced_after_the_port_was_read(self):
        server = self.server()
        process = self.held(server, "list", "--json", path=server.certificate)
        server.stop()
        os.unlink(server.certificate)
        os.unlink(server.key)
        code, output, error = self.let_go(server, process)
        self.addCleanup(self.end_unattended, server)
        self.assertEqual((code, output), (DONE, "[]\n"), error)


class Doctor(ctl.CtlTestCase):
    def doctor(self, server, path, nth, meanwhile):
        """Holds a doctor while something happens. Returns its findings, by the title of the check."""
        process = self.held(server, "doctor", "--json", path=path, nth=nth)
        meanwhile()
        code, output, error = self.let_go(server, process)
        self.assertEqual((code, error), (DONE, ""), output)
        lines = {}
        for finding in json.loads(output):
            lines.setdefault(finding["check"], []).append(f"{finding['level']} {finding['text']}")
        return lines

    def test_certificate_is_made_meanwhile(self):
        server = self.prepare(certificate=False)
        zarvo.write(server.pid_file, "999999999")  # as a killed server leaves it behind
        lines = self.doctor(server, server.pid_file, 1, server.start)
        self.assertIn("OK Certificate and key belong together", lines["certificate"])

    def test_server_starts_meanwhile(self):
        server = self.prepare(settings={"ListenPort": 0})
        port = 6000 + server.displays.base
        server.settings["ListenPort"] = port
        server.write_settings()
        zarvo.write(server.pid_file, "999999999")
        zarvo.write(server.port_file, str(port))
        lines = self.doctor(server, server.port_file, 1, server.start)
        self.assertEqual(lines["server"], [f"OK The server is process {server.pid} on port {port} and accepts our certificate"])

    def test_server_ends_meanwhile(self):
        # First the certificate's own check reads it, then the one that connects to the server.
        server = self.server()
        lines = self.doctor(server, server.certificate, 2, server.stop)
        self.assertEqual(lines["server"], ["OK No server is running; zarvoctl starts one when needed"])


if __name__ == "__main__":
    unittest.main()
