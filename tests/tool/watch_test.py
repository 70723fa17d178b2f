"""tessera watch: an index that follows its documents."""

import contextlib
import fcntl
import os
import pathlib
import shutil
import signal
import subprocess
import unittest

from support import DONE, FAILED, NOT_INSPECTED, TESSERA, ToolTest, text, wait_for


class WatchTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.out = self.dir / "out"
        self.err = self.dir / "err"

    @contextlib.contextmanager
    def watching(self, *options, status=DONE, settle="0"):
        """While it lasts, the command watches self.docs; then it is ended by Ctrl-C."""
        with open(self.out, "w") as out, open(self.err, "w") as err:
            process = subprocess.Popen(
                [TESSERA, "watch", "--settle", settle, *options, self.docs],
                cwd=self.dir,
                env=self.environment(),
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=err,
            )
            try:
                wait_for(lambda: "watching" in self.err.read_text() or process.poll() is not None)
                yield process
                process.send_signal(signal.SIGINT)
                self.assertEqual(status, process.wait(60), self.err.read_text())
            finally:
                process.kill()
                process.wait()

    def indexed(self):
        """The names of the documents that are in the index for good."""
        try:
            return {os.fsdecode(path) for path, state in self.rows("path, state") if state == 0}
        except Exception:  # the catalogue is being made
            return set()

    def wait_for_documents(self, *documents):
        wanted = {str(document) for document in documents}
        wait_for(lambda: self.indexed() == wanted)

    def test_files_are_indexed_at_first_and_when_they_are_added_changed_and_removed(self):
        first = self.write("first.txt", text(1))
        with self.watching():
            self.wait_for_documents(first)
            second = self.write("sub/second.txt", text(2))
            self.wait_for_documents(first, second)
            self.write("first.txt", text(3))
            wait_for(lambda: (1,) not in self.rows("id"))
            self.wait_for_documents(first, second)
            second.unlink()
            self.wait_for_documents(first)
        self.assertEqual([(2, str(first))], self.matches(self.write("../q.txt", text(3))))
        self.assertEqual([], self.matches(self.write("../q.txt", text(1)), status=DONE))
        self.run_tool("verify", status=DONE)
        self.assertIn("watching 1 directory; Ctrl-C ends it", self.err.read_text())
        self.assertIn("1 file: 1 added", self.out.read_text())

    def test_directories_that_are_moved_in_around_and_out_are_followed(self):
        outside = self.dir / "outside"
        (outside / "deep").mkdir(parents=True)
        (outside / "deep" / "a.txt").write_text(text(1))
        with self.watching() as process:
            shutil.move(outside, self.docs / "in")
            self.wait_for_documents(self.docs / "in/deep/a.txt")
            (self.docs / "in").rename(self.docs / "on")
            self.wait_for_documents(self.docs / "on/deep/a.txt")
            (self.docs / "on/deep/b.txt").write_text(text(2))
            self.wait_for_documents(self.docs / "on/deep/a.txt", self.docs / "on/deep/b.txt")
            shutil.move(self.docs / "on", outside)
            self.wait_for_documents()
            self.assertEqual(1, self.watches(process))
            last = self.write("last.txt", text(4))
            self.wait_for_documents(last)

    def watches(self, process):
        descriptors = pathlib.Path(f"/proc/{process.pid}/fdinfo").iterdir()
        return sum(file.read_text().count("inotify wd:") for file in descriptors)

    def test_changes_wait_until_a_file_has_been_left_alone(self):
        with self.watching(settle="3600"):
            self.write("a.txt", text(1))
        self.assertEqual(set(), self.indexed())

    def test_files_that_are_not_chosen_are_left_alone(self):
        with self.watching("--include", "*.txt"):
            self.write("a.doc", text(1))
            wanted = self.write("a.txt", text(2))
            self.wait_for_documents(wanted)

    def test_home_below_the_directory_is_not_watched(self):
        self.home = self.docs / "home"
        with self.watching():
            (self.home / "note.txt").write_text(text(1))
            document = self.write("a.txt", text(2))
            self.wait_for_documents(document)

    def test_other_commands_are_let_in_and_waited_for(self):
        document = self.write("a.txt", text(1))
        with self.watching():
            self.wait_for_documents(document)
            self.run_tool("delete", document, status=DONE)
            home = os.open(self.home, os.O_RDONLY)
            fcntl.flock(home, fcntl.LOCK_EX)
            other = self.write("b.txt", text(2))
            gone = self.write("c.txt", text(3))
            gone.unlink()
            os.close(home)
            self.wait_for_documents(other)

    def test_what_cannot_be_indexed_or_inspected_shows_in_the_status(self):
        with self.watching(status=NOT_INSPECTED):
            self.write("a.docx", b"PK\3\4" + b"\0" * 200)
            wait_for(lambda: "not inspected: " in self.err.read_text())

    def test_directory_that_cannot_be_watched_is_told(self):
        file = self.write("a.txt", text(1))
        for path in (file, "no such directory"):
            _, err = self.run_tool("watch", path, status=FAILED)
            self.assertIn("cannot watch", err)
        self.assertFalse(self.home.exists())

    def test_directory_that_goes_away_ends_the_watch_and_keeps_its_documents(self):
        document = self.write("a.txt", text(1))
        with self.watching(status=FAILED) as process:
            self.wait_for_documents(document)
            self.docs.rename(self.dir / "elsewhere")
            process.wait(60)
            self.docs.mkdir()
        self.assertIn(f"{self.docs} is gone", self.err.read_text())
        self.assertEqual({str(document)}, self.indexed())

    def test_directory_that_is_empty_at_first_keeps_its_documents(self):
        document = self.write("a.txt", text(1))
        self.index()
        document.unlink()
        with self.watching(status=FAILED):
            self.assertIn("not pruned", self.err.read_text())
            other = self.write("b.txt", text(2))
            self.wait_for_documents(document, other)
            other.unlink()
            self.wait_for_documents(document)

    def test_nothing_is_missed_when_changes_come_too_fast(self):
        limit = int(pathlib.Path("/proc/sys/fs/inotify/max_queued_events").read_text())
        if limit > 20000:
            self.skipTest("it takes too many changes to overflow the queue here")
        with self.watching() as process:
            process.send_signal(signal.SIGSTOP)
            names = [self.docs / f"{number % 8}" for number in range(limit // 2)]
            for name in names:
                with open(name, "w"):
                    pass
                name.unlink()
            document = self.write("a.txt", text(1))
            process.send_signal(signal.SIGCONT)
            self.wait_for_documents(document)


if __name__ == "__main__":
    unittest.main()
