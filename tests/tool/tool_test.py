"""The tessera command from outside: every verb, exit status and complaint.

CTest runs each test by itself. By hand, for all of them or some:

    TESSERA=build/linux-release/bin/tessera HOLD_INDEX=build/linux-release/tests/hold_index \\
        python3 tests/tool/tool_test.py [-k PART_OF_A_NAME]
"""

import contextlib
import fcntl
import gzip
import os
import pathlib
import pty
import random
import re
import signal
import sqlite3
import subprocess
import tempfile
import time
import unittest

TESSERA = os.path.abspath(os.environ["TESSERA"])
HOLD_INDEX = os.path.abspath(os.environ["HOLD_INDEX"])

DONE, MATCHED, FAILED = 0, 1, 2
ARRIVING = 1


def text(seed, words=3000):
    """Words nobody else uses: two seeds share no passage."""
    source = random.Random(seed)
    letters = "abcdefghijklmnopqrstuvwxyz"
    lines = []
    for _ in range(words // 10):
        line = ["".join(source.choices(letters, k=source.randint(3, 9))) for _ in range(10)]
        lines.append(" ".join(line).capitalize() + ".")
    return "\n".join(lines) + "\n"


def wait_for(condition):
    deadline = time.monotonic() + 60
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("waited in vain")
        time.sleep(0.01)


class ToolTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory(prefix="tessera-tool-")
        self.addCleanup(scratch.cleanup)
        self.dir = pathlib.Path(os.path.realpath(scratch.name))
        self.home = self.dir / "home"
        self.docs = self.dir / "docs"
        self.docs.mkdir()

    # Helpers.

    def write(self, name, content):
        path = pathlib.Path(os.path.normpath(self.docs / name))
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        return path

    def environment(self):
        return {**os.environ, "TESSERA_HOME": str(self.home), "LC_ALL": "C"}

    def run_tool(self, *arguments, status, environment=None, cwd=None):
        """Runs the command, checks its status, returns (stdout, stderr)."""
        done = subprocess.run(
            [TESSERA, *arguments],
            cwd=cwd or self.dir,
            env=environment or self.environment(),
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=120,
        )
        out, err = (os.fsdecode(stream) for stream in (done.stdout, done.stderr))
        self.assertEqual(status, done.returncode, f"{arguments}: {out}{err}")
        return out, err

    def start_tool(self, *arguments):
        process = subprocess.Popen(
            [TESSERA, *arguments],
            cwd=self.dir,
            env=self.environment(),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def index(self, *paths, status=DONE):
        return self.run_tool("index", *(paths or [self.docs]), status=status)

    def matches(self, *files, status=MATCHED, options=()):
        """The (level, name) pairs that a match of one file prints."""
        out, _ = self.run_tool("match", *options, *files, status=status)
        return [(int(level), name) for level, name in re.findall(r"^  level (\d)  (.*)$", out, re.M)]

    @contextlib.contextmanager
    def catalogue(self):
        with contextlib.closing(sqlite3.connect(self.home / "catalogue.sqlite")) as database:
            yield database

    def rows(self, columns="id, path, state"):
        with self.catalogue() as database:
            return database.execute(f"SELECT {columns} FROM documents ORDER BY id").fetchall()

    def change_catalogue(self, sql):
        with self.catalogue() as database, database:
            database.execute(sql)

    # The command line.

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

    # The home.

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

    def test_home_belongs_to_its_owner_alone(self):
        self.index(self.write("a.txt", text(1)))
        self.assertEqual(0o700, self.home.stat().st_mode & 0o777)

    def test_home_itself_is_never_indexed(self):
        self.write("a.txt", text(1))
        self.index()
        (self.home / "note.txt").write_text(text(2))
        self.index(self.dir)
        self.assertEqual([(1, os.fsencode(self.docs / "a.txt"), 0)], self.rows())

    def test_home_that_cannot_be_made_is_an_error(self):
        document = self.write("a.txt", text(1))
        self.home.write_text("a file")
        _, err = self.index(document, status=FAILED)
        self.assertIn(str(self.home), err)

    # Indexing and matching.

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

    def test_files_that_are_not_text_or_too_short_are_counted_and_left_out(self):
        self.write("a.txt", text(1))
        self.write("zeros.bin", b"text at first\0" + text(2).encode())
        self.write("short.txt", "Sixty letters make no window.\n")
        self.write("empty.txt", "")
        out, err = self.index()
        self.assertEqual("4 files: 1 added, 0 replaced, 0 unchanged, 1 not text, 2 too short\n", out)
        self.assertEqual("", err)
        self.assertEqual(1, len(self.rows()))

    def test_links_count_when_named_and_not_when_found(self):
        document = self.write("a.txt", text(1))
        outside = self.dir / "outside"
        outside.mkdir()
        (outside / "b.txt").write_text(text(2))
        (self.docs / "link.txt").symlink_to(outside / "b.txt")
        (self.docs / "loop").symlink_to(self.docs)
        self.index()
        self.assertEqual([(os.fsencode(document),)], self.rows("path"))
        self.index(self.docs / "link.txt")
        self.assertEqual(os.fsencode(outside / "b.txt"), self.rows("path")[-1][0])

    def test_paths_are_relative_to_the_directory_of_the_user(self):
        document = self.write("a.txt", text(1))
        self.index("docs/a.txt", "docs/../docs", "./docs")
        self.assertEqual([(1, os.fsencode(document), 0)], self.rows())
        self.assertEqual([(2, str(document))], self.matches("docs/a.txt"))

    def test_names_that_are_not_utf8_are_names(self):
        name = os.path.join(os.fsencode(self.docs), b"caf\xe9\xff.txt")
        with open(name, "wb") as file:
            file.write(text(1).encode())
        out, err = self.index()
        self.assertIn("1 added", out)
        self.assertEqual("", err)
        self.assertEqual([(2, os.fsdecode(name))], self.matches(name))
        self.assertIn("1 unchanged", self.index()[0])

    # Indexing again.

    def test_second_run_changes_nothing(self):
        document = self.write("a.txt", text(1))
        self.index()
        before = self.rows()
        out, _ = self.index()
        self.assertEqual("1 file: 0 added, 0 replaced, 1 unchanged\n", out)
        self.assertEqual(before, self.rows())
        self.assertEqual([(2, str(document))], self.matches(document))

    def test_changed_document_gets_a_new_id_and_its_old_text_is_forgotten(self):
        document = self.write("a.txt", text(1))
        kept = self.write("b.txt", text(3))
        self.index()
        self.write("a.txt", text(2))
        out, _ = self.index()
        self.assertEqual("2 files: 0 added, 1 replaced, 1 unchanged\n", out)
        self.assertEqual([(2, os.fsencode(kept), 0), (3, os.fsencode(document), 0)], self.rows())
        self.assertEqual([(2, str(document))], self.matches(document))
        old = self.write("../old.txt", text(1))
        self.assertEqual([], self.matches(old, status=DONE))

    def test_file_ids_are_never_used_twice(self):
        document = self.write("a.txt", text(0))
        for seed in range(1, 4):
            self.write("a.txt", text(seed))
            self.index()
            self.assertEqual([(seed, os.fsencode(document), 0)], self.rows())
        self.write("a.txt", "short now")
        self.index()
        self.assertEqual([], self.rows())
        self.write("a.txt", text(9))
        self.index()
        self.assertEqual([(4, os.fsencode(document), 0)], self.rows())

    def test_document_that_became_too_short_leaves_the_index(self):
        self.write("a.txt", text(1))
        self.index()
        self.write("a.txt", "short now")
        self.index()
        self.assertEqual([], self.matches(self.write("../old.txt", text(1)), status=DONE))

    # Complaints.

    def test_missing_files_are_told_and_the_run_goes_on(self):
        document = self.write("a.txt", text(1))
        out, err = self.index(document, "no such file", status=FAILED)
        self.assertIn("1 added", out)
        self.assertEqual("tessera: cannot read no such file: No such file or directory\n", err)
        out, err = self.run_tool("match", "no such file", document, status=FAILED)
        self.assertIn(f"level 2  {document}", out)
        self.assertIn("cannot match no such file: No such file or directory", err)
        _, err = self.run_tool("sig", "no such file", status=FAILED)
        self.assertIn("cannot read no such file: No such file or directory", err)

    def test_nothing_but_missing_files_makes_no_home(self):
        self.index("no such file", status=FAILED)
        self.assertFalse(self.home.exists())

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

    @unittest.skipIf(os.geteuid() == 0, "root may read everything")
    def test_files_and_directories_without_permission_are_told(self):
        self.write("a.txt", text(1))
        secret = self.write("secret.txt", text(2))
        secret.chmod(0)
        closed = self.write("closed/b.txt", text(3)).parent
        closed.chmod(0)
        self.addCleanup(closed.chmod, 0o700)
        out, err = self.index(status=FAILED)
        self.assertIn("1 added", out)
        self.assertIn(f"cannot index {secret}: Permission denied", err)
        self.assertIn(f"cannot list {closed}: Permission denied", err)

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

    def test_malformed_configuration_is_named_with_its_line(self):
        document = self.write("a.txt", text(1))
        self.index()
        config = self.home / "index_sys_config.txt"
        config.write_text("max_content_size=6291456\nno assignment\n")
        for verb in ("index", "match"):
            _, err = self.run_tool(verb, document, status=FAILED)
            self.assertIn(str(config), err)
            self.assertIn("wrong config file format at line 2", err)

    def test_damaged_search_tables_are_told(self):
        document = self.write("a.txt", text(1))
        self.index()
        for table in (self.home / "sig_index_DB").glob("*.?meta"):
            table.write_bytes(b"")
        _, err = self.run_tool("match", document, status=FAILED)
        self.assertIn("search tables", err)
        self.index()
        self.assertEqual([(2, str(document))], self.matches(document))

    # Other processes.

    def test_index_in_use_by_another_program_is_told(self):
        document = self.write("a.txt", text(1))
        self.index()
        holder = subprocess.Popen(
            [HOLD_INDEX], cwd=self.home, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        with holder:
            self.assertEqual("open\n", holder.stdout.readline())
            _, err = self.index(status=FAILED)
            self.assertIn("in use by another process", err)
            self.assertEqual([(2, str(document))], self.matches(document))
            holder.stdin.close()
        self.assertEqual(0, holder.returncode)
        self.assertIn("1 unchanged", self.index()[0])

    def held_catalogue(self):
        """While it is held, an indexing run stands still at its first batch."""
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        stack.enter_context(self.catalogue()).execute("BEGIN IMMEDIATE")
        return stack

    def catches_interrupts(self, process):
        status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
        caught = int(re.search(r"^SigCgt:\s*(\w+)", status, re.M)[1], 16)
        return caught >> (signal.SIGINT - 1) & 1

    def test_two_indexing_runs_do_not_mix(self):
        self.index(self.write("a.txt", text(1)))
        self.write("b.txt", text(2))
        catalogue = self.held_catalogue()
        first = self.start_tool("index", self.docs)
        wait_for(lambda: self.catches_interrupts(first))
        _, err = self.index(status=FAILED)
        self.assertIn("in use by another process", err)
        catalogue.close()
        self.assertEqual(DONE, first.wait(60))
        self.assertEqual(2, len(self.rows()))

    def test_run_that_settles_its_catalogue_still_keeps_others_out(self):
        """Its index is closed by then; the lock of the home alone is held."""
        self.index(self.write("a.txt", text(1)))
        home = os.open(self.home, os.O_RDONLY)
        self.addCleanup(os.close, home)
        fcntl.flock(home, fcntl.LOCK_EX)
        _, err = self.index(status=FAILED)
        self.assertIn("in use by another process", err)

    def test_interrupted_run_keeps_what_it_has_done(self):
        self.index(self.write("first.txt", text(0)))
        for number in range(100):
            self.write(f"{number}.txt", text(number + 1, 300))
        catalogue = self.held_catalogue()
        process = self.start_tool("index", self.docs)
        wait_for(lambda: self.catches_interrupts(process))
        process.send_signal(signal.SIGINT)
        catalogue.close()
        _, err = process.communicate(timeout=60)
        self.assertEqual(FAILED, process.returncode)
        self.assertRegex(err, r"interrupted after \d+ of 101 files")
        done = len(self.rows())
        self.assertLess(done, 101)
        self.assertTrue(all(state == 0 for _, _, state in self.rows()))
        out, _ = self.index()
        self.assertIn(f"{101 - done} added", out)

    # A run that is cut off, at the moment when all is announced and nothing is
    # written: the lock on the index directory stops it just there.

    def kill_before_writing(self, arrivals):
        tables = os.open(self.home / "sig_index_DB", os.O_RDONLY)
        self.addCleanup(os.close, tables)
        fcntl.flock(tables, fcntl.LOCK_SH)
        process = self.start_tool("index", self.docs)
        wait_for(lambda: [row[2] for row in self.rows()].count(ARRIVING) == arrivals)
        process.kill()
        process.wait(60)
        fcntl.flock(tables, fcntl.LOCK_UN)

    def test_killed_run_is_made_good_by_the_next_one(self):
        changed = self.write("changed.txt", text(1))
        self.index()
        self.write("changed.txt", text(2))
        added = self.write("added.txt", text(3))
        self.kill_before_writing(arrivals=2)
        other = self.write("../other/other.txt", text(4))
        out, err = self.index(other)
        self.assertIn("documents of an earlier run are not in the index", err)
        self.assertIn("added", out)
        self.assertEqual({0}, {state for _, _, state in self.rows()})
        for document in (changed, added, other):
            self.assertEqual([(2, str(document))], self.matches(document))
        self.assertEqual([], self.matches(self.write("../old.txt", text(1)), status=DONE))
        ids = [row[0] for row in self.rows()]
        self.assertTrue(set(ids).isdisjoint({1, 2, 3}), "IDs of the killed run are used up")

    def test_matching_goes_on_after_a_killed_run(self):
        document = self.write("a.txt", text(1))
        self.index()
        self.write("b.txt", text(2))
        self.kill_before_writing(arrivals=1)
        self.assertEqual([(2, str(document))], self.matches(document))

    # An index and a catalogue that do not agree.

    def test_document_that_the_catalogue_does_not_know_is_told_by_its_number(self):
        document = self.write("a.txt", text(1))
        self.index()
        self.change_catalogue("DELETE FROM documents")
        self.assertEqual([(2, "unknown document #1")], self.matches(document))
        (self.home / "catalogue.sqlite").unlink()
        self.assertEqual([(2, "unknown document #1")], self.matches(document))

    def test_index_without_its_catalogue_is_not_added_to(self):
        document = self.write("a.txt", text(1))
        self.index()
        (self.home / "catalogue.sqlite").unlink()
        _, err = self.index(status=FAILED)
        self.assertIn("catalogue.sqlite is missing", err)
        self.assertEqual([(2, "unknown document #1")], self.matches(document))

    def test_index_that_was_removed_is_made_again_from_the_catalogue(self):
        first = self.write("a.txt", text(1))
        self.index()
        for file in (self.home / "sig_index_DB").iterdir():
            file.unlink()
        second = self.write("../b.txt", text(2))
        _, err = self.index(second)
        self.assertIn("indexed again", err)
        self.assertEqual([(2, str(first))], self.matches(first))
        self.assertEqual([(2, str(second))], self.matches(second))

    def test_catalogue_that_is_no_catalogue_is_told(self):
        document = self.write("a.txt", text(1))
        self.index()
        (self.home / "catalogue.sqlite").write_text("Something else altogether. " * 100)
        for verb in ("index", "match"):
            _, err = self.run_tool(verb, document, status=FAILED)
            self.assertIn("catalogue.sqlite", err)

    # Signatures.

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

    def test_signatures_follow_the_settings_of_the_home(self):
        long = self.write("long.txt", text(1, 300000))
        whole = self.signatures(long)
        self.home.mkdir()
        (self.home / "index_sys_config.txt").write_text("max_content_size=1048576\n")
        part = self.signatures(long)
        self.assertLess(len(part), len(whole))
        self.assertLessEqual(set(part), set(whole))

    # The terminal.

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
