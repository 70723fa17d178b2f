#!/usr/bin/env python3
"""The log sink of the examples tells in JSON why the library refuses, and no more
than it is asked for.

log_sink_test.py --emulator=[COMMAND] LOG_SINK INDEX_AND_MATCH
"""
import argparse
import json
import subprocess
import tempfile

FIELDS = {"severity", "module", "file", "line", "function", "message"}


def run(emulator, directory, *command):
    """The status of a command, and what it wrote to stderr as JSON lines."""
    done = subprocess.run([*emulator, *command], cwd=directory, capture_output=True, text=True)
    lines = [json.loads(line) for line in done.stderr.splitlines()]
    for line in lines:
        assert set(line) == FIELDS and all(line.values()), line
        assert line["severity"] in ("error", "info"), line
    return done.returncode, lines


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--emulator", type=str.split)
    parser.add_argument("log_sink")
    parser.add_argument("index_and_match")
    options = parser.parse_args()

    with tempfile.TemporaryDirectory(prefix="tessera_log_sink_") as directory:
        status, lines = run(options.emulator, directory, options.log_sink)
        assert status == 1, status
        assert {line["severity"] for line in lines} == {"error"}, lines
        first, last = lines[0], lines[-1]
        assert first["message"] == "open config file index_sys_config.txt fail", first
        assert first["function"] == "IndexSysConfiguration::Load", first
        assert first["file"] == "vn_config.cpp" and first["line"] > 0, first
        assert last["module"] == "TESSERA_MODULE", last

        status, lines = run(options.emulator, directory, options.index_and_match)
        assert (status, lines) == (0, []), (status, lines)
        status, lines = run(options.emulator, directory, options.log_sink)
        assert (status, lines) == (0, []), (status, lines)
        status, lines = run(options.emulator, directory, options.log_sink, "info")
        assert status == 0, status
        assert {line["severity"] for line in lines} == {"info"}, lines
        assert "search engine start" in [line["message"] for line in lines], lines


if __name__ == "__main__":
    main()
