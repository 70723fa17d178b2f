"""Shows the tessera command at work: demo.py TESSERA DIRECTORY.

Indexes texts that every Debian system has, makes five queries from them and
prints what was found. Fails when a query does not find the document it was made
from, or the unrelated text finds anything. DIRECTORY is emptied first.
"""

import collections
import gzip
import pathlib
import random
import re
import shutil
import subprocess
import sys
import time

MAX_FILES = 600
FEW_FILES = 300

# A longer text has more signatures than the command keeps of one document, so
# its end could not be found.
MAX_SOURCE_BYTES = 1_000_000

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


def make_queries(documents):
    """(kind, source or None, text) of the five queries."""
    copied, excerpted, reworked, quoted = best_sources(documents, 4)
    excerpt = middle(documents[excerpted], len(documents[excerpted]) // 10)
    passage = middle(documents[quoted], 3000)
    surrounded = b"\n".join([invented_text(3000, seed=1), passage, invented_text(3000, seed=2)])
    return [
        ("untouched copy", copied, documents[copied]),
        ("excerpt, a tenth", excerpted, excerpt),
        ("re-wrapped and re-punctuated", reworked, rewrapped(documents[reworked])),
        ("passage inside another text", quoted, surrounded),
        ("unrelated text", None, invented_text(8000, seed=3)),
    ]


# Running the command.


def run_index(tessera, home, paths):
    started = time.monotonic()
    subprocess.run([tessera, "index", "--home", home, "--", *paths], check=True)
    return time.monotonic() - started


def run_match(tessera, home, query):
    """The {name: level} of the documents found, and the milliseconds it took."""
    started = time.monotonic()
    done = subprocess.run(
        [tessera, "match", "--home", home, query], stdout=subprocess.PIPE, check=False
    )
    milliseconds = 1000 * (time.monotonic() - started)
    if done.returncode not in (0, 1):
        sys.exit(f"matching {query} failed")
    lines = re.findall(r"^  level (\d)  (.*)$", done.stdout.decode(errors="replace"), re.M)
    return {name: int(level) for level, name in lines}, milliseconds


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
    if len(documents) < 4:
        sys.exit("This system has too few texts below /usr/share for a demonstration.")
    if len(documents) < FEW_FILES:
        print(f"Only {len(documents)} texts are installed here (some images leave /usr/share/doc")
        print("out); going on with them.")
    megabytes = sum(map(len, documents.values())) / 1e6
    parts = ", ".join(f"{len(texts)} {kind}" for kind, texts in kinds.items() if texts)
    print(f"Indexing {len(documents)} texts, {megabytes:.1f} MB: {parts}")
    seconds = run_index(tessera, home, documents)
    print(f"  in {seconds:.1f} s ({megabytes / seconds:.1f} MB/s)\n")

    row = "{:28} {:43} {:>5} {:>5} {:>10} {:>5}"
    print(row.format("query", "made from", "found", "level", "also found", "ms"))
    missed = []
    for number, (kind, source, text) in enumerate(make_queries(documents), 1):
        query = queries / f"{number}.txt"
        query.write_bytes(text)
        found, milliseconds = run_match(tessera, home, query)
        level = found.pop(str(source), None)
        if source is None:
            as_expected = not found
            name, verdict = "words made up by this script", "no" if as_expected else "YES"
        else:
            as_expected = level is not None
            name, verdict = shortened(str(source), 43), "yes" if as_expected else "NO"
        print(
            row.format(
                kind,
                name,
                verdict,
                "-" if level is None else level,
                f"{len(found)} more" if found else "-",
                f"{milliseconds:.0f}",
            )
        )
        if not as_expected:
            missed.append(kind)
    print("\nTry it: build/linux-release/bin/tessera match --home build/demo/home FILE")
    if missed:
        sys.exit("NOT as it should be: " + ", ".join(missed))


if __name__ == "__main__":
    main()
