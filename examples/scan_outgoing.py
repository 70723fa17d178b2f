#!/usr/bin/env python3
"""Scans a folder of outgoing files for passages of confidential documents.

    scan_outgoing.py learn HOME FOLDER    puts the files of a folder into the index in HOME
    scan_outgoing.py scan HOME FOLDER     prints which files share passages with those

Needs the Python package of Tessera and nothing else. Files are taken as texts, in whatever
encoding they are; those with NUL bytes are recognised by their exact content, too. Links to
folders are not followed.

Exit status: 0 when nothing was found, 1 when a file matches, 2 when a file or folder could not
be read or the index not be used. 2 wins over 1: what was not read cannot be called clean.
"""
import argparse
import io
import json
import os
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from typing import Dict, List, Tuple, Union

import tessera

CLEAN, FOUND, TROUBLE = 0, 1, 2
NAMES = "documents.json"  # beside the index, which knows numbers only
LARGEST = 2**31 - 1  # bytes that the library takes


def fingerprint(path: Path) -> List[bytes]:
    if path.stat().st_size > LARGEST:
        raise OSError(f"{path} has more bytes than the library takes")
    content = path.read_bytes()
    found = tessera.signatures(content)
    if b"\0" in content:  # hardly a text, but who would send one could put a NUL into it
        found += tessera.binary_signatures(content)
    return found


def files(folder: Path) -> List[Path]:
    if not folder.is_dir():
        raise NotADirectoryError(f"{folder} is no folder")
    # Path.rglob would pass over folders that it may not read.
    found = [
        Path(directory, name)
        for directory, _, names in os.walk(folder, onerror=give_up)
        for name in names
    ]
    return sorted(path for path in found if path.is_file())


def give_up(error: OSError) -> None:
    raise error


def known_names(home: Path) -> Dict[str, int]:
    try:
        names: Dict[str, int] = json.loads((home / NAMES).read_text())
        return names
    except FileNotFoundError:
        return {}


def learn(home: Path, folder: Path) -> int:
    status = CLEAN
    names = known_names(home)
    with tessera.Index(home) as index:
        for path in files(folder):
            try:
                signatures = fingerprint(path)
            except OSError as error:
                print(error, file=sys.stderr)
                status = TROUBLE
                continue
            if not signatures:
                print(f"{path.relative_to(folder)}: too short", file=sys.stderr)
                continue
            name = str(path)
            if name in names:
                index.delete(names[name])
            index.add(names.setdefault(name, len(names)), signatures)
        # First the names: one too many does no harm.
        (home / NAMES).write_text(json.dumps(names, indent=1))
    print(f"{len(names)} documents")
    return status


def scan(home: Path, folder: Path, min_level: tessera.Level) -> int:
    names = {number: name for name, number in known_names(home).items()}
    status = CLEAN
    with tessera.Matcher(home) as matcher, ThreadPoolExecutor() as threads:

        def look_at(path: Path) -> Tuple[Path, Union[List[tessera.Match], OSError]]:
            try:
                return path, matcher.match(fingerprint(path))
            except OSError as error:
                return path, error

        for path, result in threads.map(look_at, files(folder)):
            if isinstance(result, OSError):
                print(result, file=sys.stderr)
                status = TROUBLE
                continue
            for match in result:
                if match.level < min_level:
                    continue
                name = names.get(match.file_id, f"document {match.file_id}")
                print(f"{path.relative_to(folder)}: {match.level.name.lower()} match with {name}")
                status = max(status, FOUND)
    return status


def absolute(name: str) -> Path:
    """While one thread matches, the current directory of all of them is the home: no thread
    may use relative names then."""
    return Path(name).absolute()


def main() -> int:
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("what", choices=["learn", "scan"])
    parser.add_argument("home", type=absolute)
    parser.add_argument("folder", type=absolute)
    parser.add_argument(
        "--min-level",
        choices=[level.name.lower() for level in tessera.Level],
        default="weak",
        help="lowest level that is printed and decides the exit status (weak)",
    )
    arguments = parser.parse_args()
    if isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(errors="backslashreplace")  # names of files are any bytes
    try:
        if arguments.what == "learn":
            return learn(arguments.home, arguments.folder)
        return scan(arguments.home, arguments.folder, tessera.Level[arguments.min_level.upper()])
    except (OSError, tessera.TesseraError) as error:
        print(error, file=sys.stderr)
        return TROUBLE


if __name__ == "__main__":
    sys.exit(main())
