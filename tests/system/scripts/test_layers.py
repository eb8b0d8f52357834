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

    @staticmethod
    def layers(*below, **top):
        """A tree with a folder for each name, each with its library, and the folder of the keyword above them."""
        tree = {f"{name}/CMakeLists.txt": f"zarvo_library({name}\n    SOURCES x.cpp)\n" for name in below}
        tree |= {f"{name}/CMakeLists.txt": text for name, text in top.items()}
        order = ("low", "high", *below, *top)
        return tree | {"CMakeLists.txt": "".join(f"add_subdirectory({name})\n" for name in order)}

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

    def test_an_include_in_angle_brackets_is_checked_as_well(self):
        self.assertEqual(self.problems({"low/a.h": "#include <high/d.h>\n", "high/d.h": ""}),
                         'low/a.h: "high/d.h", but low does not link high\n')

    def test_a_link_outside_of_the_link_line_is_refused(self):
        late = "target_link_libraries(low PUBLIC high)\n"
        problem = "CMakeLists.txt: target_link_libraries(low), but only its LINK line may link\n"
        self.assertEqual(self.problems({"low/CMakeLists.txt": SOUND["low/CMakeLists.txt"] + late}), "low/" + problem)
        self.assertEqual(self.problems({"CMakeLists.txt": SOUND["CMakeLists.txt"] + late}), problem)

    def test_a_library_of_add_library_links_what_stands_below_it(self):
        plain = "add_library(plain STATIC p.cpp)\ntarget_link_libraries(plain PUBLIC high)\n"
        self.assertEqual(self.problems({"low/CMakeLists.txt": plain + SOUND["low/CMakeLists.txt"]}),
                         "low/CMakeLists.txt: plain links high, which does not stand below it\n")

    def test_a_program_without_a_library_includes_what_it_links(self):
        program = {"high/CMakeLists.txt": "add_subdirectory(inner)\nzarvo_program(tool bin\n    SOURCES main.cpp\n"
                                          "    LINK inner)\n",
                   "high/inner/CMakeLists.txt": "zarvo_library(inner\n    SOURCES i.cpp\n    LINK low)\n",
                   "high/inner/i.h": '#include "low/a.h"\n',
                   "high/main.cpp": '#include "high/inner/i.h"\n'}
        self.assertEqual(self.problems(program), "")
        self.assertEqual(self.problems(program | {"high/main.cpp": '#include "low/a.h"\n'}),
                         'high/main.cpp: "low/a.h", but tool does not link low\n')

    def test_a_program_links_no_folder_that_its_own_may_never_link(self):
        program = "zarvo_program(tool bin\n    SOURCES t.cpp\n    LINK live)\n"
        self.assertEqual(self.problems(self.layers("live", agent=program)),
                         "agent/CMakeLists.txt: tool reaches live, "
                         "but the agent shares only support, contract and base\n")

    def test_folders_that_never_link_each_other_are_refused(self):
        for name, other, reason in (
                ("agent", "rpc", "the agent shares only support, contract and base"),
                ("agent", "engine", "the agent shares only support, contract and base"),
                ("client", "live", "the client shares only support, contract, base and rpc with the server"),
                ("client", "agent", "the client shares only support, contract, base and rpc with the server"),
                ("rpc", "engine", "rpc and engine know nothing of each other"),
                ("engine", "rpc", "rpc and engine know nothing of each other")):
            with self.subTest(name=name, other=other):
                library = f"zarvo_library({name}\n    SOURCES y.cpp\n    LINK {other})\n"
                self.assertEqual(self.problems(self.layers(other, **{name: library})),
                                 f"{name}/CMakeLists.txt: {name} reaches {other}, but {reason}\n")

    def test_a_forbidden_folder_is_found_behind_another_one_and_in_a_subfolder(self):
        tree = self.layers("engine", client="add_subdirectory(server)\n")
        tree |= {"high/CMakeLists.txt": "zarvo_library(high\n    SOURCES b.cpp c.cpp\n    LINK low engine)\n",
                 "client/server/CMakeLists.txt": "zarvo_library(client_server\n    SOURCES y.cpp\n    LINK high)\n"}
        tree["CMakeLists.txt"] = "".join(f"add_subdirectory({name})\n" for name in ("engine", "low", "high", "client"))
        self.assertEqual(self.problems(tree),
                         "client/server/CMakeLists.txt: client_server reaches engine, "
                         "but the client shares only support, contract, base and rpc with the server\n")

    def test_a_client_may_link_the_frames(self):
        library = "zarvo_library(client\n    SOURCES y.cpp\n    LINK rpc)\n"
        self.assertEqual(self.problems(self.layers("rpc", client=library)), "")

    def test_a_source_of_more_than_600_lines_is_refused(self):
        for path in ("high/b.cpp", "high/c.h", "tests/long.py"):
            with self.subTest(path):
                text = SOUND.get(path, "")
                padding = "\n" * (600 - text.count("\n"))
                self.assertEqual(self.problems({path: text + padding}), "")
                self.assertEqual(self.problems({path: text + padding + "\n"}),
                                 f"{path}: 601 lines, and 600 are allowed\n")


if __name__ == "__main__":
    unittest.main()
