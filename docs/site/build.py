"""Builds the documentation site out of the pages of docs/ and the public headers.

The sources are the Markdown files as they are, with the links that work in a browser of the
repository. They are laid out for Sphinx in OUTPUT/source:

    docs/PAGE.md           PAGE.md; the lists of docs/index.md become the navigation
    bindings/*/README.md   in their place
    include/HEADER.h       include/HEADER.h.md, the reference made of its comments
    any other file         files/PATH.md, its text, when a page links to it

usage: build.py OUTPUT_DIRECTORY    The site is OUTPUT_DIRECTORY/site.
"""
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import reference

ROOT = Path(__file__).resolve().parents[2]
LINK = re.compile(r"(!?\[(?:[^\]\\]|\\.)*\])\(([^)\s#]*)(#[^)\s]*)?\)")
FENCE = re.compile(r"^(```+|~~~+).*?^\1\s*$", re.DOTALL | re.MULTILINE)
LANGUAGES = {".c": "c", ".h": "c", ".cpp": "c++", ".cs": "csharp", ".json": "json",
             ".js": "javascript", ".mjs": "javascript", ".py": "python", ".ts": "typescript"}
# What else belongs among the pages on embedding, whether docs/index.md names it or not.
EMBEDDING = ["docs/*.md", "bindings/*/README.md"]


def staged(path):
    """Where a file of the repository, given relative to its root, stands among the sources."""
    if path == "README.md":
        return "index.md"
    if path.startswith("docs/"):
        return path[len("docs/"):]
    if path.startswith("include/"):
        return path + ".md"
    return path if path.endswith(".md") else f"files/{path}.md"


def replace(path, old, new):
    text = path.read_text()
    if old not in text:
        sys.exit(f"{path}: nothing to replace: {old}")
    path.write_text(text.replace(old, new))


class Site:
    def __init__(self, output):
        self.source = output / "source"
        self.xml = output / "xml"
        self.site = output / "site"
        self.seen = set()

    def write(self, name, text):
        path = self.source / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def text_with_links(self, path):
        """A page with its links leading to where their targets stand in the site."""
        text = (ROOT / path).read_text()
        pieces, position = [], 0
        for fence in FENCE.finditer(text):
            block = re.sub(r"\n\n+(?=\S+\s*$)", "\n", fence[0])  # doctest wants an empty last line
            pieces += [self.relinked(path, text[position:fence.start()]), block]
            position = fence.end()
        return "".join(pieces) + self.relinked(path, text[position:])

    def relinked(self, path, text):
        return LINK.sub(lambda match: self.link(path, *match.groups()), text)

    def link(self, path, words, target, anchor):
        if not target or re.match(r"[a-z]+:", target):
            return f"{words}({target}{anchor or ''})"
        file = os.path.normpath(os.path.join(os.path.dirname(path), target))
        if file.startswith("..") or not (ROOT / file).exists():
            sys.exit(f"{path}: no such file: {target}")
        if (ROOT / file).is_dir():  # a page cannot show one
            return words.strip("[]")
        self.stage(file)
        if words == f"[{target}]":  # the name of a page: its title says more
            words = "[]"
        here = os.path.dirname(staged(path))
        return f"{words}({os.path.relpath(staged(file), here)}{anchor or ''})"

    def stage(self, path):
        """Lays out a file, and all that it links to, once."""
        if path in self.seen or path.startswith("include/") or path == "README.md":
            return
        self.seen.add(path)
        if path.endswith(".md"):
            self.write(staged(path), self.text_with_links(path))
        elif path.startswith("docs/"):
            (self.source / staged(path)).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / path, self.source / staged(path))
        else:
            language = LANGUAGES.get(Path(path).suffix, "text")
            self.write(staged(path), f"---\norphan: true\n---\n# {path}\n\n"
                       f"````{language}\n{(ROOT / path).read_text()}````\n")

    def stage_reference(self):
        self.xml.mkdir(parents=True)
        doxyfile = (ROOT / "docs/site/Doxyfile").read_text()
        subprocess.run(["doxygen", "-"], cwd=ROOT, check=True, text=True,
                       input=f"{doxyfile}\nOUTPUT_DIRECTORY={self.xml}\nXML_OUTPUT=.\n")
        for header, text in reference.pages(self.xml):
            self.write(f"include/{header}.md", text)

    def stage_home(self):
        """docs/index.md with the navigation, which is its own lists, section by section."""
        sections = re.split(r"^## ", (ROOT / "docs/index.md").read_text(), flags=re.MULTILINE)[1:]
        lists = {section.split("\n")[0]: re.findall(r"^- \[(.+?)\]\((.+?)\)", section, re.MULTILINE)
                 for section in sections}
        listed = {os.path.normpath("docs/" + target) for each in lists.values() for _, target in each}
        for path in (path for pattern in EMBEDDING for path in sorted(ROOT.glob(pattern))):
            name = str(path.relative_to(ROOT))
            if name not in listed | {"docs/index.md"}:
                title = path.read_text().split("\n")[0].lstrip("# ")
                lists["Embed"].append((title, os.path.relpath(name, "docs")))
        trees = ""
        for section, links in lists.items():
            entries = ""
            for title, target in links:
                file = os.path.normpath("docs/" + target)
                self.stage(file)
                entries += f"{title.replace('`', '')} </{staged(file)[:-3]}>\n"
            trees += f"\n```{{toctree}}\n:hidden:\n:caption: {section}\n\n{entries}```\n"
        self.stage("docs/index.md")
        self.write("index.md", (self.source / "index.md").read_text() + trees)

    def complete_theme(self):
        """Debian keeps two parts of the theme apart, where a web server of a Debian system
        finds them: a script that imports another one, and a style that imports the one that
        evens browsers out. A site that may stand anywhere needs them inside."""
        static = self.site / "_static"
        replace(static / "scripts/furo.js", 'import Gumshoe from "./gumshoe-patched.js";\n',
                (static / "scripts/gumshoe-patched.js").read_text())
        shutil.copy("/usr/share/nodejs/normalize.css/normalize.css", static / "styles")
        replace(static / "styles/furo.css", "url(/javascript/normalize.css/normalize.css)",
                "url(normalize.css)")

    def build(self):
        for directory in (self.source, self.xml, self.site):
            shutil.rmtree(directory, ignore_errors=True)
        self.stage_reference()
        self.stage_home()
        for name in ("style.css", "icon.svg"):
            shutil.copy(ROOT / "docs/site" / name, self.source)
        version = re.search(r"^project\(\w+ VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text(),
                            re.MULTILINE)[1]
        subprocess.run([sys.executable, "-m", "sphinx", "-q", "-W", "--keep-going", "-j", "2",
                        "-c", ROOT / "docs/site", "-d", self.source.parent / "doctrees",
                        "-D", f"release={version}", "-D", f"html_title=Tessera {version}",
                        self.source, self.site], check=True)
        self.complete_theme()


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    Site(Path(sys.argv[1]).resolve()).build()
