"""Measures what is found of copied passages when documents are indexed in full or sparsely,
by the length of the passage, and what the index takes; writes the tables of a page.

usage: full_or_sparse.py TESSERA PAGE    (docs/full_or_sparse.md)

The documents are texts of this system's documentation, chosen by a hash of their content:
200 of each size. From every document one passage of each length that fits is cut at
a place that its content decides, and matched twice: alone, and in the middle of 20,000
characters of texts that are in no index. A passage counts as found when its own document is
among the answers.
"""
import collections
import gzip
import hashlib
import json
import random
import re
import subprocess
import sys
import tempfile
from pathlib import Path

SIZES = {"3 to 8 KB": (3000, 8000), "8 to 40 KB": (8000, 40_000), "40 to 400 KB": (40_000, 400_000)}
OF_EACH = 200
LENGTHS = [150, 250, 400, 600, 1000, 1500, 2500, 5000, 10_000]
SURROUNDINGS = 20_000
SELECTIONS = ("full", "sparse")


def texts():
    """Texts in the order of their hashes; of those that begin alike only the first."""
    found = {}
    for path in Path("/usr/share/doc").rglob("*"):
        if not path.is_file() or not re.search(r"(copyright|NEWS|README|changelog|\.txt)[^/]*$", path.name):
            continue
        try:
            content = gzip.open(path).read() if path.suffix == ".gz" else path.read_bytes()
            text = content.decode("ascii")
        except (OSError, UnicodeDecodeError, EOFError):
            continue
        found.setdefault(hashlib.sha256(text[:1000].encode()).digest(), text)
    return [found[key] for key in sorted(found)]


def choose(all_texts):
    """Documents by size, and a text of the rest to hide passages in."""
    chosen, rest = collections.defaultdict(list), []
    for text in all_texts:
        size = next((size for size, (low, high) in SIZES.items() if low <= len(text) < high), None)
        if size and len(chosen[size]) < OF_EACH:
            chosen[size].append(text)
        elif size:
            rest.append(text)
    return chosen, "".join(rest)


def write_queries(directory, documents, rest):
    """Queries as files SIZE-NUMBER-LENGTH-KIND, whose names tell what they were made of."""
    for size, texts_of_size in documents.items():
        for number, text in enumerate(texts_of_size):
            choice = random.Random(hashlib.sha256(text.encode()).digest())
            for length in (length for length in LENGTHS if length <= len(text) // 2):
                start = choice.randrange(len(text) - length)
                around = choice.randrange(len(rest) - SURROUNDINGS)
                name = f"{list(SIZES).index(size)}-{number}-{length}"
                passage = text[start : start + length]
                half = around + SURROUNDINGS // 2
                (directory / f"{name}-alone").write_text(passage)
                (directory / f"{name}-inside").write_text(
                    f"{rest[around:half]}\n{passage}\n{rest[half:around + SURROUNDINGS]}")


def run(*command):
    result = subprocess.run(list(map(str, command)), capture_output=True, text=True)
    if result.returncode > 1:
        sys.exit(f"{command}: {result.stderr}")
    return result.stdout


def bytes_below(directory):
    return sum(path.stat().st_size for path in directory.rglob("*") if path.is_file())


def measure(tessera, scratch, documents, queries):
    """Selection -> (found, sizes): found[size, kind, length] is a list of levels, None for none."""
    results = {}
    for selection in SELECTIONS:
        home, found = scratch / f"{selection}-home", collections.defaultdict(list)
        run(tessera, "--home", home, "index", "--selection", selection, documents)
        for line in run(tessera, "--home", home, "match", "--json", "--min-level", 0,
                        queries).splitlines():
            entry = json.loads(line)
            if entry["kind"] == "document":
                name = Path(entry["file"]).name
                size, number, length, kind = name.split("-")
                own = [match["level"] for match in entry["matches"]
                       if Path(match["name"]).name == f"{size}-{number}"]
                found[list(SIZES)[int(size)], kind, int(length)].append(own[0] if own else None)
        sizes = {"index": bytes_below(home / "sig_index_DB"), "home": bytes_below(home)}
        results[selection] = found, sizes
    return results


def share(levels, least):
    reached = sum(level is not None and level >= least for level in levels)
    return f"{100 * reached / len(levels):.0f} %"


def recall_table(results, kind, least):
    head = "".join(f" full, {size} | sparse, {size} |" for size in SIZES)
    lines = [f"| passage, characters |{head}", "|---:|" + "---:|" * (2 * len(SIZES))]
    for length in LENGTHS:
        cells = [share(results[selection][0][size, kind, length], least)
                 if results[selection][0][size, kind, length] else ""
                 for size in SIZES for selection in SELECTIONS]
        lines.append(f"| {length:,} | " + " | ".join(cells) + " |")
    return "\n".join(lines)


def size_table(results, documents):
    characters = sum(len(text) for texts_of_size in documents.values() for text in texts_of_size)
    count = sum(map(len, documents.values()))
    lines = [f"| {count} documents, {characters / 1e6:.1f} MB | full | sparse |", "|---|---:|---:|"]
    for what, key in (("index, `sig_index_DB`", "index"), ("the whole home, catalogue included", "home")):
        sizes = [results[selection][1][key] for selection in SELECTIONS]
        lines.append(f"| {what} | " + " | ".join(
            f"{size / 1e6:.1f} MB, {100 * size / characters:.0f} % of the text" for size in sizes) + " |")
    return "\n".join(lines)


def put(page, name, table):
    block = re.compile(rf"(<!-- {re.escape(name)} -->\n).*?(<!-- end -->)", re.DOTALL)
    text, places = block.subn(lambda match: f"{match[1]}{table}\n{match[2]}", page.read_text())
    if places != 1:
        sys.exit(f"{page} has {places} places for {name}")
    page.write_text(text)


def main(tessera, page):
    documents, rest = choose(texts())
    print({size: len(found) for size, found in documents.items()}, len(rest), flush=True)
    with tempfile.TemporaryDirectory() as scratch:
        scratch = Path(scratch)
        (scratch / "documents").mkdir()
        (scratch / "queries").mkdir()
        for size, found in documents.items():
            for number, text in enumerate(found):
                name = f"{list(SIZES).index(size)}-{number}"
                (scratch / "documents" / name).write_text(text)
        write_queries(scratch / "queries", documents, rest)
        results = measure(tessera, scratch, scratch / "documents", scratch / "queries")
    put(page, "alone", recall_table(results, "alone", 1))
    put(page, "inside", recall_table(results, "inside", 1))
    put(page, "inside, level 2", recall_table(results, "inside", 2))
    put(page, "index size", size_table(results, documents))


if len(sys.argv) != 3:
    sys.exit(__doc__)
main(Path(sys.argv[1]).resolve(), Path(sys.argv[2]))
