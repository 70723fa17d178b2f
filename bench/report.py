"""Writes what was measured into the documentation: report.py RESULTS DOCS.

RESULTS holds the JSON files of measure.py, of some families or of all. A table of
DOCS/performance.md stands between two comments, <!-- NAME --> and <!-- end -->;
those whose family was measured are written anew. The plots go to DOCS/figures.
"""

import json
import re
import sys
from pathlib import Path

import matplotlib

matplotlib.use("svg")
# The same figures give the same bytes.
matplotlib.rcParams.update({"svg.hashsalt": "tessera", "svg.fonttype": "none", "font.size": 9})
from matplotlib import pyplot  # noqa: E402: the backend comes first

import rounds  # noqa: E402

TEXT_SIZES = ["4KiB", "16KiB", "64KiB", "1MiB", "64MiB"]
KERNELS = ["plain", "portable", "avx2", "avx512"]


# Cells


def seconds(value):
    if value is None:
        return ""
    for unit, size in (("s", 1), ("ms", 1e-3), ("µs", 1e-6)):
        if value >= size:
            return f"{value / size:.3g} {unit}"
    return f"{value * 1e9:.3g} ns"


def times(value, of):
    """How many times as long `value` is as `of`."""
    if value is None or not of:
        return ""
    ratio = value / of
    return f"{ratio:.0f}" if ratio >= 100 else f"{ratio:.1f}" if ratio >= 10 else f"{ratio:.2f}"


def number(value, digits=0):
    return "" if value is None else f"{value:,.{digits}f}"


def percent(part, whole):
    return "" if part is None or not whole else f"{100 * part / whole:.0f} %"


def table(head, rows):
    """A Markdown table without the rows that have nothing but a name."""
    lines = [f"| {' | '.join(head)} |", "|---" + "|---:" * (len(head) - 1) + "|"]
    lines += [f"| {' | '.join(row)} |" for row in rows if any(row[1:])]
    return "\n".join(lines)


# Tables: each takes the rows of its family and gives {name of the table: Markdown}


def with_the_fastest(measured, row):
    """The time with the fastest kernel that the processor has."""
    return next((took for kernel in reversed(KERNELS)
                 if (took := rounds.median(measured, f"{row}/{kernel}")) is not None), None)


def text_tables(measured):
    def kernels(content):
        rows = []
        for platform in ("client", "server"):
            for size in TEXT_SIZES:
                took = {k: rounds.median(measured, f"{content}/{platform}/{size}/{k}")
                        for k in KERNELS}
                twin = rounds.median(measured, f"{content}/{platform}/{size}/straightforward")
                rows.append([f"{platform}, {size}", seconds(twin),
                             *(times(twin, took[k]) for k in KERNELS),
                             seconds(with_the_fastest(measured, f"{content}/{platform}/{size}"))])
        return table(["text", "straightforward", "plain", "any processor", "AVX2", "AVX-512",
                      "the fastest"], rows)

    peers = {"sha256": "openssl", "ssdeep": "libfuzzy", "tlsh": "tlsh", "xxh3": "xxhash",
             "memcpy": "libc"}
    rows = []
    for size in TEXT_SIZES:
        for platform in ("client", "server"):
            ours = with_the_fastest(measured, f"text/{platform}/{size}")
            rows.append([f"{platform}, {size}", seconds(ours),
                         *(times(rounds.median(measured, f"text/{peer}/{size}/{maker}"), ours)
                           for peer, maker in peers.items())])
    return {
        "text kernels": kernels("text"),
        "binary-like kernels": kernels("binarylike"),
        "text peers": table(["text", "Tessera", "SHA-256", "ssdeep", "TLSH", "XXH3", "memcpy"],
                            rows),
    }


STORES = [
    ("tessera", "Tessera"), ("tessera_nosync", "Tessera, no syncs"),
    ("lmdb_sorted", "LMDB, sorted batches, packed duplicates"),
    ("lmdb_sorted_nosync", "the same, no syncs"),
    ("lmdb_arrival", "LMDB, order of arrival"), ("lmdb_arrival_nosync", "the same, no syncs"),
    ("rocksdb", "RocksDB, ingested sorted files"), ("rocksdb_nosync", "the same, no syncs"),
    ("leveldb", "LevelDB"), ("leveldb_nosync", "the same, no syncs"),
    ("sqlite", "SQLite"), ("sqlite_nosync", "the same, no syncs"),
    ("limit", "sort in memory, write the tables"),
]


def store_tables(measured):
    tables = {}
    for size in ("1M", "5M"):
        ours = rounds.median(measured, f"load/{size}/tessera")
        rows = []
        for store, name in STORES:
            row = f"load/{size}/{store}"
            took = rounds.median(measured, row)
            rows.append([name, seconds(took), times(took, ours),
                         number(rounds.median(measured, row, "peak_MiB")),
                         number(rounds.median(measured, row, "disk_MiB")),
                         number(rounds.median(measured, row, "disk_ratio"), 2)])
        tables[f"load {size}"] = table(
            ["store", "time", "times Tessera's", "peak MiB", "disk MiB", "disk / records"], rows)
    rows = []
    for size in ("1M", "5M"):
        ours = rounds.median(measured, f"add/{size}/tessera")
        for store, name in STORES:
            took = rounds.median(measured, f"add/{size}/{store}")
            rows.append([f"{name}, into {size}" if took else name, seconds(took),
                         times(took, ours)])
    tables["addition"] = table(["store", "time", "times Tessera's"], rows)
    return tables


def match_tables(measured):
    peers = [("plain", "plain"), ("lmdb", "LMDB"), ("rocksdb", "RocksDB"), ("sqlite", "SQLite")]
    rows = []
    for keys in ("uniform", "text"):
        for elements in ("1M", "10M", "100M"):
            for signatures in ("40", "400", "4000"):
                row = f"match/{keys}/{elements}/{signatures}"
                ours = rounds.median(measured, f"{row}/tessera")
                rows.append([f"{keys}, {elements}, {signatures}", seconds(ours),
                             number(rounds.median(measured, f"{row}/tessera", "bytes")),
                             *(times(rounds.median(measured, f"{row}/{peer}"), ours)
                               for peer, _ in peers)])
    head = ["table, elements, signatures", "query", "bytes read", *(name for _, name in peers)]
    threads = []
    for signatures in ("40", "400"):
        row = f"match/threads/1M/{signatures}/threads:"
        one, two = (rounds.median(measured, f"{row}{n}", "items_per_second") for n in (1, 2))
        threads.append([signatures, number(one), number(two), times(two, one)])
    return {
        "match": table(head, rows),
        "threads": table(["signatures a query", "1 thread, queries a second", "2 threads", "times"],
                         threads),
    }


METHODS = [("tessera_full", "Tessera, full"), ("tessera_sparse", "Tessera, sparse"),
           ("ssdeep", "ssdeep"), ("tlsh", "TLSH")]


def whole_tables(measured):
    # In the order of the program.
    classes = dict.fromkeys(row.split("/")[2] for row in measured if row.startswith("whole/recall/"))
    rows = []
    for kind in classes:
        cells = [kind.replace("_", " ")]
        for method, _ in METHODS:
            row = f"whole/recall/{kind}/{method}"
            figure = {name: rounds.median(measured, row, name)
                      for name in ("queries", "found", "found_level2", "wrong_names")}
            cells.append("" if figure["queries"] is None else
                         f"{percent(figure['found'], figure['queries'])} / "
                         f"{percent(figure['found_level2'], figure['queries'])} / "
                         f"{number(figure['wrong_names'])}")
        rows.append(cells)
    names = [name for _, name in METHODS]
    costs = [
        ["index bytes a document", *(number(rounds.median(measured, f"whole/index/{m}",
                                                          "bytes_per_document"))
                                     for m, _ in METHODS)],
        ["indexing a document", *(seconds(rounds.median(measured, f"whole/index/{m}"))
                                  for m, _ in METHODS)],
        ["one query", *(seconds(rounds.median(measured, f"whole/query/{m}")) for m, _ in METHODS)],
    ]
    ours = rounds.median(measured, "whole/million/tessera")
    million = [[name, seconds(rounds.median(measured, f"whole/million/{m}")),
                times(rounds.median(measured, f"whole/million/{m}"), ours)]
               for m, name in (("tessera", "Tessera"), ("ssdeep", "ssdeep"), ("tlsh", "TLSH"))]
    return {
        "recall": table(["query", *names], rows),
        "whole costs": table(["", *names], costs),
        "million": table(["method", "from text to verdict", "times Tessera's"], million),
    }


# Plots


def plot(path, title, axis, points, figure="milliseconds"):
    """A small plot of [(x, y)]."""
    if not points:
        return
    chart, axes = pyplot.subplots(figsize=(4, 2.6), layout="constrained")
    axes.plot(*zip(*sorted(points)), marker="o", markersize=3)
    axes.set(title=title, xlabel=axis, ylabel=figure)
    if max(x for x, _ in points) > 100 * min(x for x, _ in points):
        axes.set(xscale="log", yscale="log")
    else:
        axes.set(ylim=(0, None))
    axes.grid(alpha=0.3)
    path.parent.mkdir(exist_ok=True)
    chart.savefig(path, metadata={"Date": None, "Creator": None})
    pyplot.close(chart)


def points(measured, pattern, figure="seconds", scale=1e3):
    """[(x, y)] of the rows whose whole name fits; its group is x."""
    found = ((re.fullmatch(pattern, row), row) for row in measured)
    return [(float(fit[1]), scale * rounds.median(measured, row, figure)) for fit, row in found if fit]


def whole_plots(measured, figures):
    for name, pattern, title, axis in (
            ("documents", r"growth/documents/(\d+)/query", "One query as the index grows",
             "documents in the index"),
            ("query_size", r"growth/query_size/(\d+)", "One query as its text grows",
             "bytes of text"),
            ("pairs", r"growth/pairs/(\d+)", "One match as its hits grow",
             "hits of 64 signatures in documents")):
        plot(figures / f"growth_{name}.svg", title, axis, points(measured, pattern))
    plot(figures / "growth_indexing.svg", "Indexing a document as the index grows",
         "documents in the index",
         points(measured, r"growth/documents/(\d+)/index", "seconds", 1e6), "microseconds")
    plot(figures / "growth_threads.svg", "Queries beside each other", "threads",
         points(measured, r"growth/threads/(\d+)", "queries_per_second", 1), "queries a second")


def main():
    results, docs = Path(sys.argv[1]), Path(sys.argv[2])
    page = docs / "performance.md"
    text = page.read_text()
    for family, tables_of in (("generation", text_tables), ("store", store_tables),
                              ("match", match_tables), ("whole", whole_tables)):
        file = results / f"{family}.json"
        if not file.exists():
            continue
        measured = json.loads(file.read_text())
        for name, markdown in tables_of(measured).items():
            block = re.compile(rf"(<!-- {re.escape(name)} -->\n).*?(<!-- end -->)", re.DOTALL)
            if not block.search(text):
                sys.exit(f"report.py: {page.name} has no place for the table '{name}'")
            text = block.sub(lambda found: f"{found[1]}{markdown}\n{found[2]}", text)
        if family == "whole":
            whole_plots(measured, docs / "figures")
    page.write_text(text)


if __name__ == "__main__":
    main()
