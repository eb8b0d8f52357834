# SPDX-License-Identifier: MIT
"""zarvoctl: a server that starts or ends between two of its looks, each time at the worst moment."""
import os
import unittest

import ctl
import zarvo
from ctl import DONE, NO_SERVER


class Finding(ctl.CtlTestCase):
    def test_server_that_ends_when_its_files_have_been_read(self):
        server = self.server()
        process = self.held(server, "list", "--no-start", path=f"/proc/{server.pid}/")
        server.stop()
        code, output, error = self.let_go(server, process)
        self.assertEqual((code, output), (NO_SERVER, ""))
        self.assertIn(f'No server is running: there is no file "{server.port_file}"', error)

    def test_port_that_is_told_when_that_of_an_earlier_server_has_been_read(self):
        server = self.server()
        zarvo.write(server.port_file, "1")
        os.utime(server.port_file, (1000, 1000))
        process = self.held(server, "list", "--json", "--no-start", path=f"/proc/{server.pid}/")
        zarvo.write(server.port_file, str(server.port))
        self.assertEqual(self.let_go(server, process), (DONE, "[]\n", ""))


if __name__ == "__main__":
    unittest.main()
