#!/usr/bin/env python3
"""The built library exports the fifteen functions and nothing else, and needs
nothing but the system.

export_table.py LIBRARY NAME NM OBJDUMP [--any-dependency]: the library, the name by
which it is to be loaded, and the build's own tools to look into it. A sanitizer brings
a runtime of its own, which --any-dependency tolerates.
"""
import re
import subprocess
import sys

NAMES = {
    "InitSignatureGenerator",
    "GenerateSignature4Text",
    "GenerateSignature4Binary",
    "SetMaxContentSize",
    "FreeSignature",
    "ExitSignatureGenerator",
    "InitIndexSystem",
    "AddDocSignature",
    "DelDocSignature",
    "ExitIndexSystem",
    "setMaxStblSize",
    "InitMatchSystem",
    "MatchSignature",
    "FreeSigMatchRet",
    "ExitMatchSystem",
}
POSIX_LIBRARIES = {"libstdc++.so.6", "libgcc_s.so.1", "libc.so.6", "libm.so.6"}
POSIX_LOADERS = re.compile(r"ld-linux.*\.so\.\d")
WINDOWS_LIBRARIES = {"advapi32.dll", "kernel32.dll", "msvcrt.dll"}


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def posix_facts(library, nm, objdump):
    exported = set()
    for line in output(nm, "-D", "--defined-only", library).splitlines():
        kind, name = line.split()[-2:]
        # The version that the names belong to is listed as an absolute symbol.
        if kind != "A":
            exported.add(re.sub(r"@@TESSERA_1$", "", name))
    headers = output(objdump, "-p", library)
    needed = set(re.findall(r"NEEDED\s+(\S+)", headers))
    needed = {name for name in needed if not POSIX_LOADERS.fullmatch(name)}
    own_name = re.findall(r"SONAME\s+(\S+)", headers)
    return exported, needed - POSIX_LIBRARIES, own_name


def windows_facts(library, objdump):
    headers = output(objdump, "-p", library)
    table = headers.split("[Ordinal/Name Pointer] Table", 1)[1].split("\n\n", 1)[0]
    exported = set(re.findall(r"^\s*\[\s*\d+\]\s+(?:\+base\[\s*\d+\]\s+\S+\s+)?(\S+)", table, re.M))
    if headers.count("Export RVA") != len(exported):
        exported.add("something without a name")
    needed = {name.lower() for name in re.findall(r"DLL Name:\s+(\S+)", headers)}
    own_name = re.findall(r"^Name\s+\S+\s+(\S+)", headers, re.M)
    return exported, needed - WINDOWS_LIBRARIES, own_name


def main():
    library, expected_name, nm, objdump = sys.argv[1:5]
    any_dependency = "--any-dependency" in sys.argv
    if library.endswith(".dll"):
        exported, strangers, own_name = windows_facts(library, objdump)
    else:
        exported, strangers, own_name = posix_facts(library, nm, objdump)
    faults = [f"{name} is not exported" for name in sorted(NAMES - exported)]
    faults += [f"{name} is exported" for name in sorted(exported - NAMES)]
    if not any_dependency:
        faults += [f"{name} is needed" for name in sorted(strangers)]
    if own_name != [expected_name]:
        faults.append(f"the library calls itself {own_name}, not {expected_name}")
    sys.exit("\n".join(faults) or 0)


if __name__ == "__main__":
    main()
