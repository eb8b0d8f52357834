# SPDX-License-Identifier: MIT
"""A peer lists sessions whose ids and names are shell syntax, and the user completes them in a real shell."""
import os
import shlex
import shutil
import tempfile
import unittest

import ctl
import zarvo
from terminal import Terminal

COMPLETIONS = os.path.join(zarvo.ROOT, "packaging", "completions")

# Each begins with "z", so that one letter chooses it. None holds a control character: "zarvoctl list" replaces those.
HOSTILE = ("z$(touch hit)", "z`touch hit`", "z;touch hit", "z' touch hit;'", 'z";touch hit;"', "z$(touch${IFS}hit)",
           "z|touch hit", "z&touch hit", "z{a,b}", "z*", "z\\", "z:a:b", "z a  b", "z#c", "z>hit", "z!!", "z<(touch hit)")


class HostileOffers(unittest.TestCase):
    """The line that completion makes is executed, and "zarvoctl" gets exactly the id or the name."""

    def setUp(self):
        self.top = tempfile.mkdtemp(prefix="zarvo-completion-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.top, True)
        self.path = lambda name: os.path.join(self.top, name)
        os.mkdir(self.path("bin"))
        os.mkdir(self.path("work"))
        # Lists the session in "listed", has the help of the real one, and records how it is called otherwise.
        self.install("zarvoctl", f'case $1 in list) cat {self.path("listed")};; help) exec {ctl.CTL} "$@";; '
                     f'*) printf "%s\\n" "$#" "$@" > {self.path("called~")}; '
                     f'mv {self.path("called~")} {self.path("called")};; esac\n')
        self.install("timeout", 'shift; exec "$@"\n')  # the shells wait for the list on a loaded machine, too

    def install(self, name, script):
        path = os.path.join(self.top, "bin", name)
        zarvo.write(path, "#!/bin/sh\n" + script)
        os.chmod(path, 0o755)

    def shell(self, *command):
        os.chdir(self.path("work"))
        self.addCleanup(os.chdir, zarvo.HERE)
        environment = {"HOME": self.top, "ZDOTDIR": self.top, "LANG": "C.UTF-8", "TERM": "xterm",
                       "PATH": self.path("bin") + ":" + os.environ["PATH"]}
        # fish insists on a terminal of its own.
        terminal = Terminal(environment, "setsid", "--ctty", "--wait", *command, columns=300)
        self.addCleanup(terminal.close)
        terminal.wait_for("ready> ")
        return terminal

    def complete(self, shell, fields, begin):
        """Completes and executes. Returns the arguments that the program got."""
        zarvo.write(self.path("listed"), "\t".join(fields) + "\n")
        if os.path.exists(self.path("called")):
            os.unlink(self.path("called"))
        shell.text = ""
        shell.type(f"\x15zarvoctl suspend {begin}\t")
        shell.wait_for(f"zarvoctl suspend {begin}")
        shell.type("\r")

        def called():
            shell.read_some(0)
            return os.path.exists(self.path("called"))
        try:
            zarvo.wait_until(called, "the call", 10)
        except AssertionError as late:
            raise AssertionError(f"no call for {fields}: {shell.text!r}") from late
        count, *arguments = zarvo.read(self.path("called")).split("\n")[:-1]
        self.assertEqual(int(count), len(arguments))
        return arguments

    def attack(self, shell):
        for text in HOSTILE:
            with self.subTest(id=text):
                self.assertEqual(self.complete(shell, (text, "", "far", "desktop", "suspended", "", ""), "z"),
                                 ["suspend", text])
            with self.subTest(name=text):
                self.assertEqual(self.complete(shell, ("11", text, "far", "desktop", "suspended", "", ""), "z"),
                                 ["suspend", text])
        for option in ("--all", "-y"):
            self.assertNotIn(option, self.complete(shell, (option, option, "far", "desktop", "suspended", "", ""), ""))
        self.assertEqual(os.listdir(self.path("work")), [])

    def test_bash(self):
        zarvo.write(self.path("rc"), f"PS1='ready> '; source {shlex.quote(COMPLETIONS)}/zarvoctl.bash\n")
        self.attack(self.shell("bash", "--noprofile", "--rcfile", self.path("rc"), "-i"))

    def test_zsh(self):
        if not shutil.which("zsh"):
            self.skipTest("zsh is not installed")
        zarvo.write(self.path(".zshrc"), f"fpath=({shlex.quote(COMPLETIONS)} $fpath); PS1='ready> '\n"
                    "autoload -Uz compinit; compinit -D -u\n")
        self.attack(self.shell("zsh", "-di"))

    def test_fish(self):
        if not shutil.which("fish"):
            self.skipTest("fish is not installed")
        start = f"source {shlex.quote(COMPLETIONS)}/zarvoctl.fish; function fish_prompt; echo 'ready> '; end"
        self.attack(self.shell("fish", "--no-config", "-i", "-C", start))


if __name__ == "__main__":
    unittest.main()
