#!/usr/bin/env python3
"""The packages that CPack makes of a build.

packages_test.py BUILD KIND NAME=VALUE...: works below BUILD/packages.

  make     makes them twice, at two times and in two zones, and wants the same bytes
  symbols  the symbols file names what the library exports, no more and no less
  lintian  Debian's own check of its packages has nothing to say
  install  a fresh Debian gets them by apt, runs and uses them, and is rid of them again
  zip      the zip for Windows holds what it should, and its checksums are right

CPACK, CMAKE and CC name the build's own programs, VERSION its version.
"""
import hashlib
import os
import re
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent / "consumer/project"
build, kind = Path(sys.argv[1]), sys.argv[2]
option = dict(pair.split("=", 1) for pair in sys.argv[3:])
work = build / "packages"
made = work / "made"
names = ["libtessera1", "libtessera-dev", "tessera-tools"]


def run(*command, ends_with=0, **settings):
    result = subprocess.run([str(part) for part in command], text=True, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, **settings)
    if result.returncode != ends_with:
        sys.exit(f"{' '.join(map(str, command))} ended with {result.returncode}, "
                 f"not {ends_with}:\n{result.stdout[-4000:]}")
    return result.stdout


def packages(directory=made):
    return sorted([*directory.glob("*.deb"), *directory.glob("*.zip")])


def deb(name):
    [path] = made.glob(f"{name}_{option['VERSION']}_*.deb")
    return path


# ---- make ----

def pack(directory, zone):
    shutil.rmtree(directory, ignore_errors=True)
    directory.mkdir(parents=True)
    run(option["CPACK"], "--config", build / "CPackConfig.cmake", "-B", directory, umask=0o022,
        env=os.environ | {"TZ": zone})
    return {path.name: path.read_bytes() for path in packages(directory)}


def test_make():
    again = work / "made again"
    first = pack(made, "UTC")
    second = pack(again, "Pacific/Auckland")
    if not first or first.keys() != second.keys():
        sys.exit(f"made: {sorted(first)}, then {sorted(second)}")
    differing = [name for name in first if first[name] != second[name]]
    if differing:
        sys.exit(f"made again with other bytes: {differing}; see {made} and {again}")
    shutil.rmtree(again)
    for directory in made.glob("_CPack_Packages"):
        shutil.rmtree(directory)


# ---- symbols, lintian ----

def test_symbols():
    tree = work / "symbols"
    shutil.rmtree(tree, ignore_errors=True)
    run("dpkg-deb", "--raw-extract", deb("libtessera1"), tree)
    [library] = tree.glob("usr/lib/*/libtessera.so.1")
    exported = {line.split()[-1] for line in
                run("nm", "--dynamic", "--defined-only", library).splitlines()}
    listed = re.findall(r"^ (\w+)@Base 1\.0\.0$", (tree / "DEBIAN/symbols").read_text(), re.M)
    if len(listed) != 15 or exported != set(listed):
        sys.exit(f"listed or exported, not both: {sorted(exported ^ set(listed))}")
    # That of dpkg itself reads the file, too.
    control = tree / "debian/control"
    control.parent.mkdir()
    control.write_text("Source: tessera\n\nPackage: libtessera1\nArchitecture: any\n")
    run("dpkg-gensymbols", "-plibtessera1", f"-v{option['VERSION']}", "-c4", f"-P{tree}",
        f"-I{tree / 'DEBIAN/symbols'}", "-O/dev/null", cwd=tree)
    shutil.rmtree(tree)


def test_lintian():
    # The spelling check reads machine code, and finds words in it that nobody wrote.
    said = run("lintian", "--allow-root", "--fail-on", "error,warning,info", "--display-info",
               "--suppress-tags", "spelling-error-in-binary", *map(deb, names))
    if said:
        sys.exit(f"lintian says:\n{said}")


# ---- install ----

ROOT = work / "root"


def apt_sources():
    """Debian's own sources among those of this machine, for the release that it has."""
    release = re.search(r"^VERSION_CODENAME=(\w+)$", Path("/etc/os-release").read_text(), re.M)[1]
    ours = {release, f"{release}-updates", f"{release}-security"}
    lines = run("apt-get", "indextargets", "--format", "$(REPO_URI) $(RELEASE) $(COMPONENT)",
                "Created-By: Packages").splitlines()
    sources = [f"deb {line}" for line in dict.fromkeys(lines)
               if re.fullmatch(rf"\S+ ({'|'.join(ours)}) main", line)]
    if not any(source.split()[2] == release for source in sources):
        sys.exit(f"no Debian mirror for {release} in this machine's apt configuration: {lines}")
    return release, sources


def make_repository():
    """The packages as apt wants them."""
    repository = work / "repository"
    shutil.rmtree(repository, ignore_errors=True)
    repository.mkdir()
    for name in names:
        shutil.copy(deb(name), repository)
    index = subprocess.run(["dpkg-scanpackages", "--multiversion", "."], cwd=repository,
                           capture_output=True, text=True, check=True).stdout
    (repository / "Packages").write_text(index)
    return f"deb [trusted=yes] copy://{repository} ./"


def make_root():
    """A minimal Debian with the packages and what they want, by apt alone."""
    if os.geteuid() != 0:
        sys.exit("only root can install packages into a root of their own: run this test as root")
    if subprocess.run(["unshare", "--mount", "true"], capture_output=True).returncode:
        sys.exit("this system lets root mount nothing (no CAP_SYS_ADMIN), and without /proc the "
                 "command does not run in a root of its own")
    shutil.rmtree(ROOT, ignore_errors=True)
    release, sources = apt_sources()
    lists = work / "sources.list"
    lists.write_text("\n".join([*sources, make_repository()]) + "\n")
    network = work / "apt.conf"  # proxies and the like
    network.write_text(run("apt-config", "dump", "Acquire::http", "Acquire::https",
                           "Acquire::Check-Valid-Until"))
    run("mmdebstrap", "--mode=root", "--variant=apt", "--format=directory", f"--aptopt={network}",
        '--aptopt=APT::Install-Recommends "true"', "--dpkgopt=force-unsafe-io",
        f"--include={','.join(names)}", release, ROOT, lists)


def inside(*command, user="nobody", **settings):
    """Runs a command in the root; what it mounts for that goes with it."""
    entry = f'mount --rbind /proc "{ROOT}/proc" && exec chroot --userspec="$0" "{ROOT}" "$@"'
    return run("unshare", "--mount", "sh", "-c", entry, user, *command, **settings)


def check_command():
    documents = ROOT / "tmp/documents"
    documents.mkdir()
    shutil.copy(PROJECT / "consumer.c", documents / "text")
    write_pdf(documents / "paper.pdf", (PROJECT / "consumer.c").read_text())
    for path in [documents, *documents.iterdir()]:
        path.chmod(0o755)
    tessera = ["tessera", "--home", "/tmp/home"]
    inside(*tessera, "index", "/tmp/documents/text")
    for name in "text", "paper.pdf":  # the PDF was not indexed: its text is that of the other
        said = inside(*tessera, "match", f"/tmp/documents/{name}", ends_with=1)
        if "level 2  /tmp/documents/text" not in said:
            sys.exit(f"match of {name} says:\n{said}")


def write_pdf(path, text):
    from reportlab.pdfgen import canvas
    page = canvas.Canvas(str(path))
    lines = page.beginText(40, 800)
    lines.setFont("Helvetica", 7)
    lines.textLines(text[: len(text) // 2])
    page.drawText(lines)
    page.save()


def check_files():
    for path in ["usr/share/man/man1/tessera.1.gz", "usr/share/man/man1/tessera-match.1.gz",
                 "usr/share/bash-completion/completions/tessera",
                 "usr/share/zsh/vendor-completions/_tessera",
                 "usr/share/fish/vendor_completions.d/tessera.fish",
                 "usr/share/tessera/match.schema.json", "usr/libexec/tessera/tessera-extract",
                 *[f"usr/share/doc/{name}/copyright" for name in names]]:
        if not (ROOT / path).is_file():
            sys.exit(f"/{path} is not installed")


def check_library():
    """A host that is compiled with the tree of the root and runs in it."""
    [library_directory] = ROOT.glob("usr/lib/*-linux-gnu")
    flags = run("pkg-config", "--cflags", "--libs", "tessera",
                env=os.environ | {"PKG_CONFIG_LIBDIR": str(library_directory / "pkgconfig"),
                                  "PKG_CONFIG_SYSROOT_DIR": str(ROOT),
                                  "PKG_CONFIG_ALLOW_SYSTEM_CFLAGS": "1",
                                  "PKG_CONFIG_ALLOW_SYSTEM_LIBS": "1"}).split()
    run(option["CC"], PROJECT / "consumer.c", "-o", ROOT / "tmp/by_pkg_config", *flags)
    project = work / "project"
    shutil.rmtree(project, ignore_errors=True)
    run(option["CMAKE"], "-G", "Ninja", "-S", PROJECT, "-B", project,
        f"-DCMAKE_C_COMPILER={option['CC']}", f"-DCMAKE_PREFIX_PATH={ROOT / 'usr'}")
    run(option["CMAKE"], "--build", project)
    for program in "with_shared", "with_static":
        shutil.copy(project / program, ROOT / "tmp")
    for program in "by_pkg_config", "with_shared", "with_static":
        (ROOT / "tmp" / program).chmod(0o755)
        inside("sh", "-c", f"mkdir /tmp/{program}.run && cd /tmp/{program}.run && ../{program}")


def check_removal():
    owned = {path for name in names for path in inside("dpkg", "-L", name).splitlines()}
    inside("apt-get", "--yes", "purge", *names, user="root",
           env=os.environ | {"DEBIAN_FRONTEND": "noninteractive"})
    left = [path for path in owned if "tessera" in path and os.path.lexists(ROOT / path[1:])]
    # Whatever has the name, but for the logs of apt and what this test put into /tmp.
    for directory, directories, files in os.walk(ROOT):
        place = Path(directory).relative_to(ROOT)
        if place.parts[:1] in (("proc",), ("tmp",)) or place.parts[:2] == ("var", "log") or \
                place.parts[:3] == ("var", "lib", "apt"):
            directories.clear()
            continue
        left += [f"/{place / name}" for name in directories + files if "tessera" in name]
    for name in names:
        status = subprocess.run(["dpkg-query", f"--root={ROOT}", "--show", name],
                                capture_output=True, text=True).stdout
        left += status.splitlines()
    if left:
        sys.exit(f"left behind: {sorted(set(left))}")


def test_install():
    make_root()
    check_files()
    check_command()
    check_library()
    check_removal()
    shutil.rmtree(ROOT)


# ---- zip ----

def test_zip():
    [path] = packages()
    top = f"tessera-{option['VERSION']}-windows-x64/"
    with zipfile.ZipFile(path) as archive:
        contents = {name.removeprefix(top): archive.read(name) for name in archive.namelist()}
        if any(not name.startswith(top) for name in archive.namelist()):
            sys.exit(f"not below {top}: {archive.namelist()}")
    expected = ["bin/tessera.dll", "lib/tessera.def", "lib/tessera.lib", "lib/libtessera.dll.a",
                "lib/libtessera.a", "lib/cmake/tessera/tesseraConfig.cmake", "include/tessera.h",
                "examples/index_and_match.c", "README.txt", "LICENSES.txt", "SHA256SUMS"]
    missing = [name for name in expected if name not in contents]
    if missing:
        sys.exit(f"not in the zip: {missing}")
    sums = dict(reversed(line.split("  ", 1))
                for line in contents.pop("SHA256SUMS").decode().splitlines())
    right = {name: hashlib.sha256(content).hexdigest() for name, content in contents.items()}
    if sums != right:
        sys.exit(f"SHA256SUMS is wrong: {sorted(sums.items() ^ right.items())}")


{"make": test_make, "symbols": test_symbols, "lintian": test_lintian, "install": test_install,
 "zip": test_zip}[kind]()
