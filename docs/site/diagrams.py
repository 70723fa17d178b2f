"""Draws the diagrams of the pages as SVG.

A diagram is a fenced block of the language "diagram": boxes of + - and |, which may share
borders, lines and arrows (- | + < > ^ v) between them, and words. So it can be read where
the Markdown is read as it is, and the figure of the site is made of the same characters.
The colours are the page's own, light or dark (style.css).
"""
import html
import re
import textwrap
from typing import NamedTuple

from docutils import nodes

COLUMN, ROW, MARGIN = 7.4, 19, 3  # pixels
LINES = "-|+"


class Box(NamedTuple):
    top: int
    left: int
    bottom: int
    right: int

    def has(self, row, column):
        return self.top < row < self.bottom and self.left < column < self.right

    def border(self, row, column):
        return (self.top <= row <= self.bottom and self.left <= column <= self.right
                and not self.has(row, column))


def x_of(column):
    return round((column + 0.5) * COLUMN + MARGIN, 1)


def y_of(row):
    return round((row + 0.5) * ROW + MARGIN, 1)


class Diagram:
    def __init__(self, text):
        self.rows = textwrap.dedent(text).rstrip().split("\n")
        self.width = max(map(len, self.rows))
        self.boxes = [box for row in range(len(self.rows)) for column in range(self.width)
                      if (box := self.box_at(row, column))]
        self.borders = {(row, column) for box in self.boxes
                        for row in range(box.top, box.bottom + 1)
                        for column in range(box.left, box.right + 1) if box.border(row, column)}

    def at(self, row, column):
        if 0 <= row < len(self.rows) and 0 <= column < len(self.rows[row]):
            return self.rows[row][column]
        return " "

    def box_at(self, top, left):
        """The smallest box with this upper left corner, or None."""
        right = left
        while self.at(top, left) == "+" and self.at(top, right + 1) in ("-", "+"):
            right += 1
            if self.at(top, right) == "+":
                bottom = self.bottom_of(top, left, right)
                if bottom:
                    return Box(top, left, bottom, right)
        return None

    def bottom_of(self, top, left, right):
        for row in range(top + 1, len(self.rows)):
            if self.at(row, left) not in ("|", "+") or self.at(row, right) not in ("|", "+"):
                return None
            if set(self.rows[row][left : right + 1]) <= {"-", "+"} and self.at(row, left) == "+" \
                    and self.at(row, right) == "+":
                return row
        return None

    # What a character outside all boxes is.

    def inside(self, row, column):
        return any(box.has(row, column) for box in self.boxes)

    def is_line(self, row, column):
        character = self.at(row, column)
        if self.inside(row, column) or (row, column) in self.borders:
            return False
        beside = [self.at(row, column - 1), self.at(row, column + 1)]
        if character == "-":
            return any(each in "-+<>" for each in beside)
        if character == "+":
            return any(each in "-<>" for each in beside)
        return character == "|"

    def arrow(self, row, column):
        """The step (rows, columns) in which an arrow points here, or None."""
        if self.inside(row, column):
            return None
        for character, step in ((">", (0, 1)), ("<", (0, -1)), ("v", (1, 0)), ("^", (-1, 0))):
            behind = row - step[0], column - step[1]
            before = row + step[0], column + step[1]
            if self.at(row, column) == character and (
                    self.is_line(*behind) or character == "^" and before in self.borders):
                return step
        return None

    def joins(self, row, column):
        return (row, column) in self.borders or self.is_line(row, column) \
            or self.arrow(row, column) is not None

    # What is drawn.

    def words(self):
        """(row, column, words) of everything that is no line, in pieces that stand apart."""
        for row, line in enumerate(self.rows):
            kept = "".join(
                "\0" if (row, column) in self.borders or self.is_line(row, column)
                or self.arrow(row, column) else character for column, character in enumerate(line))
            for match in re.finditer(r"[^ \0]+(?: [^ \0]+)*", kept):
                yield row, match.start(), match[0]

    def word(self, row, column, words):
        text = html.escape(words.replace("`", ""))
        home = next((box for box in self.boxes if box.has(row, column)), None)
        if home:
            first = not any(self.rows[above][home.left + 1 : home.right].strip()
                            for above in range(home.top + 1, row))
            x, anchor, kind = (x_of(home.left) + x_of(home.right)) / 2, "middle", \
                "name" if first else "detail"
        else:
            edge = next((c for c in range(column, column + len(words))
                         if (row + 1, c) in self.borders and self.at(row + 1, c) == "+"), None)
            offset = edge is not None and re.fullmatch(r"(n \* )?\d+", words)
            x = x_of(edge) if offset else x_of(column - 0.5)
            anchor = "start" if not offset or edge == 0 else "middle"
            x -= COLUMN / 2 if offset and edge == 0 else 0
            kind = "offset" if offset else "note"
        return (f'<text class="{kind}" x="{x:.1f}" y="{y_of(row) + 4.5:.1f}" '
                f'text-anchor="{anchor}">{text}</text>')

    def box(self, box):
        return (f'<rect x="{x_of(box.left)}" y="{y_of(box.top)}" '
                f'width="{x_of(box.right) - x_of(box.left):.1f}" '
                f'height="{y_of(box.bottom) - y_of(box.top):.1f}"/>')

    def line(self, row, column):
        """Strokes from the middle of a line's character to those it joins."""
        character = self.at(row, column)
        across, along = character in "-+", character in "|+"
        path = ""
        for rows, columns, wanted in ((0, -1, across), (0, 1, across), (-1, 0, along), (1, 0, along)):
            to = row + rows, column + columns
            if wanted and (character != "+" or self.joins(*to)):
                reach = 1 if self.joins(*to) else 0.5
                path += f"M{x_of(column)} {y_of(row)}" \
                        f"L{x_of(column + columns * reach)} {y_of(row + rows * reach)}"
        return path

    def head(self, row, column):
        rows, columns = self.arrow(row, column)
        reach = 1 if self.joins(row + rows, column + columns) else 0.5
        x, y = x_of(column + columns * reach), y_of(row + rows * reach)
        back, side = 8, 4
        return (f'<path class="line" d="M{x_of(column)} {y_of(row)}L{x} {y}"/>'
                f'<path class="head" d="M{x} {y}'
                f"L{x - columns * back + rows * side:.1f} {y - rows * back + columns * side:.1f}"
                f'L{x - columns * back - rows * side:.1f} {y - rows * back - columns * side:.1f}Z"/>')

    def svg(self, title):
        cells = [(row, column) for row in range(len(self.rows)) for column in range(self.width)]
        strokes = "".join(self.line(*cell) for cell in cells if self.is_line(*cell))
        parts = [self.box(box) for box in self.boxes]
        parts += [f'<path class="line" d="{strokes}"/>'] if strokes else []
        parts += [self.head(*cell) for cell in cells if self.arrow(*cell)]
        parts += [self.word(*words) for words in self.words()]
        width = round(self.width * COLUMN + 2 * MARGIN + COLUMN)
        height = round(len(self.rows) * ROW + 2 * MARGIN)
        return (f'<svg xmlns="http://www.w3.org/2000/svg" role="img" width="{width}" '
                f'height="{height}" viewBox="0 0 {width} {height}" '
                f'aria-label="{html.escape(title)}">' + "".join(parts) + "</svg>")


def draw(_app, doctree):
    """Puts the figures in the place of the diagrams of a page."""
    for block in list(doctree.findall(nodes.literal_block)):
        if block.get("language") != "diagram":
            continue
        section = block
        while section and not isinstance(section, nodes.section):
            section = section.parent
        title = f"Diagram: {section[0].astext()}" if section else "Diagram"
        figure = f'<div class="diagram" tabindex="0">{Diagram(block.astext()).svg(title)}</div>'
        block.replace_self(nodes.raw("", figure, format="html"))


def setup(app):
    app.connect("doctree-read", draw)
    return {"parallel_read_safe": True}
