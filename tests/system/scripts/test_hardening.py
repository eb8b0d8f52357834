# SPDX-License-Identifier: MIT
"""scripts/hardening, which finds programs that were built without a protection."""
import os
import subprocess
import tempfile
import unittest

import zarvo

HARDENING = os.path.join(zarvo.ROOT, "scripts", "hardening")

# Uses what each protection protects: an array, a checked copy, a large frame, an index into a vector, and functions.
SOURCE = "".join(f"int function{number}(int value) {{ return value + {number}; }}\n" for number in range(20)) + """
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>
int main(int argc, char **argv)
{
    char large[100000];
    std::vector<int> numbers(static_cast<size_t>(argc));
    std::strcpy(large, argv[0]);
    return ::read(0, large, static_cast<size_t>(argc)) == numbers[static_cast<size_t>(argc) - 1] ? std::puts(large) : 0;
}
"""
ALL = ["-fPIE", "-fstack-protector-strong", "-D_GLIBCXX_ASSERTIONS", "-U_FORTIFY_SOURCE", "-D_FORTIFY_SOURCE=3",
       "-fstack-clash-protection", "-fcf-protection", "-Wl,-z,relro,-z,now,-z,noexecstack", "-pie"]


def check(folder):
    ran = subprocess.run([HARDENING, folder], capture_output=True, text=True, check=False, timeout=zarvo.DEADLINE)
    return ran.returncode, ran.stdout.splitlines()


class Hardening(unittest.TestCase):
    def built(self, flags, build_type="Release"):
        """A build folder with one program."""
        folder = tempfile.mkdtemp(prefix="zarvo-hardening-")
        self.addCleanup(subprocess.run, ["rm", "-r", folder], check=True)
        os.makedirs(os.path.join(folder, "bin"))
        zarvo.write(os.path.join(folder, "CMakeCache.txt"), f"CMAKE_BUILD_TYPE:STRING={build_type}\n")
        subprocess.run(["c++", "-x", "c++", "-O2", *flags, "-o", os.path.join(folder, "bin", "program"), "-"],
                       input=SOURCE, text=True, check=True, timeout=zarvo.DEADLINE)
        return folder

    def test_programs_of_this_build_are_hardened(self):
        self.assertEqual(check(zarvo.BUILD), (0, []))

    def test_all_protections_are_found(self):
        self.assertEqual(check(self.built(ALL)), (0, []))

    @unittest.skipUnless(os.uname().machine == "x86_64", "some protections exist on x86-64 only")
    def test_each_lost_protection_is_named(self):
        lost = {"-fPIE": (["-fno-pie", "-no-pie"], "program: no position-independent code"),
                "-pie": (["-no-pie"], "program: no position-independent code"),
                "-fstack-protector-strong": (["-fno-stack-protector"], "program: no stack protector"),
                "-D_GLIBCXX_ASSERTIONS": (["-U_GLIBCXX_ASSERTIONS"],
                                          "all programs: no assertions of the standard library"),
                "-D_FORTIFY_SOURCE=3": ([], "program: no _FORTIFY_SOURCE"),
                "-fstack-clash-protection": (["-fno-stack-clash-protection"],
                                             "all programs: no stack clash protection"),
                "-fcf-protection": (["-fcf-protection=none"], "program: no indirect branch targets"),
                "relro": (["-Wl,-z,norelro"], "program: no read-only relocations"),
                "now": (["-Wl,-z,lazy"], "program: no immediate binding"),
                "noexecstack": (["-Wl,-z,execstack"], "program: no stack that is not executable")}
        for flag, (others, message) in lost.items():
            with self.subTest(flag):
                kept = [other for other in ALL if other != flag and not (flag == "-fPIE" and other == "-pie")]
                self.assertIn(message, check(self.built(kept + others))[1])

    def test_debug_build_needs_no_optimiser(self):
        flags = [flag for flag in ALL if flag != "-D_FORTIFY_SOURCE=3"]
        self.assertEqual(check(self.built(flags, "Debug")), (0, []))

    def test_folder_without_programs_is_a_problem(self):
        folder = self.built(ALL)
        os.unlink(os.path.join(folder, "bin", "program"))
        self.assertEqual(check(folder), (1, [f"there are no programs in {folder}"]))


if __name__ == "__main__":
    unittest.main()
