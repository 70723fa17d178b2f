#!/usr/bin/env python3
"""Checks that the reference tells all that the public headers say: every word of their
comments stands, in order, on the header's page, and every function has an anchor there.

usage: reference_test.py SOURCE_DIRECTORY SITE_DIRECTORY
"""
import html
import re
import sys
from pathlib import Path


def words(text):
    return " ".join(re.findall(r"[\w.]*\w", text)) + " "


def pieces(comment):
    """The paragraphs of a comment; of a description of parameters what follows their names."""
    lines = [re.sub(r"^\s*\* ?", "", line) for line in comment.split("\n")]
    text = re.sub(r"^  (?:\w+, )*\w+  +(?=\S)", "\n\n", "\n".join(lines), flags=re.MULTILINE)
    return [piece for piece in re.split(r"\n\s*\n", text) if piece.strip()]


def check(header, page):
    source = header.read_text()
    shown = words(html.unescape(re.sub(r"<[^>]+>", "", page.read_text())))
    code = re.sub(r"^#.*$", "", source, flags=re.MULTILINE)
    for comment in re.findall(r"/\*(?! -)(.*?)\*/", code, flags=re.DOTALL):
        yield from (f"{header.name}: not on its page: {words(piece)}"
                    for piece in pieces(comment) if words(piece) not in shown)
    functions = re.findall(r"^(?:TESSERA_API )?(?:int|void) (\w+)\(", code, flags=re.MULTILINE)
    yield from (f"{header.name}: no anchor for {name}" for name in functions
                if f'id="c.{name}"' not in page.read_text())
    global count
    count += len(functions)


count = 0
root, site = (Path(argument) for argument in sys.argv[1:])
faults = [fault for header in sorted((root / "include").glob("*.h"))
          for fault in check(header, site / f"include/{header.name}.html")]
print("\n".join(faults) or f"{count} functions, every word of their comments")
if faults or count < 20:
    sys.exit(f"{len(faults)} faults, {count} functions")
