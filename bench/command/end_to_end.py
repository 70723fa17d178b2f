"""Indexes and matches 2000 documents of this system with the built command.

usage: end_to_end.py TESSERA [DOCUMENTS]        (default: 2000; results on stdout)

The documents are the same on the same system: all PDFs and EPUBs of /usr/share/doc,
and a fair part each of its HTML, compressed and plain files, chosen by a hash of
their names. They are indexed into an empty home, once more unchanged, and matched, on
all processors; then each kind is matched by itself, one file at a time.

Two tables, as Markdown: how long each run took, and which programs used the
processors meanwhile. Extraction is what tessera-extract and its helper programs use;
fingerprinting, catalogue, index and search are what the command itself does, and its
phases, as --progress json shows them, tell when. Processes are looked at a hundred
times a second; what a helper program used that ended between two looks is told by the
extractor that waited for it ("other helpers").
"""

import collections
import hashlib
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path("/usr/share/doc")
SHARES = {".pdf": 1.0, ".pdf.gz": 1.0, ".epub": 1.0, ".html": 0.4, ".gz": 0.3, "other": 0.3}
TICK = os.sysconf("SC_CLK_TCK")


def choose(count):
    """Kind -> documents; those of the rare kinds all, of the others their share."""
    found = collections.defaultdict(list)
    seen = set()
    for path in ROOT.rglob("*"):
        if path.is_file() and path.stat().st_size >= 200 and path.resolve() not in seen:
            seen.add(path.resolve())
            kind = ".pdf.gz" if path.name.endswith(".pdf.gz") else path.suffix
            kind = kind if kind in SHARES else "other"
            found[kind].append(path.resolve())
    chosen, left = {}, count
    for kind in sorted(SHARES, key=lambda kind: -SHARES[kind]):
        wanted = left if SHARES[kind] == 1 else int(count * SHARES[kind])
        paths = sorted(found[kind], key=lambda path: hashlib.sha256(bytes(path)).digest())
        chosen[kind] = paths[: min(wanted, left)]
        left -= len(chosen[kind])
    return chosen


class Times(threading.Thread):
    """Processor time by program, of a process and what descends from it."""

    def __init__(self, root):
        super().__init__(daemon=True)
        self.root, self.over = root, threading.Event()
        self.used = {}  # process -> (program, its seconds, of those it waited for, parent)
        self.memory = 0

    def sample(self):
        parents, rows = {}, []
        for entry in os.scandir("/proc"):
            if entry.name.isdigit():
                try:
                    stat = pathlib.Path(entry.path, "stat").read_text(errors="replace")
                except OSError:
                    continue
                name = stat[stat.index("(") + 1 : stat.rindex(")")]
                fields = stat[stat.rindex(")") + 2 :].split()
                rows.append((int(entry.name), int(fields[1]), name, fields))
                parents[int(entry.name)] = int(fields[1])
        held = 0
        for pid, parent, name, fields in rows:
            ancestor = pid
            while ancestor not in (self.root, 0):
                ancestor = parents.get(ancestor, 0)
            if ancestor == self.root:
                own = (int(fields[11]) + int(fields[12])) / TICK
                children = (int(fields[13]) + int(fields[14])) / TICK
                self.used[pid] = (name, own, children, parent)
                held += int(fields[21]) * 4096
        self.memory = max(self.memory, held)

    def run(self):
        while not self.over.wait(0.01):
            self.sample()

    def by_program(self):
        sums, waited = collections.Counter(), 0.0
        for name, own, children, _ in self.used.values():
            sums[name] += own
            waited += children if name == "tessera-extract" else 0.0
        seen = sum(s for name, s in sums.items() if not name.startswith("tessera"))
        sums["other helpers"] = max(0.0, waited - seen)
        return sums


def run(tessera, home, *arguments):
    """Returns what a run of the command took; the output is not looked at."""
    begun = time.monotonic()
    process = subprocess.Popen(
        [tessera, *arguments],
        env={**os.environ, "TESSERA_HOME": str(home)},
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    times = Times(process.pid)
    times.start()
    phases, last, errors = collections.Counter(), (begun, "Start"), []

    def read_errors():
        nonlocal last
        for line in process.stderr:
            now = time.monotonic()
            try:
                phase = json.loads(line)["phase"]
            except (ValueError, KeyError, TypeError):
                errors.append(line)
                continue
            if phase != last[1]:
                phases[last[1]] += now - last[0]
                last = (now, phase)

    reader = threading.Thread(target=read_errors)
    reader.start()
    for _ in process.stdout:
        pass
    reader.join()
    process.wait()
    end = time.monotonic()
    phases[last[1]] += end - last[0]
    times.over.set()
    times.join()
    if process.returncode == 2:
        sys.stderr.buffer.write(b"".join(errors[-5:]))
        sys.exit(f"tessera {' '.join(map(str, arguments[:3]))} ...: status 2")
    programs = times.by_program()
    return {
        "status": process.returncode,
        "seconds": end - begun,
        "processor": sum(programs.values()),
        "programs": programs,
        "phases": phases,
        "memory": times.memory,
    }


def table(head, rows):
    print("| " + " | ".join(head) + " |\n|---" + "|---:" * (len(head) - 1) + "|")
    for row in rows:
        print("| " + " | ".join(row) + " |")
    print()


def main():
    tessera = str(pathlib.Path(sys.argv[1]).resolve())
    chosen = choose(int(sys.argv[2]) if len(sys.argv) > 2 else 2000)
    with tempfile.TemporaryDirectory(prefix="tessera-bench-") as scratch:
        scratch = pathlib.Path(scratch)

        def listed(paths):
            names = scratch / "names"
            names.write_bytes(b"\0".join(map(bytes, paths)))
            return ["-0", "--files-from", str(names)]

        every = [path for paths in chosen.values() for path in paths]
        runs = {}
        for name, verb in (("index", "index"), ("index, unchanged", "index"), ("match", "match")):
            done = run(tessera, scratch / "home", verb, "--progress=json", *listed(every))
            runs[name] = (every, done)
        done = run(tessera, scratch / "sparse", "index", "--selection=sparse", *listed(every))
        runs["index, sparse"] = (every, done)
        for kind, paths in chosen.items():
            if paths:
                done = run(tessera, scratch / "home", "match", "--jobs=1", *listed(paths))
                runs[f"match {kind}, one at a time"] = (paths, done)
        bytes_in_home = sum(
            path.stat().st_size for path in (scratch / "home").rglob("*") if path.is_file()
        )
    print(f"{len(every)} documents:", end=" ")
    print(", ".join(f"{len(paths)} {kind}" for kind, paths in chosen.items()) + f"; the home holds")
    print(f"{bytes_in_home / 1e6:.1f} MB after the first run, {os.cpu_count()} processors.\n")
    rows = []
    for name, (paths, done) in runs.items():
        size = sum(path.stat().st_size for path in paths)
        seconds = done["seconds"]
        rate, volume = len(paths) / seconds, size / 1e6 / seconds
        row = [name, f"{len(paths)}", f"{size / 1e6:.1f}", f"{seconds:.1f}", f"{rate:.0f}"]
        rows.append([*row, f"{volume:.1f}", f"{done['processor']:.1f}", f"{done['memory'] >> 20}"])
    head = ["run", "documents", "MB", "s", "documents/s", "MB/s", "processor s", "MiB at most"]
    table(head, rows)
    rows = []
    for name, (_, done) in runs.items():
        shares = [f"{p} {s:.1f} s" for p, s in done["programs"].most_common(6) if s >= 0.05]
        phases = [f"{phase} {seconds:.1f} s" for phase, seconds in done["phases"].items()]
        rows.append([name, ", ".join(shares), ", ".join(phases) if len(phases) > 1 else ""])
    table(["run", "processor time of", "phases"], rows)


if __name__ == "__main__":
    main()
