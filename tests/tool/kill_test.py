"""Runs that are killed, and what the next one makes of it."""

import fcntl
import os
import unittest

from support import ARRIVING, DONE, ToolTest, text, wait_for


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


if __name__ == "__main__":
    unittest.main()
