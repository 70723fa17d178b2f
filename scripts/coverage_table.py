"""Prints a gcovr JSON summary by folder. Called by scripts/coverage."""

import collections
import json
import os
import sys

with open(sys.argv[1]) as summary:
    files = json.load(summary)["files"]

folders = collections.defaultdict(collections.Counter)
for file in files:
    for folder in (os.path.dirname(file["filename"]), "all"):
        for count in ("line_covered", "line_total", "branch_covered", "branch_total"):
            folders[folder][count] += file[count]


def share(covered, total):
    return f"{covered:5} of {total:5} {100 * covered / total if total else 100:6.1f} %"


print(f"\n{'folder':16} {'lines':>23}    {'branches':>22}")
for folder, counts in sorted(folders.items(), key=lambda item: (item[0] == "all", item[0])):
    lines = share(counts["line_covered"], counts["line_total"])
    branches = share(counts["branch_covered"], counts["branch_total"])
    print(f"{folder:16} {lines}   {branches}")
