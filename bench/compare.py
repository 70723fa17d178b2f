#!/usr/bin/env python3
"""Compares two revisions: bench/compare.py OLD NEW [--program P] [--filter REGEX] [--rounds N].

Builds both in worktrees below build/compare, where they stay for the next time,
runs the programs of the one and the other in turn, and prints for every row both
medians, their ratio, and how far the ratio moved from round to round. A ratio
above 1 says that NEW is faster. A REVISION is what git knows, or "." for the tree
as it stands.
"""

import argparse
import statistics
import subprocess
import sys
from pathlib import Path

sys.dont_write_bytecode = True  # nothing is left beside the sources
import rounds  # noqa: E402

ROOT = Path(__file__).resolve().parent.parent


def git(*arguments):
    return subprocess.run(["git", "-C", ROOT, *arguments], check=True, capture_output=True,
                          text=True).stdout.strip()


def built(revision, programs):
    """The directory with the programs of a revision, which is built if need be."""
    if revision == ".":
        tree = ROOT
    else:
        commit = git("rev-parse", "--verify", f"{revision}^{{commit}}")
        tree = ROOT / "build" / "compare" / commit[:12]
        if not tree.exists():
            git("worktree", "prune")
            git("worktree", "add", "--detach", tree, commit)
    # Not the preset, which an older revision may not have.
    build = tree / "build" / "linux-bench"
    subprocess.run(["cmake", "-S", tree, "-B", build, "-G", "Ninja", "--log-level=WARNING",
                    "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_C_COMPILER=gcc-12",
                    "-DCMAKE_CXX_COMPILER=g++-12", "-DTESSERA_BENCH=ON", "-DTESSERA_TESTS=OFF",
                    "-DTESSERA_TOOLS=OFF"], check=True)
    subprocess.run(["cmake", "--build", build, "--target", *programs, "--", "--quiet"], check=True)
    return build / "bench"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("old")
    parser.add_argument("new")
    parser.add_argument("--program", action="append", metavar="P",
                        help="text_signatures, store_load ...; may be repeated")
    parser.add_argument("--filter", default=".", metavar="REGEX", help="of the rows")
    parser.add_argument("--rounds", type=int, default=5, metavar="N")
    arguments = parser.parse_args()
    programs = arguments.program or ["text_signatures"]

    measured = {}
    sides = [built(arguments.old, programs), built(arguments.new, programs)]
    scratch = ROOT / "build" / "compare" / "scratch"
    scratch.mkdir(parents=True, exist_ok=True)
    for number in range(arguments.rounds):
        # Who begins takes turns, too.
        for side in sides if number % 2 == 0 else reversed(sides):
            for program in programs:
                rounds.run([side / program, f"--benchmark_filter={arguments.filter}"], scratch,
                           measured.setdefault(side, {}))
        print(f"round {number + 1} of {arguments.rounds}", file=sys.stderr)

    old, new = (measured[side] for side in sides)
    print(f"{'row':<44} {'old':>12} {'new':>12} {'ratio':>7}  rounds")
    for row in old:
        if row not in new:
            continue
        ratios = sorted(o / n for o, n in zip(old[row]["seconds"], new[row]["seconds"]) if n > 0)
        if not ratios:
            continue
        medians = (f"{rounds.median(side, row) * 1e6:>9.1f} us" for side in (old, new))
        print(f"{row:<44} {' '.join(medians)} {statistics.median(ratios):>7.2f}  "
              f"{ratios[0]:.2f} to {ratios[-1]:.2f}")


if __name__ == "__main__":
    try:
        main()
    except rounds.BenchmarkError as error:
        sys.exit(f"compare.py: {error}")
    except subprocess.CalledProcessError as error:
        sys.exit(f"compare.py: {error}\n{error.stderr or ''}")
