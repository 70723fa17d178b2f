"""Shows the tessera command at work: demo.py TESSERA DIRECTORY.

Indexes manuals in PDF and texts that every Debian system has, makes queries from them
and from the same manuals in other formats, and prints what was found. Fails when a
query does not find the document it was made from, the unrelated text finds anything,
or a damaged archive passes for clean. DIRECTORY is emptied first.
"""

import collections
import email.message
import gzip
import io
import json
import pathlib
import random
import re
import shutil
import subprocess
import sys
import time
import zipfile

MAX_FILES = 600
FEW_FILES = 300

MAX_SOURCE_BYTES = 1_000_000  # a query should be read in no time

# Manuals that are indexed as PDF, and where the same text stands in another format.
DOC = pathlib.Path("/usr/share/doc")
POLICY = DOC / "debian-policy/policy.pdf.gz"
POLICY_AS_EPUB = DOC / "debian-policy/policy.epub"
FAQ = DOC / "debian/FAQ/debian-faq.en.pdf.gz"
FAQ_CHAPTERS = DOC / "debian/FAQ"

REPOSITORY = pathlib.Path(__file__).resolve().parent.parent


def content(path):
    """The text of a file, decompressed; None for what is no text."""
    try:
        raw = path.read_bytes()
        if raw.startswith(b"\x1f\x8b"):
            raw = gzip.decompress(raw)
    except (OSError, EOFError):
        return None
    return None if b"\0" in raw[:8192] or len(raw) < 200 else raw


# Finding the documents.


def text_files(pattern, accept=lambda path: True):
    """Files below /usr/share in the order of their names, none reached through a link."""
    for path in sorted(pathlib.Path("/usr/share").glob(pattern)):
        if path.is_file() and path.resolve() == path and REPOSITORY not in path.parents:
            if accept(path):
                yield path


def collect():
    """Up to MAX_FILES documents by kind, as {kind: {path: text}}."""

    def is_changelog(path):
        return bool(re.match(r"(changelog|changes|news)\b", path.name, re.I))

    def is_documentation(path):
        return path.name != "copyright" and not is_changelog(path)

    # Each kind has its share; the last ones fill up where others have too few.
    kinds = [
        ("licences", text_files("common-licenses/*"), MAX_FILES),
        ("copyright files", text_files("doc/*/copyright"), MAX_FILES // 3),
        ("changelogs", text_files("doc/**/*", is_changelog), MAX_FILES // 3),
        ("other documentation", text_files("doc/**/*", is_documentation), MAX_FILES),
        ("manual pages", text_files("man/man*/*"), MAX_FILES),
        ("info pages", text_files("info/*"), MAX_FILES),
    ]
    found = {}
    room = MAX_FILES
    for kind, paths, share in kinds:
        found[kind] = {}
        for path in paths:
            if not room or len(found[kind]) == share:
                break
            text = content(path)
            if text is not None:
                found[kind][path] = text
                room -= 1
    return found


def best_sources(documents, count):
    """The documents with most text that no other one holds, best first.

    Licences and changelogs are copied into each other all over a system; a query
    made from shared text would rightly find all of them.
    """

    def long_lines(text):
        return {line for line in map(bytes.strip, text.splitlines()) if len(line) >= 40}

    owners = collections.Counter()
    for text in documents.values():
        owners.update(long_lines(text))

    def own_bytes(path):
        text = documents[path]
        if len(text) > MAX_SOURCE_BYTES:
            return 0
        return sum(len(line) for line in long_lines(text) if owners[line] == 1)

    return sorted(documents, key=lambda path: (-own_bytes(path), path))[:count]


# Making the queries.


def invented_text(size, seed):
    """Pronounceable words that stand in no document."""
    source = random.Random(seed)
    words = []
    while sum(map(len, words)) + len(words) < size:
        syllables = (
            source.choice("bcdfghklmnprstvz") + source.choice("aeiou")
            for _ in range(source.randint(2, 5))
        )
        words.append("".join(syllables))
    lines = [" ".join(words[i : i + 12]).capitalize() + "." for i in range(0, len(words), 12)]
    return "\n".join(lines).encode()


def middle(text, size):
    start = (len(text) - size) // 2
    return text[start : start + size]


def rewrapped(text):
    """The same words, eleven a line, with other punctuation and spacing."""
    punctuation = bytes.maketrans(b".,;:!?()[]*-'\"", b";.,!:.[](){}  ")
    words = text.translate(punctuation).split()
    return b" --\r\n".join(b"  ".join(words[i : i + 11]) for i in range(0, len(words), 11))


def archived(files):
    """A zip archive of {name: content}."""
    packed = io.BytesIO()
    with zipfile.ZipFile(packed, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, data in files.items():
            archive.writestr(name, data)
    return packed.getvalue()


def mail_with(archive):
    mail = email.message.EmailMessage()
    mail["From"], mail["To"], mail["Subject"] = "ann@example.org", "bob@example.com", "As agreed"
    mail.set_content("Here are the pages you asked for. Please keep them to yourself.")
    mail.add_attachment(archive, maintype="application", subtype="zip", filename="pages.zip")
    return mail.as_bytes()


def make_queries(documents):
    """(what it is, its file name, the document it must find or None, content)."""
    copied, excerpted, reworked, quoted = best_sources(documents, 4)
    excerpt = middle(documents[excerpted], len(documents[excerpted]) // 10)
    passage = middle(documents[quoted], 3000)
    surrounded = b"\n".join([invented_text(3000, seed=1), passage, invented_text(3000, seed=2)])
    chapters = {page.name: page.read_bytes() for page in sorted(FAQ_CHAPTERS.glob("*.en.html"))}
    pages = archived(chapters)
    return [
        ("untouched copy", "copy.txt", copied, documents[copied]),
        ("excerpt, a tenth", "excerpt.txt", excerpted, excerpt),
        ("other breaks and punctuation", "rewrapped.txt", reworked, rewrapped(documents[reworked])),
        ("passage inside another text", "quoting.txt", quoted, surrounded),
        ("the PDF's text as EPUB", "policy.epub", POLICY, POLICY_AS_EPUB.read_bytes()),
        ("as HTML, zipped, in a mail", "outgoing.eml", FAQ, mail_with(pages)),
        ("unrelated text", "unrelated.txt", None, invented_text(8000, seed=3)),
        ("half an archive", "half.zip", None, pages[: len(pages) // 2]),
    ]


# Running the command.


def run_index(tessera, home, paths):
    started = time.monotonic()
    subprocess.run([tessera, "index", "--home", home, "--", *paths], check=True)
    return time.monotonic() - started


def run_match(tessera, home, query):
    """The {file: level} of the documents found, whether all of the query was inspected,
    and the milliseconds it took."""
    started = time.monotonic()
    done = subprocess.run(
        [tessera, "match", "--json", "--home", home, query], stdout=subprocess.PIPE, check=False
    )
    milliseconds = 1000 * (time.monotonic() - started)
    if done.returncode not in (0, 1, 3):
        sys.exit(f"matching {query} failed")
    found = collections.Counter()
    inspected = True
    for record in map(json.loads, done.stdout.splitlines()):
        if record["kind"] == "summary":
            inspected = record["not_inspected"] == 0
        for match in record.get("matches", ()):
            file = match["name"].partition("!")[0]
            found[file] = max(found[file], match["level"])
    return found, inspected, milliseconds


def shortened(name, width):
    return name if len(name) <= width else "..." + name[3 - width :]


def main():
    tessera, directory = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
    shutil.rmtree(directory, ignore_errors=True)
    home = directory / "home"
    queries = directory / "queries"
    queries.mkdir(parents=True)

    kinds = collect()
    documents = {path: text for kind in kinds.values() for path, text in kind.items()}
    if len(documents) < 4 or not (POLICY.exists() and FAQ.exists()):
        sys.exit("This system has too few documents below /usr/share for a demonstration.")
    if len(documents) < FEW_FILES:
        print(f"Only {len(documents)} texts are installed here (some images leave /usr/share/doc")
        print("out); going on with them.")
    manuals = sorted(DOC.glob("debian*/**/*.pdf.gz"))
    megabytes = sum(path.stat().st_size for path in [*documents, *manuals]) / 1e6
    parts = ", ".join(f"{len(texts)} {kind}" for kind, texts in kinds.items() if texts)
    print(f"Indexing {len(manuals)} manuals in PDF, {parts} ({megabytes:.1f} MB, most compressed)")
    seconds = run_index(tessera, home, [*manuals, *documents])
    print(f"  in {seconds:.1f} s\n")

    row = "{:29} {:44} {:>5} {:>5} {:>10} {:>5}"
    print(row.format("query", "made from", "found", "level", "also found", "ms"))
    missed = []
    for kind, name, source, content in make_queries(documents):
        query = queries / name
        query.write_bytes(content)
        found, inspected, milliseconds = run_match(tessera, home, query)
        if source is not None:
            level = found.pop(str(source), None)
            as_expected = level is not None and inspected
            made_from, verdict = shortened(str(source), 44), "yes" if level is not None else "NO"
        elif name.endswith(".zip"):
            level, as_expected = None, not inspected
            made_from, verdict = "the same archive, cut off", "clean" if inspected else "(1)"
        else:
            level, as_expected = None, not found and inspected
            made_from, verdict = "words made up by this script", "YES" if found else "no"
        print(
            row.format(
                kind,
                made_from,
                verdict,
                "-" if level is None else level,
                f"{len(found)} more" if found else "-",
                f"{milliseconds:.0f}",
            )
        )
        if not as_expected:
            missed.append(kind)
    print("\n(1) not inspected to its end, so never called clean, whatever was found until then")
    print("Try it: build/linux-release/bin/tessera match --home build/demo/home --explain FILE")
    if missed:
        sys.exit("NOT as it should be: " + ", ".join(missed))


if __name__ == "__main__":
    main()
