#!/usr/bin/env python3
"""An index directory moves between platforms.

exchange.py NATIVE WINDOWS EMULATOR: the exchange_host of the native build, that
of the Windows build, and what runs the latter. Every combination of platforms
creates an index and grows it, and both match it. Whoever did what,
"meta_data.bin", the four search tables, the configuration file, the signature
lists and the answers to the queries must be the same; the reference is what the
native platform makes alone.
"""
import os
import shutil
import subprocess
import sys
import tempfile

SEED = "20250304"
FILES = (
    "index_sys_config.txt",
    "sig_index_DB/meta_data.bin",
    "sig_index_DB/search_table.wtbl",
    "sig_index_DB/search_table.stbl",
    "sig_index_DB/search_table.wmeta",
    "sig_index_DB/search_table.smeta",
)


def run(command, directory, seed, *steps):
    """What the steps print, by step."""
    done = subprocess.run(
        [*command, seed, *steps], cwd=directory, capture_output=True, text=True
    )
    if done.returncode != 0:
        sys.exit(f"{command[-1]} {seed} {' '.join(steps)} failed: {done.stderr}")
    printed = {}
    for line in done.stdout.splitlines():
        step, text = line.split(" ", 1)
        printed.setdefault(step, []).append(text)
    return printed


def read(directory):
    contents = {}
    for name in FILES:
        with open(os.path.join(directory, name), "rb") as file:
            contents[name] = file.read()
    return contents


def story(hosts, creator, grower, seed, directory):
    """Plays one story and returns all that can be seen of it, by name."""
    seen = {}
    run(hosts[creator], directory, seed, "create")
    for name, content in read(directory).items():
        seen[f"{name} as created"] = content
    printed = run(hosts[grower], directory, seed, "match", "grow", "generate")
    seen["the answers before growth"] = printed["match"]
    seen["the signature lists"] = printed["generate"]
    for name, content in read(directory).items():
        seen[f"{name} as grown"] = content
    for matcher in hosts:
        printed = run(hosts[matcher], directory, seed, "match")
        seen[f"what {matcher} answers after growth"] = printed["match"]
    return seen


def exchange(hosts, seed, root):
    differences = 0
    reference = None
    for creator in hosts:
        for grower in hosts:
            directory = os.path.join(root, f"{seed}-{creator}-{grower}")
            os.mkdir(directory)
            seen = story(hosts, creator, grower, seed, directory)
            reference = reference or seen
            for name in seen:
                if seen[name] != reference[name]:
                    print(f"seed {seed}, {creator} creates, {grower} grows: {name} differs")
                    differences += 1
    answers = reference["what native answers after growth"]
    if answers != reference["what windows answers after growth"]:
        print(f"seed {seed}: the answers of the platforms differ")
        differences += 1
    if not any("/" in answer for answer in answers):
        print(f"seed {seed}: nothing was found at all")
        differences += 1
    return differences


def main():
    native, windows, emulator = sys.argv[1:]
    if not os.path.exists(native):
        sys.exit(
            f"{native} is missing. Build the native exchange_host first, or point the "
            "cache variable TESSERA_NATIVE_BUILD at the build directory that holds it."
        )
    hosts = {"native": [native], "windows": [emulator, windows]}
    root = tempfile.mkdtemp(prefix="tessera_exchange_")
    try:
        differences = exchange(hosts, SEED, root)
    finally:
        shutil.rmtree(root, ignore_errors=True)
    sys.exit(1 if differences else 0)


if __name__ == "__main__":
    main()
