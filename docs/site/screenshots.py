"""Takes pictures of every page of the site in headless Chromium: at the width of a desk and
of a phone, light and dark. They are there to be looked at, and nothing else reads them.

usage: screenshots.py SITE_DIRECTORY OUTPUT_DIRECTORY [PAGE...]    PAGE: formats, ...
"""
import subprocess
import sys
import tempfile
from pathlib import Path

OPTIONS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
           "--disable-background-networking", "--disable-component-update", "--disable-sync",
           "--hide-scrollbars"]
# Headless windows are not narrower than 500 pixels, but a frame in one may be.
FRAME = ('<body style="margin:0"><iframe src="{page}" width="{width}" height="{height}" '
         'style="border:0"></iframe>')
# Says so in the picture when words of a page stand outside of its window.
WATCH = """<script>addEventListener("load", () => {
  const wide = [...document.querySelectorAll("article :is(h1, h2, h3, p, li, dt, dd)")]
    .filter(part => !part.closest(".table-wrapper") && part.scrollWidth > part.clientWidth + 1
                    || part.getBoundingClientRect().right > innerWidth && !part.closest("table"));
  if (wide.length)
    document.body.insertAdjacentHTML("afterbegin", "<h1 style='background:red'>TOO WIDE</h1>");
})</script></body>"""
# A page asks which colours its reader chose; these copies of pages know.
CHOICE = 'localStorage.getItem("theme") || "auto"'
SIZES = {"desk": (1440, 2200), "phone": (390, 2200)}


def take(page, picture, size, theme, profile):
    width, height = size
    copy = page.with_name(f"{page.stem}.{theme}.html")
    text = page.read_text().replace(CHOICE, f'"{theme}"').replace("</body>", WATCH)
    copy.write_text(text)
    frame = Path(profile) / "frame.html"
    frame.write_text(FRAME.format(page=copy.as_uri(), width=width, height=height))
    command = ["chromium", *OPTIONS, f"--user-data-dir={profile}",
               f"--window-size={max(width, 500)},{height}", f"--screenshot={picture}", frame.as_uri()]
    result = subprocess.run(command, capture_output=True, text=True, timeout=120)
    copy.unlink()
    if not picture.exists():
        sys.exit(f"no picture of {page}: {result.stderr[-500:]}")


def main(site, output, *names):
    output.mkdir(parents=True, exist_ok=True)
    with tempfile.TemporaryDirectory() as profile:
        for page in sorted(site.rglob("*.html")):
            name = str(page.relative_to(site).with_suffix("")).replace("/", "-")
            if names and name not in names:
                continue
            for size in SIZES:
                for theme in ("light", "dark"):
                    picture = output / f"{name}-{size}-{theme}.png"
                    picture.unlink(missing_ok=True)
                    take(page, picture, SIZES[size], theme, profile)
            print(name, flush=True)


if len(sys.argv) < 3:
    sys.exit(__doc__)
main(Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve(), *sys.argv[3:])
