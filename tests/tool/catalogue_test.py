"""An index and a catalogue that do not agree, or are not there."""

import unittest

from support import FAILED, ToolTest, text


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

    def test_catalogue_that_is_no_catalogue_is_told(self):
        document = self.write("a.txt", text(1))
        self.index()
        (self.home / "catalogue.sqlite").write_text("Something else altogether. " * 100)
        for verb in ("index", "match"):
            _, err = self.run_tool(verb, document, status=FAILED)
            self.assertIn("catalogue.sqlite", err)


if __name__ == "__main__":
    unittest.main()
