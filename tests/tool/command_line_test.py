"""The command line: usage, help, exit statuses, the manual and the shells' completions."""

import os
import pathlib
import re
import shutil
import subprocess
import unittest

from support import DONE, FAILED, MATCHED, NOT_INSPECTED, TESSERA, ToolTest, text

SHARE = pathlib.Path(os.environ["TESSERA_SHARE"])
BASH = SHARE / "bash-completion/completions/tessera"
ZSH = SHARE / "zsh/site-functions/_tessera"
FISH = SHARE / "fish/vendor_completions.d/tessera.fish"
MANUAL = SHARE / "man/man1"

VERBS = ["index", "watch", "delete", "common", "match", "text", "sig", "list", "stats", "export",
         "verify", "rebuild"]  # fmt: skip
ACTIONS = ["add", "remove", "list", "suggest"]


class CommandLineTest(ToolTest):
    def test_help_and_version_succeed_and_show_examples(self):
        for arguments in ([], *([verb] for verb in VERBS)):
            out, err = self.run_tool(*arguments, "--help", status=DONE)
            for part in ("Usage: tessera", "\nExit status:\n", "--home"):
                self.assertIn(part, out)
            self.assertRegex(out, r"\nExamples:\n  .*tessera ")
            self.assertEqual("", err)
            self.assertLessEqual(max(map(len, out.splitlines())), 84)
        out, _ = self.run_tool("--help", status=DONE)
        self.assertIn("TESSERA_HOME", out)
        self.assertEqual(VERBS, re.findall(r"^  ([a-z]+)   ", out, re.M))
        out, _ = self.run_tool("--version", status=DONE)
        self.assertRegex(out, r"^tessera \d+\.\d+\.\d+\n$")

    def test_wrong_usage_is_an_error_that_is_told(self):
        for arguments, message in (
            ([], "Usage"),
            (["frobnicate"], "there is no verb 'frobnicate'"),
            (["frobnicate", "a"], "there is no verb 'frobnicate'"),
            (["index"], "PATH or --files-from is required"),
            (["match"], "PATH or --files-from is required"),
            (["sig"], "FILE is required"),
            (["text", "a", "b"], "not expected: b"),
            (["delete"], "PATH, --id or --label is required"),
            (["watch"], "PATH is required"),
            (["common"], "'common' wants a verb"),
            (["common", "frobnicate"], "there is no verb 'frobnicate'"),
            (["common", "add"], "FILE is required"),
            (["export", "everything"], "everything not in {catalogue,tables}"),
            (["match", "--min-level", "3", "a"], "--min-level"),
            (["match", "--json", "--sarif", "a"], "--json excludes --sarif"),
            (["match", "-L", "-P", "a"], "excludes"),
            (["match", "--time-limit", "0", "a"], "--time-limit"),
            (["match", "--size-limit", "3x", "a"], "--size-limit"),
            (["match", "--depth-limit", "99999999999", "a"], "--depth-limit"),
            (["match", "-j", "0", "a"], "--jobs"),
            (["index", "--selection", "some", "a"], "some not in {full,sparse}"),
            (["index", "--frobnicate", "a"], "--frobnicate"),
            (["--progress", "sometimes", "stats"], "sometimes not in {auto,none,json}"),
        ):
            out, err = self.run_tool(*arguments, status=FAILED)
            self.assertEqual("", out)
            self.assertIn(message, err)

    def test_complaints_about_what_was_typed_are_harmless_on_a_terminal(self):
        name = "\033[31m\udcff"
        for arguments in (["match", f"--{name}"], [name], ["--home", f"/proc/{name}", "index", "."]):
            with self.subTest(arguments=arguments):
                _, err = self.run_tool(*arguments, status=FAILED)
                self.assertIn(r"\x1b[31m\xff", err)
                self.assertNotIn("\033", err)

    def test_every_verb_does_something(self):
        self.index(self.write("a.txt", text(1)))
        for arguments in (
            ["index", "docs"], ["delete", "--id", "1"], ["common", "list"], ["text", "docs/a.txt"],
            ["sig", "docs/a.txt"], ["list"], ["stats"], ["export"], ["verify"], ["rebuild"],
        ):  # fmt: skip
            self.run_tool(*arguments, status=DONE)
        self.run_tool("watch", "no such directory", status=FAILED)

    def test_any_name_can_be_the_name_of_a_file(self):
        for number, name in enumerate(("index", "match", "[a,b]", "--home", "a b\tc", "{}", "%s")):
            document = self.write(name, text(number))
            for verb, status in (("index", DONE), ("match", MATCHED)):
                out, _ = self.run_tool(verb, "--", name, cwd=self.docs, status=status)
            shown = str(document).replace("\t", "\\x09")
            self.assertIn(f"  level 2  {shown}  (", out)
        self.run_tool("match", "index", "[a,b]", cwd=self.docs, status=MATCHED)

    def test_home_comes_from_the_option_then_the_environment_then_the_current_directory(self):
        document = self.write("a.txt", text(1))
        self.run_tool("index", "--home", self.dir / "by option", document, status=DONE)
        self.assertTrue((self.dir / "by option" / "catalogue.sqlite").exists())
        self.assertFalse(self.home.exists())
        self.run_tool("--home", "relative", "index", document, status=DONE)
        self.assertTrue((self.dir / "relative" / "catalogue.sqlite").exists())
        self.run_tool("index", document, status=DONE)
        self.assertTrue((self.home / "catalogue.sqlite").exists())
        environment = self.environment()
        del environment["TESSERA_HOME"]
        self.run_tool("index", document, status=DONE, environment=environment)
        self.assertTrue((self.dir / ".tessera" / "catalogue.sqlite").exists())

    def test_output_that_cannot_be_written_is_an_error(self):
        document = self.write("a.txt", text(1))
        self.index()
        for arguments in (["sig"], ["text"], ["match"], ["match", "--json"], ["match", "--sarif"]):
            with open("/dev/full", "w") as full:
                done = subprocess.run(
                    [TESSERA, *arguments, document],
                    stdout=full,
                    stderr=subprocess.PIPE,
                    text=True,
                    env=self.environment(),
                )
            self.assertEqual(FAILED, done.returncode, arguments)
            self.assertIn("cannot write the output", done.stderr)

    # The manual.

    def options_of(self, *verb):
        """As the help shows them: the first is the longest name."""
        out, _ = self.run_tool(*verb, "--help", status=DONE)
        heads = re.findall(r"^  (-[^ ]+)", out, re.M)
        return [name for head in heads for name in head.split(",")]

    def run_redirected(self, redirections, *arguments):
        shell = ["sh", "-c", f'exec "$@" {redirections}', "sh", TESSERA]
        return subprocess.run([*shell, *arguments], cwd=self.dir, env=self.environment(),
                              stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=120)  # fmt: skip

    def test_standard_files_that_are_closed_are_no_documents_and_take_in_no_messages(self):
        document = self.write("a.txt", text(1))
        self.write("damaged.zip", b"PK\3\4" + bytes(100))
        for closed in ("<&-", ">&-", "2>&-", "<&- >&- 2>&-"):
            with self.subTest(closed=closed):
                shutil.rmtree(self.home, ignore_errors=True)
                done = self.run_redirected(closed, "index", self.docs)
                self.assertEqual(FAILED if " >" in f" {closed}" else NOT_INSPECTED,
                                 done.returncode)  # fmt: skip
                self.run_tool("verify", status=DONE)
                self.assertEqual([(2, str(document))], self.matches(document))
        done = self.run_redirected("<&-", "match", "-")
        self.assertEqual(FAILED, done.returncode, done.stdout)
        self.assertIn("cannot read -", done.stderr)

    def test_messages_that_cannot_be_written_end_no_run(self):
        document = self.write("a.txt", text(1))
        self.write("Damaged.zip", b"PK\3\4" + bytes(100))
        done = self.run_redirected("2>/dev/full", "index", "--progress", "json", self.docs)
        self.assertEqual(NOT_INSPECTED, done.returncode)
        self.assertEqual([(2, str(document))], self.matches(document))

    def test_manual_has_a_page_for_each_verb_with_every_option(self):
        self.assertEqual(
            {"tessera.1", *(f"tessera-{verb}.1" for verb in VERBS)}, set(os.listdir(MANUAL))
        )
        for verb in VERBS:
            page = (MANUAL / f"tessera-{verb}.1").read_text()
            places = [[verb]] + ([[verb, action] for action in ACTIONS] if verb == "common" else [])
            for place in places:
                for option in self.options_of(*place):
                    escaped = option.replace("-", "\\-")
                    self.assertRegex(page, rf"\\fB(.*, )?{re.escape(escaped)}(, .*)?\\fR", page)
            for section in ("NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "EXIT STATUS", "EXAMPLES"):
                self.assertIn(f"\n.SH {section}\n", page)

    def test_manual_is_clean_for_those_who_format_it(self):
        for page in sorted(MANUAL.iterdir()):
            done = subprocess.run(
                ["man", "-l", "--warnings", "-Tutf8", page],
                env={**os.environ, "MANWIDTH": "80", "LC_ALL": "C.UTF-8", "MANPAGER": "cat"},
                capture_output=True,
                text=True,
            )
            self.assertEqual((0, ""), (done.returncode, done.stderr), page)
            self.assertIn("User Commands", done.stdout)
            lint = subprocess.run(
                ["mandoc", "-T", "lint", "-W", "warning", page], capture_output=True, text=True
            )
            self.assertEqual((0, "", ""), (lint.returncode, lint.stdout, lint.stderr))

    # Completions.

    def test_bash_completes_verbs_options_values_and_files(self):
        self.write("report one.txt", "x")
        shell = self.terminal("bash --norc --noprofile", environment={"PS1": "> "})
        shell.type(f"PS1='> '; source '{BASH}'; cd docs; clear; echo re''ady\n")
        shell.wait_for("ready")
        for typed, completed in (
            ("tessera mat", "> tessera match ."),
            ("tessera match --exp", "> tessera match --explain ."),
            ("tessera --home list common sug", "> tessera --home list common suggest ."),
            ("tessera index --selection=sp", "> tessera index --selection=sparse ."),
            ("tessera export tab", "> tessera export tables ."),
            ("tessera match rep", "> tessera match report\\ one.txt ."),
            ("tessera match --include rep", "> tessera match --include rep."),
        ):
            shell.press("C-u")
            shell.type(typed + "\t.")
            shell.wait_for(completed)

    def test_zsh_completes_verbs_and_options(self):
        shell = self.terminal("zsh -f", environment={"HOME": str(self.dir)})
        shell.type(
            f"PS1='> '; fpath=('{ZSH.parent}' $fpath); autoload -U compinit; compinit -u -D; "
            "clear; echo re''ady\n"
        )
        shell.wait_for("ready")
        for typed, completed in (
            ("tessera mat", "tessera match"),
            ("tessera match --exp", "tessera match --explain"),
            ("tessera common sug", "tessera common suggest"),
            ("tessera index --selection=sp", "tessera index --selection=sparse"),
        ):
            shell.press("C-u")
            shell.type(typed + "\t")
            shell.wait_for(completed)

    def test_fish_completes_verbs_options_and_values(self):
        for typed, completed in (
            ("tessera mat", "match"),
            ("tessera match --exp", "--explain"),
            ("tessera --home list common sug", "suggest"),
            ("tessera index --selection ", "sparse"),
            ("tessera export ", "tables"),
        ):
            done = subprocess.run(
                ["fish", "--no-config", "-c", f"source {FISH}; complete -C '{typed}'"],
                capture_output=True,
                text=True,
                env={**self.environment(), "HOME": str(self.dir)},
            )
            self.assertEqual("", done.stderr)
            words = [line.split("\t")[0] for line in done.stdout.splitlines()]
            self.assertIn(completed, words, typed)

    def test_completions_are_sound_scripts(self):
        for shell, file in (("bash", BASH), ("zsh", ZSH), ("fish", FISH)):
            done = subprocess.run([shell, "-n", file], capture_output=True, text=True)
            self.assertEqual((0, ""), (done.returncode, done.stderr))


if __name__ == "__main__":
    unittest.main()
