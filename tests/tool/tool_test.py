"""The tessera command from outside: verbs, exit statuses and complaints."""

import contextlib
import gzip
import os
import pathlib
import pty
import subprocess
import unittest

from support import DONE, FAILED, MATCHED, TESSERA, ToolTest, text


class CommandTest(ToolTest):
    def test_help_and_version_succeed_and_show_examples(self):
        for arguments in ([], ["index"], ["match"], ["sig"]):
            out, _ = self.run_tool(*arguments, "--help", status=DONE)
            self.assertIn("Example", out)
            self.assertIn("--home", out)
        out, _ = self.run_tool("--help", status=DONE)
        self.assertIn("TESSERA_HOME", out)
        out, _ = self.run_tool("--version", status=DONE)
        self.assertRegex(out, r"^tessera \d+\.\d+\.\d+\n$")

    def test_wrong_usage_is_an_error_that_is_told(self):
        for arguments in (
            [],
            ["frobnicate"],
            ["index"],
            ["match"],
            ["sig"],
            ["sig", "a", "b"],
            ["match", "--min-level", "3", "a"],
            ["index", "--frobnicate", "a"],
        ):
            out, err = self.run_tool(*arguments, status=FAILED)
            self.assertEqual("", out)
            self.assertNotEqual("", err)

    def test_verb_that_does_not_exist_is_named(self):
        _, err = self.run_tool("frobnicate", "a", status=FAILED)
        self.assertIn("there is no verb 'frobnicate'", err)

    def test_any_name_can_be_the_name_of_a_file(self):
        for number, name in enumerate(("index", "[a,b]", "--home", "a b\tc", "{}")):
            document = self.write(name, text(number))
            for verb, status in (("index", DONE), ("match", MATCHED)):
                out, _ = self.run_tool(verb, "--", name, cwd=self.docs, status=status)
            self.assertIn(f"  level 2  {document}\n", out)

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

    def test_document_is_found_by_name_whole_in_part_and_rewrapped(self):
        document = self.write("deep/er/a.txt", text(1))
        self.write("b.txt", text(2))
        out, _ = self.index()
        self.assertEqual("2 files: 2 added, 0 replaced, 0 unchanged\n", out)
        whole = text(1)
        found = [(2, str(document))]
        self.assertEqual(found, self.matches(document))
        part = whole[len(whole) // 2 : len(whole) // 2 + len(whole) // 10]
        self.assertEqual(found, self.matches(self.write("../part.txt", part)))
        rewrapped = " -- ".join(whole.replace(".", "!").split())
        self.assertEqual(found, self.matches(self.write("../rewrapped.txt", rewrapped)))
        inside = text(3, 300) + part + text(4, 300)
        self.assertEqual(found, self.matches(self.write("../inside.txt", inside)))

    def test_unrelated_text_matches_nothing(self):
        self.write("a.txt", text(1))
        self.index()
        query = self.write("../query.txt", text(2))
        out, err = self.run_tool("match", query, status=DONE)
        self.assertEqual(f"{query}\n  no match\n", out)
        self.assertEqual("", err)

    def test_each_query_has_its_own_block_and_one_match_decides_the_status(self):
        document = self.write("a.txt", text(1))
        self.index()
        other = self.write("../other.txt", text(2))
        short = self.write("../short.txt", "Only a few words.\n")
        out, _ = self.run_tool("match", other, document, short, status=MATCHED)
        self.assertEqual(
            f"{other}\n  no match\n"
            f"{document}\n  level 2  {document}\n"
            f"{short}\n  too short to be matched\n",
            out,
        )

    def test_levels_below_the_lowest_wanted_are_not_told(self):
        document = self.write("a.txt", text(1))
        self.index()
        # One or two signatures of very many are a trace.
        trace = text(2, 20000) + text(1)[2000:2300] + text(3, 20000)
        query = self.write("../trace.txt", trace)
        shared = set(self.signatures(document)) & set(self.signatures(query))
        self.assertIn(len(shared), (1, 2), "this text has to share one or two signatures")
        self.assertEqual([], self.matches(query, status=DONE))
        self.assertEqual([(0, str(document))], self.matches(query, options=["--min-level", "0"]))
        self.assertEqual([], self.matches(query, status=DONE, options=["--min-level", "2"]))

    def test_several_documents_are_told_highest_level_first(self):
        much = self.write("much.txt", text(1))
        little = self.write("little.txt", text(2))
        self.index(little, much)
        query = self.write("../query.txt", text(1) + text(2)[:750])
        self.assertEqual([(2, str(much)), (1, str(little))], self.matches(query))

    def test_compressed_documents_count_by_their_content(self):
        document = self.write("a.txt.gz", gzip.compress(text(1).encode()))
        self.index()
        self.assertEqual([(len(text(1)),)], self.rows("size"))
        plain = self.write("../plain.txt", text(1))
        self.assertEqual([(2, str(document))], self.matches(plain))
        self.assertEqual([(2, str(document))], self.matches(document))

    def test_unreadable_files_are_told_counted_and_passed_over(self):
        self.write("a.txt", text(1))
        broken = self.write("broken.gz", gzip.compress(text(2).encode())[:500])
        corrupt = bytearray(gzip.compress(text(3).encode()))
        corrupt[1000] ^= 0xFF
        corrupt = self.write("corrupt.gz", bytes(corrupt))
        out, err = self.index(status=FAILED)
        self.assertEqual("3 files: 1 added, 0 replaced, 0 unchanged, 2 failed\n", out)
        self.assertIn(f"cannot index {broken}: the compressed data break off", err)
        self.assertIn(f"cannot index {corrupt}: ", err)

    def test_queries_that_are_no_text_are_refused(self):
        self.index(self.write("a.txt", text(1)))
        binary = self.write("../query.bin", b"\0" * 100)
        _, err = self.run_tool("match", binary, status=FAILED)
        self.assertIn(f"cannot match {binary}: not a text", err)
        _, err = self.run_tool("match", self.docs, status=FAILED)
        self.assertIn("Is a directory", err)

    def test_match_without_an_index_says_how_to_make_one(self):
        query = self.write("a.txt", text(1))
        for prepare in (lambda: None, self.home.mkdir):
            prepare()
            out, err = self.run_tool("match", query, status=FAILED)
            self.assertEqual("", out)
            self.assertIn(f"there is no index in {self.home}", err)
            self.assertIn("tessera index PATH", err)
        self.assertEqual([], list(self.home.iterdir()), "a match leaves nothing behind")

    def test_damaged_search_tables_are_told(self):
        document = self.write("a.txt", text(1))
        self.index()
        for table in (self.home / "sig_index_DB").glob("*.?meta"):
            table.write_bytes(b"")
        _, err = self.run_tool("match", document, status=FAILED)
        self.assertIn("search tables", err)
        self.index()
        self.assertEqual([(2, str(document))], self.matches(document))

    def signatures(self, file, status=DONE):
        return self.run_tool("sig", file, status=status)[0].split()

    def test_signatures_are_hexadecimal_lines_in_ascending_order(self):
        signatures = self.signatures(self.write("a.txt", text(1)))
        self.assertGreater(len(signatures), 50)
        for line in signatures:
            self.assertRegex(line, r"^[0-9a-f]{16}$")
        self.assertEqual(sorted(set(signatures)), signatures)

    def test_signatures_of_a_short_text_are_none(self):
        short = self.write("short.txt", "Only a few words.\n")
        out, err = self.run_tool("sig", short, status=DONE)
        self.assertEqual("", out)
        self.assertIn("too short", err)

    def test_signatures_leave_no_trace_on_disk(self):
        document = self.write("a.txt", text(1))
        self.signatures(document)
        self.assertEqual({self.docs}, set(self.dir.iterdir()))
        self.home.mkdir()
        config = self.home / "index_sys_config.txt"
        config.write_text("max_content_size = 1048576\n")
        self.signatures(document)
        self.assertEqual("max_content_size = 1048576\n", config.read_text())

    def test_progress_shows_on_a_terminal_and_is_wiped_away(self):
        self.write("a.txt", text(1))
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        done = subprocess.run(
            [TESSERA, "index", self.docs],
            cwd=self.dir,
            env=self.environment(),
            stdout=subprocess.PIPE,
            stderr=slave,
            timeout=120,
        )
        os.close(slave)
        self.assertEqual(DONE, done.returncode)
        shown = b""
        with contextlib.suppress(OSError):  # the terminal's way to tell the end
            while chunk := os.read(master, 4096):
                shown += chunk
        self.assertIn(b"\rIndexing 1 of 1", shown)
        self.assertTrue(shown.endswith(b"\r\x1b[K"))
        self.assertEqual(b"1 file: 1 added, 0 replaced, 0 unchanged\n", done.stdout)

    def test_output_that_cannot_be_written_is_an_error(self):
        document = self.write("a.txt", text(1))
        with open("/dev/full", "w") as full:
            done = subprocess.run(
                [TESSERA, "sig", document], stdout=full, stderr=subprocess.PIPE, text=True
            )
        self.assertEqual(FAILED, done.returncode)
        self.assertIn("cannot write the output", done.stderr)


if __name__ == "__main__":
    unittest.main()
