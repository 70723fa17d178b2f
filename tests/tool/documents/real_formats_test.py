"""The same texts in every format and encoding find each other through the built command.

make_documents.py has made the files, by programs that know nothing of this one. What
is found of each is printed as a table, and written to DOCUMENTS/recall.md.

    /usr/bin/python3 tests/tool/documents/make_documents.py build/linux-release/documents
    TESSERA=build/linux-release/bin/tessera DOCUMENTS=build/linux-release/documents \\
        python3 tests/tool/documents/real_formats_test.py
"""

import concurrent.futures
import difflib
import os
import pathlib
import re
import tempfile
import unicodedata
import unittest

from command import DOCUMENTS, DONE, MATCHED, NOT_INSPECTED, documents, run

TEXTS = {path.stem: path for path in (pathlib.Path(__file__).parent / "texts").glob("*.txt")}


def words(text):
    return re.findall(r"\w+", unicodedata.normalize("NFKC", text))


def best(verdicts, path, language):
    """The strongest match of a document, or of a member of it, with the text of a language."""
    strongest, of = (-1, 0), 1
    for verdict in verdicts:
        if verdict.name == path or verdict.name.startswith(f"{path}!"):
            for name, found in verdict.matches.items():
                if f"/{language}" in name and found > strongest:
                    strongest, of = found, verdict.signatures
    return (*strongest, of)


class RealFormats(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        scratch = tempfile.TemporaryDirectory(prefix="tessera-formats-")
        self.addCleanup(scratch.cleanup)
        self.dir = pathlib.Path(scratch.name).resolve()
        self.home = self.dir / "home"

    def index(self, *arguments, status=DONE):
        done = run("index", *arguments, home=self.home)
        self.assertEqual(status, done.status, done.err)
        return done

    def match(self, *arguments, status=None):
        done = run("match", "--json", *arguments, home=self.home)
        if status is not None:
            self.assertEqual(status, done.status, done.err)
        return done.verdicts()

    def run_each(self, verb, entries, *options):
        """Runs a verb for each document by itself: path below DOCUMENTS -> run."""

        def one(entry):
            return run(verb, *options, DOCUMENTS / entry["path"], home=self.home)

        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            return dict(zip([entry["path"] for entry in entries], pool.map(one, entries)))

    def file_list(self, paths):
        names = self.dir / "names"
        names.write_bytes(b"\0".join(str(path).encode() for path in paths))
        return ["-0", "--files-from", names]

    def test_every_format_and_encoding_finds_the_text(self):
        """One file of each text is indexed; all others find it at level 2."""
        self.index(*(DOCUMENTS / f"office/{language}-office-letter.docx" for language in TEXTS))
        entries = documents("format", "encoding", "archive")
        paths = [DOCUMENTS / entry["path"] for entry in entries]
        verdicts = self.match(*self.file_list(paths), status=MATCHED)
        rows, missed = [], []
        for entry in entries:
            for language in entry["languages"]:
                level, hits, of = best(verdicts, str(DOCUMENTS / entry["path"]), language)
                rows.append((entry["kind"], entry["format"], entry["by"], language, level, hits, of))
                if level < 2:
                    missed.append(f"{entry['path']} ({language}): level {level}, {hits} of {of}")
        self.print_table(rows)
        self.assertEqual([], missed)

    def print_table(self, rows):
        found = {}
        for _, format_, by, language, level, hits, of in sorted(rows):
            found.setdefault((format_, by), {})[language] = f"{level}: {100 * hits // of} %"
        languages = sorted(TEXTS)
        lines = [
            "| format | made by | " + " | ".join(languages) + " |",
            "|---|---|" + "---|" * len(languages),
        ]
        for (format_, by), cells in found.items():
            row = [format_, by, *(cells.get(language, "") for language in languages)]
            lines.append("| " + " | ".join(row) + " |")
        (DOCUMENTS / "recall.md").write_text("\n".join(lines) + "\n", encoding="utf-8")
        print("\n".join(lines))

    def indexed_formats_are_found(self, selection):
        entries = documents("format", "encoding")
        paths = [DOCUMENTS / entry["path"] for entry in entries]
        self.index(f"--selection={selection}", *self.file_list(paths))
        verdicts = self.match(*TEXTS.values(), status=MATCHED)
        missed = []
        for entry in entries:
            for language in entry["languages"]:
                (text,) = [v for v in verdicts if v.name.endswith(f"/{language}.txt")]
                path = str(DOCUMENTS / entry["path"])
                levels = [
                    level
                    for name, (level, _) in text.matches.items()
                    if name == path or name.startswith(f"{path}!")
                ]
                if max(levels, default=-1) < 2:
                    missed.append(f"{entry['path']} ({language}): {levels}")
        self.assertEqual([], missed)

    def test_the_text_finds_every_format_and_encoding(self):
        self.indexed_formats_are_found("full")

    def test_the_text_finds_every_format_and_encoding_in_a_sparse_index(self):
        self.indexed_formats_are_found("sparse")

    def test_texts_do_not_find_each_other(self):
        self.index(TEXTS["english"])
        for verdict in self.match(TEXTS["german"], TEXTS["russian"], status=DONE):
            self.assertEqual({}, verdict.matches)

    def test_text_verb_has_the_words_in_their_order(self):
        wanted = {language: words(path.read_text("utf-8")) for language, path in TEXTS.items()}
        runs = self.run_each("text", documents("format", "encoding"))
        poor = []
        for entry in documents("format", "encoding"):
            if entry["format"] == "eml" or len(entry["languages"]) > 1:
                continue  # headers and attachments; a text among others
            done = runs[entry["path"]]
            self.assertEqual(DONE, done.status, (entry["path"], done.err))
            (language,) = entry["languages"]
            matcher = difflib.SequenceMatcher(None, wanted[language], words(done.out), False)
            same = sum(block.size for block in matcher.get_matching_blocks())
            if same < 0.97 * len(wanted[language]):
                poor.append(f"{entry['path']}: {same} of {len(wanted[language])} words")
        self.assertEqual([], poor)

    def test_members_are_documents_of_their_own(self):
        self.index(*(DOCUMENTS / f"office/{language}-office-letter.docx" for language in TEXTS))
        entries = [entry for entry in documents("archive", "format") if "members" in entry]
        self.assertGreater(len(entries), 15)
        paths = [DOCUMENTS / entry["path"] for entry in entries]
        found = {v.name: v for v in self.match(*self.file_list(paths), status=MATCHED)}
        missed = []
        for entry in entries:
            for member, language in entry["members"].items():
                name = f"{DOCUMENTS / entry['path']}!{member}"
                indexed = str(DOCUMENTS / f"office/{language}-office-letter.docx")
                level = found[name].matches.get(indexed, (-1, 0))[0] if name in found else None
                if level != 2:
                    missed.append(f"{entry['path']}!{member}: {level}")
        self.assertEqual([], missed)

    def test_encrypted_documents_are_not_inspected(self):
        self.index(TEXTS["english"])
        wrong, runs = [], self.run_each("match", documents("encrypted"), "--json")
        for entry in documents("encrypted"):
            done = runs[entry["path"]]
            reasons = {verdict.reason for verdict in done.verdicts()} - {""}
            status = MATCHED if entry.get("members") else NOT_INSPECTED
            if (done.status, reasons) != (status, {"encrypted"}):
                wrong.append(f"{entry['path']}: status {done.status}, {reasons}, {done.err}")
        self.assertEqual([], wrong)

    def test_lenient_accepts_what_is_not_inspected(self):
        self.index(TEXTS["english"])
        locked = DOCUMENTS / "archives/password.zip"
        self.assertEqual(NOT_INSPECTED, run("match", locked, home=self.home).status)
        self.assertEqual(DONE, run("match", "--lenient", locked, home=self.home).status)

    def test_damaged_documents_are_never_clean(self):
        """Some damage does not keep a text from being read; then it must be found."""
        self.index(*TEXTS.values())
        wrong, runs = [], self.run_each("match", documents("damaged"), "--json")
        for entry in documents("damaged"):
            done = runs[entry["path"]]
            reasons = {verdict.reason for verdict in done.verdicts()} - {""}
            found = any(verdict.matches for verdict in done.verdicts())
            status = MATCHED if found else NOT_INSPECTED
            if done.status != status or not (reasons or found) or reasons - {"damaged"}:
                wrong.append(f"{entry['path']}: status {done.status}, {reasons}, found {found}")
        self.assertEqual([], wrong)

    def test_cut_archives_say_so(self):
        """Half an archive may hold a whole member: found, but the rest is still missing."""
        self.index(*TEXTS.values())
        wrong = []
        for entry in documents("damaged"):
            if entry["by"] == "cut" and entry["path"].startswith("damaged/archives"):
                done = run("match", "--json", DOCUMENTS / entry["path"], home=self.home)
                if "damaged" not in {verdict.reason for verdict in done.verdicts()}:
                    wrong.append(entry["path"])
        self.assertEqual([], wrong)


if __name__ == "__main__":
    unittest.main()
