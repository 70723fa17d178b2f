"""Makes real files of every format from the texts beside this script.

usage: /usr/bin/python3 make_documents.py OUT

The same texts in three languages go through LibreOffice, pandoc, ReportLab, cairo,
qpdf, Python's email package and the archivers, none of which knows anything of the
command. OUT/documents.json lists what was made: for each file

    path       below OUT
    kind       format, encoding, archive, encrypted or damaged
    format     "docx", "pdf", or the name of the encoding
    by         the program that wrote it
    languages  of the texts in it, by the names of texts/*.txt
    members    of an archive or a mail: name of the member -> language
    reason     why it cannot be inspected wholly; absent if it can
    of         of a damaged one: the path of the whole one

The files are made once: OUT/stamp holds a checksum of the scripts and texts, and
OUT is made anew only when that changes. Needs about half a minute.
Used by real_formats_test.py, bombs_test.py and robustness_test.py.
"""

import concurrent.futures
import email.message
import email.policy
import hashlib
import html
import json
import mailbox
import pathlib
import random
import shutil
import subprocess
import sys
import textwrap
import unicodedata
import xml.etree.ElementTree as ElementTree

HERE = pathlib.Path(__file__).resolve().parent
TEXTS = sorted((HERE / "texts").glob("*.txt"))
PASSWORD = "correct horse"
DEJAVU = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"

# Letters that few encodings have; in the others they become these.
PLAIN = str.maketrans(
    {"’": "'", "‘": "'", "–": "-", "—": "-", "€": "EUR"} | dict.fromkeys("“”„«»", '"')
)
ENCODINGS = {
    "english": ["ascii", "cp1252", "iso8859-15", "mac-roman"],
    "german": ["iso8859-1", "iso8859-15", "cp1252", "cp850", "mac-roman", "iso8859-2"],
    "russian": ["koi8-r", "cp1251", "iso8859-5", "cp866", "mac-cyrillic"],
}
# Too little in the bytes tells of these, so that they have to be declared.
NEVER_GUESSED = ["cp866", "mac-cyrillic"]
UNICODE = ["utf-8", "utf-8-sig", "utf-16", "utf-16-le", "utf-16-be", "utf-32"]


def run(*command, **options):
    arguments = [str(argument) for argument in command]
    done = subprocess.run(arguments, capture_output=True, check=False, **options)
    if done.returncode:
        sys.exit(f"{' '.join(arguments)}: {done.returncode}\n{done.stderr.decode()}")


def encode(text, encoding):
    try:
        return text.encode(encoding)
    except UnicodeEncodeError:
        return text.translate(PLAIN).encode(encoding)


class Documents:
    """The directory and the list of what is in it."""

    def __init__(self, out):
        self.out = out
        self.texts = {path.stem: path.read_text(encoding="utf-8") for path in TEXTS}
        self.entries = []

    def path(self, name):
        path = self.out / name
        path.parent.mkdir(parents=True, exist_ok=True)
        return path

    def add(self, name, kind, format, by, languages, **more):
        if isinstance(languages, str):
            languages = [languages]
        assert (self.out / name).is_file(), name
        self.entries.append(
            {"path": name, "kind": kind, "format": format, "by": by, "languages": languages, **more}
        )
        return self.out / name

    def write(self, name, content, kind, format, by, languages, **more):
        if isinstance(content, str):
            content = content.encode("utf-8")
        self.path(name).write_bytes(content)
        return self.add(name, kind, format, by, languages, **more)

    def find(self, name):
        return next(entry for entry in self.entries if entry["path"] == name)


# Formats of one document.


def make_office(documents):
    out = documents.path("office/x").parent
    run("/usr/bin/python3", HERE / "office.py", *TEXTS, out)
    for path in sorted(out.iterdir()):
        language, _, what = path.stem.split("-", 2)
        name, by = f"office/{path.name}", "LibreOffice"
        if what.endswith("-password"):
            documents.add(
                name, "encrypted", path.suffix[1:], by, language, reason="encrypted"
            )
        else:
            documents.add(name, "format", path.suffix[1:], by, language)


PANDOC = {
    "docx": "docx", "odt": "odt", "epub": "epub3", "html": "html", "rtf": "rtf", "pptx": "pptx",
    "tex": "latex", "xml": "docbook5", "fb2": "fb2", "rst": "rst", "icml": "icml",
}  # fmt: skip


def make_pandoc(documents):
    def convert(language, suffix):
        path = documents.path(f"pandoc/{language}.{suffix}")
        source = HERE / "texts" / f"{language}.txt"
        title = f"--metadata=title:{language}"
        run("pandoc", "-s", title, "-f", "markdown", "-t", PANDOC[suffix], "-o", path, source)

    jobs = [(language, suffix) for language in documents.texts for suffix in PANDOC]
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        list(pool.map(lambda job: convert(*job), jobs))
    for language, suffix in jobs:
        documents.add(f"pandoc/{language}.{suffix}", "format", suffix, "pandoc", language)


def make_reportlab(documents, language, text):
    from reportlab.lib.styles import ParagraphStyle
    from reportlab.pdfbase import pdfmetrics, ttfonts
    from reportlab.platypus import Paragraph, SimpleDocTemplate, Spacer

    font = "Times-Roman"  # a font every reader has, not embedded
    if language == "russian":
        pdfmetrics.registerFont(ttfonts.TTFont("DejaVu", DEJAVU))
        font = "DejaVu"
    style = ParagraphStyle("body", fontName=font, fontSize=11, leading=14, alignment=4)
    name = f"pdf/{language}-reportlab.pdf"
    story = []
    for paragraph in text.strip().split("\n\n"):
        story += [Paragraph(html.escape(paragraph), style), Spacer(1, 8)]
    SimpleDocTemplate(str(documents.path(name))).build(story)
    return documents.add(name, "format", "pdf", "ReportLab", language)


def svg(text, width):
    lines = [line for part in text.split("\n\n") for line in [*textwrap.wrap(part, width), ""]]
    spans = "".join(
        f'<text x="40" y="{40 + 14 * row}" font-family="DejaVu Sans" font-size="9">'
        f"{html.escape(line)}</text>\n"
        for row, line in enumerate(lines)
    )
    height = 80 + 14 * len(lines)
    return (
        '<?xml version="1.0" encoding="UTF-8"?>\n'
        f'<svg xmlns="http://www.w3.org/2000/svg" width="600" height="{height}">\n{spans}</svg>\n'
    )


def make_pdf(documents):
    for language, text in documents.texts.items():
        drawing = documents.write(
            f"xml/{language}.svg", svg(text, 90), "format", "svg", "Python", language
        )
        path = documents.path(f"pdf/{language}-cairo.pdf")
        run("rsvg-convert", "-f", "pdf", "-o", path, drawing)
        documents.add(f"pdf/{path.name}", "format", "pdf", "cairo", language)
        source = make_reportlab(documents, language, text)
        for variant, options in {
            "linearized": ["--linearize"],
            "object-streams": ["--object-streams=generate"],
            "uncompressed": ["--qdf"],
            # What an owner's password withholds is printing, not reading.
            "owner-password": ["--encrypt", "", PASSWORD, "256", "--print=none", "--"],
        }.items():
            name = f"pdf/{language}-qpdf-{variant}.pdf"
            run("qpdf", *options, source, documents.path(name))
            documents.add(name, "format", "pdf", f"qpdf, {variant}", language)
    whole = documents.path("pdf/all-pdfunite.pdf")
    parts = [documents.out / f"pdf/{language}-cairo.pdf" for language in documents.texts]
    run("pdfunite", *parts, whole)
    documents.add("pdf/all-pdfunite.pdf", "format", "pdf", "pdfunite", [*documents.texts])


def make_markup(documents):
    """HTML and XML as programs write them that think of nobody."""
    for language, text in documents.texts.items():
        paragraphs = text.strip().split("\n\n")

        def add(name, content, format):
            documents.write(f"xml/{language}-{name}", content, "format", format, "Python", language)

        # The first letter of each paragraph in a tag of its own, all else as numbers.
        body = "".join(
            f"<p><b>{paragraph[0]}</b>{html.escape(paragraph[1:])}" for paragraph in paragraphs
        )
        page = (
            "<html><head><style>p { color: red }</style><script>if (1 < 2) f('</p>');</script>"
            f"</head><body>{body}</body></html>"
        )
        add("numbers.html", page.encode("ascii", "xmlcharrefreplace"), "html")
        root = ElementTree.Element("report")
        for number, paragraph in enumerate(paragraphs):
            ElementTree.SubElement(root, "para", number=str(number)).text = paragraph
        add("plain.xml", ElementTree.tostring(root, encoding="UTF-8", xml_declaration=True), "xml")
        add("utf-16.xml", ElementTree.tostring(root, encoding="UTF-16"), "xml")
        data = "".join(f"<para><![CDATA[{paragraph}]]></para>" for paragraph in paragraphs)
        add("cdata.xml", f"<report>{data}</report>", "xml")


def make_source_code(documents):
    for language, text in documents.texts.items():
        lines = [line for part in text.split("\n\n") for line in [*textwrap.wrap(part, 72), ""]]

        def comment(start, before="", after=""):
            return before + "".join(f"{start}{line}".rstrip() + "\n" for line in lines) + after

        for suffix, content in {
            "c": comment(" * ", "/*\n", " */\nint main(void) { return 0; }\n"),
            "cpp": comment("// ", "#include <string>\n\n", "int answer = 42;\n"),
            "py": comment("# ", "#!/usr/bin/python3\nimport os\n\n", "print(os.name)\n"),
            "sql": "".join(
                f"INSERT INTO report VALUES ('{paragraph.translate(PLAIN)}');\n"
                for paragraph in text.split("\n\n")
            ),
            "csv": "".join(f'"{line.translate(PLAIN)}";\n' for line in lines),
            "json": json.dumps({"title": language, "lines": lines}, ensure_ascii=False),
        }.items():
            name = f"code/{language}.{suffix}"
            documents.write(name, content, "format", suffix, "Python", language)


def make_encodings(documents):
    """Every text in every encoding that has its letters, undeclared and declared."""
    for language, text in documents.texts.items():

        def add(name, content, format):
            name = f"encodings/{language}-{name}"
            documents.write(name, content, "encoding", format, "Python", language)

        for encoding in UNICODE + ENCODINGS[language]:
            if encoding not in NEVER_GUESSED:
                add(f"{encoding}.txt", encode(text, encoding), f"text, {encoding}")
        for encoding in ENCODINGS[language]:
            page = "<html><head><meta charset={}></head><body><pre>{}</pre></body></html>"
            page = page.format(encoding, html.escape(text))
            add(f"{encoding}.html", encode(page, encoding), f"html, {encoding}")
            if encoding not in ("mac-roman", "mac-cyrillic"):
                page = f'<?xml version="1.0" encoding="{encoding}"?>\n<r>{html.escape(text)}</r>'
                add(f"{encoding}.xml", encode(page, encoding), f"xml, {encoding}")
        for name, changed in variants(text).items():
            add(f"{name}.txt", changed, f"text, {name}")


def variants(text):
    """One text as different programs leave it."""
    blanks = "\u00a0\u2003\u2009\u202f"
    return {
        "nfd": unicodedata.normalize("NFD", text),
        "soft-hyphens": "".join(c + "\u00ad" if n % 7 == 3 else c for n, c in enumerate(text)),
        "zero-width": "".join(c + "\u200b" if n % 5 == 3 else c for n, c in enumerate(text)),
        "blanks": "".join(blanks[n % 4] if c == " " else c for n, c in enumerate(text)),
        "ligatures": text.replace("ffi", "ﬃ").replace("fi", "ﬁ").replace("fl", "ﬂ"),
        "straight-quotes": text.translate(PLAIN),
        "crlf": text.replace("\n", "\r\n"),
        "wrapped": "\n".join(textwrap.wrap(text, 60)),
        "quoted": textwrap.indent("\n".join(textwrap.wrap(text, 68)), "> ", lambda line: True),
    }


# Documents in documents.


def message(subject, text, charset="utf-8", cte=None):
    mail = email.message.EmailMessage()
    mail["From"] = "Archive <archive@example.org>"
    mail["To"] = "reader@example.org"
    mail["Subject"] = subject
    mail["Date"] = "Tue, 09 Jul 2024 08:00:00 +0000"
    mail["Message-ID"] = f"<{hashlib.sha256(subject.encode()).hexdigest()[:16]}@example.org>"
    if text is not None:
        mail.set_content(text, charset=charset, cte=cte)
    return mail


def attach(mail, path, name=None):
    types = {
        ".docx": "vnd.openxmlformats-officedocument.wordprocessingml.document",
        ".pdf": "pdf",
        ".zip": "zip",
    }
    subtype = types.get(path.suffix, "octet-stream")
    mail.add_attachment(
        path.read_bytes(), maintype="application", subtype=subtype, filename=name or path.name
    )


def as_html(text):
    paragraphs = "".join(f"<p>{html.escape(part)}</p>\n" for part in text.split("\n\n"))
    return f"<html><body>{paragraphs}</body></html>\n"


def make_mails(documents):
    texts, out = documents.texts, documents.out
    charsets = {"english": "windows-1252", "german": "iso-8859-15", "russian": "koi8-r"}
    note = "Please find the report attached.\n"

    def add(name, mail, languages, **more):
        content = mail.as_bytes(policy=email.policy.SMTP)
        documents.write(f"mail/{name}.eml", content, "format", "eml", "Python", languages, **more)
        return mail

    kept = []
    for language, text in texts.items():
        kept.append(add(f"{language}-8bit", message("8bit", text, cte="8bit"), language))
        add(f"{language}-base64", message("base64", text, cte="base64"), language)
        plain = encode(text.translate(PLAIN), charsets[language]).decode(charsets[language])
        mail = message("quoted", plain, charsets[language], "quoted-printable")
        add(f"{language}-quoted-printable", mail, language)
        mail = message("Über учёт", None)
        mail.set_content(as_html(text), subtype="html", cte="quoted-printable")
        add(f"{language}-html", mail, language)
        mail = message("both", text)
        mail.add_alternative(as_html(text), subtype="html")
        add(f"{language}-alternative", mail, language)

    for language in texts:
        mail = message("attached", note)
        attach(mail, out / f"office/{language}-office-letter.docx", "report.docx")
        attach(mail, out / f"pdf/{language}-reportlab.pdf", "Prüfbericht отчёт.pdf")
        members = {"report.docx": language, "Prüfbericht отчёт.pdf": language}
        attached = add(f"{language}-attachments", mail, language, members=members)
        outer = message("Fwd: attached", "See below.\n")
        outer.add_attachment(attached)
        kept.append(add(f"{language}-forwarded", outer, language))

    box = mailbox.mbox(documents.path("mail/all.mbox"))
    for mail in kept:
        box.add(mail)
    box.close()
    documents.add("mail/all.mbox", "archive", "mbox", "Python", [*texts])


def make_archives(documents):
    out = documents.out
    tree = documents.path("tree/reports/2024/x").parent
    shutil.copy(HERE / "texts/english.txt", tree.parent / "english.txt")
    shutil.copy(out / "office/german-office-letter.odt", tree / "Prüfung äöü.odt")
    shutil.copy(out / "pdf/russian-cairo.pdf", tree / "отчёт о мосте.pdf")
    (tree.parent / "empty.txt").write_bytes(b"")
    members = {
        "reports/english.txt": "english",
        "reports/2024/Prüfung äöü.odt": "german",
        "reports/2024/отчёт о мосте.pdf": "russian",
    }
    base = tree.parent.parent

    def add(name, by, *command, locked=False, **more):
        path = documents.path(f"archives/{name}")
        run(*[path if word == "OUT" else word for word in command], cwd=base)
        if locked:
            more.setdefault("reason", "encrypted")
            return documents.add(f"archives/{name}", "encrypted", name, by, [], **more)
        more.setdefault("members", members)
        return documents.add(f"archives/{name}", "archive", name, by, [*documents.texts], **more)

    add("plain.zip", "zip", "zip", "-qr", "OUT", "reports")
    add("stored.zip", "zip", "zip", "-qr0", "OUT", "reports")
    add("by-7z.zip", "7z", "7z", "a", "-tzip", "-mm=LZMA", "OUT", "reports")
    add("plain.7z", "7z", "7z", "a", "OUT", "reports")
    add("bzip2.7z", "7z", "7z", "a", "-m0=BZip2", "OUT", "reports")
    for form in ("gnu", "pax", "ustar"):
        add(f"{form}.tar", "tar", "tar", f"--format={form}", "-cf", "OUT", "reports")
    for suffix in ("gz", "bz2", "xz", "zst"):
        add(f"plain.tar.{suffix}", "tar", "tar", "-caf", "OUT", "reports")
    for suffix, by in {"gz": "gzip", "bz2": "bzip2", "xz": "xz", "zst": "zstd"}.items():
        path = documents.path(f"archives/german.txt.{suffix}")
        with path.open("wb") as target:
            subprocess.run([by, "-c", HERE / "texts/german.txt"], stdout=target, check=True)
        members_of = {"german.txt": "german"}
        documents.add(f"archives/{path.name}", "archive", suffix, by, "german", members=members_of)
    # A 7z in a tar.gz in a zip.
    run("tar", "-czf", base / "inner.tar.gz", "-C", out / "archives", "plain.7z")
    nested = {f"inner.tar.gz!plain.7z!{name}": language for name, language in members.items()}
    add("nested.zip", "zip", "zip", "-q", "OUT", "inner.tar.gz", members=nested)

    secret = f"-p{PASSWORD}"
    add("password.zip", "zip", "zip", "-qr", "-P", PASSWORD, "OUT", "reports", locked=True)
    add("aes.zip", "7z", "7z", "a", "-tzip", "-mem=AES256", secret, "OUT", "reports", locked=True)
    add("password.7z", "7z", "7z", "a", secret, "OUT", "reports", locked=True)
    add("hidden-names.7z", "7z", "7z", "a", secret, "-mhe=on", "OUT", "reports", locked=True)
    # One member anybody can read, one nobody can.
    hidden = "reports/2024/Prüfung äöü.odt"
    partly = add("partly.zip", "zip", "zip", "-q", "-P", PASSWORD, "OUT", hidden, locked=True)
    run("zip", "-q", partly, "reports/english.txt", cwd=base)
    documents.find("archives/partly.zip")["members"] = {"reports/english.txt": "english"}

    name = "pdf/english-qpdf-password.pdf"
    options = ["--encrypt", PASSWORD, PASSWORD, "256", "--"]
    run("qpdf", *options, out / "pdf/english-reportlab.pdf", out / name)
    documents.add(name, "encrypted", "pdf", "qpdf", [], reason="encrypted")
    mail = message("locked", "The password comes by telephone.\n")
    attach(mail, out / "archives/password.zip")
    attach(mail, out / "office/english-office-letter-password.docx")
    content = mail.as_bytes(policy=email.policy.SMTP)
    by = ("encrypted", "eml", "Python", [])
    documents.write("mail/locked.eml", content, *by, reason="encrypted")


# Documents that were whole once.

DAMAGED = [
    "office/english-office-letter.docx", "office/english-office-letter.doc",
    "office/english-office-letter.odt", "office/english-office-letter.rtf",
    "office/english-office-letter.pdf", "office/english-office-letter.epub",
    "office/english-office-sheet.xlsx", "office/english-office-sheet.xls",
    "office/english-office-sheet.ods", "office/english-office-slides.pptx",
    "office/english-office-slides.ppt", "office/english-office-slides.odp",
    "pdf/english-reportlab.pdf", "pdf/english-cairo.pdf",
    "pdf/english-qpdf-object-streams.pdf", "xml/english-plain.xml", "xml/english-cdata.xml",
    "mail/english-attachments.eml", "archives/plain.zip", "archives/plain.7z",
    "archives/bzip2.7z", "archives/gnu.tar",
    "archives/plain.tar.gz", "archives/plain.tar.bz2", "archives/plain.tar.xz",
    "archives/plain.tar.zst", "archives/german.txt.gz", "archives/german.txt.bz2",
    "archives/german.txt.xz", "archives/german.txt.zst", "archives/nested.zip",
]  # fmt: skip


def make_damaged(documents):
    chance = random.Random(20240709)
    for name in DAMAGED:
        whole = documents.find(name)
        content = (documents.out / name).read_bytes()
        overwritten = bytearray(content)
        middle = len(content) // 2
        overwritten[middle : middle + 64] = chance.randbytes(64)
        half = content[:middle]
        for damage, broken in {"cut": half, "overwritten": bytes(overwritten)}.items():
            path = pathlib.PurePath(name)
            documents.write(
                f"damaged/{path.parent}-{damage}-{path.name}", broken, "damaged", whole["format"],
                damage, whole["languages"], reason="damaged", of=name,
            )  # fmt: skip


def main():
    out = pathlib.Path(sys.argv[1]).resolve()
    sources = sorted([HERE / "make_documents.py", HERE / "office.py", *TEXTS])
    checksum = hashlib.sha256(b"".join(path.read_bytes() for path in sources)).hexdigest()
    stamp = out / "stamp"
    if stamp.is_file() and stamp.read_text() == checksum:
        return
    shutil.rmtree(out, ignore_errors=True)
    out.mkdir(parents=True)
    documents = Documents(out)
    for make in (
        make_office, make_pandoc, make_pdf, make_markup, make_source_code, make_encodings,
        make_mails, make_archives, make_damaged,
    ):  # fmt: skip
        make(documents)
    (out / "documents.json").write_text(json.dumps(documents.entries, indent=1, ensure_ascii=False))
    stamp.write_text(checksum)


if __name__ == "__main__":
    main()
