"""Runs the built command for the tests with real documents, and reads what it says.

TESSERA is the command, DOCUMENTS the directory that make_documents.py made.
"""

import dataclasses
import json
import os
import pathlib
import signal
import subprocess
import threading
import time

TESSERA = os.path.abspath(os.environ["TESSERA"])
DOCUMENTS = pathlib.Path(os.environ["DOCUMENTS"]).resolve() if "DOCUMENTS" in os.environ else None

DONE, MATCHED, FAILED, NOT_INSPECTED = 0, 1, 2, 3


@dataclasses.dataclass
class Verdict:
    """What match says of one document, a member of another perhaps."""

    name: str  # path, or path!member
    reason: str  # why it was not inspected, or not wholly; "" if it was
    detail: str
    signatures: int
    matches: dict  # name of the indexed document -> (level, hits)


@dataclasses.dataclass
class Run:
    status: int
    out: str
    err: str
    seconds: float
    memory: int  # most bytes that all its processes together held
    processes: int  # most at a time
    left: list  # processes that did not end with it

    def verdicts(self):
        return [verdict(json.loads(line)) for line in self.out.splitlines() if is_document(line)]


def is_document(line):
    return json.loads(line)["kind"] == "document"


def verdict(record):
    matches = {found["name"]: (found["level"], found["hits"]) for found in record["matches"]}
    missing = record.get("not_inspected", {"reason": "", "detail": ""})
    signatures = record.get("signatures", 0)
    return Verdict(record["name"], missing["reason"], missing["detail"], signatures, matches)


def documents(*kinds):
    entries = json.loads((DOCUMENTS / "documents.json").read_text(encoding="utf-8"))
    return [entry for entry in entries if entry["kind"] in kinds]


class Watch(threading.Thread):
    """Sums up what a process and all that descends from it hold, some fifty times a second."""

    def __init__(self, root):
        super().__init__(daemon=True)
        self.memory, self.processes = 0, 0
        self.family = {root: None}  # process -> when it was started
        self.over = threading.Event()

    def alive(self):
        """The family's processes that there are now, and what each of them holds."""
        found = {}
        for pid, parent, started, held in sorted(processes()):
            if self.family.get(pid, started) not in (None, started):
                continue  # another process with the number of one that is gone
            if pid in self.family or parent in self.family:
                self.family[pid] = started
                found[pid] = held
        return found

    def left(self):
        """What is still there some time after the end."""
        deadline = time.monotonic() + 3
        while (alive := self.alive()) and time.monotonic() < deadline:
            time.sleep(0.02)
        return list(alive)

    def run(self):
        while not self.over.wait(0.02):
            held = self.alive()
            self.memory = max(self.memory, sum(held.values()))
            self.processes = max(self.processes, len(held))


def processes():
    """(number, parent, start, bytes held that are not a file's) of each living process."""
    for entry in os.scandir("/proc"):
        if not entry.name.isdigit():
            continue
        try:
            stat = pathlib.Path(entry.path, "stat").read_text(errors="replace")
            state, parent, *fields = stat[stat.rindex(")") + 2 :].split()
            if state not in "ZX":
                pages = pathlib.Path(entry.path, "statm").read_text().split()
                held = (int(pages[1]) - int(pages[2])) * 4096
                yield int(entry.name), int(parent), fields[17], held
        except OSError:
            continue  # it has just ended


def run(*arguments, home, cwd=None, timeout=300, data=None):
    """Runs the command and watches it and what it starts."""
    begun = time.monotonic()
    process = subprocess.Popen(
        [TESSERA, *map(os.fspath, arguments)],
        cwd=cwd,
        env={**os.environ, "TESSERA_HOME": os.fspath(home), "LC_ALL": "C.UTF-8"},
        stdin=subprocess.DEVNULL if data is None else subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        start_new_session=True,
    )
    watch = Watch(process.pid)
    watch.start()
    try:
        out, err = process.communicate(data, timeout)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        raise
    finally:
        watch.over.set()
        watch.join()
    return Run(
        process.returncode,
        os.fsdecode(out),
        os.fsdecode(err),
        time.monotonic() - begun,
        watch.memory,
        watch.processes,
        watch.left(),
    )
