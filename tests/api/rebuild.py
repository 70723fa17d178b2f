#!/usr/bin/env python3
"""One process matches while another one rebuilds the index.

rebuild.py COMMAND...: what runs rebuild_host. Both work in the same directory,
and both must be content in the end.
"""
import shutil
import subprocess
import sys
import tempfile


def main():
    command = sys.argv[1:]
    directory = tempfile.mkdtemp(prefix="tessera_rebuild_")
    try:
        subprocess.run([*command, "create"], cwd=directory, check=True)
        rebuild = subprocess.Popen([*command, "rebuild"], cwd=directory)
        match = subprocess.Popen([*command, "match"], cwd=directory)
        failed = [host.args[-1] for host in (match, rebuild) if host.wait() != 0]
    finally:
        shutil.rmtree(directory, ignore_errors=True)
    if failed:
        sys.exit(f"failed: {' and '.join(failed)}")


if __name__ == "__main__":
    main()
