"""The wheel: what is in it, that it is the same each time, and that it installs."""
import os
import re
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path

import pytest
from conftest import ROOT, TEXTS

import tessera

sys.path.insert(0, str(ROOT / "bindings/python"))
import build_wheel  # noqa: E402

WHEELS = Path(os.environ["TESSERA_WHEELS"])
VERSION = os.environ["TESSERA_VERSION"]
LIBRARY = Path(tessera.__file__).parent / "libtessera.so"


@pytest.fixture(scope="module")
def wheel():
    (found,) = WHEELS.glob("*manylinux*.whl")
    return found


def build(directory, library=LIBRARY, **environment):
    """Builds a wheel as the build does; the newest file."""
    subprocess.run(
        [sys.executable, ROOT / "bindings/python/build_wheel.py", VERSION, library, directory],
        check=True, cwd="/", capture_output=True, env={**os.environ, **environment},
    )
    return max(Path(directory).iterdir(), key=os.path.getmtime)


def test_the_version_is_that_of_the_library(wheel):
    assert tessera.__version__ == VERSION
    assert re.search(rf"^project\(tessera VERSION {re.escape(VERSION)} ",
                     (ROOT / "CMakeLists.txt").read_text(), re.MULTILINE)
    with zipfile.ZipFile(wheel) as files:
        metadata = files.read(f"tessera-{VERSION}.dist-info/METADATA").decode()
    assert f"\nName: tessera\nVersion: {VERSION}\n" in metadata
    assert "\nRequires-Python: >=3.9\n" in metadata


def test_the_wheel_holds_the_package_and_nothing_else(wheel):
    with zipfile.ZipFile(wheel) as files:
        names = files.namelist()
    sources = {f"tessera/{path.name}" for path in (ROOT / "bindings/python/src/tessera").glob("*")
               if path.suffix in (".py", ".typed")}
    info = {f"tessera-{VERSION}.dist-info/{name}" for name in ("METADATA", "WHEEL", "RECORD")}
    assert set(names) == sources | info | {"tessera/libtessera.so", "tessera/_version.py"}
    assert len(names) == len(set(names))


def test_the_tag_is_the_newest_version_that_the_library_asks_for(wheel):
    symbols = subprocess.run(["objdump", "-T", LIBRARY], check=True, capture_output=True,
                             text=True).stdout
    asked = {tuple(map(int, version.split(".")))
             for version in re.findall(r"\(GLIBC_([\d.]+)\)", symbols)}
    assert "GLIBCXX" not in symbols and "CXXABI" not in symbols
    major, minor = max(asked)
    assert wheel.name == f"tessera-{VERSION}-py3-none-manylinux_{major}_{minor}_x86_64.whl"
    for language in ("python", "csharp", "node"):  # the packages hold one and the same library
        readme = (ROOT / f"bindings/{language}/README.md").read_text()
        assert f"glibc {major}.{minor} or later" in readme, language
    with zipfile.ZipFile(wheel) as files:
        tags = files.read(f"tessera-{VERSION}.dist-info/WHEEL").decode()
    assert f"\nTag: py3-none-manylinux_{major}_{minor}_x86_64\n" in tags


def test_the_library_exports_what_the_one_of_the_build_does():
    def exports(library):
        lines = subprocess.run(["nm", "-D", "--defined-only", library], check=True,
                               capture_output=True, text=True).stdout.splitlines()
        return {line.split()[-1] for line in lines}

    assert exports(LIBRARY) == exports(WHEELS.parent / "libtessera.so")
    assert len(exports(LIBRARY)) == 15


def test_two_builds_give_the_same_bytes(tmp_path, wheel):
    library = tmp_path / "copy.so"
    shutil.copyfile(LIBRARY, library)
    os.chmod(library, 0o600)
    os.utime(library, (10**9, 10**9))
    environment = {"TZ": "Asia/Tokyo", "PYTHONHASHSEED": "1"}
    environment.update(SOURCE_DATE_EPOCH=os.environ.get("SOURCE_DATE_EPOCH", "315532800"))
    old = os.umask(0o077)
    try:
        first = build(tmp_path / "1", library, **environment)
    finally:
        os.umask(old)
    second = build(tmp_path / "2", TZ="UTC", PYTHONHASHSEED="2",
                   SOURCE_DATE_EPOCH=environment["SOURCE_DATE_EPOCH"])
    assert first.name == second.name == wheel.name
    assert first.read_bytes() == second.read_bytes()


def test_the_time_of_the_files_can_be_set(tmp_path):
    with zipfile.ZipFile(build(tmp_path, SOURCE_DATE_EPOCH="1700000000")) as files:
        assert {entry.date_time for entry in files.infolist()} == {(2023, 11, 14, 22, 13, 20)}


def test_a_windows_library_gives_a_windows_wheel(tmp_path):
    (tmp_path / "any.dll").write_bytes(b"MZ and more")
    made = build(tmp_path / "out", tmp_path / "any.dll")
    assert made.name == f"tessera-{VERSION}-py3-none-win_amd64.whl"
    with zipfile.ZipFile(made) as files:
        assert files.read("tessera/tessera.dll") == b"MZ and more"
        assert "tessera/libtessera.so" not in files.namelist()


def test_a_library_that_is_not_built_yet_is_told(tmp_path, capsys):
    build_wheel.main(VERSION, str(tmp_path / "tessera.dll"), str(tmp_path))
    assert capsys.readouterr().out == f"No {tmp_path}/tessera.dll, so no wheel of it\n"
    assert list(tmp_path.iterdir()) == []


def test_a_wheel_of_another_kind_stays_and_an_older_one_goes(tmp_path):
    for name in ("tessera-0.9.0-py3-none-manylinux_2_17_x86_64.whl",
                 "tessera-0.9.0-py3-none-win_amd64.whl"):
        (tmp_path / name).touch()
    build(tmp_path)
    left = {path.name.split("-")[1]: path.name.split("-")[-1][:5] for path in tmp_path.iterdir()}
    assert left == {VERSION: "manyl", "0.9.0": "win_a"}


@pytest.mark.parametrize("headers, tag", [
    ("  NEEDED  libc.so.6\n 0x0 GLIBC_2.2.5\n 0x0 GLIBC_2.17\n GCC_3.0", "manylinux_2_17_x86_64"),
    ("GLIBC_2.9\nGLIBC_2.10\n", "manylinux_2_10_x86_64"),
    ("GLIBC_2.36\nGLIBC_2.4\nGCC_4.2.0", "manylinux_2_36_x86_64"),
])
def test_versions_are_compared_as_numbers(headers, tag):
    assert build_wheel.manylinux_tag(headers) == tag


@pytest.mark.parametrize("headers, reason", [
    ("  NEEDED      libstdc++.so.6\nGLIBC_2.17", r"libstdc\+\+.so.6"),
    ("GLIBC_2.17\nGCC_7.0.0", "7, 0, 0"),
])
def test_what_not_every_system_has_is_refused(headers, reason):
    with pytest.raises(ValueError, match=reason):
        build_wheel.manylinux_tag(headers)


PROGRAM = """
import sys, tessera
text = sys.argv[2]
with tessera.Index(sys.argv[1]) as index:
    index.add(5, tessera.signatures(text))
with tessera.Matcher(sys.argv[1]) as matcher:
    print(matcher.match(tessera.signatures(text[500:2500])), tessera.__file__)
"""

TYPED = """
import tessera
from typing import List
signatures: List[bytes] = tessera.signatures("text", platform=tessera.Platform.SERVER)
with tessera.Matcher("home") as matcher:
    number: int = matcher.match(signatures)[0].file_id
with tessera.Index("home") as index:
    index.add("1", signatures)
    index.commit()
tessera.signatures(5)
"""


@pytest.fixture(scope="module")
def environment(tmp_path_factory, wheel):
    """A fresh virtual environment with the wheel in it; its python."""
    directory = tmp_path_factory.mktemp("environment")
    clean = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
    subprocess.run([sys.executable, "-m", "venv", directory], check=True, env=clean)
    subprocess.run([directory / "bin/pip", "install", "--no-index", "--no-cache-dir",
                    "--disable-pip-version-check", "--quiet", wheel], check=True, env=clean)
    return directory / "bin/python"


def test_the_wheel_installs_and_works(environment, tmp_path):
    done = subprocess.run([environment, "-I", "-c", PROGRAM, tmp_path / "home", TEXTS[0]],
                          cwd=tmp_path, capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    found, place = done.stdout.rsplit(" ", 1)
    assert found == "[Match(file_id=5, level=<Level.STRONG: 2>)]"
    assert environment.parents[1] in Path(place).parents


def mypy(*arguments, directory):
    cache = WHEELS / "mypy"  # makes the second run quick
    return subprocess.run(
        [sys.executable, "-m", "mypy", "--strict", "--no-error-summary", "--cache-dir", cache,
         *arguments], cwd=directory, capture_output=True, text=True)


@pytest.mark.parametrize("platform", ["linux", "win32"])
def test_the_types_of_the_package_and_of_the_example_are_right(platform):
    done = mypy("--python-version", "3.9", "--platform", platform, "tessera",
                ROOT / "examples/scan_outgoing.py", directory=WHEELS / "package")
    assert done.stdout + done.stderr == ""


def test_a_program_with_the_installed_package_is_checked(environment, tmp_path, monkeypatch):
    (tmp_path / "program.py").write_text(TYPED)
    monkeypatch.delenv("PYTHONPATH")  # so that the installed one is seen
    done = mypy("--python-executable", environment, "program.py", directory=tmp_path)
    assert re.findall(r":(\d+): error", done.stdout) == ["8", "9", "10"], done.stdout + done.stderr
