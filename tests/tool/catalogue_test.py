"""An index and a catalogue that do not agree, or are not there."""

import os
import shutil
import subprocess
import unittest

from support import DONE, FAILED, MATCHED, TESSERA, ToolTest, text


class CatalogueTest(ToolTest):
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
        self.assertIn("made good now", err)
        self.assertEqual([(2, str(first))], self.matches(first))
        self.assertEqual([(2, str(second))], self.matches(second))

    def test_catalogue_and_index_of_different_runs_are_not_used_together(self):
        first = self.write("a.txt", text(1))
        self.index()
        backup = self.dir / "backup"
        shutil.copytree(self.home, backup)
        second = self.write("b.txt", text(2))
        self.index()
        for name in ("catalogue.sqlite", "sig_index_DB"):
            with self.subTest(restored=name):
                home = self.dir / "other"
                shutil.rmtree(home, ignore_errors=True)
                shutil.copytree(self.home, home)
                if name == "catalogue.sqlite":
                    shutil.copy(backup / name, home / name)
                else:
                    shutil.rmtree(home / name)
                    shutil.copytree(backup / name, home / name)
                elsewhere = ("--home", home)
                for command in (["index", self.docs], ["match", second], ["delete", first]):
                    _, err = self.run_tool(*elsewhere, *command, status=FAILED)
                    self.assertIn("not of the same run", err)
                out, _ = self.run_tool(*elsewhere, "verify", status=FAILED)
                self.assertIn("not of the same run", out)
                self.run_tool(*elsewhere, "rebuild", "--from-catalogue", status=DONE)
                self.run_tool(*elsewhere, "index", self.docs, status=DONE)
                self.run_tool(*elsewhere, "verify", status=DONE)
                out, _ = self.run_tool(*elsewhere, "match", first, second, status=MATCHED)
                for document in (first, second):
                    self.assertEqual(1, out.count(f"level 2  {document} "), out)

    def test_index_that_lost_its_trees_is_made_again_from_the_catalogue(self):
        first = self.write("a.txt", text(1))
        self.index()
        for file in self.home.glob("sig_index_DB/fid_index*"):
            file.unlink()
        second = self.write("b.txt", text(2))
        self.index()
        for document in (first, second):
            self.assertEqual([(2, str(document))], self.matches(document))
        self.run_tool("verify", status=DONE)

    def test_whatever_needs_an_index_that_was_removed_says_what_to_do(self):
        document = self.write("a.txt", text(1))
        self.index()
        shutil.rmtree(self.home / "sig_index_DB")
        for command in (["match", document], ["export", "tables"], ["rebuild"]):
            _, err = self.run_tool(*command, status=FAILED)
            self.assertIn("rebuild --from-catalogue", err)

    def test_catalogue_that_is_no_catalogue_is_told(self):
        document = self.write("a.txt", text(1))
        self.index()
        (self.home / "catalogue.sqlite").write_text("Something else altogether. " * 100)
        for verb in ("index", "match"):
            _, err = self.run_tool(verb, document, status=FAILED)
            self.assertIn("catalogue.sqlite", err)


    def test_catalogue_of_an_earlier_version_is_refused_with_what_to_do(self):
        document = self.write("a.txt", text(1))
        self.index()
        self.change_catalogue("PRAGMA user_version = 1")
        for verb in ("index", "match", "delete"):
            _, err = self.run_tool(verb, document, status=FAILED)
            self.assertIn("earlier version of tessera", err)
            self.assertIn("run 'tessera index' on the documents again", err)
        self.change_catalogue("PRAGMA user_version = 3")
        _, err = self.run_tool("list", status=FAILED)
        self.assertIn("no catalogue of this version", err)

    def test_index_of_another_form_of_text_is_refused_with_what_to_do(self):
        document = self.write("a.txt", text(1))
        self.index()
        self.change_catalogue("UPDATE meta SET value = 'tessera-text-0' WHERE key = 'text_form'")
        for verb in ("index", "match", "verify"):
            arguments = [] if verb == "verify" else [document]
            _, err = self.run_tool(verb, *arguments, status=FAILED)
            self.assertIn("another form (tessera-text-0)", err)
            self.assertIn("run 'tessera index' on the documents again", err)

    @unittest.skipUnless(os.geteuid() == 0, "takes another user")
    def test_who_may_only_read_a_home_can_read_its_catalogue(self):
        self.index(self.write("a.txt", text(1)))
        for path in (self.dir, self.home, *self.home.rglob("*")):
            path.chmod(0o755 if path.is_dir() else 0o644)
        done = subprocess.run(
            [TESSERA, "list"], env=self.environment(), capture_output=True, text=True, user=65534
        )
        self.assertEqual((DONE, ""), (done.returncode, done.stderr))
        self.assertIn("a.txt", done.stdout)

    def test_readers_leave_no_files_and_see_what_a_writer_has_committed(self):
        self.index(self.write("a.txt", text(1)))
        files = set(self.home.iterdir())
        self.run_tool("list", status=DONE)
        self.assertEqual(files, set(self.home.iterdir()))
        with self.catalogue() as writer:
            writer.execute("PRAGMA journal_mode = WAL")
            writer.execute("UPDATE documents SET label = 'x'")
            writer.commit()
            writer.execute("UPDATE documents SET label = 'y'")
            self.assertIn("[x]", self.run_tool("list", status=DONE)[0])


if __name__ == "__main__":
    unittest.main()
