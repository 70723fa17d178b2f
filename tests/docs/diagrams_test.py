#!/usr/bin/env python3
"""Checks the drawing of diagrams: boxes, arrows and words come out as they are written, and
every diagram of the pages keeps all its words.

usage: diagrams_test.py SOURCE_DIRECTORY
"""
import html
import re
import sys
from pathlib import Path

root = Path(sys.argv.pop(1))
sys.path.insert(0, str(root / "docs/site"))
sys.dont_write_bytecode = True
import unittest

from diagrams import Diagram


def texts(svg):
    return [html.unescape(text) for text in re.findall(r"<text[^>]*>(.*?)</text>", svg)]


class Drawing(unittest.TestCase):
    def test_boxes_may_share_borders_and_differ_in_height(self):
        diagram = Diagram("0    4     12\n"
                          "+----+-----+\n"
                          "| a  | b-c |\n"
                          "+----+ d   |\n"
                          "     +-----+\n")
        self.assertEqual([(1, 0, 3, 5), (1, 5, 4, 11)], [tuple(box) for box in diagram.boxes])
        self.assertEqual(["0", "4", "12", "a", "b-c", "d"], texts(diagram.svg("")))

    def test_an_arrow_reaches_the_box_it_points_to(self):
        svg = Diagram("+--+   +--+\n"
                      "|a |-->|b |\n"
                      "+--+   +--+\n").svg("")
        self.assertEqual(2, svg.count("<rect"))
        left_border = re.findall(r'<rect x="([\d.]+)"', svg)[1]
        self.assertIn(f'class="head" d="M{left_border} ', svg)

    def test_a_word_with_a_hyphen_or_a_v_is_no_line(self):
        svg = Diagram("8-byte v\n").svg("")
        self.assertEqual(["8-byte v"], texts(svg))
        self.assertNotIn("<path", svg)

    def test_no_diagram_of_the_pages_loses_a_word(self):
        count = 0
        for page in sorted((root / "docs").glob("*.md")):
            for source in re.findall(r"^```diagram\n(.*?)^```", page.read_text(), re.DOTALL | re.MULTILINE):
                count += 1
                svg = Diagram(source).svg("")
                wanted = re.findall(r"[^\W_]{2,}", source)
                self.assertEqual(sorted(wanted), sorted(re.findall(r"[^\W_]{2,}", " ".join(texts(svg)))),
                                 f"{page.name}:\n{source}")
                self.assertIn("<rect", svg)
                for word in " ".join(texts(svg)).split():
                    self.assertNotRegex(word, r"^[-+|<>^v]+$", f"{page.name}: a line taken for words")
        self.assertGreater(count, 12)

    def test_no_page_draws_outside_a_diagram(self):
        for page in sorted((root / "docs").glob("*.md")):
            self.assertNotRegex(page.read_text(), r"(?m)^```\n +\+--", page.name)


unittest.main()
