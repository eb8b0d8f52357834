# SPDX-License-Identifier: MIT
"""How scripts/test treats a test that fails: it runs once more, alone, and the second result counts."""
import os
import subprocess
import tempfile
import unittest

import zarvo

LIBRARY = os.path.join(zarvo.ROOT, "scripts", "lib.sh")

# Notes that it runs, and fails while fewer than so many notes are there.
SCRIPT = """echo >> {name}.runs; test "$(wc -l < {name}.runs)" -ge {runs}"""


class RunTests(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def run_tests(self, **good_from):
        """Runs one test for each name, which passes from its run of this number on; returns the status and the flakes."""
        lines = [f'add_test({name} "/bin/sh" "-c" [=[{SCRIPT.format(name=name, runs=runs)}]=])'
                 for name, runs in good_from.items()]
        zarvo.write(os.path.join(self.folder, "CTestTestfile.cmake"), "\n".join(lines) + "\n")
        command = '. "$1"; trap print_flakes EXIT; run_tests "$2" --parallel 4 >output 2>&1'
        done = subprocess.run(["bash", "-euo", "pipefail", "-c", command, "bash", LIBRARY, self.folder],
                              cwd=self.folder, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        self.assertEqual(done.stderr, "")
        flakes = [line.rpartition(": ")[2] for line in done.stdout.splitlines() if line.startswith(self.folder)]
        return done.returncode, flakes

    def runs(self, name):
        return len(zarvo.read(os.path.join(self.folder, name + ".runs")).splitlines())

    def test_all_pass_at_once(self):
        self.assertEqual(self.run_tests(one=1, two=1), (0, []))
        self.assertEqual(self.runs("one"), 1)

    def test_a_test_that_passes_alone_is_a_flake_and_the_run_is_good(self):
        self.assertEqual(self.run_tests(**{"system.flaky": 2, "good": 1}), (0, ["system.flaky"]))
        self.assertEqual((self.runs("system.flaky"), self.runs("good")), (2, 1))

    def test_a_test_that_fails_twice_fails_the_run(self):
        status, flakes = self.run_tests(**{"bad": 9, "system.flaky": 2, "good": 1})
        self.assertNotEqual(status, 0)
        self.assertEqual(flakes, ["system.flaky"])
        self.assertEqual((self.runs("bad"), self.runs("system.flaky"), self.runs("good")), (2, 2, 1))

    def test_a_name_that_begins_like_a_failed_one_is_no_failure(self):
        status, flakes = self.run_tests(**{"part": 2, "part.two": 9})
        self.assertNotEqual(status, 0)
        self.assertEqual(flakes, ["part"])

    def test_a_folder_without_tests_fails(self):
        status, flakes = self.run_tests()
        self.assertNotEqual(status, 0)
        self.assertEqual(flakes, [])


if __name__ == "__main__":
    unittest.main()
