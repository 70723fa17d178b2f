"""What matches what, and what becomes of files that cannot be inspected."""

import fcntl
import gzip
import json
import os
import random
import signal
import unittest

from support import DONE, FAILED, MATCHED, NOT_INSPECTED, ToolTest, text, wait_for, zipped


class MatchTest(ToolTest):
    def records(self, *arguments, status=MATCHED, **options):
        out, _ = self.run_tool("match", "--json", *arguments, status=status, **options)
        return [json.loads(line) for line in out.splitlines()]

    def signatures(self, file):
        return self.run_tool("sig", file, status=DONE)[0].split()

    # What matches.

    def test_document_is_found_by_name_whole_in_part_and_rewrapped(self):
        document = self.write("deep/er/a.txt", text(1))
        self.write("b.txt", text(2))
        self.index()
        whole = text(1)
        found = [(2, str(document))]
        self.assertEqual(found, self.matches(document))
        part = whole[len(whole) // 2 : len(whole) // 2 + len(whole) // 10]
        self.assertEqual(found, self.matches(self.write("../part.txt", part)))
        rewrapped = " -- ".join(whole.replace(".", "!").split())
        self.assertEqual(found, self.matches(self.write("../rewrapped.txt", rewrapped)))
        inside = text(3, 300) + part + text(4, 300)
        self.assertEqual(found, self.matches(self.write("../inside.txt", inside)))

    def test_unrelated_text_matches_nothing(self):
        self.write("a.txt", text(1))
        self.index()
        query = self.write("../query.txt", text(2))
        out, err = self.run_tool("match", query, status=DONE)
        self.assertEqual("1 file, 1 document: 0 matched\n", out)
        self.assertEqual("", err)

    def test_queries_are_told_in_their_order_and_one_match_decides_the_status(self):
        documents = [self.write(f"{n}.txt", text(n, 300)) for n in range(20)]
        self.index()
        other = self.write("../other.txt", text(100))
        short = self.write("../short.txt", "Only a few words.\n")
        queries = [other, *reversed(documents), short]
        out, _ = self.run_tool("match", "-j", "7", *queries, status=MATCHED)
        blocks = [line for line in out.splitlines() if not line.startswith("  ")]
        self.assertEqual([str(d) for d in reversed(documents)], blocks[:-1])
        self.assertEqual(
            "22 files, 22 documents: 20 matched, 1 too short to match", blocks[-1]
        )

    def test_levels_below_the_lowest_wanted_are_not_told(self):
        document = self.write("a.txt", text(1))
        self.index()
        # One or two signatures of very many are a trace.
        trace = text(2, 20000) + text(1)[2000:2300] + text(3, 20000)
        query = self.write("../trace.txt", trace)
        shared = set(self.signatures(document)) & set(self.signatures(query))
        self.assertIn(len(shared), (1, 2), "this text has to share one or two signatures")
        self.assertEqual([], self.matches(query, status=DONE))
        self.assertEqual([(0, str(document))], self.matches(query, options=["--min-level", "0"]))
        self.assertEqual([], self.matches(query, status=DONE, options=["--min-level", "2"]))

    def test_several_documents_are_told_highest_level_first_with_their_hits(self):
        much = self.write("much.txt", text(1))
        little = self.write("little.txt", text(2))
        self.index(little, much)
        query = self.write("../query.txt", text(1) + text(2)[:750])
        self.assertEqual([(2, str(much)), (1, str(little))], self.matches(query))
        asked = set(self.signatures(query))
        record = self.records(query)[0]
        self.assertEqual(len(asked), record["signatures"])
        hits = [len(asked & set(self.signatures(document))) for document in (much, little)]
        self.assertEqual(hits, [match["hits"] for match in record["matches"]])

    def test_compressed_documents_count_by_their_content(self):
        document = self.write("a.txt.gz", gzip.compress(text(1).encode()))
        self.index()
        plain = self.write("../plain.txt", text(1))
        for query in (plain, document):
            ((level, name),) = self.matches(query)
            self.assertEqual(2, level)
            self.assertTrue(name.startswith(f"{document}!"), name)

    def test_members_are_queries_of_their_own(self):
        document = self.write("a.txt", text(1))
        self.index()
        inner = zipped([("deep/copy.txt", text(1)[3000:9000]), ("other.txt", text(2))])
        outer = self.write("../outer.zip", zipped([("inner.zip", inner), ("tiny.txt", "tiny")]))
        records = self.records(outer)
        verdicts = {record["name"]: record["verdict"] for record in records[:-1]}
        self.assertEqual(
            {
                f"{outer}": "container",
                f"{outer}!inner.zip": "container",
                f"{outer}!inner.zip!deep/copy.txt": "match",
                f"{outer}!inner.zip!other.txt": "no_match",
                f"{outer}!tiny.txt": "too_short",
            },
            verdicts,
        )
        out, _ = self.run_tool("match", outer, status=MATCHED)
        self.assertTrue(
            out.startswith(f"{outer}!inner.zip!deep/copy.txt\n  level 2  {document}  ("), out
        )

    def test_documents_of_a_sparse_index_are_found_with_their_labels(self):
        document = self.write("a.txt", text(1))
        self.index("--selection", "sparse", "--label", "top secret", self.docs)
        out, _ = self.run_tool("match", document, status=MATCHED)
        self.assertRegex(out, r"  level 2  .*/a\.txt  \(\d+ of \d+ signatures\)  \[top secret\]\n")
        self.assertEqual("top secret", self.records(document)[0]["matches"][0]["label"])

    def test_common_text_counts_for_nothing(self):
        letterhead = text(7, 600)
        self.write("a.txt", letterhead + text(1))
        self.index()
        query = self.write("../query.txt", letterhead + text(2))
        self.assertEqual(1, len(self.matches(query)))
        before = self.records(query)[0]["signatures"]
        self.run_tool("common", "add", self.write("../head.txt", letterhead), status=DONE)
        record = self.records(query, status=DONE)[0]
        self.assertEqual("no_match", record["verdict"])
        self.assertGreater(record["common_signatures"], 10)
        self.assertEqual(before, record["signatures"] + record["common_signatures"])
        nothing_else = self.write("../only.txt", letterhead)
        self.assertEqual("no_match", self.records(nothing_else, status=DONE)[0]["verdict"])

    def test_binary_documents_are_matched_as_wholes(self):
        content = bytes(range(256)) * 400
        document = self.write("a.bin", content)
        self.index()
        self.assertEqual([(2, str(document))], self.matches(self.write("../copy", content)))
        other = b"\0" + random.Random(1).randbytes(100_000)
        self.assertEqual([], self.matches(self.write("../other", other), status=DONE))

    # Standard input.

    def test_text_with_control_characters_in_it_is_found(self):
        document = self.write("a.txt", text(1))
        self.index()
        words = text(1).encode().split()
        query = self.write("../query", b"\1".join(words))
        out, _ = self.run_tool("match", query, status=MATCHED)
        self.assertIn(f"{query}!text\n  level 2  {document}", out)
        self.assertIn("1 file, 2 documents: 1 matched, 1 as bytes only", out)
        bytes_only, inside, _ = self.records(query)
        self.assertEqual(("binary", "text"), (bytes_only["form"], inside["form"]))

    def test_standard_input_is_a_document(self):
        document = self.write("a.txt", text(1))
        self.index()
        out, _ = self.run_tool("match", "-", stdin=text(1).encode(), status=MATCHED)
        self.assertTrue(out.startswith(f"-\n  level 2  {document}  ("), out)
        archive = zipped([("copy.txt", text(1))])
        records = self.records("-", "-", stdin=archive)
        self.assertEqual(["-", "-!copy.txt"], [r["name"] for r in records[:-1]])

    def test_standard_input_leaves_no_file_behind_and_has_a_bound(self):
        self.index(self.write("a.txt", text(1)))
        before = set(self.dir.rglob("*"))
        query = text(1).encode() * 100
        options = ["--total-limit", "1M", "-"]
        record = self.records(*options, stdin=query, status=NOT_INSPECTED)[0]
        self.assertEqual("not_inspected", record["verdict"])
        self.assertEqual("size-limit", record["not_inspected"]["reason"])
        self.assertEqual(before, set(self.dir.rglob("*")))

    # What is not inspected.

    def damaged(self):
        return self.write("../damaged.gz", gzip.compress(text(2).encode())[:500])

    def test_what_is_not_inspected_is_told_and_has_a_status_of_its_own(self):
        document = self.write("a.txt", text(1))
        self.index()
        damaged = self.damaged()
        for options, files, status in (
            ([], [damaged], NOT_INSPECTED),
            (["--lenient"], [damaged], DONE),
            ([], [damaged, document], MATCHED),
            (["--lenient"], [damaged, document], MATCHED),
            ([], [damaged, "no such file"], FAILED),
        ):
            for report in ([], ["--json"], ["--sarif"]):
                out, _ = self.run_tool("match", *report, *options, *files, status=status)
                self.assertIn("damaged", out)
                self.assertIn(str(damaged), out)
        out, _ = self.run_tool("match", damaged, status=NOT_INSPECTED)
        self.assertIn("1 not inspected", out)
        self.assertRegex(out, r"not (wholly )?inspected: damaged")

    def test_limits_can_be_changed_and_are_told_when_reached(self):
        self.index(self.write("a.txt", text(1)))
        nested = zipped([("in.zip", zipped([("in.zip", zipped([("a.txt", text(1))]))]))])
        many = zipped([(f"{n}.txt", f"{n}") for n in range(20)])
        large = zipped([("a.txt", text(1))])
        swelling = zipped([("a.txt", random.Random(1).randbytes(10_000).hex() * 150)])
        for content, option, reason, otherwise in (
            (nested, ["--depth-limit", "2"], "depth-limit", MATCHED),
            (many, ["--member-limit", "10"], "member-limit", DONE),
            (large, ["--size-limit", "10k"], "size-limit", MATCHED),
            (large, ["--total-limit", "10k"], "size-limit", MATCHED),
            (swelling, ["--ratio-limit", "5"], "ratio-limit", DONE),
        ):
            query = self.write("../query.zip", content)
            out, _ = self.run_tool("match", *option, query, status=NOT_INSPECTED)
            self.assertIn(f"inspected: {reason}", out)
            out, _ = self.run_tool("match", query, status=otherwise)
            self.assertNotIn("inspected", out)

    def test_files_that_cannot_be_read_are_errors_and_the_run_goes_on(self):
        document = self.write("a.txt", text(1))
        self.index()
        out, err = self.run_tool("match", "no such file", document, status=FAILED)
        self.assertIn(f"level 2  {document}", out)
        self.assertIn("cannot read no such file: No such file or directory", err)
        records = self.records("no such file", document, status=FAILED)
        self.assertEqual(["problem", "document", "summary"], [r["kind"] for r in records])
        self.assertEqual((1, 2), (records[2]["problems"], records[2]["status"]))

    @unittest.skipIf(os.geteuid() == 0, "root may read everything")
    def test_files_without_permission_are_errors_and_not_inspected(self):
        document = self.write("a.txt", text(1))
        self.index()
        document.chmod(0)
        records = self.records(document, status=FAILED)
        self.assertEqual("unreadable", records[0]["not_inspected"]["reason"])

    # An index that cannot be used.

    def test_match_without_an_index_says_how_to_make_one(self):
        query = self.write("a.txt", text(1))
        for prepare in (lambda: None, self.home.mkdir):
            prepare()
            out, err = self.run_tool("match", query, status=FAILED)
            self.assertEqual("", out)
            self.assertIn(f"there is no index in {self.home}", err)
            self.assertIn("tessera index PATH", err)
        self.assertEqual([], list(self.home.iterdir()), "a match leaves nothing behind")

    def test_while_the_first_run_is_at_work_nothing_is_indexed_yet(self):
        document = self.write("a.txt", text(1))
        index = self.home / "sig_index_DB"
        index.mkdir(parents=True)
        reader = os.open(index, os.O_RDONLY)
        self.addCleanup(os.close, reader)
        fcntl.flock(reader, fcntl.LOCK_SH)  # so the run waits before it writes the tables
        run = self.start_tool("index", self.docs)
        wait_for((index / "generation").exists)
        for verb in (["match", document], ["export", "tables"]):
            _, err = self.run_tool(*verb, status=FAILED)
            self.assertIn("nothing is indexed in", err)
            self.assertIn("the first run is at work", err)
            self.assertNotIn("rebuild", err)
        os.kill(run.pid, signal.SIGKILL)
        run.wait(60)
        fcntl.flock(reader, fcntl.LOCK_UN)
        self.run_tool("match", document, status=FAILED)
        self.index()
        self.assertEqual([(2, str(document))], self.matches(document))

    def test_damaged_search_tables_are_told_and_can_be_made_anew(self):
        document = self.write("a.txt", text(1))
        self.index()
        for table in (self.home / "sig_index_DB").glob("*.?meta"):
            table.write_bytes(b"")
        _, err = self.run_tool("match", document, status=FAILED)
        self.assertIn("search tables", err)
        self.assertIn("tessera rebuild", err)
        self.run_tool("rebuild", status=DONE)
        self.assertEqual([(2, str(document))], self.matches(document))

    def test_index_made_with_another_form_of_text_is_refused(self):
        document = self.write("a.txt", text(1))
        self.index()
        self.change_catalogue(
            "UPDATE meta SET value = 'tessera-text-0' WHERE key = 'text_form'"
        )
        out, err = self.run_tool("match", document, status=FAILED)
        self.assertEqual("", out)
        self.assertIn("tessera-text-0", err)

    # The passages.

    def passages(self, query, **options):
        (record, _) = self.records("--explain", query, **options)
        return [(match["name"], match["passages"]) for match in record["matches"]]

    def test_explain_shows_the_passages_that_are_shared(self):
        first, second = self.write("a.txt", text(1)), self.write("b.txt", text(2))
        self.index()
        one, two = text(1)[3000:5000], text(2)[4000:6000]
        content = text(5, 300) + one + text(6, 300) + two + text(7, 300)
        query = self.write("../query.txt", content)
        canonical, _ = self.run_tool("text", query, status=DONE)
        canonical = canonical.encode()
        found = dict(self.passages(query))
        self.assertEqual({str(first), str(second)}, set(found))
        for document, shared in ((first, one), (second, two)):
            begin = content.index(shared)
            passages = found[str(document)]
            self.assertGreater(passages["bytes"], len(shared) / 2)
            self.assertEqual(passages["count"], len(passages["longest"]))
            for passage in passages["longest"]:
                self.assertLessEqual(begin, passage["begin"])
                self.assertLessEqual(passage["end"], begin + len(shared))
                there = canonical[passage["begin"] : passage["end"]].decode()
                self.assertTrue(there.startswith(passage["text"]))
                self.assertIn(passage["before"] + passage["text"], content)
                self.assertLessEqual(len(passage["before"].encode()), 40)

    def test_explain_is_bounded_in_number_and_length(self):
        self.write("a.txt", text(1, 20000))
        self.index()
        whole = text(1, 20000)
        pieces = [whole[n * 4000 : n * 4000 + 600] + text(50 + n, 100) for n in range(25)]
        query = self.write("../query.txt", "".join(pieces))
        ((_, passages),) = self.passages(query)
        self.assertGreater(passages["count"], 15)
        self.assertEqual(10, len(passages["longest"]))
        begins = [passage["begin"] for passage in passages["longest"]]
        self.assertEqual(sorted(begins), begins)
        ((_, passages),) = self.passages(self.write("../whole.txt", whole))
        self.assertGreater(passages["bytes"], len(whole) / 2)
        for passage in passages["longest"]:
            self.assertLessEqual(len(passage["text"].encode()), 500)
        out, _ = self.run_tool("match", "--explain", query, status=MATCHED)
        self.assertRegex(out, r"    and \d+ passages? shorter, \d+ bytes in all\n")

    def test_explain_cuts_between_characters(self):
        words = " ".join(f"\u00e4{n}\u00f6{n * n}\u4e2d\u6587{n * 7919}" for n in range(3000))
        self.write("a.txt", words)
        self.index()
        query = self.write("../query.txt", text(5, 100) + words[5000:9000] + text(6, 100))
        ((_, passages),) = self.passages(query)
        self.assertGreater(passages["count"], 0)
        for passage in passages["longest"]:
            self.assertNotIn("\ufffd", passage["before"] + passage["text"] + passage["after"])

    def test_explain_of_what_has_no_text_shows_no_passages(self):
        content = bytes(range(256)) * 400
        self.write("a.bin", content)
        self.index()
        record = self.records("--explain", self.docs / "a.bin")[0]
        self.assertNotIn("passages", record["matches"][0])


if __name__ == "__main__":
    unittest.main()
