"""Makes documents that are small and turn out large, deep or endless when opened.

usage: make_bombs.py OUT [NAME...]        by hand; bombs_test.py calls write()

Nothing here was kept from elsewhere: every bomb is written by a function below, in a
few seconds all together. bomb(NAME) says that a document must be stopped by the
limits of bombs_test.py; bomb(NAME, REFUSED) that it must not be inspected, but may as
well be called damaged; bomb(NAME, HARMLESS) that it looks dangerous, but that there is
little in it: it may even be inspected, as long as the command lives and reports it.
"""

import base64
import bz2
import gzip
import io
import lzma
import pathlib
import struct
import subprocess
import sys
import tarfile
import tempfile
import zipfile
import zlib

STOPPED, REFUSED, HARMLESS = "stopped", "refused", "harmless"
MIB = 1 << 20
SECRET = "file:///etc/passwd"  # what external entities ask for

BOMBS = {}  # name -> (function, what has to become of it)


def bomb(name, end=STOPPED):
    def add(function):
        assert name not in BOMBS, name
        BOMBS[name] = (function, end)
        return function

    return add


def family(names, end=STOPPED):
    """One function for many: `names` maps the name of a bomb to what it is called with."""

    def add(function):
        for name, arguments in names.items():
            bomb(name, end)(lambda arguments=arguments: function(*arguments))
        return function

    return add


# Compressed streams that may be strung together: what is compressed is made once.

ZEROS = bytes(MIB)
PACK = {
    "gz": lambda data: gzip.compress(data, 9, mtime=0),
    "bz2": lambda data: bz2.compress(data, 9),
    "xz": lambda data: lzma.compress(data, preset=1),
    "lzma": lambda data: lzma.compress(data, format=lzma.FORMAT_ALONE, preset=1),
    "zst": lambda data: run("zstd", "-q", "-c", "-3", data=data),
}


def run(*command, data=b"", cwd=None):
    return subprocess.run(command, input=data, capture_output=True, check=True, cwd=cwd).stdout


def deflated_zeros(mebibytes):
    """A raw deflate stream, and the CRC-32 of what is in it."""
    packer = zlib.compressobj(9, zlib.DEFLATED, -15)
    one = packer.compress(ZEROS) + packer.flush(zlib.Z_FULL_FLUSH)
    crc = 0
    for _ in range(mebibytes):
        crc = zlib.crc32(ZEROS, crc)
    return one * mebibytes + b"\x03\x00", crc


def zlib_zeros(mebibytes):
    """The same with the head and the checksum that PDF wants."""
    stream, _ = deflated_zeros(mebibytes)
    length = mebibytes * MIB
    return b"\x78\xda" + stream + struct.pack(">I", ((length % 65521) << 16) | 1)


def zip_of(members, method=zipfile.ZIP_DEFLATED):
    out = io.BytesIO()
    with zipfile.ZipFile(out, "w", method) as archive:
        for name, content in members.items():
            info = zipfile.ZipInfo(name)
            info.compress_type = zipfile.ZIP_STORED if name == "mimetype" else method
            archive.writestr(info, content)
    return out.getvalue()


def tar_of(members, **more):
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w", **more) as archive:
        for name, content in members.items():
            info = tarfile.TarInfo(name)
            info.size = len(content)
            archive.addfile(info, io.BytesIO(content))
    return out.getvalue()


# Zip files by hand: local headers and a central directory that need not agree.


def local_header(name, packed, size, crc, method=8):
    head = struct.pack("<4s5H3I2H", b"PK\3\4", 20, 0, method, 0, 33, crc, packed, size, len(name), 0)
    return head + name


def central_header(name, packed, size, crc, offset, method=8, extra=b""):
    numbers = (20, 20, 0, method, 0, 33, crc, packed, size, len(name), len(extra), 0, 0, 0, 0, offset)
    return struct.pack("<4s6H3I5H2I", b"PK\1\2", *numbers) + name + extra


def end_of_central(count, length, offset):
    return struct.pack("<4s4H2IH", b"PK\5\6", 0, 0, count & 0xFFFF, count & 0xFFFF, length, offset, 0)


@bomb("zeros.zip")
def zip_zeros():
    stream, crc = deflated_zeros(200)
    name, size = b"zeros", 200 * MIB
    local = local_header(name, len(stream), size, crc) + stream
    central = central_header(name, len(stream), size, crc, 0)
    return local + central + end_of_central(1, len(central), len(local))


@bomb("lying-size.zip")
def zip_lying_size():
    """Says 10 bytes, holds 200 MiB."""
    stream, crc = deflated_zeros(200)
    local = local_header(b"small", len(stream), 10, crc) + stream
    central = central_header(b"small", len(stream), 10, crc, 0)
    return local + central + end_of_central(1, len(central), len(local))


@bomb("many-zeros.zip")
def zip_many_zeros():
    """Each member is within its limit, all together are not."""
    return zip_of({f"zeros{n}": bytes(2 * MIB) for n in range(20)})


@bomb("same-data.zip")
def zip_same_data():
    """A thousand members, all of them the same bytes of the file."""
    stream, crc = deflated_zeros(2)
    local = local_header(b"0", len(stream), 2 * MIB, crc) + stream
    central = b"".join(
        central_header(b"0", len(stream), 2 * MIB, crc, 0) for _ in range(1000)
    )
    return local + central + end_of_central(1000, len(central), len(local))


@bomb("overlapping.zip")
def zip_overlapping():
    """Each member quotes the local header of the next in a stored block and runs on into it."""
    count, mebibytes = 250, 2
    stream, crc = deflated_zeros(mebibytes)
    size = mebibytes * MIB
    content = ZEROS * mebibytes
    body, entries = stream, []
    for number in reversed(range(count)):
        name = b"%06d" % number
        header = local_header(name, len(body), size, crc)
        entries.append((name, len(body), size, crc, len(body)))
        quoted = b"\x00" + struct.pack("<HH", len(header), len(header) ^ 0xFFFF) + header
        whole = header + body
        body = quoted + body
        size += len(header)
        content = header + content
        crc = zlib.crc32(content)
    end = len(whole)
    central = b"".join(
        central_header(name, packed, size, crc, end - packed - 30 - len(name))
        for name, packed, size, crc, _ in entries
    )
    return whole + central + end_of_central(count, len(central), len(whole))


@bomb("nested-16x5.zip")
def zip_nested_wide():
    content = zip_zeros_small()
    for _ in range(5):
        content = zip_of({f"lib{n:x}.zip": content for n in range(16)})
    return content


def zip_zeros_small():
    return zip_of({"zeros": bytes(3 * MIB)})


@bomb("zip64-size.zip", HARMLESS)
def zip64_size():
    extra = struct.pack("<HHQQ", 1, 16, 1 << 62, 100)
    local = local_header(b"big", 100, 0xFFFFFFFF, 0) + bytes(100)
    central = central_header(b"big", 100, 0xFFFFFFFF, 0, 0, extra=extra)
    return local + central + end_of_central(1, len(central), len(local))


@bomb("zip64-count.zip", HARMLESS)
def zip64_count():
    local = local_header(b"one", 0, 0, 0, 0)
    central = central_header(b"one", 0, 0, 0, 0, 0)
    end64 = struct.pack(
        "<4sQ2H2I4Q", b"PK\6\6", 44, 45, 45, 0, 0, 1 << 60, 1 << 60, len(central), len(local)
    )
    locator = struct.pack("<4sIQI", b"PK\6\7", 0, len(local) + len(central), 1)
    end = struct.pack("<4s4H2IH", b"PK\5\6", 0, 0, *[0xFFFF] * 2, *[0xFFFFFFFF] * 2, 0)
    return local + central + end64 + locator + end


@bomb("zip64-loop.zip", HARMLESS)
def zip64_loop():
    """The directory lies where it points to itself."""
    central = central_header(b"x", 10, 10, 0, 0)
    return central + end_of_central(1, len(central), 0)


@bomb("many-members.zip")
def zip_many_members():
    return zip_of({f"{n:x}": b"" for n in range(5000)}, zipfile.ZIP_STORED)


@bomb("same-header.zip", HARMLESS)
def zip_same_header():
    """Sixty thousand names, all of the same empty member."""
    local = local_header(b"", 0, 0, 0, 0)
    central = b"".join(central_header(b"%x" % n, 0, 0, 0, 0, 0) for n in range(60000))
    return local + central + end_of_central(60000, len(central), len(local))


@bomb("stored-self.zip", HARMLESS)
def zip_stored_self():
    """A stored member that claims the whole file, itself included."""
    name = b"self.zip"
    total = 30 + len(name) + 46 + len(name) + 22
    local = local_header(name, total, total, 0, 0)
    central = central_header(name, total, total, 0, 0, 0)
    return local + central + end_of_central(1, len(central), len(local))


# Archives in archives.


def wrapped(pack, depth, content=b"at the bottom\n"):
    for _ in range(depth):
        content = pack(content)
    return content


@family({f"deep.{suffix}": (suffix,) for suffix in ("gz", "bz2", "xz")}, REFUSED)
def deep_stream(suffix):
    return wrapped(PACK[suffix], 200)


@bomb("deep.zst", REFUSED)
def deep_zst():
    def frame(data):  # one raw block, content size unknown
        header = struct.pack("<I", len(data) << 3 | 1)[:3]
        return b"\x28\xb5\x2f\xfd\x00\x58" + header + data

    return wrapped(frame, 1000)


@bomb("deep.zip")
def deep_zip():
    return wrapped(lambda data: zip_of({"in.zip": data}, zipfile.ZIP_STORED), 1000)


@bomb("deep.tar")
def deep_tar():
    return wrapped(lambda data: tar_of({"in.tar": data}), 100)


@bomb("deep-tar.zip")
def deep_tar_in_zip():
    return wrapped(lambda data: zip_of({"in.tar": tar_of({"in.zip": data})}), 50)


@bomb("deep-tar.tar.gz")
def deep_tar_gz():
    return wrapped(lambda data: PACK["gz"](tar_of({"in.tar.gz": data})), 100)


@bomb("deep.7z")
def deep_7z():
    with tempfile.TemporaryDirectory() as scratch:
        inner = pathlib.Path(scratch, "in.txt")
        inner.write_bytes(b"at the bottom\n")
        for level in range(12):
            outer = inner.with_name(f"{level}.7z")
            run("7z", "a", "-mx0", outer, inner)
            inner = outer
        return inner.read_bytes()


@bomb("deep.eml")
def deep_mail():
    head = b"Subject: in\r\nMIME-Version: 1.0\r\nContent-Type: message/rfc822\r\n\r\n"
    return head * 1000 + b"Subject: bottom\r\n\r\nat the bottom\r\n"


@bomb("deep-attached.eml")
def deep_attached():
    def mail(data):
        text = base64.encodebytes(zip_of({"in.eml": data}))
        head = b"Subject: in\nMIME-Version: 1.0\nContent-Type: application/zip; name=in.zip\n"
        return head + b"Content-Transfer-Encoding: base64\n\n" + text

    return wrapped(mail, 20, b"Subject: bottom\n\nat the bottom\n")


@bomb("deep-docx.zip", HARMLESS)
def deep_docx():
    def pack(data):
        return zip_of({**DOCX, "word/document.xml": word("x"), "word/embeddings/in.docx": data})

    return wrapped(pack, 40)


@bomb("tree.zip")
def tree_zip():
    """Two in each: no level is large, but there are a million leaves."""
    content = b"leaf\n"
    for level in range(20):
        content = zip_of({"l.zip": content, "r.zip": content})
    return content


# Compressed streams.


@family({f"zeros.{suffix}": (suffix,) for suffix in ("gz", "bz2", "xz", "lzma", "zst")})
def one_stream(suffix):
    return PACK[suffix](bytes(50 * MIB))


@family({f"strung.{suffix}": (suffix,) for suffix in ("gz", "bz2", "xz", "zst")})
def strung_streams(suffix):
    return PACK[suffix](ZEROS) * 300


@family({f"zeros.tar.{suffix}": (suffix,) for suffix in ("gz", "bz2", "xz", "zst")})
def packed_tar(suffix):
    info = tarfile.TarInfo("zeros")
    info.size = 300 * MIB
    return PACK[suffix](info.tobuf() + bytes(10240)) + PACK[suffix](ZEROS) * 300


@bomb("rle-blocks.zst")
def zst_rle():
    """Four bytes a block of 128 KiB: 30 000 to one."""
    block = struct.pack("<I", (128 << 10) << 3 | 2)[:3] + b"\0"
    return b"\x28\xb5\x2f\xfd\x00\x58" + block * 10000 + struct.pack("<I", 1)[:3]


@bomb("window-2g.zst", HARMLESS)
def zst_window():
    data = b"a window of two gibibytes for this\n"
    return b"\x28\xb5\x2f\xfd\x00\xa8" + struct.pack("<I", len(data) << 3 | 1)[:3] + data


@bomb("dictionary-4g.xz", HARMLESS)
def xz_dictionary():
    content = bytearray(lzma.compress(b"a dictionary of four gibibytes for this\n"))
    content[12 + 4] = 40  # the dictionary size of the only filter of the first block
    length = (content[12] + 1) * 4
    content[12 + length - 4 : 12 + length] = struct.pack("<I", zlib.crc32(content[12 : 8 + length]))
    return bytes(content)


@bomb("empty-streams.gz", HARMLESS)
def gz_empty_streams():
    return PACK["gz"](PACK["gz"](b"") * 500_000)


@bomb("long-name.gz", HARMLESS)
def gz_long_name():
    head = b"\x1f\x8b\x08\x08" + bytes(6) + b"n" * 1_000_000 + b"\0"
    return head + PACK["gz"](b"short\n")[10:]


# Tar and 7z.


@bomb("many-members.tar.gz")
def tar_many_members():
    one = b"".join(tarfile.TarInfo(f"empty{n}").tobuf() for n in range(1000))
    return PACK["gz"](one) * 1000


@bomb("sparse-gnu.tar")
def tar_sparse():
    """A tebibyte of holes, as GNU tar writes them."""
    header = bytearray(tarfile.TarInfo("sparse").tobuf(tarfile.GNU_FORMAT))
    header[156:157] = b"S"
    header[386 : 386 + 12] = b"%011o\0" % 0
    header[386 + 12 : 386 + 24] = b"%011o\0" % 0
    header[483:495] = b"\x80" + (1 << 40).to_bytes(11, "big")
    header[148:156] = b" " * 8
    header[148:156] = b"%06o\0 " % sum(header)
    return bytes(header) + bytes(10240)


@bomb("sparse-pax.tar")
def tar_sparse_pax():
    headers = {"GNU.sparse.major": "1", "GNU.sparse.minor": "0", "GNU.sparse.name": "sparse"}
    headers["GNU.sparse.realsize"] = str(1 << 40)
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w", format=tarfile.PAX_FORMAT) as archive:
        info = tarfile.TarInfo("sparse")
        info.pax_headers = headers
        data = b"1\n1099511627775\n1\n".ljust(512, b"\0") + b"x".ljust(512, b"\0")
        info.size = len(data)
        archive.addfile(info, io.BytesIO(data))
    return out.getvalue()


@bomb("huge-member.tar")
def tar_huge_member():
    """Says an exbibyte, ends after a kilobyte."""
    header = bytearray(tarfile.TarInfo("huge").tobuf(tarfile.GNU_FORMAT))
    header[124:136] = b"\x80" + (1 << 60).to_bytes(11, "big")
    header[148:156] = b" " * 8
    header[148:156] = b"%06o\0 " % sum(header)
    return bytes(header) + b"x" * 1024


@bomb("negative-member.tar", HARMLESS)
def tar_negative_member():
    header = bytearray(tarfile.TarInfo("negative").tobuf(tarfile.GNU_FORMAT))
    header[124:136] = b"\xff" * 11 + b"\x00"
    header[148:156] = b" " * 8
    header[148:156] = b"%06o\0 " % sum(header)
    return bytes(header) + b"x" * 1024


@family({"long-name.tar.gz": (b"L",), "long-link.tar.gz": (b"K",), "long-pax.tar.gz": (b"x",)}, HARMLESS)
def tar_long(kind):
    info = tarfile.TarInfo("././@LongLink")
    info.type, info.size = kind, 100 * MIB
    return PACK["gz"](info.tobuf(tarfile.GNU_FORMAT)) + PACK["gz"](b"n" * MIB) * 100


@bomb("links.tar", HARMLESS)
def tar_links():
    """Links to each other and out of the archive; a device; a pipe."""
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w") as archive:
        for name, kind, target in (
            ("a", tarfile.SYMTYPE, "b"), ("b", tarfile.SYMTYPE, "a"), ("c", tarfile.LNKTYPE, "c"),
            ("d", tarfile.LNKTYPE, "/etc/passwd"), ("e", tarfile.SYMTYPE, "/etc/passwd"),
            ("f", tarfile.CHRTYPE, ""), ("g", tarfile.FIFOTYPE, ""), ("h/", tarfile.DIRTYPE, ""),
        ):  # fmt: skip
            info = tarfile.TarInfo(name)
            info.type, info.linkname = kind, target
            archive.addfile(info)
    return out.getvalue()


def seven_zip(files, *options):
    with tempfile.TemporaryDirectory() as scratch:
        for name, content in files.items():
            pathlib.Path(scratch, name).write_bytes(content)
        run("7z", "a", "-mx1", *options, "out.7z", ".", cwd=scratch)
        return pathlib.Path(scratch, "out.7z").read_bytes()


@bomb("zeros.7z")
def seven_zip_zeros():
    return seven_zip({"zeros": bytes(60 * MIB)})


@bomb("solid.7z")
def seven_zip_solid():
    return seven_zip({f"zeros{n}": bytes(2 * MIB) for n in range(20)}, "-ms=on")


@bomb("many-members.7z")
def seven_zip_many():
    return seven_zip({f"empty{n}": b"" for n in range(2000)})


@bomb("header-sizes.7z", HARMLESS)
def seven_zip_header():
    """A header that says it is eight exbibytes long."""
    start = struct.pack("<QQI", 0, 1 << 62, 0)
    return b"7z\xbc\xaf\x27\x1c\0\4" + struct.pack("<I", zlib.crc32(start)) + start


# Office documents, as small as they may be.

XML = '<?xml version="1.0" encoding="UTF-8"?>\n'
TYPES = "http://schemas.openxmlformats.org/package/2006/content-types"
RELATIONS = "http://schemas.openxmlformats.org/package/2006/relationships"
OFFICE_RELATIONS = "http://schemas.openxmlformats.org/officeDocument/2006/relationships"
MAIN = "http://schemas.openxmlformats.org/wordprocessingml/2006/main"
SHEET = "http://schemas.openxmlformats.org/spreadsheetml/2006/main"
VENDOR = "application/vnd.openxmlformats-officedocument"


def relations(*targets):
    inside = "".join(
        f'<Relationship Id="r{n}" Type="{OFFICE_RELATIONS}/{kind}" Target="{target}"/>'
        for n, (kind, target) in enumerate(targets)
    )
    return f'{XML}<Relationships xmlns="{RELATIONS}">{inside}</Relationships>'


def content_types(parts):
    inside = "".join(
        f'<Override PartName="/{name}" ContentType="{VENDOR}.{kind}+xml"/>'
        for name, kind in parts.items()
    )
    rels = '<Default Extension="rels" ContentType="application/vnd.openxmlformats-package.relationships+xml"/>'
    return f'{XML}<Types xmlns="{TYPES}">{rels}{inside}</Types>'


DOCX = {
    "[Content_Types].xml": content_types({"word/document.xml": "wordprocessingml.document.main"}),
    "_rels/.rels": relations(("officeDocument", "word/document.xml")),
}
XLSX = {
    "[Content_Types].xml": content_types(
        {
            "xl/workbook.xml": "spreadsheetml.sheet.main",
            "xl/worksheets/sheet1.xml": "spreadsheetml.worksheet",
            "xl/sharedStrings.xml": "spreadsheetml.sharedStrings",
        }
    ),
    "_rels/.rels": relations(("officeDocument", "xl/workbook.xml")),
    "xl/workbook.xml": f'{XML}<workbook xmlns="{SHEET}" xmlns:r="{OFFICE_RELATIONS}"><sheets>'
    '<sheet name="S" sheetId="1" r:id="r0"/></sheets></workbook>',
    "xl/_rels/workbook.xml.rels": relations(
        ("worksheet", "worksheets/sheet1.xml"), ("sharedStrings", "sharedStrings.xml")
    ),
}
ODF_NAMES = "".join(
    f' xmlns:{name}="urn:oasis:names:tc:opendocument:xmlns:{name}:1.0"'
    for name in ("office", "text", "table")
)


def word(text, doctype=""):
    body = f"<w:body><w:p><w:r><w:t>{text}</w:t></w:r></w:p></w:body>"
    return f'{XML}{doctype}<w:document xmlns:w="{MAIN}">{body}</w:document>'


def docx(text, doctype=""):
    return zip_of({**DOCX, "word/document.xml": word(text, doctype)})


def xlsx(text, doctype="", cells=1):
    strings = f'{XML}{doctype}<sst xmlns="{SHEET}"><si><t>{text}</t></si></sst>'
    cell = '<c t="s"><v>0</v></c>'
    sheet = f'{XML}<worksheet xmlns="{SHEET}"><sheetData><row>{cell * cells}</row></sheetData></worksheet>'
    return zip_of({**XLSX, "xl/sharedStrings.xml": strings, "xl/worksheets/sheet1.xml": sheet})


def odf(kind, body, doctype=""):
    content = (
        f"{XML}{doctype}<office:document-content{ODF_NAMES}><office:body>{body}"
        "</office:body></office:document-content>"
    )
    mimetype = f"application/vnd.oasis.opendocument.{kind}"
    manifest = (
        f'{XML}<manifest:manifest xmlns:manifest="urn:oasis:names:tc:opendocument:xmlns:manifest:1.0">'
        f'<manifest:file-entry manifest:full-path="/" manifest:media-type="{mimetype}"/>'
        '<manifest:file-entry manifest:full-path="content.xml" manifest:media-type="text/xml"/>'
        "</manifest:manifest>"
    )
    return zip_of(
        {"mimetype": mimetype, "content.xml": content, "META-INF/manifest.xml": manifest}
    )


def odt(text, doctype=""):
    return odf("text", f"<office:text><text:p>{text}</text:p></office:text>", doctype)


def epub(text, doctype="", spine=1):
    container = (
        f'{XML}<container version="1.0" xmlns="urn:oasis:names:tc:opendocument:xmlns:container">'
        '<rootfiles><rootfile full-path="content.opf" media-type="application/oebps-package+xml"/>'
        "</rootfiles></container>"
    )
    package = (
        f'{XML}<package version="3.0" xmlns="http://www.idpf.org/2007/opf"><manifest>'
        '<item id="p" href="page.xhtml" media-type="application/xhtml+xml"/></manifest>'
        f"<spine>{'<itemref idref=%sp%s/>' % (chr(34), chr(34)) * spine}</spine></package>"
    )
    return zip_of(
        {
            "mimetype": "application/epub+zip",
            "META-INF/container.xml": container,
            "content.opf": package,
            "page.xhtml": f'{XML}{doctype}<html xmlns="http://www.w3.org/1999/xhtml"><body>'
            f"<p>{text}</p></body></html>",
        }
    )


def plain_xml(text, doctype=""):
    return f"{XML}{doctype}<report><p>{text}</p></report>"


def drawing(text, doctype=""):
    return f'{XML}{doctype}<svg xmlns="http://www.w3.org/2000/svg"><text>{text}</text></svg>'


CARRIERS = {
    "xml": plain_xml, "svg": drawing, "docx": docx, "xlsx": xlsx, "odt": odt, "epub": epub,
}  # fmt: skip


# Entities.


def laughs():
    """Ten times ten times ten ..."""
    lines = ['<!ENTITY a0 "ha ha ha ha ha ">']
    for level in range(1, 11):
        lines.append(f'<!ENTITY a{level} "{f"&a{level - 1};" * 10}">')
    return "&a10;", f"<!DOCTYPE x [{''.join(lines)}]>"


def quadratic():
    """One long entity, very often."""
    return "&a;" * 20000, f'<!DOCTYPE x [<!ENTITY a "{"long " * 4000}">]>'


def external():
    return "before &a; after", f'<!DOCTYPE x [<!ENTITY a SYSTEM "{SECRET}">]>'


def external_parameter():
    dtd = f'<!DOCTYPE x SYSTEM "{SECRET}" [<!ENTITY % a SYSTEM "{SECRET}"> %a;]>'
    return "before and after", dtd


def endless():
    return "&a;", '<!DOCTYPE x [<!ENTITY a "&b;"><!ENTITY b "&a;">]>'


def entity_bomb(carrier, entities):
    return CARRIERS[carrier](*entities())


family({f"laughs.{name}": (name, laughs) for name in CARRIERS}, HARMLESS)(entity_bomb)
family({f"quadratic.{name}": (name, quadratic) for name in CARRIERS}, HARMLESS)(entity_bomb)
family({f"external.{name}": (name, external) for name in CARRIERS}, HARMLESS)(entity_bomb)
family({f"parameter.{name}": (name, external_parameter) for name in CARRIERS}, HARMLESS)(entity_bomb)
family({f"endless.{name}": (name, endless) for name in ("xml", "docx", "odt")}, HARMLESS)(entity_bomb)


# XML and HTML that is only too much of something.


@family(
    {
        "nested.xml": ("<r>", "<a>", "", "</a>", "</r>", 500_000),
        "attributes.xml": ("<r", ' a%d="1"', "/><p>x</p></r", "", ">", 100_000),
        "namespaces.xml": ("<r", ' xmlns:a%d="u:%d"', "><p>x</p></r", "", ">", 100_000),
        "nested.html": ("<html><body>", "<div>", "", "", "</body></html>", 500_000),
        "nested-b.html": ("<html><body>", "<b>", "x", "", "", 500_000),
        "adoption.html": ("<html><body>", "<b><p>", "x", "</b>", "", 50_000),
        "links.html": ("<html><body>", "<a>x<table>", "", "", "", 50_000),
        "attributes.html": ("<html><body><p", " a%d=1", ">x</p>", "", "</body></html>", 200_000),
        "templates.html": ("<html><body>", "<template>", "x", "", "", 200_000),
        "select.html": ("<html><body>", "<select><option>", "x", "", "", 200_000),
        "svg.html": ("<html><body>", "<svg><foreignObject>", "x", "", "", 100_000),
        "comments.html": ("<html><body>", "<!--", "x", "", "", 500_000),
        "entities.html": ("<html><body>", "&CounterClockwiseContourIntegral;", "", "", "", 50_000),
        "frames.html": ("", "<html><frameset>", "x", "", "", 100_000),
    },
    HARMLESS,
)
def too_much(start, one, middle, close, end, count):
    if "%d" in one:
        many = "".join(one.replace("%d", str(number)) for number in range(count))
    else:
        many = one * count
    return start + many + middle + close * count + end


@bomb("zeros-document.docx")
def docx_zeros():
    return zip_of({**DOCX, "word/document.xml": word("zeros " * 2_000_000)})


@bomb("zeros-strings.xlsx")
def xlsx_strings():
    return xlsx("zeros " * 2_000_000)


@bomb("repeated-string.xlsx")
def xlsx_repeated_string():
    """100 KB of text in 20 000 cells: two gigabytes of sheet."""
    return xlsx("all the same " * 8000, cells=20_000)


@bomb("far-cells.xlsx", HARMLESS)
def xlsx_far_cells():
    cells = "".join(
        f'<row r="{row}"><c r="XFD{row}"><v>1</v></c></row>' for row in range(1048000, 1048577)
    )
    sheet = f'{XML}<worksheet xmlns="{SHEET}"><sheetData>{cells}</sheetData></worksheet>'
    return zip_of({**XLSX, "xl/worksheets/sheet1.xml": sheet})


@bomb("string-numbers.xlsx", HARMLESS)
def xlsx_string_numbers():
    cells = "".join(f'<c t="s"><v>{n}</v></c>' for n in (-1, 1 << 31, 1 << 63, 10**30, "x", ""))
    sheet = f'{XML}<worksheet xmlns="{SHEET}"><sheetData><row>{cells}</row></sheetData></worksheet>'
    return zip_of({**XLSX, "xl/worksheets/sheet1.xml": sheet})


@bomb("repeated-cells.ods", HARMLESS)
def ods_repeated():
    """The whole sheet full of one cell, as the format allows in a line."""
    cell = (
        '<table:table-cell table:number-columns-repeated="16384"><text:p>full</text:p></table:table-cell>'
    )
    row = f'<table:table-row table:number-rows-repeated="1048576">{cell}</table:table-row>'
    body = f"<office:spreadsheet><table:table>{row}</table:table></office:spreadsheet>"
    return odf("spreadsheet", body)


@bomb("blanks.odt", HARMLESS)
def odt_blanks():
    return odt('a<text:s text:c="2000000000"/>b<text:s text:c="-1"/>c<text:s text:c="99999999999999999999"/>')


@bomb("nested.odt", HARMLESS)
def odt_nested():
    return odt("<text:span>" * 100_000 + "x" + "</text:span>" * 100_000)


@bomb("nested.docx", HARMLESS)
def docx_nested():
    deep = "</w:t></w:r>" + "<w:sdt><w:sdtContent>" * 100_000
    return docx(deep + "</w:sdtContent></w:sdt>" * 100_000 + "<w:r><w:t>")


@bomb("relation-cycle.docx", HARMLESS)
def docx_relation_cycle():
    itself = relations(("officeDocument", "document.xml"), ("header", "document.xml"))
    return zip_of(
        {**DOCX, "word/document.xml": word("round"), "word/_rels/document.xml.rels": itself}
    )


@bomb("relation-outside.docx", HARMLESS)
def docx_relation_outside():
    outside = relations(
        ("officeDocument", "../../../../etc/passwd"), ("officeDocument", "file:///etc/passwd")
    )
    return zip_of({**DOCX, "_rels/.rels": outside, "word/document.xml": word("outside")})


@bomb("relations.docx", HARMLESS)
def docx_relations():
    many = relations(*[("header", "header1.xml")] * 20_000)
    return zip_of(
        {
            **DOCX,
            "word/document.xml": word("many"),
            "word/header1.xml": word("header " * 1000),
            "word/_rels/document.xml.rels": many,
        }
    )


@bomb("two-documents.docx", HARMLESS)
def docx_twice():
    """The same part twice; which one is meant nobody knows."""
    stream = zip_of({**DOCX, "word/document.xml": word("first")})
    out = io.BytesIO(stream)
    with zipfile.ZipFile(out, "a") as archive:
        archive.comment = b""
        archive.NameToInfo.clear()
        archive.writestr("word/document.xml", word("second"))
    return out.getvalue()


@bomb("spine.epub", HARMLESS)
def epub_spine():
    return epub("page " * 1000, spine=20_000)


@bomb("container-loop.epub", HARMLESS)
def epub_loop():
    content = epub("loop")
    return content.replace(b'full-path="content.opf"', b'full-path="META-INF/co"')


# Mail.


@bomb("nested-parts.eml")
def mail_nested_parts():
    head = "Subject: nested\nMIME-Version: 1.0\n"
    return head + "".join(
        f"Content-Type: multipart/mixed; boundary=b{n}\n\n--b{n}\n" for n in range(100_000)
    )


@bomb("many-parts.eml")
def mail_many_parts():
    head = "Subject: many\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n"
    part = "--b\nContent-Type: application/octet-stream; name=a.bin\n\nx\n"
    return head + part * 50_000 + "--b--\n"


@bomb("same-boundary.eml", HARMLESS)
def mail_same_boundary():
    head = "Subject: same\nMIME-Version: 1.0\n"
    return head + "Content-Type: multipart/mixed; boundary=b\n\n--b\n" * 20_000


@bomb("many-headers.eml", HARMLESS)
def mail_many_headers():
    return "Subject: many\n" + "X-Header: of no use\n" * 200_000 + "\nbody\n"


@bomb("long-header.eml", HARMLESS)
def mail_long_header():
    return "Subject: long" + "\n folded and folded" * 200_000 + "\n\nbody\n"


@bomb("encoded-words.eml", HARMLESS)
def mail_encoded_words():
    return "Subject: " + "\n =?utf-8?q?=41=42=43?=" * 100_000 + "\n\nbody\n"


@bomb("parameters.eml", HARMLESS)
def mail_parameters():
    many = "".join(f";\n name*{n}*=a%20b" for n in range(50_000))
    return f"Subject: p\nMIME-Version: 1.0\nContent-Type: application/zip{many}\n\nbody\n"


@bomb("addresses.eml", HARMLESS)
def mail_addresses():
    return "From: " + "(" * 200_000 + "\nTo: " + "a:" * 100_000 + "\nSubject: x\n\nbody\n"


@bomb("zeros-base64.eml")
def mail_zeros():
    head = "Subject: zeros\nMIME-Version: 1.0\nContent-Type: application/octet-stream; name=z\n"
    return head + "Content-Transfer-Encoding: base64\n\n" + ("A" * 76 + "\n") * 100_000


@bomb("zeros-attached.eml")
def mail_zeros_zip():
    head = b"Subject: zeros\nMIME-Version: 1.0\nContent-Type: application/zip; name=z.zip\n"
    return head + b"Content-Transfer-Encoding: base64\n\n" + base64.encodebytes(zip_zeros())


@bomb("long-boundary.eml", HARMLESS)
def mail_long_boundary():
    boundary = "b" * 500_000
    head = f"Subject: b\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary={boundary}\n\n"
    return head + f"--{boundary}\n\nx\n" * 4


@bomb("external-body.eml", HARMLESS)
def mail_external_body():
    head = "Subject: e\nMIME-Version: 1.0\n"
    kind = 'message/external-body; access-type=local-file; name="/etc/passwd"'
    return f"{head}Content-Type: {kind}\n\nContent-Type: text/plain\n\n"


@bomb("empty-messages.mbox", HARMLESS)
def mbox_many():
    return "From a@b Tue Jul  9 08:00:00 2024\nSubject: x\n\n\n" * 50_000


# PDF.


def pdf_of(objects, trailer=""):
    """A PDF of the objects' bodies; number 1 is the catalogue."""
    out, offsets = bytearray(b"%PDF-1.5\n"), []
    for number, body in enumerate(objects, 1):
        offsets.append(len(out))
        body = body if isinstance(body, bytes) else body.encode()
        out += b"%d 0 obj\n%s\nendobj\n" % (number, body)
    start = len(out)
    out += b"xref\n0 %d\n0000000000 65535 f \n" % (len(objects) + 1)
    out += b"".join(b"%010d 00000 n \n" % offset for offset in offsets)
    size = len(objects) + 1
    out += f"trailer\n<< /Size {size} /Root 1 0 R {trailer} >>\nstartxref\n{start}\n%%EOF\n".encode()
    return bytes(out)


FONT = "<< /Font << /F << /Type /Font /Subtype /Type1 /BaseFont /Helvetica >> >> >>"


def pdf_stream(data, dictionary=""):
    return f"<< /Length {len(data)} {dictionary} >>\nstream\n".encode() + data + b"\nendstream"


def pdf_page(content, dictionary="", more=(), resources=FONT):
    page = (
        f"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 600 800] /Contents 4 0 R"
        f" /Resources {resources} >>"
    )
    pages = "<< /Type /Pages /Kids [3 0 R] /Count 1 >>"
    catalogue = "<< /Type /Catalog /Pages 2 0 R >>"
    return pdf_of([catalogue, pages, page, pdf_stream(content, dictionary), *more])


SHOW = b"BT /F 12 Tf 50 700 Td (A line of text that is there to be found) Tj ET\n"


@bomb("zeros-content.pdf", HARMLESS)
def pdf_zeros():
    return pdf_page(zlib_zeros(500), "/Filter /FlateDecode")


@bomb("text-content.pdf")
def pdf_much_text():
    """A hundred thousand lines of text behind each other on one page, in a few KB."""
    return pdf_page(zlib.compress(SHOW * 300_000, 9), "/Filter /FlateDecode")


@bomb("chained-filters.pdf", HARMLESS)
def pdf_chained():
    data = zlib.compress(zlib.compress(zlib_zeros(1000), 9), 9)
    return pdf_page(data, f"/Filter [{'/FlateDecode ' * 3}]")


@bomb("many-filters.pdf", HARMLESS)
def pdf_many_filters():
    return pdf_page(SHOW, f"/Filter [{'/ASCIIHexDecode ' * 5000}]")


@bomb("object-stream.pdf", HARMLESS)
def pdf_object_stream():
    data = zlib_zeros(200)
    stream = pdf_stream(data, "/Type /ObjStm /N 1000000000 /First 2000000000 /Filter /FlateDecode")
    return pdf_page(SHOW, more=[stream]).replace(b"/Root 1 0 R", b"/Root 6 0 R")


@bomb("deep-pages.pdf", HARMLESS)
def pdf_deep_pages():
    objects = ["<< /Type /Catalog /Pages 2 0 R >>"]
    objects += [
        f"<< /Type /Pages /Count 1 /Parent {n - 1} 0 R /Kids [{n + 1} 0 R] >>" for n in range(2, 20_000)
    ]
    return pdf_of(objects)


@bomb("page-cycle.pdf", HARMLESS)
def pdf_page_cycle():
    kids = "2 0 R " * 50
    return pdf_of(
        ["<< /Type /Catalog /Pages 2 0 R >>", f"<< /Type /Pages /Kids [{kids}] /Count 2000000000 >>"]
    )


@bomb("same-content.pdf")
def pdf_same_content():
    """Ten thousand pages, and what stands on each is the same stream of 200 KB."""
    page = f"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 9 9] /Contents 3 0 R /Resources {FONT} >>"
    count = 10_000
    kids = "".join(f"{4 + n} 0 R " for n in range(count))
    pages = f"<< /Type /Pages /Kids [{kids}] /Count {count} >>"
    stream = pdf_stream(zlib.compress(SHOW * 4000, 9), "/Filter /FlateDecode")
    return pdf_of(["<< /Type /Catalog /Pages 2 0 R >>", pages, stream] + [page] * count)


@bomb("forms.pdf")
def pdf_forms():
    """Forms that draw ten forms that draw ten forms."""
    forms = []
    for level in range(12):
        resources = f"<< /XObject << /X {6 + level} 0 R >> /Font << /F << /Type /Font"
        resources += " /Subtype /Type1 /BaseFont /Helvetica >> >> >>"
        draw = b"/X Do " * 10 if level < 11 else SHOW
        head = f"/Type /XObject /Subtype /Form /BBox [0 0 600 800] /Resources {resources}"
        forms.append(pdf_stream(draw, head))
    return pdf_page(b"/X Do", more=forms, resources="<< /XObject << /X 5 0 R >> >>")


@bomb("form-cycle.pdf", HARMLESS)
def pdf_form_cycle():
    head = "/Type /XObject /Subtype /Form /BBox [0 0 9 9] /Resources << /XObject << /X 5 0 R >> >>"
    form = pdf_stream(b"/X Do " * 20, head)
    return pdf_page(b"/X Do", more=[form], resources="<< /XObject << /X 5 0 R >> >>")


@bomb("previous-loop.pdf", HARMLESS)
def pdf_previous_loop():
    content = pdf_page(SHOW)
    start = content.rindex(b"xref\n0")
    return content.replace(b"/Root 1 0 R", b"/Root 1 0 R /Prev %d" % start)


@bomb("nested-arrays.pdf", HARMLESS)
def pdf_nested_arrays():
    return pdf_page(b"[" * 1_000_000)


@bomb("huge-image.pdf", HARMLESS)
def pdf_image():
    head = "/Type /XObject /Subtype /Image /Width 2000000 /Height 2000000 /BitsPerComponent 8"
    image = pdf_stream(zlib_zeros(10), f"{head} /ColorSpace /DeviceRGB /Filter /FlateDecode")
    return pdf_page(b"/X Do", more=[image], resources="<< /XObject << /X 5 0 R >> >>")


@bomb("object-numbers.pdf", HARMLESS)
def pdf_object_numbers():
    content = pdf_page(SHOW)
    return content.replace(b"xref\n0 5", b"xref\n0 2000000000").replace(b"/Size 5", b"/Size 2000000000")


# RTF and what was there before XML.


@family(
    {
        "nested.rtf": ("{", "", "", 1_000_000),
        "nested-closed.rtf": (r"{\b ", "x", "}", 200_000),
        "binary.rtf": (r"{\*\x\bin2147483647 ", "x", "}", 1000),
        "unicode.rtf": (r"\uc2000000000\u1234 ", "", "", 10_000),
        "tables.rtf": (r"\trowd\cellx1 a\cell\row ", "", "", 100_000),
        "fonts.rtf": (r"{\fonttbl{\f2000000000 A;}}", "", "", 50_000),
        "paragraphs.rtf": (r"\par ", "", "", 500_000),
    },
    HARMLESS,
)
def rtf(one, middle, close, count):
    return r"{\rtf1\ansi start " + one * count + middle + close * count + "}"


FREE, END, FAT_SECTOR = 0xFFFFFFFF, 0xFFFFFFFE, 0xFFFFFFFD


def compound(stream_name, size, chain, children=(FREE, FREE, FREE), first=2, difat=(END, 0)):
    """An OLE2 file: sector 0 is the FAT, 1 the directory, then the stream's."""
    head = struct.pack(
        "<8s16s5H6s", b"\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1", b"", 0x3E, 3, 0xFFFE, 9, 6, b""
    )
    head += struct.pack("<9I", 0, 1, 1, 0, 4096, END, 0, *difat) + struct.pack("<I", 0)
    head += struct.pack("<I", FREE) * 108
    fat = [FAT_SECTOR, END, *chain]
    fat += [FREE] * (128 - len(fat))

    def entry(name, kind, links, start, length):
        coded = name.encode("utf-16-le") + b"\0\0"
        return struct.pack(
            "<64sH2B3I16sI8s8sIQ", coded, len(coded), kind, 1, *links, b"", 0, b"", b"", start, length
        )

    directory = entry("Root Entry", 5, (FREE, FREE, 1), END, 0)
    directory += entry(stream_name, 2, children, first, size) + bytes(256)
    sectors = bytes(512) * len(chain)
    return head[:512].ljust(512, b"\xff") + struct.pack("<128I", *fat) + directory + sectors


@family(
    {
        "chain-cycle.doc": ("WordDocument", 1 << 30, [3, 4, 2]),
        "chain-self.doc": ("WordDocument", 1 << 31, [2]),
        "chain-outside.doc": ("WordDocument", 8192, [1 << 20]),
        "huge-stream.doc": ("WordDocument", 0xFFFFFFFF, [3, 4, END]),
        "directory-cycle.doc": ("WordDocument", 4096, [END], (1, 1, 1)),
        "table-cycle.doc": ("WordDocument", 4096, [END], (FREE,) * 3, 2, (0, 1 << 30)),
        "chain-cycle.xls": ("Workbook", 1 << 30, [3, 4, 2]),
        "directory-cycle.xls": ("Workbook", 4096, [END], (0, 1, 0)),
        "chain-cycle.ppt": ("PowerPoint Document", 1 << 30, [3, 4, 2]),
        "huge-stream.ppt": ("PowerPoint Document", 0xFFFFFFFF, [3, END]),
    },
    HARMLESS,
)
def compound_bomb(*arguments):
    return compound(*arguments)


@bomb("records.xls", HARMLESS)
def xls_records():
    """Strings that say they are longer than all there is, in a whole file of them."""
    begin = struct.pack("<HHHHHHII", 0x809, 16, 0x600, 5, 0, 1997, 0, 0)
    strings = struct.pack("<HHII", 0xFC, 8224, 0x7FFFFFFF, 0x7FFFFFFF) + b"\xff\xff\x0f" * 2738
    stream = (begin + strings).ljust(120 * 512, b"\xff")
    content = bytearray(compound("Workbook", len(stream), [*range(3, 122), END]))
    content[512 * 3 : 512 * 3 + len(stream)] = stream
    return bytes(content)


# Names that want to go elsewhere.

NAMES = {
    "parent": "../../../../../../tmp/tessera-was-here",
    "absolute": "/tmp/tessera-was-here",
    "nul": "before\0after",
    "newline": "line\nlevel 2  /nowhere",
    "escape": "\x1b]0;title\x07\x1b[2J\x1b[31mred",
    "long": "n" * 60_000,
    "empty": "",
    "dots": "..",
    "separator": "a!b!c",
    "override": "\u202egpj.exe",
    "percent": "%s%n%x",
}
NAMED_TEXT = b"A text of a few words in a member with a name of its own.\n" * 3


@family({f"name-{name}.zip": (name,) for name in NAMES}, HARMLESS)
def named_zip(name):
    coded, crc = NAMES[name].encode(), zlib.crc32(NAMED_TEXT)
    size = len(NAMED_TEXT)
    local = local_header(coded, size, size, crc, 0) + NAMED_TEXT
    central = central_header(coded, size, size, crc, 0, 0)
    return local + central + end_of_central(1, len(central), len(local))


@family({f"name-{name}.tar": (name,) for name in NAMES if name not in ("empty", "nul")}, HARMLESS)
def named_tar(name):
    return tar_of({NAMES[name]: NAMED_TEXT}, format=tarfile.GNU_FORMAT)


@bomb("name-not-utf8.tar", HARMLESS)
def tar_not_utf8():
    return tar_of({"\udcff\udcfe\udc80a": NAMED_TEXT}, format=tarfile.GNU_FORMAT)


@bomb("name-100k.tar", HARMLESS)
def tar_100k():
    return tar_of({"d/" * 50_000: NAMED_TEXT}, format=tarfile.GNU_FORMAT)


@bomb("name-escape.eml", HARMLESS)
def mail_name():
    head = "Subject: =?utf-8?q?=1B]0;title=07?=\nMIME-Version: 1.0\n"
    kind = "application/octet-stream; name*=utf-8''..%2F..%2F%1B%5B2J%0Anext%00"
    return f"{head}Content-Type: {kind}\nContent-Disposition: attachment\n\nbody\n"


def write(out, names=None):
    """Writes the bombs, or those named, into the directory `out`."""
    out = pathlib.Path(out)
    for name in names or BOMBS:
        content = BOMBS[name][0]()
        (out / name).write_bytes(content.encode() if isinstance(content, str) else content)


if __name__ == "__main__":
    write(sys.argv[1], sys.argv[2:])
