"""Which files a verb works on. `match` tells all it has inspected, so it is asked."""

import json
import os
import pathlib
import subprocess
import tempfile
import unittest

from support import DONE, FAILED, TESSERA, ToolTest, text


class WalkTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.index(self.write("../indexed.txt", text(99)))

    def walk(self, *arguments, status=DONE, stdin=b"", cwd=None):
        """The names of the files that were inspected, in order, and the complaints."""
        done = subprocess.run(
            [TESSERA, "match", "--json", *arguments],
            cwd=cwd or self.docs,
            env=self.environment(),
            input=stdin,
            capture_output=True,
            timeout=60,
        )
        out, err = done.stdout.decode(), os.fsdecode(done.stderr)
        self.assertEqual(status, done.returncode, out + err)
        records = [json.loads(line) for line in out.splitlines()]
        return [r["file"] for r in records if r["kind"] == "document"], err

    def files(self, *arguments, **options):
        return self.walk(*arguments, **options)[0]

    def test_directories_give_all_files_below_them_in_byte_order(self):
        for name in ("b/2", "b/10", "b-", "a", "B", "b/é", "b/c/d"):
            self.write(name, "x")
        self.assertEqual(
            ["./B", "./a", "./b-", "./b/10", "./b/2", "./b/c/d", "./b/é"], self.files(".")
        )
        self.assertEqual(["b/10", "b/2", "b/c/d", "b/é", "a"], self.files("b/", "a"))

    def test_files_come_once_however_often_they_are_named(self):
        self.write("d/a", "x")
        (self.docs / "link").symlink_to("d/a")
        self.assertEqual(["d/a"], self.files("d/a", "d", "./d/../d/a", "link"))

    def test_lists_name_files_a_line_or_a_nul_each(self):
        for name in ("a b", "c\nd", "e", "f"):
            self.write(name, "x")
        lines = self.write("../lines", "a b\n\ne")
        nuls = self.write("../nuls", b"c\nd\0f\0")
        self.assertEqual(["a b", "e"], self.files("--files-from", lines))
        self.assertEqual(["f", "a b", "e"], self.files("--files-from", lines, "f"))
        self.assertEqual(
            ["c\\x0ad", "f", "e"],
            self.files("-0", "--files-from", nuls, "--files-from", "-", stdin=b"e"),
        )
        self.assertEqual(["a b"], self.files("--files-from", "-", stdin=b"a b\n"))
        self.assertEqual([], self.files("--files-from", "-"))

    def test_lists_that_cannot_be_read_end_the_run(self):
        self.write("a", "x")
        files, err = self.walk("--files-from", "no list", "a", status=FAILED)
        self.assertEqual([], files)
        self.assertIn("cannot read the list no list: No such file or directory", err)
        _, err = self.walk("--files-from", ".", status=FAILED)
        self.assertIn("cannot read the list .: Is a directory", err)
        _, err = self.walk("--files-from", "-", stdin=b"a\0", status=FAILED)
        self.assertIn("is --null meant?", err)
        for twice in (["-", "--files-from", "-"], ["--files-from", "-", "--files-from", "-"]):
            self.assertIn("once only", self.walk(*twice, status=FAILED)[1])

    def test_globs_concern_base_names(self):
        for name in ("a.txt", "b.md", "sub/c.txt", "sub/x/d.txt", ".git/e.txt", "[a]"):
            self.write(name, "x")
        self.assertEqual(
            ["./.git/e.txt", "./a.txt", "./sub/c.txt", "./sub/x/d.txt"],
            self.files(".", "--include", "*.txt"),
        )
        self.assertEqual(
            ["./a.txt", "./b.md"],
            self.files(".", "--include", "*.txt", "--include=*.md", "--exclude-dir", "[s.]*"),
        )
        self.assertEqual(["./[a]", "./b.md"], self.files(".", "--exclude", "*.txt"))
        self.assertEqual(["./[a]"], self.files(".", "--include", "[[]a[]]"))
        self.assertEqual([], self.files(".", "--include", "[az]"))

    def test_named_files_are_taken_whatever_is_included_but_not_if_excluded(self):
        for name in ("a.txt", "b.md", "sub/c.txt"):
            self.write(name, "x")
        self.assertEqual(["b.md", "sub/c.txt"], self.files("b.md", "sub", "--include", "*.txt"))
        self.assertEqual(["b.md"], self.files("a.txt", "b.md", "--exclude", "a*"))
        self.assertEqual(["b.md"], self.files("sub/", "b.md", "--exclude-dir", "s*"))

    def test_links_are_followed_when_named_when_asked_for_or_not_at_all(self):
        self.write("real/a", "x")
        outside = self.write("../outside/b", "x")
        (self.docs / "real/to-b").symlink_to(outside)
        (self.docs / "real/loop").symlink_to(self.docs)
        (self.docs / "dangling").symlink_to("nowhere")
        (self.docs / "named").symlink_to("real")
        self.assertEqual(["./real/a"], self.files("."))
        self.assertEqual(["named/a"], self.files("named"))
        self.assertEqual(["real/a", "real/to-b"], self.files("-L", "real", status=FAILED))
        files, err = self.walk("-L", ".", status=FAILED)
        self.assertEqual({"a", "to-b"}, {os.path.basename(f) for f in files})
        self.assertEqual(2, len(files))
        self.assertIn("cannot follow ./dangling: No such file or directory", err)
        files, err = self.walk("-P", "named", "real", status=FAILED)
        self.assertEqual(["real/a"], files)
        self.assertIn("cannot read named: a symbolic link, which is not to be followed", err)

    def test_pipes_and_devices_are_told_when_named_and_never_waited_for(self):
        os.mkfifo(self.docs / "pipe")
        self.write("a", "x")
        self.assertEqual(["./a"], self.files("."))
        for name in ("pipe", "/dev/null"):
            files, err = self.walk(name, "a", status=FAILED)
            self.assertEqual(["a"], files)
            self.assertIn(f"cannot read {name}: neither a regular file nor a directory", err)

    def test_other_file_systems_are_left_out_when_asked(self):
        here = self.docs.stat().st_dev
        others = [p for p in ("/dev/shm", "/tmp", os.getcwd()) if os.stat(p).st_dev != here]
        self.assertTrue(others, "this test needs a second file system")
        scratch = tempfile.TemporaryDirectory(prefix="tessera-tool-", dir=others[0])
        self.addCleanup(scratch.cleanup)
        self.write("a", "x")
        folder = pathlib.Path(scratch.name).resolve()
        (folder / "b").write_text("x")
        (self.docs / "elsewhere").symlink_to(folder)
        self.assertEqual(["./a", "./elsewhere/b"], self.files("-L", "."))
        self.assertEqual(["./a"], self.files("-L", "-x", "."))
        self.assertEqual([f"{folder}/b"], self.files("-x", folder))

    @unittest.skipIf(os.geteuid() == 0, "root may read everything")
    def test_directories_that_cannot_be_listed_are_told_and_passed_over(self):
        self.write("a", "x")
        closed = self.write("closed/b", "x").parent
        closed.chmod(0)
        self.addCleanup(closed.chmod, 0o700)
        files, err = self.walk(".", status=FAILED)
        self.assertEqual(["./a"], files)
        self.assertIn("cannot list ./closed: Permission denied", err)

    def test_names_too_long_to_open_are_told_and_passed_over(self):
        self.write("a", "x")
        directory = os.open(self.docs, os.O_RDONLY)
        for _ in range(20):  # 20 x 250 bytes: deeper than a path can tell
            os.mkdir("d" * 250, dir_fd=directory)
            deeper = os.open("d" * 250, os.O_RDONLY, dir_fd=directory)
            os.close(directory)
            directory = deeper
        os.close(directory)
        files, err = self.walk(".", status=FAILED)
        self.assertEqual(["./a"], files)
        self.assertIn("File name too long", err)
        subprocess.run(["rm", "-rf", self.docs / ("d" * 250)], check=True)

    def test_names_that_are_not_utf8_or_not_harmless_are_names(self):
        for name in (b"caf\xe9", b"red\x1b[31m", b"a\nb", b"back\\slash"):
            (pathlib.Path(os.fsdecode(os.path.join(os.fsencode(self.docs), name)))).write_text("x")
        self.assertEqual(
            ["./a\\x0ab", "./back\\\\slash", "./caf\\xe9", "./red\\x1b[31m"], self.files(".")
        )

    def test_home_is_never_walked(self):
        (self.home / "note.txt").write_text("x")
        self.write("a", "x")
        self.assertEqual(["./docs/a", "./indexed.txt"], self.files(".", cwd=self.dir, status=1))


if __name__ == "__main__":
    unittest.main()
