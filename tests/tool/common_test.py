"""tessera common: text that stands in many documents and counts in none."""

import json
import unittest

from support import DONE, FAILED, MATCHED, ToolTest, text

LETTERHEAD = text(100, words=400)


class CommonTest(ToolTest):
    def letters(self, count=4):
        """Documents that share nothing but the letterhead."""
        return [self.write(f"{i}.txt", LETTERHEAD + text(i)) for i in range(count)]

    def common(self, *arguments, status=DONE):
        return self.run_tool("common", *arguments, status=status)

    def test_texts_added_together_count_a_document_once(self):
        self.write("a.txt", text(1) + text(2))
        self.index()
        texts = [self.write(f"../{seed}.txt", text(seed)) for seed in (1, 2)]
        out, _ = self.run_tool("common", "add", *texts, status=DONE)
        self.assertEqual("2 common texts added; 1 documents held some of it\n", out)

    def test_common_text_is_not_found_however_it_came_to_the_index(self):
        letters = self.letters()
        letterhead = self.write("../letterhead.txt", LETTERHEAD)
        self.index(*letters[:2])
        self.assertEqual(2, len(self.matches(letterhead)))
        out, _ = self.common("add", letterhead)
        self.assertEqual("1 common text added; 2 documents held some of it\n", out)
        self.index(*letters)
        self.assertEqual([], self.matches(letterhead, status=DONE))
        for letter in letters:
            self.assertEqual([(2, str(letter))], self.matches(letter))
        self.run_tool("verify", status=DONE)

    def test_file_ids_stay_when_text_becomes_common_and_when_it_ceases_to_be(self):
        self.letters()
        letterhead = self.write("../letterhead.txt", LETTERHEAD)
        self.index()
        before = self.rows()
        self.common("add", letterhead)
        self.assertEqual(before, self.rows())
        self.common("remove", letterhead)
        self.assertEqual(before, self.rows())
        self.run_tool("verify", status=DONE)

    def test_removed_common_text_counts_again(self):
        letters = self.letters()
        letterhead = self.write("../letterhead.txt", LETTERHEAD)
        self.index()
        self.common("add", letterhead)
        letterhead.unlink()
        out, _ = self.common("remove", letterhead)
        self.assertEqual("1 common text removed\n", out)
        query = self.write("../query.txt", LETTERHEAD)
        self.assertEqual(len(letters), len(self.matches(query)))

    def test_text_stays_common_as_long_as_one_file_says_so(self):
        self.letters()
        first = self.write("../first.txt", LETTERHEAD)
        second = self.write("../second.txt", LETTERHEAD)
        self.index()
        self.common("add", first, second)
        self.common("remove", first)
        self.assertEqual([], self.matches(second, status=DONE))
        self.common("remove", second)
        self.assertEqual(4, len(self.matches(second)))

    def test_common_text_that_changed_is_replaced(self):
        self.letters()
        file = self.write("../letterhead.txt", LETTERHEAD)
        self.index()
        self.common("add", file)
        self.write("../letterhead.txt", text(200))
        self.common("add", file)
        query = self.write("../query.txt", LETTERHEAD)
        self.assertEqual(4, len(self.matches(query)))
        self.run_tool("verify", status=DONE)

    def test_document_of_nothing_but_common_text_is_kept_and_not_found(self):
        letterhead = self.write("letterhead.txt", LETTERHEAD)
        other = self.write("other.txt", text(1))
        self.index()
        self.common("add", letterhead)
        self.assertEqual([], self.matches(letterhead, status=DONE))
        self.assertEqual(2, len(self.rows()))
        self.run_tool("verify", status=DONE)
        self.run_tool("rebuild", "--from-catalogue", status=DONE)
        self.assertEqual([], self.matches(letterhead, status=DONE))
        self.run_tool("verify", status=DONE)
        self.run_tool("delete", other, status=DONE)
        self.assertEqual([], self.matches(other, status=DONE))

    def test_list_tells_the_files(self):
        self.index(self.write("a.txt", text(1)))
        letterhead = self.write("../letterhead.txt", LETTERHEAD)
        self.assertEqual("", self.common("list")[0])
        self.common("add", letterhead)
        count = len(self.run_tool("sig", letterhead, status=DONE)[0].split())
        self.assertEqual(f"{count:>7}  {letterhead}\n", self.common("list")[0])
        record = json.loads(self.common("list", "--json")[0])
        self.assertEqual((str(letterhead), count), (record["path"], record["signatures"]))

    def test_suggestions_are_signatures_of_many_documents_with_examples(self):
        letters = self.letters(5)
        self.index()
        letterhead = self.write("../letterhead.txt", LETTERHEAD)
        wanted = self.run_tool("sig", letterhead, status=DONE)[0].split()
        lines = [json.loads(line) for line in self.common("suggest", "--json")[0].splitlines()]
        self.assertEqual(wanted, sorted(line["signature"] for line in lines))
        for line in lines:
            self.assertEqual(5, line["documents"])
            self.assertEqual([str(letter) for letter in letters[:3]], line["examples"])
        out, _ = self.common("suggest", "--min-documents", "5")
        self.assertEqual(len(wanted), len(out.splitlines()))
        self.assertIn(f"{wanted[0]}        5  {letters[0]}  {letters[1]}", out)
        self.assertEqual("", self.common("suggest", "--min-documents", "6")[0])
        self.common("add", letterhead)
        self.assertEqual("", self.common("suggest")[0], "it is common already")

    def test_two_documents_are_no_suggestion(self):
        self.letters(2)
        self.index()
        self.assertEqual("", self.common("suggest")[0])
        self.assertNotEqual("", self.common("suggest", "--min-documents", "2")[0])

    def test_files_that_cannot_be_common_text_are_told_and_the_others_added(self):
        letterhead = self.write("../letterhead.txt", LETTERHEAD)
        short = self.write("../short.txt", "Yours sincerely")
        out, err = self.common("add", "no such file", short, letterhead, status=FAILED)
        self.assertIn("1 common text added", out)
        self.assertIn("cannot read", err)
        self.assertIn("No such file or directory", err)
        self.assertIn(f"{short} is too short for a signature", err)
        _, err = self.common("remove", "no such file", letterhead, status=FAILED)
        self.assertIn("no such file is no common text", err)
        self.assertEqual("", self.common("list")[0])


if __name__ == "__main__":
    unittest.main()
