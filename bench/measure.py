"""Runs all benchmarks: measure.py PROGRAMS RESULTS [FAMILY...].

PROGRAMS is the directory with the built ones, RESULTS takes one JSON file for
each family, in the form that rounds.py describes. Without a family, all of them.
"""

import json
import shutil
import sys
import time
from pathlib import Path

import rounds

# The rows of one process take turns at random, as often as there are repetitions.
TURNS = ["--benchmark_enable_random_interleaving=true"]
SHORT = ["--benchmark_min_time=0.02", "--benchmark_repetitions=5", *TURNS]


def in_one_process(program, *arguments):
    """Every row of a program, taking turns inside it."""
    def measure(programs, directory, gathered):
        rounds.run([programs / program, *arguments], directory, gathered)
    return measure


def row_by_row(program, count, pattern="."):
    """Every row in a process of its own, so that its peak of memory is its own;
    the rows take turns `count` times."""
    def measure(programs, directory, gathered):
        rows = rounds.rows_of(programs / program, pattern)
        for _ in range(count):
            for row in rows:
                rounds.run([programs / program, f"--benchmark_filter=^{row}$"], directory,
                           gathered)
    return measure


FAMILIES = {
    "generation": [in_one_process("text_signatures", *SHORT)],
    "match": [in_one_process("match_search", *SHORT)],
    "store": [row_by_row("store_load", 3, "/1M/"), row_by_row("store_load", 3, "/5M/")],
    "whole": [in_one_process("whole_library", "--benchmark_repetitions=3", *TURNS)],
}


def main():
    programs, results = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
    scratch = results / "scratch"
    for family in sys.argv[3:] or FAMILIES:
        started = time.monotonic()
        shutil.rmtree(scratch, ignore_errors=True)
        scratch.mkdir(parents=True)
        gathered = {}
        for measure in FAMILIES[family]:
            measure(programs, scratch, gathered)
        (results / f"{family}.json").write_text(json.dumps(gathered, indent=1) + "\n")
        print(f"{family}: {len(gathered)} rows in {time.monotonic() - started:.0f} s", flush=True)
    shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    try:
        main()
    except rounds.BenchmarkError as error:
        sys.exit(f"measure.py: {error}")
