#!/usr/bin/env python3
"""Checks the links of the documentation: in the built site every page, anchor, image, script
and style that a page names, and that nothing is loaded from elsewhere; in the Markdown files,
as a browser of the repository shows them, every file.

usage: links_test.py SOURCE_DIRECTORY SITE_DIRECTORY
"""
import re
import subprocess
import sys
from html.parser import HTMLParser
from pathlib import Path
from urllib.parse import unquote, urldefrag

LOADED = {"script": "src", "img": "src", "link": "href", "iframe": "src", "source": "src"}


class Page(HTMLParser):
    """What a page leads to, what it loads, and the anchors that it offers."""

    def __init__(self, path):
        super().__init__()
        self.links, self.loads, self.anchors = [], [], {""}
        self.feed(path.read_text())

    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        self.anchors.update(filter(None, (attributes.get("id"), attributes.get("name"))))
        if tag == "a" and "href" in attributes:
            self.links.append(attributes["href"])
        if attributes.get(LOADED.get(tag, "")):
            self.loads.append(attributes[LOADED[tag]])


def external(target):
    return re.match(r"[a-z]+:|//", target)


def check_site(site):
    pages = {path: Page(path) for path in sorted(site.rglob("*.html"))}
    for path, page in pages.items():
        name = path.relative_to(site)
        yield from (f"{name} loads {target}" for target in page.loads if external(target))
        for target in page.links + page.loads:
            if external(target):
                continue
            file, anchor = urldefrag(re.sub(r"\?[^#]*", "", target))
            to = (path.parent / unquote(file)).resolve() if file else path
            if not to.is_file():
                yield f"{name}: no such file: {target}"
            elif to in pages and unquote(anchor) not in pages[to].anchors:
                yield f"{name}: no such anchor: {target}"
    for path in site.rglob("*.css"):
        for target in re.findall(r"url\([\"']?([^\"')]+)", path.read_text()):
            if not target.startswith("data:") and not (path.parent / target).is_file():
                yield f"{path.relative_to(site)} loads {target}"


def check_sources(root):
    listed = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "*.md"],
                            cwd=root, capture_output=True, text=True)
    names = listed.stdout.splitlines() or [str(path.relative_to(root))
                                           for path in [*root.glob("*.md"), *root.glob("docs/*.md")]]
    for name in names:
        text = re.sub(r"^```.*?^```", "", (root / name).read_text(), flags=re.DOTALL | re.MULTILINE)
        for target in re.findall(r"\]\(([^)\s#]+)[^)]*\)", text):
            if not external(target) and not ((root / name).parent / target).exists():
                yield f"{name}: no such file: {target}"


root, site = (Path(argument).resolve() for argument in sys.argv[1:])
count = len(list(site.rglob("*.html")))
faults = [*check_site(site), *check_sources(root)]
print("\n".join(faults) or f"{count} pages, and the sources: all links hold")
if faults or count < 25:
    sys.exit(f"{len(faults)} faults in {count} pages")
