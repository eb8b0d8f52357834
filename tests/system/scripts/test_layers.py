# SPDX-License-Identifier: MIT
"""scripts/layers on small trees, each with one fault."""
import os
import subprocess
import tempfile
import unittest

import zarvo

SCRIPT = os.path.join(zarvo.ROOT, "scripts", "layers")

SOUND = {
    "CMakeLists.txt": "add_subdirectory(low)\nadd_subdirectory(high)\n",
    "low/CMakeLists.txt": "zarvo_library(low\n    SOURCES a.cpp\n    LINK Qt6::Core)\n",
    "low/a.h": "#include <string>\n",
    "low/a.cpp": '#include "low/a.h"\n',
    "high/CMakeLists.txt": "zarvo_library(high\n    SOURCES b.cpp c.cpp\n    LINK low)\n",
    "high/b.h": '#include "low/a.h"\n',
    "high/b.cpp": '#include "high/b.h"\n',
    "high/c.h": '#include "high/b.h"\n',
    "high/c.cpp": '#include "high/c.h"\n\n#include "c.moc"\n',
}


class LayersTest(unittest.TestCase):
    def problems(self, changed=()):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        root = folder.name
        for path, text in (SOUND | dict(changed)).items():
            os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
            zarvo.write(os.path.join(root, path), text)
        run = subprocess.run([SCRIPT, root], capture_output=True, text=True, timeout=zarvo.DEADLINE, check=False)
        self.assertEqual(run.stderr, "")
        self.assertEqual(run.returncode, 1 if run.stdout else 0)
        return run.stdout

    def test_a_sound_tree_passes(self):
        self.assertEqual(self.problems(), "")

    def test_a_library_that_links_one_above_it_is_refused(self):
        self.assertEqual(self.problems({"low/CMakeLists.txt": "zarvo_library(low\n    SOURCES a.cpp\n    LINK high)\n"}),
                         "low/CMakeLists.txt: low links high, which does not stand below it\n")

    def test_an_include_that_runs_up_is_refused(self):
        self.assertEqual(self.problems({"low/a.cpp": '#include "high/d.h"\n', "high/d.h": ""}),
                         'low/a.cpp: "high/d.h", but low does not link high\n')

    def test_an_include_of_a_folder_that_is_not_linked_is_refused(self):
        self.assertEqual(self.problems({"high/CMakeLists.txt": "zarvo_library(high\n    SOURCES b.cpp c.cpp)\n"}),
                         'high/b.h: "low/a.h", but high does not link low\n')

    def test_components_that_include_each_other_are_refused(self):
        self.assertEqual(self.problems({"high/b.cpp": '#include "high/b.h"\n#include "high/c.h"\n'}),
                         "a circle of includes: high/b -> high/c -> high/b\n")

    def test_an_include_that_is_not_written_from_the_root_is_refused(self):
        self.assertEqual(self.problems({"high/b.cpp": '#include "b.h"\n'}),
                         'high/b.cpp: "b.h" is not written from the root\n')

    def test_a_library_does_not_include_a_program(self):
        self.assertEqual(self.problems({"high/b.cpp": '#include "tests/t.h"\n', "tests/t.h": ""}),
                         'high/b.cpp: "tests/t.h" belongs to no library\n')


if __name__ == "__main__":
    unittest.main()
