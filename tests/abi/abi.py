#!/usr/bin/env python3
"""Holds the built shared library against the ABI of the last released one.

abi.py check LIBRARY VERSION            is the change since then one that VERSION allows?
abi.py release LIBRARY VERSION CHANGES  make LIBRARY's ABI the released one

The released ABI is libtessera-RELEASE.abi beside this file, as abidw of libabigail
writes it: exported symbols with the types that they take, and the SONAME. What the
comparison finds must show in the version (semantic versioning):

    nothing                    any version from RELEASE on
    symbols that were added    another minor or major version
    anything else              another major version, which is another SONAME, too

CHANGES is the changelog. A version that it heads with "(unreleased)" does not become the
released ABI, but for the first one, which has nothing to keep to yet.
"""
import re
import subprocess
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
NOTHING, ADDED, BROKEN = "nothing", "added", "broken"
# Exit status of abidiff, by bits.
FAILED, CHANGED = 1 | 2, 4 | 8


def baseline():
    """The file of the released ABI, and its version."""
    files = list(HERE.glob("libtessera-*.abi"))
    if len(files) != 1:
        sys.exit(f"{HERE} holds {len(files)} released ABIs, not one")
    return files[0], re.fullmatch(r"libtessera-(.+)\.abi", files[0].name)[1]


def description(library):
    """The ABI of a library. Without debug information it would be its symbols only, and
    a change of a type would go unseen."""
    text = subprocess.run(
        ["abidw", "--no-show-locs", "--no-comp-dir-path", "--no-corpus-path",
         "--exported-interfaces-only", "--type-id-style", "hash", library],
        check=True, capture_output=True, text=True).stdout
    symbols = set(re.findall(r"<elf-symbol name='(\w+)'", text))
    for aliases in re.findall(r"<elf-symbol .* alias='([\w,]+)'", text):
        symbols -= set(aliases.split(","))
    symbols -= set(re.findall(r"<function-decl .*elf-symbol-id='(\w+)", text))
    if symbols or "<function-decl" not in text:
        sys.exit(f"{library} has no debug information of {', '.join(sorted(symbols))}")
    return text


def abidiff(*arguments):
    done = subprocess.run(["abidiff", *map(str, arguments)], capture_output=True, text=True)
    if done.returncode & FAILED or done.returncode < 0:
        sys.exit(f"abidiff failed: {done.stdout}{done.stderr}")
    return bool(done.returncode & CHANGED), done.stdout


def change(released, library):
    """What kind of change leads from one to the other, and abidiff's words for it."""
    changed, report = abidiff(released, library)
    if not changed:
        return NOTHING, report
    changed, _ = abidiff("--no-added-syms", released, library)
    return BROKEN if changed else ADDED, report


def numbers(version):
    return tuple(int(number) for number in version.split("."))


def allowed(kind, release, version):
    old, new = numbers(release), numbers(version)
    if kind == NOTHING:
        return new >= old
    return new[:2] > old[:2] if kind == ADDED else new[0] > old[0]


def refusal(kind, release, version):
    needed = {NOTHING: "no lower version", ADDED: "another minor version",
              BROKEN: "another major version"}[kind]
    return (f"The ABI since {release}: {kind}. That needs {needed} than {release}; "
            f"this is {version} (CONTRIBUTING.md, Versions).")


def is_unreleased(version, changes):
    return re.search(rf"^## {re.escape(version)} \(unreleased\)$", changes, re.MULTILINE)


def check(library, version):
    released, release = baseline()
    description(library)
    kind, report = change(released, library)
    print(f"{report}{kind}, from {release} to {version}")
    if not allowed(kind, release, version):
        sys.exit(refusal(kind, release, version))


def release_abi(library, version, changelog):
    released, release = baseline()
    changes = Path(changelog).read_text()
    if not is_unreleased(release, changes):
        kind, report = change(released, library)
        if not allowed(kind, release, version):
            sys.exit(report + refusal(kind, release, version))
        if is_unreleased(version, changes):
            sys.exit(f"{changelog} calls {version} unreleased; the ABI to keep to is that of "
                     f"{release}.")
    written = description(library)
    released.unlink()
    (HERE / f"libtessera-{version}.abi").write_text(written)


if __name__ == "__main__":
    if len(sys.argv) == 4 and sys.argv[1] == "check":
        check(*sys.argv[2:])
    elif len(sys.argv) == 5 and sys.argv[1] == "release":
        release_abi(*sys.argv[2:])
    else:
        sys.exit(__doc__)
