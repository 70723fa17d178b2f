"""Runs benchmark programs turn by turn and gathers what they measured.

On a shared machine only figures of one run can be compared, and only when the
things compared took turns in it. A figure is kept from every round:

    {row: {figure: [value of each round]}}

where a row is the name that the program gave a benchmark and the figures are its
counters and "seconds", the wall-clock time of one iteration.
"""

import json
import re
import statistics
import subprocess
import tempfile
from pathlib import Path

_SECONDS = {"s": 1.0, "ms": 1e-3, "us": 1e-6, "ns": 1e-9}

# What Google Benchmark tells of a row beside its counters.
_NO_FIGURES = {
    "family_index", "per_family_instance_index", "repetitions", "repetition_index", "threads",
    "iterations", "real_time", "cpu_time",
}


class BenchmarkError(Exception):
    """A program failed, or told of an error in a row."""


def figures(report):
    """The rows of one report of Google Benchmark, as [(name, {figure: value})], in
    the order in which the program knows them, whichever came first at random."""
    rows = []
    for entry in sorted(report["benchmarks"], key=lambda entry: (
            entry["family_index"], entry["per_family_instance_index"])):
        if entry.get("run_type") == "aggregate":
            continue
        if entry.get("error_occurred"):
            raise BenchmarkError(f"{entry['name']}: {entry['error_message']}")
        row = {
            name: value
            for name, value in entry.items()
            if isinstance(value, (int, float)) and not isinstance(value, bool)
            and name not in _NO_FIGURES
        }
        row["seconds"] = entry["real_time"] * _SECONDS[entry["time_unit"]]
        # The name without how the time was taken and how often.
        name = re.sub(r"/(iterations:\d+|repeats:\d+|manual_time|real_time|process_time)", "",
                      entry["name"])
        rows.append((name, row))
    return rows


def rows_of(program, pattern="."):
    """The names of the benchmarks in a program, as --benchmark_filter knows them."""
    listed = subprocess.run(
        [program, "--benchmark_list_tests=true", f"--benchmark_filter={pattern}"],
        check=True, capture_output=True, text=True)
    return listed.stdout.split()


def run(command, directory, gathered):
    """Runs one program once and adds its figures to `gathered`."""
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        done = subprocess.run(
            [*command, f"--benchmark_out={out.name}", "--benchmark_out_format=json"],
            cwd=directory, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
        if done.returncode != 0:
            raise BenchmarkError(f"{' '.join(map(str, command))}: {done.stderr.strip()}")
        report = json.loads(Path(out.name).read_text() or '{"benchmarks": []}')
    for name, row in figures(report):
        kept = gathered.setdefault(name, {})
        for figure, value in row.items():
            kept.setdefault(figure, []).append(value)


def median(gathered, row, figure="seconds"):
    """The median of a figure over all rounds; None when it was not measured."""
    values = gathered.get(row, {}).get(figure)
    return statistics.median(values) if values else None
