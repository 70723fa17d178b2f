#!/usr/bin/env python3
"""The version stands once, in CMakeLists.txt, and everything else agrees with it.

version_test.py SOURCES VERSION [PROGRAM MANUAL]: the tree, the version of the build, the
built command and its manual page.
"""
import os
import re
import subprocess
import sys
from pathlib import Path

SKIPPED_DIRECTORIES = {".git", "build", "node_modules"}
# The one place; its history; other people's versions.
MAY_NAME_IT = {"CMakeLists.txt", "CHANGELOG.md", "package-lock.json"}
OURS = re.compile(r"tessera|\bversion\b", re.IGNORECASE)


def sources(root):
    for directory, directories, files in os.walk(root):
        directories[:] = [name for name in directories if name not in SKIPPED_DIRECTORIES]
        for name in files:
            path = Path(directory, name)
            if not path.is_symlink():
                yield path


def repetitions(root, version):
    """Lines that give the version to something of this project."""
    whole = re.compile(rf"(?<![\d.]){re.escape(version)}(?!\.?\d)")
    for path in sources(root):
        if path.parent == root and path.name in MAY_NAME_IT or path.name == "package-lock.json":
            continue
        try:
            text = path.read_text(encoding="utf-8")
        except UnicodeDecodeError:
            continue
        for number, line in enumerate(text.splitlines(), 1):
            if whole.search(line) and OURS.search(line):
                yield f"{path.relative_to(root)}:{number} repeats the version: {line.strip()[:80]}"


def main():
    root, version, *built = sys.argv[1:]
    root = Path(root)
    faults = list(repetitions(root, version))

    project = (root / "CMakeLists.txt").read_text()
    if project.count(version) != 1:
        faults.append(f"CMakeLists.txt names {version} {project.count(version)} times")
    head = re.search(r"^## (\S+)", (root / "CHANGELOG.md").read_text(), re.MULTILINE)[1]
    if head != version:
        faults.append(f"CHANGELOG.md begins with {head}, not with {version}")
    if built:
        program, manual = built
        told = subprocess.run([program, "--version"], check=True, capture_output=True, text=True)
        if told.stdout != f"tessera {version}\n":
            faults.append(f"tessera --version tells {told.stdout!r}")
        title = Path(manual).read_text().splitlines()
        if not any(line.startswith(".TH") and f'"tessera {version}"' in line for line in title):
            faults.append(f"{manual} is not of version {version}")
    sys.exit("\n".join(faults) or 0)


if __name__ == "__main__":
    main()
