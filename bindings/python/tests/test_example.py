"""examples/scan_outgoing.py as a user runs it."""
import os
import runpy
import subprocess
import sys

import pytest
from conftest import ROOT, TEXTS

PROGRAM = ROOT / "examples/scan_outgoing.py"


@pytest.fixture
def folders(tmp_path):
    for name in ("confidential/board", "outgoing/old"):
        (tmp_path / name).mkdir(parents=True)
    (tmp_path / "confidential/plan.txt").write_text(TEXTS[0])
    (tmp_path / "confidential/board/minutes.txt").write_text(TEXTS[1])
    (tmp_path / "confidential/image").write_bytes(b"\0image" * 1000)
    (tmp_path / "confidential/note").write_text("too short")
    (tmp_path / "outgoing/harmless.txt").write_text(TEXTS[2])
    return tmp_path


def scan_outgoing(directory, *arguments):
    done = subprocess.run([sys.executable, PROGRAM, *arguments], cwd=directory, text=True,
                          capture_output=True, timeout=60)
    return done.returncode, done.stdout, done.stderr


def test_what_is_found_and_the_exit_status(folders):
    learn = ("learn", "home", "confidential")
    scan = ("scan", "home", "outgoing")
    known = folders / "confidential"

    assert scan_outgoing(folders, *learn) == (
        0, "3 documents\n", "note: too short\n")
    assert scan_outgoing(folders, *scan) == (0, "", "")

    (folders / "outgoing/old/mail").write_text("Hi Tom,\n> " + TEXTS[1][500:2500])
    (folders / "outgoing/picture").write_bytes(b"\0image" * 1000)
    found = (f"old/mail: strong match with {known}/board/minutes.txt\n"
             f"picture: strong match with {known}/image\n")
    assert scan_outgoing(folders, *scan) == (1, found, "")

    os.mkfifo(folders / "outgoing/pipe")  # no file, so no document
    assert scan_outgoing(folders, *scan)[0] == 1


def test_learning_again_replaces_what_changed(folders):
    scan_outgoing(folders, "learn", "home", "confidential")
    (folders / "confidential/plan.txt").write_text(TEXTS[2])
    assert scan_outgoing(folders, "learn", "home", "confidential")[:2] == (0, "3 documents\n")
    status, found, _ = scan_outgoing(folders, "scan", "home", "outgoing")
    assert (status, found.count("\n")) == (1, 1)
    (folders / "outgoing/harmless.txt").write_text(TEXTS[0])
    assert scan_outgoing(folders, "scan", "home", "outgoing")[0] == 0


def test_a_level_decides_what_is_told(folders):
    scan_outgoing(folders, "learn", "home", "confidential")
    (folders / "outgoing/long").write_text("".join(TEXTS[2:]) + TEXTS[0][:400])
    scan = ("scan", "home", "outgoing", "--min-level")
    assert [scan_outgoing(folders, *scan, level)[0] for level in ("trace", "strong")] == [1, 0]


def test_trouble_is_told_and_never_clean(folders):
    status, _, message = scan_outgoing(folders, "scan", "home", "outgoing")
    assert (status, "home" in message) == (2, True)
    assert not (folders / "home").exists()
    scan_outgoing(folders, "learn", "home", "confidential")
    status, _, message = scan_outgoing(folders, "scan", "home", "no folder")
    assert (status, message) == (2, f"{folders}/no folder is no folder\n")
    (folders / "home/sig_index_DB/search_table.stbl").write_bytes(b"")
    status, _, message = scan_outgoing(folders, "scan", "home", "outgoing")
    assert (status, "InitMatchSystem returned 1" in message) == (2, True)
    assert scan_outgoing(folders, "find")[0] == 2


def test_a_file_that_cannot_be_read_wins_over_a_match(folders):
    """Root may read everything, so the file is one whose reading fails for anybody."""
    scan_outgoing(folders, "learn", "home", "confidential")
    (folders / "outgoing/plan").write_text(TEXTS[0])
    (folders / "outgoing/unreadable").symlink_to("/proc/self/mem")
    status, found, message = scan_outgoing(folders, "scan", "home", "outgoing")
    assert (status, "strong match" in found) == (2, True)
    assert message != ""


def test_a_file_that_is_too_large_is_trouble_and_the_others_are_scanned(folders):
    scan_outgoing(folders, "learn", "home", "confidential")
    (folders / "outgoing/plan").write_text(TEXTS[0])
    with open(folders / "outgoing/large", "wb") as file:
        file.truncate(2**31)
    status, found, message = scan_outgoing(folders, "scan", "home", "outgoing")
    assert (status, "strong match" in found) == (2, True)
    assert message == f"{folders}/outgoing/large has more bytes than the library takes\n"


def test_a_folder_that_cannot_be_read_is_trouble(folders, monkeypatch):
    """Root may read everything, so the failure is made here."""
    program = runpy.run_path(str(PROGRAM))
    scandir = os.scandir

    def refusing(path):
        if str(path).endswith("old"):
            raise PermissionError(path)
        return scandir(path)

    monkeypatch.setattr(os, "scandir", refusing)
    with pytest.raises(PermissionError):
        program["files"](folders / "outgoing")


def test_names_of_files_are_any_bytes(folders):
    scan_outgoing(folders, "learn", "home", "confidential")
    (folders / os.fsdecode(b"outgoing/\xff plan")).write_text(TEXTS[0])
    status, found, message = scan_outgoing(folders, "scan", "home", "outgoing")
    assert (status, "plan: strong match" in found, message) == (1, True, "")


@pytest.mark.parametrize("disguise", [
    lambda text: b"\0" + text.encode(),
    lambda text: text.encode("utf-16"),
])
def test_a_nul_hides_no_text(folders, disguise):
    scan_outgoing(folders, "learn", "home", "confidential")
    (folders / "outgoing/mail").write_bytes(disguise(TEXTS[1][500:2500]))
    status, found, _ = scan_outgoing(folders, "scan", "home", "outgoing")
    assert (status, "mail: strong match" in found) == (1, True)
