#!/usr/bin/python3
"""Makes a wheel of the package and a library.

usage: build_wheel.py VERSION LIBRARY OUTPUT_DIRECTORY [UNPACKED_DIRECTORY]

The library, an ELF or a Windows file, decides for which systems the wheel is: on Linux, for
those whose C library has the versions of symbols that it asks for. When it is not built yet,
that is said and no wheel made. Older wheels for the same kind of system are removed from the
output directory. The unpacked directory gets what pip would install.

The same sources and the same library give the same bytes: the order of the files is fixed,
and their time is SOURCE_DATE_EPOCH, or the earliest that the format has.
Tests: tests/test_wheel.py.
"""
import os
import platform
import re
import shutil
import subprocess
import sys
from pathlib import Path
from typing import Dict
from zipfile import ZIP_DEFLATED, ZipInfo

from wheel.wheelfile import WheelFile, get_zipinfo_datetime

HERE = Path(__file__).resolve().parent
# Libraries that every system of the "manylinux" kind has.
EVERYWHERE = {"libc.so.6", "libm.so.6", "libgcc_s.so.1", "ld-linux-x86-64.so.2"}
GCC_EVERYWHERE = (4, 2, 0)


def platform_tag(library: Path) -> str:
    """Of the oldest systems that can load the library. ValueError when there are none."""
    if library.read_bytes()[:2] == b"MZ":
        return "win_amd64"
    headers = subprocess.run(
        ["objdump", "-p", library], check=True, capture_output=True, text=True
    ).stdout
    return manylinux_tag(headers)


def manylinux_tag(headers: str) -> str:
    """The same for an ELF file of these headers, as objdump -p prints them."""
    foreign = set(re.findall(r"NEEDED +(\S+)", headers)) - EVERYWHERE
    if foreign:
        raise ValueError(f"not every system has {', '.join(sorted(foreign))}")
    newest = {
        family: max((numbers(found) for found in re.findall(rf"\b{family}_([\d.]+)", headers)),
                    default=(0,))
        for family in ("GLIBC", "GCC")
    }
    if newest["GCC"] > GCC_EVERYWHERE:
        raise ValueError(f"the compiler's library would have to have {newest['GCC']}")
    major, minor = newest["GLIBC"][:2]
    return f"manylinux_{major}_{minor}_{platform.machine()}"


def numbers(version: str) -> "tuple[int, ...]":
    return tuple(map(int, version.split(".")))


def metadata(version: str) -> str:
    return f"""\
Metadata-Version: 2.1
Name: tessera
Version: {version}
Summary: Tells which confidential documents a text shares passages with
Keywords: data-loss prevention,document fingerprinting
Classifier: Intended Audience :: Developers
Classifier: Operating System :: Microsoft :: Windows
Classifier: Operating System :: POSIX :: Linux
Classifier: Programming Language :: Python :: 3
Classifier: Topic :: Security
Classifier: Typing :: Typed
Requires-Python: >=3.9
Description-Content-Type: text/markdown

""" + (HERE / "README.md").read_text(encoding="utf-8")


def contents(version: str, library: Path, tag: str) -> Dict[str, bytes]:
    """The files of the wheel by their names, but for its list of them."""
    files = {
        f"tessera/{source.name}": source.read_bytes()
        for source in sorted((HERE / "src/tessera").iterdir())
        if source.suffix == ".py" or source.name == "py.typed"
    }
    files["tessera/_version.py"] = f'__version__ = "{version}"\n'.encode()
    name = "tessera.dll" if tag == "win_amd64" else "libtessera.so"
    files[f"tessera/{name}"] = library.read_bytes()
    info = f"tessera-{version}.dist-info"
    files[f"{info}/METADATA"] = metadata(version).encode()
    files[f"{info}/WHEEL"] = (
        f"Wheel-Version: 1.0\nGenerator: tessera\nRoot-Is-Purelib: false\nTag: py3-none-{tag}\n"
    ).encode()
    return files


def write_wheel(path: Path, files: Dict[str, bytes]) -> None:
    with WheelFile(path, "w") as wheel:
        for name, content in files.items():
            entry = ZipInfo(name, date_time=get_zipinfo_datetime())
            entry.external_attr = 0o100644 << 16
            entry.compress_type = ZIP_DEFLATED
            wheel.writestr(entry, content)


def main(version: str, library: str, output: str, unpacked: str = "") -> None:
    if not Path(library).exists():
        print(f"No {library}, so no wheel of it")
        return
    os.environ.setdefault("SOURCE_DATE_EPOCH", "315532800")
    try:
        tag = platform_tag(Path(library))
    except ValueError as error:
        sys.exit(f"{library}: {error}")
    directory = Path(output)
    directory.mkdir(parents=True, exist_ok=True)
    for older in directory.glob(f"tessera-*-{tag.split('_')[0]}_*.whl"):
        older.unlink()
    path = directory / f"tessera-{version}-py3-none-{tag}.whl"
    write_wheel(path, contents(version, Path(library), tag))
    print(path)
    if unpacked:
        shutil.rmtree(unpacked, ignore_errors=True)
        with WheelFile(path) as wheel:
            wheel.extractall(unpacked)


if __name__ == "__main__":
    if len(sys.argv) not in (4, 5):
        sys.exit(__doc__)
    main(*sys.argv[1:])
