"""Real documents, damaged at random: every one gets a verdict, and the command lives.

    /usr/bin/python3 tests/tool/documents/make_documents.py build/linux-release/documents
    TESSERA=build/linux-release/bin/tessera DOCUMENTS=build/linux-release/documents \\
        python3 tests/tool/documents/robustness_test.py [--seconds N] [--seed N] [FORMAT...]

Without arguments, as under CTest, a few of each format. With --seconds, so long for
each format, or each of those named: that is what scripts/fuzz-extractors does. A
document over which the command falls is kept below the current directory, and so is
one over which an extractor dies: the command lives, but a parser has a defect. That
fails a long run, which looks for defects; not one under CTest, which asks whether the
command lives.
"""

import argparse
import bz2
import gzip
import io
import lzma
import pathlib
import random
import shutil
import sys
import tempfile
import time
import zipfile

from command import DOCUMENTS, DONE, MATCHED, NOT_INSPECTED, documents, run

BATCH = 40  # documents in one run of the command
LIMITS = ["--time-limit=10", "--total-limit=20M", "--memory-limit=400M"]
KINDS = ("format", "encoding", "archive", "encrypted")
INTERESTING = [0, 1, 0x7F, 0x80, 0xFF]


def formats():
    """Suffix -> documents with it; "tar.gz" is one of its own."""
    found = {}
    for entry in documents(*KINDS):
        path = DOCUMENTS / entry["path"]
        if path.stat().st_size < 200_000:
            suffix = "".join(path.suffixes[-2:] if ".tar." in path.name else path.suffixes[-1:])
            found.setdefault(suffix.lstrip("."), []).append(path)
    return found


def flip_bits(chance, data, _):
    for _ in range(1 << chance.randrange(7)):
        data[chance.randrange(len(data))] ^= 1 << chance.randrange(8)


def overwrite(chance, data, _):
    start = chance.randrange(len(data))
    length = min(1 << chance.randrange(8), len(data) - start)
    if chance.random() < 0.5:
        data[start : start + length] = chance.randbytes(length)
    else:  # a length, an offset or a count, perhaps
        data[start : start + min(length, 4)] = bytes([chance.choice(INTERESTING)]) * min(length, 4)


def cut(chance, data, _):
    del data[chance.randrange(len(data)) :]


def remove(chance, data, _):
    start = chance.randrange(len(data))
    del data[start : start + (1 << chance.randrange(12))]


def repeat(chance, data, _):
    start = chance.randrange(len(data))
    piece = data[start : start + (1 << chance.randrange(12))]
    data[start:start] = piece * chance.randrange(1, 20)


def splice(chance, data, other):
    start, length = chance.randrange(len(data)), 1 << chance.randrange(12)
    place = chance.randrange(len(other))
    data[start : start + length] = other[place : place + length]


CHANGES = [flip_bits, flip_bits, overwrite, overwrite, cut, remove, repeat, splice]


def changed(chance, content, other):
    data = bytearray(content)
    for _ in range(chance.choice([1, 1, 2, 4])):
        if data:
            chance.choice(CHANGES)(chance, data, other)
    return bytes(data)


PACKERS = {".gz": gzip, ".bz2": bz2, ".xz": lzma}


def changed_inside(chance, path, other):
    """The same below the compression, where no checksum tells at once; None if there is none."""
    if path.suffix in PACKERS:
        packer = PACKERS[path.suffix]
        return packer.compress(changed(chance, packer.decompress(path.read_bytes()), other))
    out = io.BytesIO()
    try:
        archive = zipfile.ZipFile(path)
    except zipfile.BadZipFile:
        return None
    with archive as source, zipfile.ZipFile(out, "w") as target:
        members = [member for member in source.infolist() if not member.flag_bits & 1]
        hit = chance.choice(members) if members else None
        for member in members:
            content = source.read(member)
            target.writestr(member, changed(chance, content, other) if member is hit else content)
    return out.getvalue()


def mutation(chance, sources):
    path, other = chance.choice(sources), chance.choice(sources).read_bytes()
    inside = changed_inside(chance, path, other) if chance.random() < 0.6 else None
    return changed(chance, path.read_bytes(), other) if inside is None else inside


class Failed(Exception):
    pass


def keep(paths, what):
    kept = pathlib.Path.cwd() / "robustness" / what
    kept.mkdir(parents=True, exist_ok=True)
    for path in paths:
        shutil.copy(path, kept)
    return kept


def try_batch(scratch, name, seed, sources, count):
    """Runs `count` damaged documents; returns how many were inspected, refused, crashed."""
    directory, paths = scratch / f"{name}-{seed}", []
    directory.mkdir()
    for number in range(count):
        content = mutation(random.Random(f"{name} {seed} {number}"), sources)
        paths.append(directory / f"{seed}-{number}.{name}")
        paths[-1].write_bytes(content)
    done = run("match", "--json", "--min-level=0", *LIMITS, directory, home=scratch / "home")
    verdicts = done.verdicts() if done.status in (DONE, MATCHED, NOT_INSPECTED) else []
    told = {verdict.name for verdict in verdicts}
    silent = [path for path in paths if str(path) not in told]
    if silent or done.left:
        kept = keep(silent or paths, "fallen")
        raise Failed(
            f"{name}, seed {seed}: status {done.status}, {len(silent)} without a verdict,"
            f" {len(done.left)} processes left, see {kept}\n{done.err[-1000:]}"
        )
    crashed = {verdict.name.split("!")[0] for verdict in verdicts if verdict.reason == "crashed"}
    if crashed:
        keep(crashed, "crashed")
    refused = {verdict.name.split("!")[0] for verdict in verdicts if verdict.reason} - crashed
    shutil.rmtree(directory)
    return len(told & set(map(str, paths))) - len(refused) - len(crashed), len(refused), len(crashed)


def try_format(scratch, name, sources, seed, seconds):
    end, sums = time.monotonic() + seconds, [0, 0, 0]
    while True:
        counts = try_batch(scratch, name, seed, sources, BATCH if seconds else 6)
        sums = [a + b for a, b in zip(sums, counts)]
        seed += 1
        if time.monotonic() >= end:
            break
    inspected, refused, crashed = sums
    print(f"{name:8} {sum(sums):7} documents: {inspected} inspected, {refused} not", end="")
    print(f", {crashed} CRASHED" if crashed else "", flush=True)
    return crashed


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=0)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--list", action="store_true", help="the formats")
    parser.add_argument("formats", nargs="*")
    arguments = parser.parse_args()
    known = formats()
    if arguments.list:
        print(*sorted(known), sep="\n")
        return
    unknown = set(arguments.formats) - set(known)
    if unknown:
        sys.exit(f"There is no format {', '.join(unknown)}; there are {', '.join(sorted(known))}")
    seed = arguments.seed
    if seed is None:  # the same under CTest, another one for each long run
        seed = int(time.time()) if arguments.seconds else 1
    print(f"seed {seed}", flush=True)
    crashed, failures = 0, []
    with tempfile.TemporaryDirectory(prefix="tessera-robustness-") as scratch:
        scratch = pathlib.Path(scratch).resolve()
        texts = pathlib.Path(__file__).parent / "texts"
        indexed = run("index", texts.resolve(), home=scratch / "home")
        if indexed.status != DONE:
            sys.exit(indexed.err)
        for name in arguments.formats or sorted(known):
            try:
                crashed += try_format(scratch, name, known[name], seed, arguments.seconds)
            except Failed as failure:
                failures.append(failure)
                print(failure, flush=True)
    if failures or (crashed and arguments.seconds):
        sys.exit(f"{len(failures)} falls of the command, {crashed} crashes of extractors")


if __name__ == "__main__":
    main()
