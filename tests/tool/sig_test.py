"""The signatures and the canonical text of files."""

import gzip
import json
import unittest

from support import DONE, FAILED, TESSERA, ToolTest, text, zipped


class SigTest(ToolTest):
    def signatures(self, *arguments, status=DONE):
        return self.run_tool("sig", *arguments, status=status)[0].split()

    def test_signatures_are_hexadecimal_lines_in_ascending_order(self):
        signatures = self.signatures(self.write("a.txt", text(1)))
        self.assertGreater(len(signatures), 50)
        for line in signatures:
            self.assertRegex(line, r"^[0-9a-f]{16}$")
        self.assertEqual(sorted(set(signatures)), signatures)

    def test_signatures_of_a_short_text_are_none(self):
        short = self.write("short.txt", "Only a few words.\n")
        out, err = self.run_tool("sig", short, status=DONE)
        self.assertEqual("", out)
        self.assertIn("too short", err)

    def test_sparse_signatures_are_a_few_of_the_full_ones(self):
        document = self.write("a.txt", text(1))
        full, sparse = self.signatures(document), self.signatures("--selection=sparse", document)
        self.assertLess(0, len(sparse))
        self.assertLess(len(sparse), len(full) / 4)
        self.assertLessEqual(set(sparse), set(full))

    def test_signatures_of_several_documents_are_headed_by_their_names(self):
        first, second = self.write("a.txt", text(1)), self.write("b.txt", text(2))
        one, two = self.signatures(first), self.signatures(second)
        out, _ = self.run_tool("sig", first, second, status=DONE)
        expected = [f"==> {first} <==", *one, "", f"==> {second} <==", *two]
        self.assertEqual(expected, out.splitlines())
        archive = self.write("c.zip", zipped([("x", text(1)), ("y", text(2))]))
        out, _ = self.run_tool("sig", archive, status=DONE)
        self.assertEqual(out.splitlines()[0], f"==> {archive}!x <==")
        single = self.write("d.zip", zipped([("x", text(1))]))
        self.assertEqual(one, self.signatures(single))

    def test_signatures_as_json_have_their_names(self):
        first, second = self.write("a\n.txt", text(1)), self.write("b.txt", "short")
        out, _ = self.run_tool("sig", "--json", first, second, status=DONE)
        records = [json.loads(line) for line in out.splitlines()]
        self.assertEqual([f"{self.docs}/a\\x0a.txt", str(second)], [r["name"] for r in records])
        self.assertEqual(["full", "full"], [r["selection"] for r in records])
        self.assertEqual(self.signatures(first), records[0]["signatures"])
        self.assertEqual([], records[1]["signatures"])

    def test_signatures_of_standard_input(self):
        expected = self.signatures(self.write("a.txt", text(1)))
        out, _ = self.run_tool("sig", "-", stdin=text(1).encode(), status=DONE)
        self.assertEqual(expected, out.split())

    def test_signatures_leave_no_trace_on_disk(self):
        document = self.write("a.txt", text(1))
        self.signatures(document)
        self.assertEqual({self.docs}, set(self.dir.iterdir()))
        self.home.mkdir()
        config = self.home / "index_sys_config.txt"
        config.write_text("max_content_size = 1048576\n")
        self.signatures(document)
        self.assertEqual("max_content_size = 1048576\n", config.read_text())

    def test_what_cannot_be_opened_is_told(self):
        document = self.write("a.txt", text(1))
        damaged = self.write("b.gz", gzip.compress(text(2).encode())[:500])
        for verb in ("sig", "text"):
            _, err = self.run_tool(verb, damaged, status=FAILED)
            self.assertRegex(err, f"{damaged}.* was not inspected: damaged")
            _, err = self.run_tool(verb, "no such file", status=FAILED)
            self.assertIn("cannot read no such file", err)
        out, _ = self.run_tool("sig", damaged, document, status=FAILED)
        self.assertEqual(self.signatures(document), out.split()[-len(self.signatures(document)) :])

    # The text.

    def test_text_is_the_canonical_form(self):
        document = self.write("a.txt", "so\u00adft na\u0308me \u201cquoted\u201d ".encode("utf-16"))
        out, _ = self.run_tool("text", document, status=DONE)
        self.assertEqual('soft n\u00e4me "quoted"', out.strip())

    def test_texts_of_several_members_are_headed_by_their_names(self):
        archive = self.write("a.zip", zipped([("x", "one"), ("y", "two"), ("z", b"\0\1\2" * 99)]))
        out, err = self.run_tool("text", archive, status=DONE)
        self.assertEqual(f"==> {archive}!x <==\none\n\n==> {archive}!y <==\ntwo\n", out)
        self.assertIn(f"{archive}!z is no text", err)
        single = self.write("b.zip", zipped([("x", "one")]))
        self.assertEqual("one\n", self.run_tool("text", single, status=DONE)[0])

    def test_text_of_standard_input(self):
        out, _ = self.run_tool("text", "-", stdin=b"some words", status=DONE)
        self.assertEqual("some words\n", out)

    def test_text_does_nothing_to_a_terminal(self):
        document = self.write("a.txt", "red \x1b[31m bell \x07 c1 \u009b31m end")
        raw, _ = self.run_tool("text", document, status=DONE)
        tool = self.terminal(f"'{TESSERA}' text '{document}'; sleep 60")
        screen = tool.wait_for("end")
        self.assertIn("red ?[31m bell ? c1 ?31m end", screen)
        self.assertIn("\x1b[31m", raw, "what is not a terminal gets it as it is")


if __name__ == "__main__":
    unittest.main()
