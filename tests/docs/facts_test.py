#!/usr/bin/env python3
"""Checks that docs/testing.md names only tests that exist.

usage: facts_test.py SOURCE_DIRECTORY
"""
import re
import sys
from pathlib import Path

root = Path(sys.argv[1])
page = (root / "docs/testing.md").read_text()
facts = page[page.index("## Facts") :]

known = set()
for source in (root / "tests").rglob("*.cpp"):
    known.update(".".join(test) for test in re.findall(
        r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", source.read_text(), re.MULTILINE))

rows = [line for line in facts.splitlines() if line.startswith("| ") and "`" in line]
named = set(re.findall(r"`([A-Z]\w*\.[A-Z]\w*)`", "\n".join(rows)))
for row in rows:
    if not re.search(r"`[A-Z]\w*\.[A-Z]\w*`", row.rsplit("|", 2)[1]):
        sys.exit(f"docs/testing.md: a fact without a test: {row}")
for name in sorted(named - known):
    print(f"docs/testing.md: no such test: {name}")
if named - known or len(rows) < 100:
    sys.exit(f"{len(rows)} facts, {len(named - known)} of their tests missing")
print(f"{len(rows)} facts name {len(named)} tests, all there")
