"""Lets one LibreOffice write the texts in all formats it knows.

usage: /usr/bin/python3 office.py TEXT... OUT     (needs python3-uno)

Each TEXT is a UTF-8 file of paragraphs with blank lines between them. It becomes a
letter, a sheet with a sentence a cell and a presentation with a paragraph a slide,
and each of these is stored as OUT/STEM-office-KIND.SUFFIX in every format of
FORMATS. Of the first text, OUT/STEM-office-KIND-password.SUFFIX are stored, too, in
the formats of WITH_PASSWORD. make_documents.py is the caller.
"""

import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

import uno
from com.sun.star.awt import Point, Size
from com.sun.star.beans import NamedValue, PropertyValue
from com.sun.star.connection import NoConnectException

PASSWORD = "correct horse"
FORMATS = {
    "letter": [
        ("docx", "MS Word 2007 XML"),
        ("doc", "MS Word 97"),
        ("odt", "writer8"),
        ("fodt", "OpenDocument Text Flat XML"),
        ("rtf", "Rich Text Format"),
        ("pdf", "writer_pdf_Export"),
        ("html", "HTML (StarWriter)"),
        ("epub", "EPUB"),
    ],
    "sheet": [
        ("xlsx", "Calc MS Excel 2007 XML"),
        ("xls", "MS Excel 97"),
        ("ods", "calc8"),
        ("html", "HTML (StarCalc)"),
    ],
    "slides": [
        ("pptx", "Impress MS PowerPoint 2007 XML"),
        ("ppt", "MS PowerPoint 97"),
        ("odp", "impress8"),
        ("pdf", "impress_pdf_Export"),
    ],
}
WITH_PASSWORD = ("docx", "doc", "odt", "xlsx", "xls", "ods", "pptx", "odp", "pdf")


def properties(**values):
    return tuple(PropertyValue(name, 0, value, 0) for name, value in values.items())


def connect(pipe, office):
    local = uno.getComponentContext()
    resolver = local.ServiceManager.createInstanceWithContext(
        "com.sun.star.bridge.UnoUrlResolver", local
    )
    for _ in range(600):
        try:
            url = f"uno:pipe,name={pipe};urp;StarOffice.ComponentContext"
            return resolver.resolve(url)
        except NoConnectException:
            if office.poll() is not None:
                sys.exit("LibreOffice ended at once")
            time.sleep(0.1)
    sys.exit("LibreOffice does not answer")


def write_letter(document, paragraphs):
    cursor = document.Text.createTextCursor()
    for number, paragraph in enumerate(paragraphs):
        if number:
            document.Text.insertControlCharacter(cursor, 0, False)  # a new paragraph
        document.Text.insertString(cursor, paragraph, False)


def write_sheet(document, paragraphs):
    sheet = document.Sheets.getByIndex(0)
    for row, paragraph in enumerate(paragraphs):
        for column, sentence in enumerate(re.split(r"(?<=[.!?]) ", paragraph)):
            sheet.getCellByPosition(column, row).String = sentence
    sheet.getCellByPosition(0, len(paragraphs)).Value = 1961.5


def write_slides(document, paragraphs):
    pages = document.DrawPages
    for number, paragraph in enumerate(paragraphs):
        page = pages.getByIndex(0) if number == 0 else pages.insertNewByIndex(number)
        shape = document.createInstance("com.sun.star.drawing.TextShape")
        shape.Position, shape.Size = Point(1000, 1000), Size(24000, 15000)
        page.add(shape)
        shape.String = paragraph


WRITERS = {
    "letter": ("private:factory/swriter", write_letter),
    "sheet": ("private:factory/scalc", write_sheet),
    "slides": ("private:factory/simpress", write_slides),
}


def protected(suffix):
    """What storing takes for each family of formats to ask for a password."""
    if suffix == "pdf":
        data = properties(EncryptFile=True, DocumentOpenPassword=PASSWORD)
        return {"FilterData": uno.Any("[]com.sun.star.beans.PropertyValue", data)}
    if suffix in ("docx", "xlsx", "pptx"):
        keys = {"CryptoType": "Standard", "OOXPassword": PASSWORD}
    elif suffix in ("doc", "xls"):  # the key itself, of which nobody knows the password
        key = uno.ByteSequence(PASSWORD[:16].ljust(16).encode())
        keys = {"STD97EncryptionKey": key, "STD97UniqueID": key}
    else:
        return {"Password": PASSWORD}
    values = tuple(NamedValue(name, value) for name, value in keys.items())
    return {"EncryptionData": uno.Any("[]com.sun.star.beans.NamedValue", values)}


def store(document, path, **options):
    uno.invoke(
        document, "storeToURL", (path.resolve().as_uri(), properties(**options))
    )


def write_all(desktop, text, out, kind, with_password):
    factory, write = WRITERS[kind]
    document = desktop.loadComponentFromURL(factory, "_blank", 0, properties(Hidden=True))
    write(document, text.read_text(encoding="utf-8").strip().split("\n\n"))
    for suffix, name in FORMATS[kind]:
        stem = f"{text.stem}-office-{kind}"
        store(document, out / f"{stem}.{suffix}", FilterName=name)
        if suffix in with_password:
            path = out / f"{stem}-password.{suffix}"
            store(document, path, FilterName=name, **protected(suffix))
    document.close(True)


def main():
    *texts, out = map(pathlib.Path, sys.argv[1:])
    with tempfile.TemporaryDirectory(prefix="tessera-office-") as profile:
        pipe = pathlib.Path(profile).name
        office = subprocess.Popen(
            ["soffice", "--headless", "--norestore", "--nologo", "--nodefault"]
            + [f"--accept=pipe,name={pipe};urp", f"-env:UserInstallation=file://{profile}"],
            stderr=subprocess.DEVNULL,
            start_new_session=True,  # what it starts in turn ends with it
        )
        try:
            context = connect(pipe, office)
            desktop = context.ServiceManager.createInstance("com.sun.star.frame.Desktop")
            for text in texts:
                for kind in FORMATS:
                    write_all(desktop, text, out, kind, WITH_PASSWORD if text == texts[0] else ())
            desktop.terminate()
            office.wait(30)
        finally:
            if office.poll() is None:
                os.killpg(office.pid, signal.SIGKILL)


if __name__ == "__main__":
    main()
