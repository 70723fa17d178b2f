"""tessera index: what becomes of files, and of the index when they change."""

import fcntl
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import subprocess
import time
import unittest
import zipfile

from support import DONE, FAILED, MATCHED, NOT_INSPECTED, TESSERA, ToolTest, text, wait_for

HOLD_INDEX = os.path.abspath(os.environ["HOLD_INDEX"])


class IndexTest(ToolTest):
    def test_home_belongs_to_its_owner_alone(self):
        self.index(self.write("a.txt", text(1)))
        self.assertEqual(0o700, self.home.stat().st_mode & 0o777)

    def test_home_that_others_may_enter_shows_them_nothing(self):
        self.home.mkdir(mode=0o755)
        self.write("a.txt", text(1))
        self.index()
        for file in self.home.rglob("*"):
            self.assertEqual(0, file.stat().st_mode & 0o077, file)

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

    def test_documents_that_are_too_short_are_counted_and_kept_without_signatures(self):
        self.write("a.txt", text(1))
        self.write("short.txt", "Sixty letters make no window.\n")
        self.write("empty.txt", "")
        out, err = self.index()
        self.assertEqual("3 files: 3 added, 0 replaced, 0 unchanged, 2 too short\n", out)
        self.assertEqual("", err)
        counts = [signatures for (signatures,) in self.rows("signatures")]
        self.assertEqual([0, 0], sorted(counts)[:2])
        self.assertGreater(max(counts), 50)
        self.assertIn("3 unchanged", self.index()[0])

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
        self.assertEqual([(2, f"{self.docs}/caf\\xe9\\xff.txt")], self.matches(name))
        self.assertIn("1 unchanged", self.index()[0])

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
        self.write("a.txt", text(9))
        self.index()
        self.assertEqual([(5, os.fsencode(document), 0)], self.rows())
        self.run_tool("delete", document, status=DONE)
        self.assertEqual([], self.rows())
        self.index()
        self.assertEqual([(6, os.fsencode(document), 0)], self.rows())

    def test_content_that_is_no_text_is_found_by_its_one_signature(self):
        content = bytes(random.Random(1).randbytes(5000)) + b"\0"
        document = self.write("a.bin", content)
        self.index()
        self.assertEqual([(1,)], self.rows("signatures"))
        copy = self.write("../copy.bin", content)
        self.assertEqual([(2, str(document))], self.matches(copy))

    def test_document_that_became_too_short_leaves_the_index(self):
        self.write("a.txt", text(1))
        self.index()
        self.write("a.txt", "short now")
        self.index()
        self.assertEqual([], self.matches(self.write("../old.txt", text(1)), status=DONE))

    def test_missing_files_are_told_and_the_run_goes_on(self):
        document = self.write("a.txt", text(1))
        out, err = self.index(document, "no such file", status=FAILED)
        self.assertIn("1 added", out)
        self.assertEqual("tessera: cannot read no such file: No such file or directory\n", err)
        out, err = self.run_tool("match", "no such file", document, status=FAILED)
        self.assertIn(f"level 2  {document}", out)
        self.assertIn("cannot read no such file: No such file or directory", err)
        _, err = self.run_tool("sig", "no such file", status=FAILED)
        self.assertIn("cannot read no such file: No such file or directory", err)

    def test_nothing_but_missing_files_makes_no_home(self):
        self.index("no such file", status=FAILED)
        self.assertFalse(self.home.exists())

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

    def test_malformed_configuration_is_named_with_its_line(self):
        document = self.write("a.txt", text(1))
        self.index()
        config = self.home / "index_sys_config.txt"
        config.write_text("max_content_size=6291456\nno assignment\n")
        self.write("a.txt", text(2))
        for verb in ("index", "match"):
            _, err = self.run_tool(verb, document, status=FAILED)
            self.assertIn(str(config), err)
            self.assertIn("wrong config file format at line 2", err)

    def test_index_in_use_by_another_program_is_told(self):
        document = self.write("a.txt", text(1))
        self.index()
        holder = subprocess.Popen(
            [HOLD_INDEX], cwd=self.home, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        with holder:
            self.assertEqual("open\n", holder.stdout.readline())
            self.write("b.txt", text(2))
            _, err = self.index(status=FAILED)
            self.assertIn("in use by another process", err)
            self.assertEqual([(2, str(document))], self.matches(document))
            holder.stdin.close()
        self.assertEqual(0, holder.returncode)
        self.assertIn("1 added, 0 replaced, 1 unchanged", self.index()[0])

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


    def test_interrupt_gives_up_the_documents_that_are_being_opened(self):
        for number in range(100):
            self.write(f"{number}.txt", text(number, 300))
        self.index(self.docs / "0.txt")
        catalogue = self.held_catalogue()
        process = self.start_tool("index", "--jobs", "1", self.docs)
        wait_for(lambda: self.catches_interrupts(process) and self.descendants(process.pid))
        wait_for(lambda: len(os.listdir(f"/proc/{process.pid}/task")) > 2)
        time.sleep(1)  # the first batch waits for the catalogue, and the extractor for work
        extractors = self.descendants(process.pid)
        for extractor in extractors:
            os.kill(extractor, signal.SIGSTOP)
        catalogue.close()
        wait_for(lambda: len(self.rows()) > 1)
        self.assertIsNone(process.poll())
        start = time.monotonic()
        process.send_signal(signal.SIGINT)
        _, err = process.communicate(timeout=60)
        self.assertLess(time.monotonic() - start, 20)
        self.assertEqual(FAILED, process.returncode)
        self.assertRegex(err, r"^tessera: interrupted after \d+ of 100 files\n$")
        self.assertFalse([pid for pid in extractors if os.path.exists(f"/proc/{pid}/exe")])
        self.assertTrue(all(state == 0 for _, _, state in self.rows()))
        self.run_tool("verify", status=DONE)
        done = len(self.rows())
        self.assertIn(f"{100 - done} added", self.index()[0])

    def descendants(self, pid):
        children = []
        for thread in pathlib.Path(f"/proc/{pid}/task").iterdir():
            children += map(int, (thread / "children").read_text().split())
        return children + [low for child in children for low in self.descendants(child)]

    # Only what has changed is opened.

    def opened(self, *arguments, status=DONE):
        """How many files were added or replaced, and how many left alone."""
        out, _ = self.run_tool("index", *arguments, status=status)
        counts = re.search(r"(\d+) added, (\d+) replaced, (\d+) unchanged", out)
        return int(counts[1]) + int(counts[2]), int(counts[3])

    def test_files_are_opened_again_for_another_label_or_selection_alone(self):
        document = self.write("a.txt", text(1))
        self.assertEqual((1, 0), self.opened(document))
        os.utime(document)
        self.assertEqual((0, 1), self.opened(document))
        self.assertEqual((1, 0), self.opened("--label", "x", document))
        self.assertEqual([(1, b"x")], self.rows("id, label"), "its signatures have not changed")
        self.assertEqual((0, 1), self.opened("--label", "x", document))
        arguments = ["--label", "x", "--selection", "sparse", document]
        self.assertEqual((1, 0), self.opened(*arguments))
        self.assertEqual([(2, 1)], self.rows("id, selection"))
        self.assertEqual((0, 1), self.opened(*arguments))

    def test_sparse_selection_has_few_of_the_signatures_and_is_found_in_full(self):
        document = self.write("a.txt", text(1, 20000))
        self.run_tool("index", "--selection", "sparse", document, status=DONE)
        ((sparse,),) = self.rows("signatures")
        self.assertEqual([(2, str(document))], self.matches(document))
        self.index()
        ((full,),) = self.rows("signatures")
        self.assertGreater(full, 2 * sparse)

    def test_texts_are_indexed_in_full_however_long_they_are(self):
        long = text(1, 300000)  # more selected windows than one list of the library takes
        self.write("a.txt", long)
        self.index()
        ((signatures,),) = self.rows("signatures")
        self.assertGreater(signatures, 10000)
        end = self.write("../end.txt", long[-3000:])
        self.assertEqual([(2, str(self.docs / "a.txt"))], self.matches(end))

    # Containers.

    def write_archive(self, name, **members):
        path = self.docs / name
        with zipfile.ZipFile(path, "w") as archive:
            for member, content in members.items():
                archive.writestr(member, content)
        return path

    def members(self):
        return {os.fsdecode(member): identity for identity, member in self.rows("id, member")}

    def test_members_are_documents_of_their_own(self):
        archive = self.write_archive("a.zip", one=text(1), two=text(2))
        self.index()
        self.assertEqual({"one": 1, "two": 2}, self.members())
        query = self.write("../query.txt", text(2))
        self.assertEqual([(2, f"{archive}!two")], self.matches(query))

    def test_changed_members_are_replaced_vanished_ones_leave_and_the_others_stay(self):
        archive = self.write_archive("a.zip", kept=text(1), changed=text(2), gone=text(3))
        self.index()
        self.assertEqual({"kept": 1, "changed": 2, "gone": 3}, self.members())
        self.write_archive("a.zip", kept=text(1), changed=text(4), new=text(5))
        out, _ = self.index()
        self.assertEqual("1 file: 0 added, 1 replaced, 0 unchanged\n", out)
        self.assertEqual({"kept": 1, "changed": 4, "new": 5}, self.members())
        for seed, member in ((1, "kept"), (4, "changed"), (5, "new")):
            query = self.write("../query.txt", text(seed))
            self.assertEqual([(2, f"{archive}!{member}")], self.matches(query))
        for seed in (2, 3):
            query = self.write("../query.txt", text(seed))
            self.assertEqual([], self.matches(query, status=DONE))
        self.run_tool("verify", status=DONE)

    def test_deleted_member_comes_back_when_its_file_is_indexed_again(self):
        archive = self.write_archive("a.zip", one=text(1), two=text(2))
        self.index()
        self.run_tool("delete", f"{archive}!two", status=DONE)
        self.assertEqual({"one": 1}, self.members())
        self.index()
        self.assertEqual({"one": 1, "two": 3}, self.members())

    # What was not inspected.

    def test_what_was_not_inspected_is_told_kept_and_gives_its_own_status(self):
        good = self.write("good.txt", text(1))
        bad = self.write_archive("bad.zip", one=text(2))
        bad.write_bytes(bad.read_bytes()[:2000])
        for run in range(2):
            out, err = self.index(status=NOT_INSPECTED)
            lines = err.splitlines()
            self.assertIn(f", {len(lines)} not inspected", out)
            self.assertNotEqual([], lines)
            for line in lines:
                self.assertRegex(line, rf"^tessera: not inspected: {bad}\S*: damaged")
        self.assertIn("2 unchanged", out)
        listed, _ = self.run_tool("list", status=DONE)
        for line in lines:
            self.assertIn(line.removeprefix("tessera: "), listed)
        self.assertEqual([(2, str(good))], self.matches(good))
        _, err = self.index(self.docs, "no such file", status=FAILED)
        self.assertIn("not inspected", err)
        bad.unlink()
        self.run_tool("index", "--prune", self.docs, status=DONE)
        self.assertNotIn("not inspected", self.run_tool("list", status=DONE)[0])

    def test_verdicts_of_other_limits_are_not_taken_over(self):
        self.write_archive("a.zip", large=text(1, 20000))
        arguments = ["--size-limit", "10000", self.docs]
        out, err = self.run_tool("index", *arguments, status=NOT_INSPECTED)
        self.assertIn("size-limit", err)
        self.assertEqual((0, 1), self.opened(*arguments, status=NOT_INSPECTED))
        self.assertEqual((1, 0), self.opened(self.docs))
        self.assertEqual((0, 1), self.opened(*arguments), "it has no verdict any more")

    # Files that are gone.

    def test_vanished_files_stay_until_they_are_pruned(self):
        kept = self.write("sub/kept.txt", text(1))
        gone = self.write("sub/gone.txt", text(2))
        other = self.write("other/gone too.txt", text(3))
        archive = self.write_archive("sub/a.zip", one=text(4), two=text(5))
        self.index()
        query = gone.rename(self.dir / "query.txt")
        other.unlink()
        archive.unlink()
        self.assertIn("1 unchanged", self.index(self.docs / "sub")[0])
        self.assertEqual([(2, str(gone))], self.matches(query))
        out, _ = self.run_tool("index", "--prune", self.docs / "sub", status=DONE)
        self.assertEqual("1 file: 0 added, 0 replaced, 1 unchanged, 3 removed\n", out)
        self.assertEqual([], self.matches(query, status=DONE))
        paths = [os.fsdecode(path) for (path,) in self.rows("path")]
        self.assertEqual([str(other), str(kept)], paths, "what was not named is not pruned")
        self.run_tool("index", "--prune", self.docs, status=DONE)
        self.assertEqual([(os.fsencode(kept),)], self.rows("path"))

    def test_files_that_are_only_left_out_this_time_are_not_pruned(self):
        self.write("a.txt", text(1))
        self.write("b.doc", text(2))
        self.index()
        self.run_tool("index", "--prune", "--include", "*.txt", self.docs, status=DONE)
        self.assertEqual(2, len(self.rows()))

    def test_named_file_that_is_gone_is_pruned_and_told(self):
        document = self.write("a.txt", text(1))
        self.index()
        document.unlink()
        _, err = self.run_tool("index", "--prune", document, status=FAILED)
        self.assertIn("No such file or directory", err)
        self.assertEqual([], self.rows())

    def test_empty_and_missing_directories_are_not_pruned_unless_that_is_asked_for(self):
        root = self.write("root/a.txt", text(1)).parent
        mounted = self.write("root/mounted/deep/b.txt", text(2)).parent.parent
        removed = self.write("root/removed/d.txt", text(4))
        self.index()
        shutil.rmtree(mounted)
        mounted.mkdir()
        shutil.rmtree(removed.parent)
        out, err = self.run_tool("index", "--prune", root, mounted, status=FAILED)
        self.assertIn("1 unchanged, 1 removed, 1 not pruned", out)
        self.assertIn(f"a file below {mounted} not pruned: it is empty or gone", err)
        self.assertEqual(2, len(self.rows()))
        for hide in (lambda: shutil.rmtree(root), root.mkdir):
            hide()
            _, err = self.run_tool("index", "--prune", root, status=FAILED)
            self.assertIn("not pruned: it is empty or gone", err)
            self.assertIn("--prune-empty", err)
            self.assertEqual({0}, {state for _, _, state in self.rows()})
            self.assertEqual(2, len(self.rows()))
        out, err = self.run_tool("index", "--prune-empty", root, status=DONE)
        self.assertIn("2 removed", out)
        self.assertEqual([], self.rows())

    # Disks and settings that do not do their part.

    def limit_files(self, size):
        """What stands between fork and exec: no file grows beyond this size."""

        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

        return limit

    def test_full_disk_is_told_and_the_next_run_makes_it_good(self):
        kept = self.write("kept.txt", text(0))
        self.index()
        documents = [self.write(f"{seed}.txt", text(seed)) for seed in range(1, 30)]
        for size in (10_000, 60_000, 140_000, 300_000):  # of the log, of trees, of tables
            done = subprocess.run(
                [TESSERA, "index", self.docs],
                env=self.environment(),
                capture_output=True,
                text=True,
                preexec_fn=self.limit_files(size),
            )
            self.assertEqual(FAILED, done.returncode, (size, done))
            self.assertRegex(done.stderr, "^tessera: ")
        self.assertEqual(DONE, self.run_tool("index", self.docs, status=DONE) and DONE)
        self.run_tool("verify", status=DONE)
        for document in (kept, *documents):
            self.assertEqual([(2, str(document))], self.matches(document))

    # Many files at once.

    def test_file_ids_follow_the_order_of_the_files_however_many_are_opened_at_once(self):
        for number in range(40):
            self.write(f"{number:02}.txt", text(number, 100 + 3000 * (number % 7 == 0)))
        self.run_tool("index", "--jobs", "8", self.docs, status=DONE)
        names = [os.path.basename(path) for (path,) in self.rows("path")]
        self.assertEqual([b"%02d.txt" % number for number in range(40)], names)
        self.run_tool("verify", status=DONE)


if __name__ == "__main__":
    unittest.main()
