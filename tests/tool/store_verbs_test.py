"""list, delete, stats, verify, rebuild and export: all that looks at or after an index."""

import csv
import fcntl
import io
import json
import os
import subprocess
import unittest

from support import ARRIVING, DONE, FAILED, TESSERA, ToolTest, text


class StoreVerbsTest(ToolTest):
    def json_lines(self, *arguments, status=DONE):
        out, _ = self.run_tool(*arguments, "--json", status=status)
        return [json.loads(line) for line in out.splitlines()]

    def three_documents(self):
        """a.txt with the label x; b.txt and sub/c.txt without."""
        a = self.write("a.txt", text(1))
        self.run_tool("index", "--label", "x", a, status=DONE)
        b, c = self.write("b.txt", text(2)), self.write("sub/c.txt", text(3))
        self.index(b, c)
        return a, b, c

    # Without an index.

    def test_every_verb_says_how_to_make_an_index_when_there_is_none(self):
        for arguments in (
            ["list"],
            ["delete", "a"],
            ["stats"],
            ["verify"],
            ["rebuild"],
            ["rebuild", "--from-catalogue"],
            ["export"],
            ["export", "tables"],
            ["common", "list"],
            ["common", "suggest"],
            ["common", "remove", "a"],
        ):
            out, err = self.run_tool(*arguments, status=FAILED)
            self.assertEqual("", out)
            self.assertIn(f"there is no index in {self.home}", err)
            self.assertIn("tessera index PATH", err)
        self.assertFalse(self.home.exists())

    # list

    def test_list_shows_documents_below_paths_and_with_labels(self):
        a, b, c = self.three_documents()

        def names(*arguments):
            return [line["path"] for line in self.json_lines("list", *arguments)]

        self.assertEqual([str(a), str(b), str(c)], names())
        self.assertEqual([str(b)], names(b))
        self.assertEqual([str(c)], names(self.docs / "sub"))
        self.assertEqual([str(a)], names("--label", "x"))
        self.assertEqual([str(a), str(b), str(c)], names("docs"))
        self.assertEqual([], names(self.docs / "su"))
        self.assertEqual([], names("--label", "y"))

    def test_list_tells_all_of_a_document(self):
        document = self.write("a.txt", text(1))
        self.run_tool("index", "--label", "x", "--selection", "sparse", document, status=DONE)
        (line,) = self.json_lines("list")
        self.assertRegex(line.pop("indexed_at"), r"^20\d\d-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
        self.assertGreater(line.pop("signatures"), 10)
        sha256 = subprocess.run(["sha256sum", document], capture_output=True, text=True).stdout
        self.assertEqual(
            {
                "kind": "document",
                "id": 1,
                "path": str(document),
                "member": "",
                "size": len(text(1)),
                "sha256": sha256.split()[0],
                "type": "text/plain",
                "label": "x",
                "selection": "sparse",
            },
            line,
        )
        out, _ = self.run_tool("list", status=DONE)
        self.assertRegex(out, rf"\n +1 +\d+ +{len(text(1))}  \[x\] {document}\n")

    def test_names_come_out_without_control_characters_and_broken_utf8(self):
        name = os.path.join(os.fsencode(self.docs), b"\x1b[31m\xff\xc3\xa9\\\n\xe2\x80\xae.txt")
        with open(name, "wb") as file:
            file.write(text(1).encode())
        self.index()
        shown = str(self.docs) + "/\\x1b[31m\\xffé\\\\\\x0a\\xe2\\x80\\xae.txt"
        self.assertEqual(shown, self.json_lines("list")[0]["path"])
        self.assertIn(shown, self.run_tool("list", status=DONE)[0])
        self.assertIn(shown, self.run_tool("export", status=DONE)[0])

    # delete

    def test_deleted_documents_are_not_found_any_more(self):
        a, b, c = self.three_documents()
        out, _ = self.run_tool("delete", a, status=DONE)
        self.assertEqual("1 document removed\n", out)
        self.assertEqual([], self.matches(a, status=DONE))
        self.assertEqual([(2, str(b))], self.matches(b))
        self.assertEqual(2, len(self.rows()))
        self.run_tool("verify", status=DONE)

    def test_delete_takes_directories_ids_labels_and_files_that_are_gone(self):
        a, b, c = self.three_documents()
        c.unlink()
        self.run_tool("delete", "docs/sub", status=DONE)
        self.assertEqual([str(a), str(b)], [os.fsdecode(row[1]) for row in self.rows()])
        self.run_tool("delete", "--id", "2", status=DONE)
        self.assertEqual([str(a)], [os.fsdecode(row[1]) for row in self.rows()])
        self.run_tool("delete", "--label", "x", status=DONE)
        self.assertEqual([], self.rows())
        self.assertEqual([], self.matches(a, status=DONE))

    def test_delete_of_nothing_is_told_and_the_rest_is_deleted(self):
        a, b, c = self.three_documents()
        arguments = ["no such file", "--id", "99", "--label", "y", "--id", "1"]
        out, err = self.run_tool("delete", *arguments, status=FAILED)
        self.assertIn("1 document removed", out)
        self.assertIn("no document no such file", err)
        self.assertIn("no document with the file ID 99", err)
        self.assertIn("no document with the label y", err)
        self.assertEqual([2, 3], [row[0] for row in self.rows()])

    def test_deleted_document_is_indexed_again_when_its_file_is(self):
        document = self.write("a.txt", text(1))
        self.index()
        self.run_tool("delete", "--id", "1", status=DONE)
        self.index()
        self.assertEqual([(2, os.fsencode(document), 0)], self.rows())
        self.assertEqual([(2, str(document))], self.matches(document))

    # stats

    def test_stats_count_by_type_label_and_selection(self):
        a, b, c = self.three_documents()
        sparse = self.write("s.txt", text(4))
        self.run_tool("index", "--selection", "sparse", sparse, status=DONE)
        (figures,) = self.json_lines("stats")
        lines = self.json_lines("list")
        self.assertEqual(4, figures["files"])
        self.assertEqual(4, figures["all"]["documents"])
        self.assertEqual(sum(line["size"] for line in lines), figures["all"]["bytes"])
        self.assertEqual(sum(line["signatures"] for line in lines), figures["all"]["signatures"])
        self.assertEqual({"": 3, "x": 1}, self.documents(figures["by_label"]))
        self.assertEqual({"full": 3, "sparse": 1}, self.documents(figures["by_selection"]))
        self.assertEqual({"text/plain": 4}, self.documents(figures["by_type"]))
        table = self.home / "sig_index_DB" / "search_table.stbl"
        self.assertEqual(table.stat().st_size, figures["table_bytes"])
        self.assertEqual((4, 2**31 - 2), (figures["last_id"], figures["id_limit"]))
        out, _ = self.run_tool("stats", status=DONE)
        self.assertRegex(out, r"\n  label x +1 ")
        self.assertIn("% of its limit", out)

    def documents(self, sums):
        return {name: figures["documents"] for name, figures in sums.items()}

    # verify

    def test_whole_index_is_verified(self):
        self.three_documents()
        out, err = self.run_tool("verify", status=DONE)
        self.assertIn("whole and agrees with its catalogue", out)
        self.assertEqual("", err)
        self.assertNotIn("error", {line["severity"] for line in self.json_lines("verify")})

    def test_verify_changes_nothing(self):
        self.three_documents()

        def content():
            files = sorted(self.home.rglob("*"))
            return [(file, file.read_bytes()) for file in files if file.is_file()]

        before = content()
        self.run_tool("verify", status=DONE)
        self.assertEqual(before, content())

    def test_verify_tells_damaged_trees_and_tables(self):
        self.three_documents()
        for pattern in ("*.stbl", "*.fidt.l.blk"):
            (file,) = (self.home / "sig_index_DB").glob(pattern)
            whole = file.read_bytes()
            damaged = bytearray(whole)
            damaged[len(damaged) // 2 if pattern == "*.stbl" else 70000] ^= 1
            file.write_bytes(damaged)
            out, err = self.run_tool("verify", status=FAILED)
            self.assertIn("error: ", out)
            self.assertIn("the index is damaged", err)
            severities = [line["severity"] for line in self.json_lines("verify", status=FAILED)]
            self.assertIn("error", severities)
            file.write_bytes(whole)
        self.run_tool("verify", status=DONE)

    def test_verify_tells_documents_that_the_index_and_the_catalogue_do_not_share(self):
        self.three_documents()
        self.change_catalogue("DELETE FROM documents WHERE id = 1")
        self.change_catalogue("DELETE FROM lists WHERE id = 1")
        out, _ = self.run_tool("verify", status=FAILED)
        self.assertRegex(out, r"error: document 1 has \d+ signatures .* catalogue does not know")
        self.run_tool("rebuild", "--from-catalogue", status=DONE)
        self.run_tool("verify", status=DONE)

        self.change_catalogue("UPDATE documents SET id = 7 WHERE id = 2")
        self.change_catalogue("UPDATE lists SET id = 7 WHERE id = 2")
        out, _ = self.run_tool("verify", status=FAILED)
        self.assertRegex(out, r"error: document 2 has \d+ signatures")
        self.assertRegex(out, r"error: document 7 lacks \d+ signatures")

    def test_verify_tells_a_damaged_catalogue(self):
        self.three_documents()
        with self.catalogue() as database, database:
            database.execute("PRAGMA writable_schema = ON")
            database.execute("UPDATE sqlite_schema SET rootpage = 3 WHERE name = 'lists'")
        out, err = self.run_tool("verify", status=FAILED)
        self.assertIn("atalogue", out + err)

    def test_verify_and_changes_wait_for_nobody(self):
        a, b, c = self.three_documents()
        home = os.open(self.home, os.O_RDONLY)
        self.addCleanup(os.close, home)
        fcntl.flock(home, fcntl.LOCK_EX)
        for arguments in (
            ["verify"],
            ["delete", a],
            ["rebuild"],
            ["rebuild", "--from-catalogue"],
            ["common", "add", a],
            ["common", "remove", a],
        ):
            _, err = self.run_tool(*arguments, status=FAILED)
            self.assertIn("in use by another process", err)
        self.run_tool("list", status=DONE)
        self.run_tool("stats", status=DONE)
        self.run_tool("export", "tables", status=DONE)

    # rebuild

    def test_lost_search_tables_are_made_anew(self):
        a, b, c = self.three_documents()
        for table in (self.home / "sig_index_DB").glob("*.?meta"):
            table.write_bytes(b"")
        _, err = self.run_tool("match", a, status=FAILED)
        self.assertIn("tessera rebuild", err)
        self.run_tool("rebuild", status=DONE)
        for document in (a, b, c):
            self.assertEqual([(2, str(document))], self.matches(document))
        self.run_tool("verify", status=DONE)

    def test_damaged_index_is_made_anew_from_the_catalogue_without_the_documents(self):
        a, b, c = self.three_documents()
        queries = [self.write("../query.txt", text(1)), *(self.write(f"../{i}", text(i)) for i in (2, 3))]
        ids = self.rows()
        for document in (a, b, c):
            document.unlink()
        for file in (self.home / "sig_index_DB").glob("*.blk"):
            file.write_bytes(b"nothing of use")
        _, err = self.run_tool("rebuild", status=FAILED)
        self.assertIn("tessera rebuild --from-catalogue", err)
        self.run_tool("rebuild", "--from-catalogue", status=DONE)
        for query, document in zip(queries, (a, b, c)):
            self.assertEqual([(2, str(document))], self.matches(query))
        self.assertEqual(ids, self.rows())
        self.assertEqual(
            {"catalogue.sqlite", "index_sys_config.txt", "sig_index_DB"}, set(os.listdir(self.home))
        )
        self.run_tool("verify", status=DONE)

    def test_index_that_is_lost_altogether_is_made_anew_from_the_catalogue(self):
        a, b, c = self.three_documents()
        for file in (self.home / "sig_index_DB").iterdir():
            file.unlink()
        (self.home / "sig_index_DB").rmdir()
        self.run_tool("rebuild", "--from-catalogue", status=DONE)
        self.assertEqual([(2, str(b))], self.matches(b))
        self.run_tool("verify", status=DONE)

    # export

    def test_catalogue_is_exported_as_csv_and_json_with_the_same_content(self):
        self.write('with, comma "and quotes".txt', text(5))
        self.three_documents()
        self.index()
        out, _ = self.run_tool("export", "catalogue", status=DONE)
        rows = list(csv.DictReader(io.StringIO(out, newline="")))
        lines = self.json_lines("export", "catalogue")
        self.assertEqual(4, len(lines))
        for line in lines:
            del line["kind"]
        self.assertEqual([{k: str(v) for k, v in line.items()} for line in lines], rows)

    def test_tables_are_exported_with_every_signature_of_every_document(self):
        a, b, c = self.three_documents()
        out, _ = self.run_tool("export", "tables", status=DONE)
        rows = list(csv.DictReader(io.StringIO(out, newline="")))
        for number, document in enumerate((a, b, c), 1):
            held = sorted(row["signature"] for row in rows if row["id"] == str(number))
            self.assertEqual(self.run_tool("sig", document, status=DONE)[0].split(), held)
        lines = self.json_lines("export", "tables")
        self.assertEqual([{"signature": r["signature"], "id": int(r["id"])} for r in rows], lines)

    def test_export_that_cannot_be_written_is_an_error(self):
        self.three_documents()
        with open("/dev/full", "w") as full:
            done = subprocess.run(
                [TESSERA, "export", "tables"],
                env=self.environment(),
                stdout=full,
                stderr=subprocess.PIPE,
                text=True,
            )
        self.assertEqual(FAILED, done.returncode)
        self.assertIn("cannot write", done.stderr)


if __name__ == "__main__":
    unittest.main()
