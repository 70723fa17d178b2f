"""How far the work is, on a terminal and for other programs."""

import contextlib
import json
import os
import pty
import subprocess
import time
import unittest

from support import DONE, MATCHED, TESSERA, ToolTest, text


class ProgressTest(ToolTest):
    def run_on_terminal(self, *arguments, environment=None, stdin=bytes):
        """Only the standard error is one; returns its bytes and the standard output."""
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        process = subprocess.Popen(
            [TESSERA, *arguments],
            cwd=self.dir,
            env={**self.environment(), "TERM": "xterm", **(environment or {})},
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=slave,
        )
        os.close(slave)
        out, _ = process.communicate(stdin(), timeout=120)
        shown = b""
        with contextlib.suppress(OSError):  # the terminal's way to tell the end
            while chunk := os.read(master, 4096):
                shown += chunk
        return shown, out

    def test_progress_shows_on_a_terminal_and_is_wiped_away(self):
        document = self.write("a.txt", text(1))
        for verb, phase in (("index", b"Indexing"), ("match", b"Matching")):
            shown, out = self.run_on_terminal(verb, self.docs)
            self.assertRegex(shown, rb"\r" + phase + rb" \[[#.]+\] +\d+ %  \d of 1\x1b\[K")
            self.assertTrue(shown.endswith(b"\r\x1b[K"), shown)
            self.assertNotIn(b"\x1b", out)

    def test_bar_fits_a_real_terminal(self):
        for number in range(30):
            self.write(f"{number}.txt", text(number, 300))
        self.index()
        os.mkfifo(self.dir / "gate")
        command = f"'{TESSERA}' match docs - <gate >report; echo done; sleep 60"
        for columns, form in ((100, r"Matching \[[#.]{40}\] +\d+ %  \d+ of 31"),
                              (40, r"Matching   +\d+ %  \d+ of 31")):
            terminal = self.terminal(command, columns)
            with open(self.dir / "gate", "wb"):  # the last of the files ends with it
                screen = terminal.wait_for("of 31")
                self.assertRegex(screen.rstrip(), f"^{form}$")
            self.assertNotIn("Matching", terminal.wait_for("done"))
            terminal.close()

    def test_rate_and_time_left_are_told(self):
        for number in range(5):
            self.write(f"{number}.txt", text(number, 300))
        self.index()

        def slowly():
            time.sleep(0.7)
            return text(1, 300).encode()

        shown, _ = self.run_on_terminal("match", "-j1", "-", "docs", stdin=slowly)
        self.assertRegex(shown, rb" 1 of 6  [01]\.\d a second  0:\d\d left\x1b\[K")

    def test_nothing_is_shown_elsewhere(self):
        self.write("a.txt", text(1))
        _, err = self.index()
        self.assertEqual("", err)
        shown, _ = self.run_on_terminal("--progress", "none", "match", self.docs)
        self.assertEqual(b"", shown)
        shown, _ = self.run_on_terminal("match", self.docs, environment={"TERM": "dumb"})
        self.assertEqual(b"", shown)

    def test_json_lines_tell_each_phase_up_to_its_end(self):
        for number in range(5):
            self.write(f"{number}.txt", text(number, 300))
        for verb, phase, status in (("index", "Indexing", DONE), ("match", "Matching", MATCHED)):
            _, err = self.run_tool("--progress", "json", verb, self.docs, status=status)
            lines = [json.loads(line) for line in err.splitlines()]
            of_phase = [line for line in lines if line["phase"] == phase]
            self.assertEqual((5, 5), (of_phase[-1]["done"], of_phase[-1]["total"]))
            for line in lines:
                self.assertLessEqual(
                    set(line), {"phase", "done", "total", "per_second", "seconds_left"}
                )


if __name__ == "__main__":
    unittest.main()
