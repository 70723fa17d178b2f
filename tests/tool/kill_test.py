"""Runs that are killed, and what the next one makes of it.

A library that is loaded into the command (kill_at.c) kills it just before the nth of its
changes to the file system. Without KILL_AT_ALL in the environment not every n is tried:
those around all that is synced, renamed, removed or cut, and some of the writes between.
"""

import fcntl
import os
import shutil
import signal
import subprocess
import unittest

from support import ARRIVING, DONE, FAILED, MATCHED, TESSERA, ToolTest, text, wait_for

KILL_AT_LIBRARY = os.path.abspath(os.environ["KILL_AT_LIBRARY"])
TRIALS = 14  # at most, of one command


class KillTest(ToolTest):
    def kill_before_writing(self, arrivals):
        tables = os.open(self.home / "sig_index_DB", os.O_RDONLY)
        self.addCleanup(os.close, tables)
        fcntl.flock(tables, fcntl.LOCK_SH)
        process = self.start_tool("index", self.docs)
        wait_for(lambda: [row[2] for row in self.rows()].count(ARRIVING) == arrivals)
        process.kill()
        process.wait(60)
        fcntl.flock(tables, fcntl.LOCK_UN)

    # A run that is cut off between any two of its steps.

    def run_until(self, number, *arguments, trace=None):
        """Runs the command; it is killed before its change of this number, 0: not at all."""
        environment = {
            **self.environment(),
            "LD_PRELOAD": KILL_AT_LIBRARY,
            "KILL_AT": str(number),
            **({"KILL_TRACE": str(trace)} if trace else {}),
        }
        done = subprocess.run(
            [TESSERA, *arguments],
            cwd=self.dir,
            env=environment,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            timeout=120,
        )
        return done.returncode

    def points(self, trace):
        """Which changes are tried, counted from 1."""
        telling = [n for n, kind in enumerate(trace, 1) if kind != "w" or trace[n - 2] != "w"]
        if "KILL_AT_ALL" in os.environ:
            return list(range(1, len(trace) + 1))
        step = max(1, -(-len(telling) // TRIALS))
        return telling[::step]

    def documents(self):
        return self.rows("path, member, hex(sha256), label, selection, signatures, state")

    def known_ids(self, known):
        """What every file ID has ever stood for; it never stands for anything else."""
        with self.catalogue() as database:
            present = database.execute("SELECT name FROM sqlite_schema").fetchall()
        if ("documents",) not in present:
            return
        for identity, *content in self.rows("id, path, member, hex(sha256)"):
            self.assertEqual(content, known.setdefault(identity, content))

    def check_kills(self, *arguments, found, lost=(), again=(DONE,)):
        """Kills the command at many points, each time in a copy of the home as it is. Run
        again it ends as if it had not been killed, and matches find what they should."""
        before = self.dir / "before"
        if self.home.exists():
            shutil.copytree(self.home, before)

        def restore():
            shutil.rmtree(self.home, ignore_errors=True)
            if before.exists():
                shutil.copytree(before, self.home)

        trace = self.dir / "trace"
        self.assertEqual(DONE, self.run_until(0, *arguments, trace=trace))
        wanted = sorted(self.documents())
        points = self.points(trace.read_text())
        self.assertGreater(len(points), 10)
        for point in points:
            with self.subTest(killed_at=point):
                restore()
                known = {}
                if before.exists():
                    self.known_ids(known)
                self.assertEqual(-signal.SIGKILL, self.run_until(point, *arguments))
                if (self.home / "catalogue.sqlite").exists():
                    self.known_ids(known)
                done = subprocess.run(
                    [TESSERA, *arguments],
                    cwd=self.dir,
                    env=self.environment(),
                    stdin=subprocess.DEVNULL,
                    capture_output=True,
                    text=True,
                )
                self.assertIn(done.returncode, again, done.stderr)
                self.known_ids(known)
                self.assertEqual(wanted, sorted(self.documents()))
                self.run_tool("verify", status=DONE)
                self.assertEqual(
                    [(2, str(document)) for document in found], self.matches(*found, *lost)
                )

    def test_first_indexing_run_may_be_killed_anywhere(self):
        found = [self.write(f"{seed}.txt", text(seed, 600)) for seed in range(3)]
        self.check_kills("index", self.docs, found=found)

    def test_run_that_adds_replaces_and_prunes_may_be_killed_anywhere(self):
        old = self.write("../old.txt", text(1, 600))
        changed = self.write("changed.txt", text(1, 600))
        gone = self.write("gone.txt", text(2, 600))
        kept = self.write("kept.txt", text(3, 600))
        self.index()
        self.write("changed.txt", text(4, 600))
        added = self.write("added.txt", text(5, 600))
        gone.rename(self.dir / "gone.txt")
        self.check_kills(
            "index",
            "--prune",
            self.docs,
            found=[changed, kept, added],
            lost=[old, self.dir / "gone.txt"],
        )

    def test_deletion_may_be_killed_anywhere(self):
        kept = self.write("kept.txt", text(1, 600))
        gone = self.write("gone.txt", text(2, 600))
        self.index()
        # What is gone already when it is to be deleted again is told.
        self.check_kills("delete", gone, found=[kept], lost=[gone], again=(DONE, FAILED))

    def test_new_common_text_may_be_killed_anywhere(self):
        letterhead = self.write("../letterhead.txt", text(9, 400))
        letters = [
            self.write(f"{seed}.txt", text(9, 400) + text(seed, 600)) for seed in range(3)
        ]
        self.index()
        self.check_kills("common", "add", letterhead, found=letters, lost=[letterhead])

    def test_rebuilding_may_be_killed_anywhere(self):
        found = [self.write(f"{seed}.txt", text(seed, 600)) for seed in range(3)]
        self.index()
        self.check_kills("rebuild", "--from-catalogue", found=found)
        shutil.rmtree(self.dir / "before")
        (self.dir / "trace").unlink()
        self.check_kills("rebuild", found=found)

    def test_killed_run_is_made_good_by_the_next_one(self):
        changed = self.write("changed.txt", text(1))
        self.index()
        self.write("changed.txt", text(2))
        added = self.write("added.txt", text(3))
        self.kill_before_writing(arrivals=2)
        other = self.write("../other/other.txt", text(4))
        out, err = self.index(other)
        self.assertIn("documents of an earlier run are not settled", err)
        self.assertIn("added", out)
        self.assertEqual({0}, {state for _, _, state in self.rows()})
        for document in (changed, added, other):
            self.assertEqual([(2, str(document))], self.matches(document))
        self.assertEqual([], self.matches(self.write("../old.txt", text(1)), status=DONE))
        ids = {row[1]: row[0] for row in self.rows()}
        self.assertNotIn(1, ids.values(), "what was replaced has not come back")
        self.assertEqual(4, ids[os.fsencode(other)])

    def test_matching_goes_on_after_a_killed_run(self):
        document = self.write("a.txt", text(1))
        self.index()
        self.write("b.txt", text(2))
        self.kill_before_writing(arrivals=1)
        self.assertEqual([(2, str(document))], self.matches(document))
        _, err = self.run_tool("match", document, status=MATCHED)
        self.assertIn("note: a document is not settled in the index yet", err)
        self.assertRegex(self.run_tool("verify", status=DONE)[0], "but for what is not settled\n$")
        self.index()
        _, err = self.run_tool("match", document, status=MATCHED)
        self.assertEqual("", err)


if __name__ == "__main__":
    unittest.main()
