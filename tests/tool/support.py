"""What the tests of the tessera command share: a scratch home, documents, running it.

CTest runs each test by itself. By hand, for all tests of a file or some:

    TESSERA=build/linux-release/bin/tessera HOLD_INDEX=build/linux-release/tests/hold_index \\
        python3 tests/tool/index_test.py [-k PART_OF_A_NAME]
"""

import contextlib
import io
import os
import pathlib
import random
import re
import signal
import sqlite3
import subprocess
import tempfile
import time
import unittest
import zipfile

TESSERA = os.path.abspath(os.environ["TESSERA"])

# Memory, where there is such a place: nothing here depends on a disk, and syncing is slow.
SCRATCH_PARENT = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None

DONE, MATCHED, FAILED, NOT_INSPECTED = 0, 1, 2, 3
PRESENT, ARRIVING, LEAVING = 0, 1, 2


def text(seed, words=3000):
    """Words nobody else uses: two seeds share no passage."""
    source = random.Random(seed)
    letters = "abcdefghijklmnopqrstuvwxyz"
    lines = []
    for _ in range(words // 10):
        line = ["".join(source.choices(letters, k=source.randint(3, 9))) for _ in range(10)]
        lines.append(" ".join(line).capitalize() + ".")
    return "\n".join(lines) + "\n"


def zipped(members):
    """An archive of names and contents."""
    archive = io.BytesIO()
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as file:
        for name, content in members:
            file.writestr(name, content)
    return archive.getvalue()


def wait_for(condition):
    deadline = time.monotonic() + 60
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("waited in vain")
        time.sleep(0.01)


class ToolTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory(prefix="tessera-tool-", dir=SCRATCH_PARENT)
        self.addCleanup(scratch.cleanup)
        self.dir = pathlib.Path(os.path.realpath(scratch.name))
        self.home = self.dir / "home"
        self.docs = self.dir / "docs"
        self.docs.mkdir()

    def write(self, name, content):
        path = pathlib.Path(os.path.normpath(self.docs / name))
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content.encode() if isinstance(content, str) else content)
        return path

    def environment(self):
        return {**os.environ, "TESSERA_HOME": str(self.home), "LC_ALL": "C"}

    def run_tool(self, *arguments, status, environment=None, cwd=None, stdin=b""):
        """Runs the command, checks its status, returns (stdout, stderr)."""
        done = subprocess.run(
            [TESSERA, *arguments],
            cwd=cwd or self.dir,
            env=environment or self.environment(),
            input=stdin,
            capture_output=True,
            timeout=120,
        )
        out, err = (os.fsdecode(stream) for stream in (done.stdout, done.stderr))
        self.assertEqual(status, done.returncode, f"{arguments}: {out}{err}")
        return out, err

    def start_tool(self, *arguments):
        process = subprocess.Popen(
            [TESSERA, *arguments],
            cwd=self.dir,
            env=self.environment(),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
        )
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def index(self, *paths, status=DONE):
        return self.run_tool("index", *(paths or [self.docs]), status=status)

    def matches(self, *files, status=MATCHED, options=()):
        """The (level, name) pairs that a match of one file prints."""
        out, _ = self.run_tool("match", *options, *files, status=status)
        line = r"^  level (\d)  (.*)  \(\d+ of \d+ signatures?\)"
        return [(int(level), name) for level, name in re.findall(line, out, re.M)]

    @contextlib.contextmanager
    def catalogue(self):
        with contextlib.closing(sqlite3.connect(self.home / "catalogue.sqlite")) as database:
            yield database

    def rows(self, columns="id, path, state"):
        with self.catalogue() as database:
            return database.execute(f"SELECT {columns} FROM documents ORDER BY id").fetchall()

    def change_catalogue(self, sql):
        with self.catalogue() as database, database:
            database.execute(sql)

    def held_catalogue(self):
        """While it is held, an indexing run stands still at its first batch."""
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        stack.enter_context(self.catalogue()).execute("BEGIN IMMEDIATE")
        return stack

    def catches_interrupts(self, process):
        status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
        caught = int(re.search(r"^SigCgt:\s*(\w+)", status, re.M)[1], 16)
        return caught >> (signal.SIGINT - 1) & 1

    def terminal(self, command, columns=100, environment=None):
        socket = tempfile.mktemp(prefix="terminal-", dir=self.dir)
        terminal = Terminal(socket, command, columns,
                            {**self.environment(), "LC_ALL": "C.UTF-8", **(environment or {})},
                            self.dir)
        self.addCleanup(terminal.close)
        return terminal


class Terminal:
    """A real one, 30 lines high, that shows what a shell command prints."""

    def __init__(self, socket, command, columns, environment, directory):
        self.tmux = ["tmux", "-u", "-S", socket, "-f", "/dev/null"]
        environment.pop("TMUX", None)
        self.run("new-session", "-d", "-x", str(columns), "-y", "30", command,
                 env=environment, cwd=directory)

    def run(self, *arguments, **options):
        return subprocess.run([*self.tmux, *arguments], check=True, capture_output=True,
                              text=True, timeout=60, **options).stdout

    def type(self, text):
        self.run("send-keys", "-l", "--", text)

    def press(self, key):
        self.run("send-keys", key)

    def screen(self, colours=False):
        return self.run("capture-pane", "-p", *(["-e"] if colours else []))

    def wait_for(self, text):
        wait_for(lambda: text in self.screen())
        return self.screen()

    def close(self):
        subprocess.run([*self.tmux, "kill-server"], check=False, capture_output=True)
