#!/usr/bin/env python3
"""Programs that know nothing of Tessera but an installed tree, which was moved since.

consumer_test.py BUILD KIND [NAME=VALUE...]: installs what BUILD has made below
BUILD/consumer/KIND and uses it as KIND says:

  cmake       a project with find_package(tessera)
  pkg-config  a plain command line
  msvc        an import by tessera.lib, through LLVM's linker for MSVC's kind of programs
  command     the command itself, with all that belongs to it

CMAKE, CC, TOOLCHAIN and EMULATOR name the build's own.
"""
import os
import shutil
import subprocess
import sys
from pathlib import Path

PROJECT = Path(__file__).resolve().parent / "project"
build, kind = Path(sys.argv[1]), sys.argv[2]
option = dict(pair.split("=", 1) for pair in sys.argv[3:])
windows = bool(option.get("TOOLCHAIN"))
emulator = [option["EMULATOR"]] if option.get("EMULATOR") else []
work = build / "consumer" / kind
prefix = work / "moved to" / "tessera"


def run(*command, **settings):
    result = subprocess.run([str(part) for part in command], text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **settings)
    if result.returncode:
        sys.exit(f"{' '.join(map(str, command))} ended with {result.returncode}:\n{result.stdout}")
    return result.stdout


def install(*components):
    """Installs them, and moves the tree away from where it was installed."""
    shutil.rmtree(work, ignore_errors=True)
    first = work / "installed"
    for component in components:
        run(option["CMAKE"], "--install", build, "--prefix", first, "--component", component)
    prefix.parent.mkdir()
    first.rename(prefix)


def run_program(program):
    """Runs a consumer in a directory of its own."""
    home = work / f"{program.name}.run"
    home.mkdir()
    print(run(*emulator, program, cwd=home,
              env=os.environ | {"TESSERA_DLL_DIR": str(prefix / "bin")}), end="")


def test_cmake():
    install("runtime", "development")
    project = work / "project"
    toolchain = [f"-DCMAKE_TOOLCHAIN_FILE={option['TOOLCHAIN']}"] if windows else []
    run(option["CMAKE"], "-G", "Ninja", "-S", PROJECT, "-B", project, *toolchain,
        f"-DCMAKE_C_COMPILER={option['CC']}", "-DCMAKE_BUILD_TYPE=Debug",
        f"-DCMAKE_PREFIX_PATH={prefix}")
    run(option["CMAKE"], "--build", project)
    suffix = ".exe" if windows else ""
    for program in "with_shared", "with_static":
        run_program(project / (program + suffix))


def pkg_config(*arguments):
    environment = os.environ | {"PKG_CONFIG_LIBDIR": str(prefix / "lib/pkgconfig")}
    printed = run("pkg-config", *arguments, "tessera", env=environment)
    # One flag a line: the tree may lie where there are blanks.
    return run("xargs", "-n1", input=printed).splitlines()


def test_pkg_config():
    install("runtime", "development")
    if pkg_config("--modversion") != [option["VERSION"]]:
        sys.exit(f"pkg-config knows another version than {option['VERSION']}")
    suffix = ".exe" if windows else ""
    shared, static = work / ("with_shared" + suffix), work / ("with_static" + suffix)
    path = [] if windows else [f"-Wl,-rpath,{prefix / 'lib'}"]
    run(option["CC"], PROJECT / "consumer.c", "-o", shared, *pkg_config("--cflags", "--libs"), *path)
    run(option["CC"], "-static", "-DWITH_STATIC_LIBRARY", PROJECT / "consumer.c", "-o", static,
        *pkg_config("--static", "--cflags", "--libs"))
    run_program(shared)
    run_program(static)


def test_msvc():
    install("runtime", "development")
    program = work / "no_runtime.exe"
    run("clang-14", "--target=x86_64-pc-windows-msvc", "-ffreestanding", "-fno-stack-protector",
        "-I", prefix / "include", "-c", PROJECT / "no_runtime.c", "-o", work / "no_runtime.obj")
    run("lld-link-14", "/entry:start", "/subsystem:console", "/nodefaultlib",
        f"/out:{program}", work / "no_runtime.obj", prefix / "lib/tessera.lib")
    run_program(program)


def test_command():
    install("tools")
    share = {path.relative_to(build / "share") for path in (build / "share").rglob("*")}
    for expected in "man/man1/tessera.1", "bash-completion/completions/tessera", \
            "zsh/site-functions/_tessera", "fish/vendor_completions.d/tessera.fish", \
            "tessera/match.schema.json":
        if Path(expected) not in share:
            sys.exit(f"{expected} was not built")
    missing = [path for path in sorted(share) if not (prefix / "share" / path).exists()]
    if missing:
        sys.exit(f"not installed: {missing}")
    # Neither the build's extractor nor a library beside it serves this one.
    document = Path(__file__)
    command = [prefix / "bin/tessera", "--home", work / "home"]
    run(*command, "index", document)
    result = subprocess.run([*command, "match", document], capture_output=True, text=True)
    if result.returncode != 1 or "level 2" not in result.stdout:
        sys.exit(f"match ended with {result.returncode}: {result.stdout}{result.stderr}")
    (prefix / "libexec/tessera/tessera-extract").unlink()
    result = subprocess.run([*command, "match", document], capture_output=True, text=True)
    if result.returncode in (0, 1):
        sys.exit("the command found an extractor elsewhere than in its own tree")


{"cmake": test_cmake, "pkg-config": test_pkg_config, "msvc": test_msvc,
 "command": test_command}[kind]()
shutil.rmtree(work)
