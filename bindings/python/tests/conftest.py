"""What the tests share: homes, texts, and programs of their own.

The package is on PYTHONPATH, as unpacked from the wheel.
"""
import os
import random
import subprocess
import sys
from pathlib import Path
from typing import Callable, Iterator, List

import pytest

import tessera

ROOT = Path(__file__).resolve().parents[3]
TEXTS = ["".join(random.Random(seed).choices("abcdefghijklmnopqrstuvwxyz ", k=4000))
         for seed in range(8)]


def query(number: int) -> List[bytes]:
    """Signatures of a text that is unlike the others."""
    return tessera.signatures(TEXTS[number])


@pytest.fixture
def home(tmp_path: Path) -> Path:
    return tmp_path / "home"


@pytest.fixture
def filled(home: Path) -> Path:
    """An index of the first four texts, numbered from 0."""
    with tessera.Index(home) as index:
        for number in range(4):
            index.add(number, query(number))
    return home


@pytest.fixture(autouse=True)
def nothing_is_left() -> Iterator[None]:
    """No test may leave a session open, or the process in another directory."""
    before = os.getcwd()
    yield
    left = list(tessera.Index._open.values())
    for session in left:
        session.close()
    assert left == []
    assert os.getcwd() == before


@pytest.fixture
def run(tmp_path: Path) -> Callable[..., str]:
    """Runs a program in a process of its own, and gives back what it prints."""

    def run_program(program: str, *arguments: object) -> str:
        done = subprocess.run(
            [sys.executable, "-c", "import os, sys, tessera\n" + program, *map(str, arguments)],
            cwd=tmp_path, capture_output=True, text=True, timeout=60,
        )
        assert done.returncode == 0, done.stderr
        return done.stdout

    return run_program
