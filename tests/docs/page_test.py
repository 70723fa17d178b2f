#!/usr/bin/env python3
"""Does what a page says, in one shell, from its first line to its last.

A "console" block holds commands, behind "$ ", and what they answer. Answers are compared
where some are shown: "..." stands for anything, alone in a line for any lines. A command has
to succeed, but a match may find something (status 1). Any other block behind a line that ends
with a name in backquotes and a colon is saved in a file of that name; one without a language
is only shown.

usage: page_test.py SOURCE_DIRECTORY PAGE    (docs/first_hour.md)
"""
import re
import subprocess
import sys
from pathlib import Path

BLOCK = re.compile(r"(?:(?P<before>[^\n]+)\n\n)?^```(?P<language>\w+)\n(?P<text>.*?)^```$",
                   re.DOTALL | re.MULTILINE)
END = "\x01"


class Shell:
    def __init__(self, directory):
        self.bash = subprocess.Popen(["bash", "--norc"], cwd=directory, text=True, bufsize=1,
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT)

    def run(self, command):
        """Status and output. The shell goes on with the status that the command had."""
        self.bash.stdin.write(f"{command}\nstatus=$?; printf '{END}%s\\n' $status; (exit $status)\n")
        output = ""
        for line in self.bash.stdout:
            before, end, status = line.partition(END)
            output += before
            if end:
                return int(status), output
        sys.exit(f"the shell ended:\n{output}")


def commands(text):
    """(command, answer) of a console block."""
    for piece in re.split(r"^\$ ", text, flags=re.MULTILINE)[1:]:
        command = re.match(r"(?:.*\\\n)*.*\n", piece)[0]
        yield command.rstrip("\n"), piece[len(command):]


def fits(answer, output):
    lines = [r"(?:.*\n)*" if line.strip() == "..." else
             ".*".join(map(re.escape, line.split("..."))) + r"\n" for line in answer.splitlines()]
    return re.fullmatch("".join(lines), output)


def steps(page):
    """(command, answer) of the whole page, files included."""
    for block in BLOCK.finditer(page):
        name = re.search(r"`([\w.]+)`:$", block["before"] or "")
        if block["language"] == "console":
            yield from commands(block["text"])
        elif name:
            yield f"cat > {name[1]} <<'END OF FILE'\n{block['text']}END OF FILE", ""
        else:
            sys.exit(f"neither commands nor a file: {block[0]}")


def main(root, page):
    shell = Shell(root)
    todo = list(steps((root / page).read_text()))
    for command, answer in todo:
        status, output = shell.run(command)
        allowed = (0, 1) if re.match(r"tessera (--home \S+ )?match ", command) else (0,)
        if status not in allowed or (answer and not fits(answer, output)):
            sys.exit(f"$ {command}\nstatus {status}, answer:\n{output}\nexpected:\n{answer}")
        print(f"$ {command}\n{output if len(output) < 2000 else '...'}", flush=True)
    print(f"{len(todo)} steps")


main(Path(sys.argv[1]).resolve(), sys.argv[2])
