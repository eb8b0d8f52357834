# SPDX-License-Identifier: MIT
"""zarvoctl: help text, manual pages and completions say the same; the installed tree works."""
import functools
import glob
import json
import os
import re
import shlex
import shutil
import subprocess
import tempfile
import unittest

import ctl
import zarvo
from terminal import Terminal

ROOT = zarvo.ROOT
COMPLETIONS = os.path.join(ROOT, "packaging", "completions")
MANUAL = os.path.join(ROOT, "docs", "man")
OPTION = re.compile(r"(?<![\w-])--?[a-z][a-z-]*")


@functools.lru_cache(maxsize=None)
def help_text(*arguments):
    result = subprocess.run([ctl.CTL, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            check=True, timeout=zarvo.DEADLINE)
    assert result.stderr == "", result.stderr
    return result.stdout


def verbs():
    """The aliases of each verb by its name."""
    block = help_text("--help").split("Verbs:\n")[1].split("\n\n")[0]
    names = [re.match(r"  ([a-z, ]+?)  +[A-Z]", line).group(1).split(", ") for line in block.splitlines()]
    return {name: aliases for name, *aliases in names}


def options(verb):
    block = help_text(verb, "--help").split("Options:\n")[1].split("\n\n")[0]
    return {option for line in block.splitlines() for option in OPTION.findall(re.split(r"   +| [A-Z]", line[2:])[0])}


def plain(roff):
    """The text of a manual page."""
    text = re.sub(r"\\f[BRI]", "", roff).replace("\\-", "-").replace("\\(aq", "'").replace("\\e", "\\")
    return re.sub(r"(?m)^\.(?:B|I|BR|RI|IR) ", "", text)


def manual(name):
    return zarvo.read(os.path.join(MANUAL, name))


class Help(unittest.TestCase):
    def test_every_verb_has_an_example(self):
        declared = zarvo.read(os.path.join(ROOT, "client", "verbs", "verbs.h"))
        self.assertEqual(sorted(re.findall(r" Verb (\w+)Verb\(\);", declared)), sorted(verbs()))
        for verb, aliases in verbs().items():
            for name in (verb, *aliases):
                text = help_text(name, "--help")
                self.assertIn("Usage: zarvoctl " + verb, text)
                self.assertRegex(text, r"\nExamples?:\n  zarvoctl " + verb)
                self.assertEqual(text, help_text("help", name))
                self.assertEqual(text, help_text(name, "-h"))

    def test_lines_fit_a_terminal(self):
        for text in (help_text("--help"), *(help_text(verb, "--help") for verb in verbs())):
            self.assertLessEqual(max(map(len, text.splitlines())), 110)


class Manual(unittest.TestCase):
    def sections(self):
        """The text of each verb's section."""
        block = manual("zarvoctl.1").split(".SH VERBS\n")[1].split("\n.SH ")[0]
        parts = block.split(".SS zarvoctl ")[1:]
        return {part.split()[0]: part for part in parts}

    def test_verbs(self):
        self.assertEqual(list(self.sections()), list(verbs()))

    def test_options(self):
        for verb, section in self.sections().items():
            with self.subTest(verb):
                tags = "\n".join(re.findall(r"\.TP\n(.*)", section))
                self.assertEqual(set(OPTION.findall(plain(tags))) | {"-h", "--help"}, options(verb))
                for line in re.findall(r"\.TP\n.*\n(.*)", section):
                    self.assertIn(plain(line), help_text(verb, "--help"))

    def test_descriptions_and_examples(self):
        for verb, section in self.sections().items():
            with self.subTest(verb):
                _, description, *_ = help_text(verb, "--help").split("\n\n")
                self.assertIn(" ".join(description.split()), " ".join(plain(section).split()).replace("...", "…"))
                for example in re.split(r"Examples?:\n", help_text(verb, "--help"))[1].splitlines():
                    self.assertIn("\n" + example.strip() + "\n", plain(section))

    def test_usage(self):
        for verb, section in self.sections().items():
            usage = help_text(verb, "--help").splitlines()[0].replace("Usage: zarvoctl ", "")
            self.assertEqual(plain(section.splitlines()[0]).strip(), usage.replace("…", "..."))

    def test_exit_codes(self):
        listed = help_text("--help").split("Exit codes:\n")[1].split("\n\n")[0]
        block = plain(manual("zarvoctl.1")).split(".SH EXIT STATUS\n")[1].split("\n.SH ")[0]
        self.assertEqual(re.findall(r"\.TP\n(\d+)\n(.*)", block), re.findall(r"(?m)^ +(\d+)  (.*)$", listed))

    def test_pages_are_sound(self):
        if not shutil.which("man"):
            self.skipTest("man is not installed")
        for name in os.listdir(MANUAL):
            result = subprocess.run(["man", "--warnings", "-l", os.path.join(MANUAL, name)], text=True,
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=zarvo.DEADLINE,
                                    env={**os.environ, "MANWIDTH": "100", "LC_ALL": "C.UTF-8"})
            self.assertEqual((result.returncode, result.stderr), (0, ""), name)
            self.assertIn("SEE ALSO", result.stdout)


class Version(unittest.TestCase):
    """CMakeLists.txt gives the version, and everything else takes it from there."""

    def test_changes_begin_with_the_version(self):
        newest = re.search(r"(?m)^## (\S+)", zarvo.read(os.path.join(ROOT, "CHANGELOG.md")))
        self.assertEqual(newest.group(1), zarvo.VERSION)

    def test_no_other_file_names_the_version(self):
        # What users are told changed, and the worked example of a call.
        others = {"CHANGELOG.md", os.path.join("docs", "PROTOCOL.md")}
        form = re.compile(rf"(?<![\w.]){re.escape(zarvo.VERSION)}(?![\w.])")
        found = {os.path.relpath(path, ROOT) for path in self.sources() if form.search(zarvo.read(path))}
        self.assertEqual(found - others, {"CMakeLists.txt"})

    @staticmethod
    def sources():
        """The files of the project, without build folders and the inputs of fuzz targets."""
        for folder, folders, names in os.walk(ROOT):
            folders[:] = [name for name in folders if not name.startswith(".") and name not in ("build", "corpus")
                          and not os.path.exists(os.path.join(folder, name, "CMakeCache.txt"))]
            yield from (os.path.join(folder, name) for name in names if os.path.isfile(os.path.join(folder, name)))


class SecurityDocument(unittest.TestCase):
    """docs/SECURITY.md names the test of each attack, as MODULE.CLASS or MODULE.TEST."""

    SYSTEM = os.path.join(ROOT, "tests", "system")

    def setUp(self):
        self.named = re.findall(r"`(\w+)\.((?:test_)?\w+)`", zarvo.read(os.path.join(ROOT, "docs", "SECURITY.md")))

    def test_named_tests_exist(self):
        missing = []
        for module, name in self.named:
            found = glob.glob(os.path.join(self.SYSTEM, "*", f"test_{module}.py"))
            kind = "def" if name.startswith("test_") else "class"
            if len(found) != 1 or not re.search(rf"(?m)^ *{kind} {name}\(", zarvo.read(found[0])):
                missing.append(f"{module}.{name}")
        self.assertEqual(missing, [])

    def test_all_attacks_are_named(self):
        classes = set()
        for path in glob.glob(os.path.join(self.SYSTEM, "attacks", "test_*.py")):
            module = os.path.basename(path).removeprefix("test_").removesuffix(".py")
            text = zarvo.read(path)
            for name, body in re.findall(r"(?ms)^class (\w+)\(.*?:\n(.*?)(?=^\S|\Z)", text):
                tests = set(re.findall(r"def (test_\w+)", body))
                if tests and not {name, *tests} & {test for owner, test in self.named if owner == module}:
                    classes.add(f"{module}.{name}")
        self.assertEqual(classes, set())


class CompletionTable(unittest.TestCase):
    """What the completion scripts read says the same as the help texts."""

    def rows(self):
        return [row.split("\t") for row in help_text("help", "--plain").splitlines()]

    def test_fields(self):
        for row in self.rows():
            self.assertEqual(len(row), 3, row)
            self.assertTrue(row[0] and row[1], row)

    def test_options(self):
        for verb, aliases in verbs().items():
            for name in (verb, *aliases):
                own = [names.split()[1:] for names, *_ in self.rows() if names.split()[0] == name]
                found = {option for row in own for option in row}
                self.assertEqual(found, options(verb), name)

    def test_option_with_a_value_has_something_to_follow(self):
        for names, description, follows in self.rows():
            verb, *option = names.split()
            if option and verb in verbs():
                form = rf"(?m)^  {', '.join(option)}( \w+)? +{re.escape(description)}$"
                (value,) = re.findall(form, help_text(verb, "--help"))
                self.assertEqual(bool(value), bool(follows), names)


class Completions(ctl.CtlTestCase):
    def prepare(self, *arguments, **how):
        """The shells ask for the sessions, and go on without them after 3 seconds. Here they wait for the answer."""
        server = super().prepare(*arguments, **how)
        server.install_program("timeout", '[ "$1" = 3 ] && shift && exec "$@"\n')
        return server

    def assert_offers_all(self, offered):
        """
        Compares what a shell offers with the help texts.
        @param offered  returns the set of what the shell offers for the last one of the words
        """
        names = {name: verb for verb, aliases in verbs().items() for name in (verb, *aliases)}
        self.assertEqual(offered("") - {"-h", "--help", "--version"}, set(names) | {"help"})
        self.assertEqual(offered("-"), {"-h", "--help", "--version"})
        self.assertEqual(offered("help", ""), set(names))
        for name, verb in names.items():
            self.assertEqual(offered(name, "-"), options(verb), name)
        # What follows an option or a verb.
        self.assertEqual(offered("wait", "--for", ""), {"connected", "suspended", "ended"})
        self.assertEqual(offered("start", "--geometry", ""), {"rootless", "1280x800", "1920x1080"})
        self.assertEqual(offered("server", ""), {"start", "stop", "status", "log"})

    def bash(self, server, *words, folder=None, program="zarvoctl"):
        """What bash offers for the last word."""
        script = 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _zarvoctl; printf "%s\\n" "${COMPREPLY[@]}"'
        environment = dict(os.environ) if server is None else server.environment
        path = os.path.dirname(ctl.CTL) + ":" + environment["PATH"]
        source = os.path.join(COMPLETIONS, "zarvoctl.bash")
        result = subprocess.run(["bash", "--norc", "-c", script, source, program, *words], text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=zarvo.DEADLINE,
                                env={**environment, "PATH": path}, cwd=folder)
        self.assertEqual(result.stderr, "")
        offered = [line for line in result.stdout.splitlines() if line]
        self.assertEqual(len(offered), len(set(offered)), offered)
        return set(offered)

    def test_bash_knows_verbs_and_options(self):
        self.assert_offers_all(functools.partial(self.bash, None))
        self.assertEqual(self.bash(None, "wait", "x", "--for", "s"), {"suspended"})
        self.assertEqual(self.bash(None, "wait", "--timeout", ""), set())
        self.assertEqual(self.bash(None, "server", "st"), {"start", "stop", "status"})

    def test_bash_asks_the_program_that_was_typed(self):
        server = self.unattended()
        tool = os.path.join(server.top, "zarvoctl")
        table = "sing\tSing.\t\nsing --loud\tShout.\t"
        zarvo.write(tool, f"#!/bin/sh\n[ \"$*\" = 'help --plain' ] && echo '{table}'\n")
        os.chmod(tool, 0o755)
        self.assertEqual(self.bash(server, "", program=tool), {"sing"})
        self.assertEqual(self.bash(server, "sing", "-", program=tool), {"--loud"})

    def test_bash_knows_sessions(self):
        server = self.server()
        sessions = {self.start(server, "a name")["id"], self.start(server, "zz")["id"]}
        for verb in ("connect", "suspend", "screenshot", "wait"):
            self.assertEqual(self.bash(server, verb, ""), sessions)
        one = min(sessions)
        self.assertEqual(self.bash(server, "wait", one[:8]), {one})
        self.assertEqual(self.bash(server, "wait", "z"), {"zz"})
        self.assertIn("a\\ name", self.bash(server, "wait", "a"))
        self.assertEqual(self.bash(server, "wait", "a\\ n"), {"a\\ name"})

    def test_bash_leaves_the_command_alone(self):
        self.assertIn("--geometry", self.bash(None, "start", "--"))
        for words in (("xterm", "-"), ("--", "ls", "-"), ("--geometry", "640x480", "ls", "--")):
            self.assertEqual(self.bash(None, "start", *words, folder=COMPLETIONS), set(), words)
        self.assertIn("bash", self.bash(None, "start", "--geometry", "640x480", "ba"))
        self.assertIn("bash", self.bash(None, "start", "--", "ba"))
        self.assertEqual(self.bash(None, "start", "xterm", "zarvoctl.f", folder=COMPLETIONS), {"zarvoctl.fish"})

    def test_bash_offers_choices_only_in_the_first_place(self):
        self.assertEqual(self.bash(None, "certificate", ""), {"show", "renew"})
        self.assertEqual(self.bash(None, "certificate", "renew", ""), set())

    def test_bash_completes_the_command_of_a_new_session(self):
        server = self.server()
        session = self.start(server, "zz")["id"]
        self.assertEqual(self.bash(server, "connect", ""), {session})
        for words in (("--new",), ("--new", "--"), ("--new", "--geometry", "640x480", "--")):
            offered = self.bash(server, "connect", *words, "")
            self.assertIn("bash", offered, words)
            self.assertNotIn(session, offered, words)
        self.assertEqual(self.bash(server, "connect", "--new", "--", "xterm", "zarvoctl.f", folder=COMPLETIONS),
                         {"zarvoctl.fish"})

    def test_bash_tells_the_picture_from_its_session(self):
        server = self.server()
        session = self.start(server, "zz")["id"]
        self.assertEqual(self.bash(server, "screenshot", "--no-start", "", folder=COMPLETIONS), {session})
        self.assertEqual(self.bash(server, "screenshot", "--no-start", "zz", "zarvoctl.f", folder=COMPLETIONS),
                         {"zarvoctl.fish"})

    def test_no_server_is_started(self):
        server = self.unattended()
        self.assertEqual(self.bash(server, "suspend", ""), set())
        self.assertEqual(self.servers(server), [])

    def test_fish(self):
        if not shutil.which("fish"):
            self.skipTest("fish is not installed")
        server = self.server()
        session = self.start(server, "a name")["id"]

        def offered(line):
            path = os.path.dirname(ctl.CTL) + ":" + server.environment["PATH"]
            script = f'source {os.path.join(COMPLETIONS, "zarvoctl.fish")}; complete -C "{line}"'
            result = subprocess.run(["fish", "--no-config", "-c", script], text=True, timeout=zarvo.DEADLINE,
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                    env={**server.environment, "PATH": path})
            self.assertEqual(result.stderr, "")
            return [entry.split("\t") for entry in result.stdout.splitlines()]

        self.assertEqual(offered("zarvoctl suspend "), [[session, "a name"]])
        self.assertIn(["a name", session], offered("zarvoctl suspend a"))
        self.assertIn("screenshot", [entry[0] for entry in offered("zarvoctl s")])
        self.assertNotIn("--geometry", [entry[0] for entry in offered("zarvoctl start ls --")])
        self.assertIn(session, [entry[0] for entry in offered("zarvoctl connect ")])
        for line in ("zarvoctl connect --new ", "zarvoctl connect --new -- "):
            self.assertNotIn(session, [entry[0] for entry in offered(line)], line)

        def names(*words):
            # fish offers long options only after two dashes.
            lasts = ("-", "--") if words[-1] == "-" else words[-1:]
            return {entry[0] for last in lasts for entry in offered(" ".join(("zarvoctl", *words[:-1], last)))}

        self.assert_offers_all(names)

    def zsh(self, *words):
        """What zsh is told to offer for the last word, by a script that runs outside of a terminal."""
        script = """words=(zarvoctl "$@") CURRENT=$# PREFIX=$@[-1]; ((CURRENT++))
            _describe() { print -rl -- ${(P)@[-1]} }
            _arguments() { print -rl -- "$@" }
            source $ZARVO_SCRIPT"""
        environment = {**os.environ, "PATH": os.path.dirname(ctl.CTL) + ":" + os.environ["PATH"],
                       "ZARVO_SCRIPT": os.path.join(COMPLETIONS, "_zarvoctl")}
        result = subprocess.run(["zsh", "-f", "-c", script, "zsh", *words], text=True, timeout=zarvo.DEADLINE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment)
        self.assertEqual(result.stderr, "")
        lines = result.stdout.splitlines()
        if len(words) == 1:
            return {name for name in (line.split(":")[0] for line in lines) if name.startswith(words[0])}
        if words[-1] == "-":
            return {match.group(1) for line in lines if (match := re.match(r"\([^)]*\)(-[a-z-]+)\[[^]]+\]", line))}
        # What follows the option before, or else the verb.
        begin = rf"\([^)]*\){words[-2]}\[" if len(words) > 2 else "1:"
        (choices,) = [line for line in lines if re.match(begin, line)]
        return set(re.search(r":\(([^)]*)\)$", choices).group(1).split())

    def test_zsh(self):
        if not shutil.which("zsh"):
            self.skipTest("zsh is not installed")
        self.assert_offers_all(self.zsh)
        server = self.server()
        session = self.start(server, "nameless-thing")["id"]
        zarvo.write(os.path.join(server.home, ".zshrc"), f"fpath=({shlex.quote(COMPLETIONS)} $fpath); PS1='ready> '\n"
                    "autoload -Uz compinit; compinit -D -u\n")
        commands = {"start": ("one", "-tool"), "start --": ("two", "-tool"),
                    "connect --new": ("three", "-tool"), "connect --new --": ("four", "-tool")}
        for name in map("".join, commands.values()):
            os.symlink("/bin/true", os.path.join(server.home, name))
        path = ":".join((os.path.dirname(ctl.CTL), server.environment["PATH"], server.home))
        zsh = Terminal({**server.environment, "PATH": path, "ZDOTDIR": server.home}, "zsh", "-di", columns=200)
        self.addCleanup(zsh.close)
        zsh.wait_for("ready> ")
        zsh.type("zarvoctl suspend \t")
        zsh.wait_for(session)
        zsh.type("\x15zarvoctl wait namel\t")
        zsh.wait_for("ess-thing")
        for line, (begin, rest) in commands.items():
            zsh.type(f"\x15zarvoctl {line} {begin}\t")
            zsh.wait_for(begin + rest)
        for begin, rest in (("screen", "shot"), ("list --no-l", "egend"), ("wait --for sus", "pended"),
                            ("terminate --y", "es"), ("server statu", "s"), ("--vers", "ion")):
            zsh.type(f"\x15zarvoctl {begin}\t")
            zsh.wait_for(begin + rest)


class Scripts(unittest.TestCase):
    def test_run_shows_what_the_compiler_says(self):
        with tempfile.TemporaryDirectory() as top:
            shutil.copytree(os.path.join(ROOT, "scripts"), os.path.join(top, "scripts"))
            os.mkdir(os.path.join(top, "bin"))
            # All packages are there, and the build fails as ninja does, which complains on its standard output.
            for name, text in (("dpkg-query", "echo ii"),
                               ("cmake", '[ "$1" != --build ] || { echo error: here; echo stopped; exit 1; }')):
                path = os.path.join(top, "bin", name)
                zarvo.write(path, f"#!/bin/sh\n{text}\n")
                os.chmod(path, 0o755)
            result = subprocess.run([os.path.join(top, "scripts", "run")], text=True, stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=zarvo.DEADLINE,
                                    env={**os.environ, "PATH": os.path.join(top, "bin") + ":" + os.environ["PATH"]})
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("error: here\nstopped\n", result.stdout)


class Installed(ctl.CtlTestCase):
    def test_installed_tree(self):
        server = self.unattended(agent=False)
        prefix = os.path.join(server.top, "usr")
        subprocess.run(["cmake", "--install", zarvo.BUILD, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL,
                       timeout=2 * zarvo.DEADLINE)
        for path in ("bin/zarvo_server", "bin/zarvoctl", "libexec/zarvo/start-agent", "libexec/zarvo/start-app",
                     "libexec/zarvo/session-door", "libexec/zarvo/take-screenshot", "share/man/man1/zarvoctl.1",
                     "share/man/man1/start-agent.1", "share/man/man5/zarvo_agent.conf.5",
                     "share/man/man5/zarvo_server.conf.5", "share/man/man8/zarvo_server.8",
                     "share/bash-completion/completions/zarvoctl", "share/zsh/site-functions/_zarvoctl",
                     "share/fish/vendor_completions.d/zarvoctl.fish"):
            self.assertTrue(os.path.isfile(os.path.join(prefix, path)), path)

        def run(*arguments):
            result = subprocess.run([os.path.join(prefix, "bin", "zarvoctl"), *arguments], env=server.environment,
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                    timeout=2 * zarvo.DEADLINE)
            self.assertEqual(result.returncode, 0, result.stderr)
            return result.stdout

        session = json.loads(run("start", "--json", "--geometry", "320x240", "xterm"))["id"]
        (pid,) = self.servers(server)
        self.assertEqual(os.readlink(f"/proc/{pid}/exe"), os.path.join(prefix, "bin", "zarvo_server"))
        picture = os.path.join(server.top, "picture.png")
        run("screenshot", session, picture)
        with open(picture, "rb") as file:
            self.assertEqual(file.read(8), b"\x89PNG\r\n\x1a\n")
        run("terminate", session)


if __name__ == "__main__":
    unittest.main()
