"""Turns the comments of a public header into Doxygen's, for docs/site/Doxyfile.

The headers are written to be read as they are. What Doxygen needs to be told is said here:
the first comment is the file's, one before a declaration is the declaration's, one behind a
member the member's; "/* ---- Name ---- */" opens a group, and a line indented by two blanks
that begins with a name, or with several, describes parameters.

usage: header_filter.py HEADER
"""
import re
import sys
from pathlib import Path

COMMENT = re.compile(r"^(?P<before>[^\n]*?)/\*(?P<text>.*?)\*/", re.DOTALL | re.MULTILINE)
GROUP = re.compile(r"-+ (\w+) -+")
PARAMETER = re.compile(r"  ((?:\w+, )*\w+)  +(\S.*)")


def escaped(text):
    """Nothing in the headers is meant as markup, but for names between backquotes."""
    return re.sub(r"([\\@#<>&$%*])", r"\\\1", text.strip())


def described(line):
    parameter = PARAMETER.fullmatch(line)
    if parameter:
        return f"@param {parameter[1].replace(', ', ',')} {escaped(parameter[2])}"
    return escaped(line)


def lines_of(text):
    """The lines of a comment without the stars that they begin with."""
    first, *others = text.split("\n")
    return [first.strip()] + [re.sub(r"^ *\* ?", "", line) for line in others]


class Filter:
    def __init__(self, name):
        self.file = f"@file {name}\n"
        self.group = None

    def comment(self, match):
        before, text = match["before"], match["text"].strip()
        if before.startswith("#"):
            return match[0]
        group = GROUP.fullmatch(text)
        if group:
            return f"{before}{self.end()}{self.begin(group[1])}"
        head, self.file = self.file, ""
        if before.strip() and not head:  # behind a member
            head = "<"
        body = "\n".join(described(line) for line in lines_of(match["text"].rstrip()))
        return f"{before}/**{head} {body} */"

    def begin(self, title):
        self.group = title
        return f"/** @defgroup {title.lower()} {title}\n@{{ */"

    def end(self):
        return "/** @} */" if self.group else ""


def main():
    path = Path(sys.argv[1])
    header = Filter(path.name)
    text = COMMENT.sub(header.comment, path.read_text())
    # The last group ends with the extern "C" that it stands in.
    sys.stdout.write(text.replace("\n#ifdef __cplusplus\n}", f"\n{header.end()}\n#ifdef __cplusplus\n}}"))


main()
