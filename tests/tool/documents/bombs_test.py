"""Two hundred documents that want to break the command: make_bombs.py has them.

All go through one `tessera match` with low limits. Whatever becomes of a bomb, it gets
a verdict; those that hold more than the limits allow are not inspected; and the
command and all its helpers together stay within time and memory. What became of each
is printed as a table.

    TESSERA=build/linux-release/bin/tessera python3 tests/tool/documents/bombs_test.py
"""

import os
import pathlib
import re
import tempfile
import unittest

import make_bombs
from command import DONE, FAILED, MATCHED, NOT_INSPECTED, run

MIB = 1 << 20
SECONDS, MEMORY = 1, 300 * MIB
LIMITS = [
    f"--time-limit={SECONDS}", "--total-limit=20M", "--size-limit=4M", "--depth-limit=8",
    "--member-limit=500", "--ratio-limit=100", f"--memory-limit={MEMORY}", "--jobs=2",
]  # fmt: skip
STOPPED = {
    "time-limit", "size-limit", "ratio-limit", "member-limit", "depth-limit", "memory-limit",
}  # fmt: skip
REFUSED = STOPPED | {"damaged", "encrypted", "unsupported", "crashed"}
CONTROL = re.compile(r"[\x00-\x09\x0b-\x1f\x7f-\x9f\u202a-\u202e]")


class Bombs(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory(prefix="tessera-bombs-")
        cls.dir = pathlib.Path(cls.scratch.name).resolve()
        cls.home, cls.bombs = cls.dir / "home", cls.dir / "bombs"
        cls.bombs.mkdir()
        make_bombs.write(cls.bombs)
        # The one file that external entities and links ask for: found is found out.
        indexed = run("index", "/etc/passwd", home=cls.home)
        assert indexed.status == DONE, indexed.err
        cls.done = run("match", "--json", "--min-level=0", *LIMITS, cls.bombs, home=cls.home)
        cls.verdicts = {name: [] for name in make_bombs.BOMBS}
        for verdict in cls.done.verdicts():
            name = verdict.name.removeprefix(f"{cls.bombs}/").split("!")[0]
            cls.verdicts[name].append(verdict)

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def reasons(self, name):
        return {verdict.reason for verdict in self.verdicts[name]} - {""}

    def test_a_home_that_holds_the_secret_finds_it(self):
        found = run("match", "/etc/passwd", home=self.home)
        self.assertEqual(MATCHED, found.status, found.err)

    def test_the_command_lives_and_tells(self):
        self.assertEqual(NOT_INSPECTED, self.done.status, self.done.err)

    def test_every_bomb_has_a_verdict(self):
        for name in make_bombs.BOMBS:
            with self.subTest(name):
                path = str(self.bombs / name)
                self.assertIn(path, [verdict.name for verdict in self.verdicts[name]])
                self.assertLessEqual(self.reasons(name), REFUSED)

    def test_bombs_are_stopped_by_limits(self):
        for name, (_, end) in make_bombs.BOMBS.items():
            if end == make_bombs.STOPPED:
                with self.subTest(name):
                    self.assertTrue(self.reasons(name) & STOPPED, self.reasons(name))

    def test_bombs_are_not_inspected(self):
        for name, (_, end) in make_bombs.BOMBS.items():
            if end == make_bombs.REFUSED:
                with self.subTest(name):
                    self.assertTrue(self.reasons(name))

    def test_extractors_do_not_die(self):
        """A parser that does not end its work itself has a defect, though a harmless one."""
        died = [name for name in make_bombs.BOMBS if "crashed" in self.reasons(name)]
        self.assertEqual([], died)

    def test_nothing_outside_is_read(self):
        for name, verdicts in self.verdicts.items():
            with self.subTest(name):
                self.assertEqual([], [found for verdict in verdicts for found in verdict.matches])

    def test_nothing_outside_is_written(self):
        self.assertFalse(os.path.lexists("/tmp/tessera-was-here"))

    def test_memory_and_processes_are_bounded(self):
        """Two extractors, each of which may run one helper program, and the command."""
        self.assertLess(self.done.memory, 4 * MEMORY + 200 * MIB)
        self.assertLess(self.done.processes, 20)
        self.assertEqual([], self.done.left)

    def test_time_is_bounded(self):
        """Few bombs may need all the time there is for a document."""
        slow = [name for name in make_bombs.BOMBS if "time-limit" in self.reasons(name)]
        self.assertLess(self.done.seconds, 15 + SECONDS * (len(slow) + 5))
        self.assertLess(len(slow), 25, slow)

    def test_names_do_not_reach_the_terminal_raw(self):
        names = [self.bombs / name for name in make_bombs.BOMBS if name.startswith("name-")]
        for options in ([], ["--json"], ["--sarif"], ["--explain"]):
            said = run("match", *LIMITS, *options, *names, home=self.home)
            self.assertIn(said.status, (DONE, NOT_INSPECTED), said.err)
            self.assertIsNone(CONTROL.search(said.out + said.err), options)

    def test_they_can_be_indexed_as_far_as_they_can_be_read(self):
        home = self.dir / "other"
        stopped = [name for name, (_, end) in make_bombs.BOMBS.items() if end == make_bombs.STOPPED]
        indexed = run("index", *LIMITS, *(self.bombs / name for name in stopped), home=home)
        self.assertNotIn(indexed.status, (FAILED, MATCHED), indexed.err[-2000:])
        self.assertEqual([], indexed.left)
        self.assertEqual(DONE, run("verify", home=home).status)

    def test_show_what_became_of_them(self):
        for name, verdicts in self.verdicts.items():
            reasons = ", ".join(sorted(self.reasons(name))) or "inspected"
            print(f"{name:30} {len(verdicts):5} documents  {reasons}")
        print(f"{self.done.seconds:.1f} s, {self.done.memory >> 20} MiB, ", end="")
        print(f"{self.done.processes} processes at a time")


if __name__ == "__main__":
    unittest.main()
