"""Writes the seeds below fuzz/corpus: make_corpus.py DIRECTORY.

The seeds of most targets are decisions, a byte or a few each, in the order in
which the target takes them; this says what they mean. A seed goes out of date
when its target changes, which only makes the fuzzer start from less. Inputs that
showed a fault lie beside the seeds and are written by nobody.
"""

import bz2
import gzip
import io
import lzma
import pathlib
import struct
import sys
import tarfile
import zipfile

root = pathlib.Path(sys.argv[1])


def seed(target, name, *parts):
    """Parts are byte strings, texts, and numbers of one byte."""
    content = b"".join(
        part if isinstance(part, bytes)
        else part.encode() if isinstance(part, str)
        else bytes([part])
        for part in parts)
    directory = root / target
    directory.mkdir(parents=True, exist_ok=True)
    (directory / name).write_bytes(content)


def u16(value):
    return struct.pack("<H", value)


def u32(value):
    return struct.pack("<I", value & 0xFFFFFFFF)


# ---- config_loader: the file itself

seed("config_loader", "all_keys", """sig_page_size=64
fid_chunk_size = 128
max_fid_num\t=\t2096
max_fid_num_load=2096
max_fid_num_save=4192
max_sig_num_load=209600
max_sig_num_save=419200
max_ele_num_load=209600
max_ele_num_save=209600
fid_index_fname="fid_index"
index_list_fname = "index_list"
search_table_fname="search_table"\r
""")
seed("config_loader", "blank_lines_and_no_last_line_feed", " \t\r\n\b\f\n\n \tmax_fid_num = 12 ")
seed("config_loader", "key_twice", "max_fid_num=1\nmax_fid_num=1\n")
seed("config_loader", "name_of_29_and_of_30",
     f'fid_index_fname="{"n" * 29}"\nsearch_table_fname="{"n" * 30}"\n')
seed("config_loader", "line_of_258_then_of_259",
     "k" * 255 + "=1\n", "k" * 256 + "=1\n")
seed("config_loader", "line_of_261_without_end", "k" * 261)
seed("config_loader", "values_of_the_wrong_kind",
     'x=5\nmax_fid_num="word"\nfid_index_fname=7\n')
seed("config_loader", "numbers_beyond_32_bits",
     "max_fid_num=4294967296\nmax_ele_num_load=99999999999999999999999\n")
seed("config_loader", "white_space_that_the_form_lets_pass",
     '\vmax_fid_num=5\n\v="max_ele_num_load"\nx="a\vb"\ny="\r"\n')
seed("config_loader", "nul_bytes", "max_fid_num=3\0=4\n\0max_ele_num_load=5\n")
seed("config_loader", "equals_signs", "=5\n==5\n")

# ---- config_rewriter: which file; number of pairs; pairs; the file

seed("config_rewriter", "content_size", 0, 1, 16, "max_content_size", 7, "6291456",
     "x=1\nMAX_Content_Size\t= 5 \r\nno setting\nmax_content_size=7\n")
seed("config_rewriter", "appended_behind_a_line_without_end", 0, 1, 1, "a", 1, "b", "x=1")
seed("config_rewriter", "into_nothing", 0, 2, 1, "a", 1, "b", 1, "c", 0)
seed("config_rewriter", "read_from_another_file", 3, 1, 1, "a", 3, "b=c", "A=1\na=2\n\n\n")
seed("config_rewriter", "keys_of_nothing", 0, 1, 0, 2, " v", "=1\n = 2\n===\n")

# ---- generator: platform, kind, hash, maximum; how the text is made; the text

WORDS = ("The quick brown fox jumps over the lazy dog, 17 times. " * 60).encode()
SERVER, CLIENT, BINARY, ADLER = 1, 0, 6, 8
RAW, ONE_BYTE, LETTERS, PASSAGE = range(4)
for platform, of in ((SERVER, "server"), (CLIENT, "client")):
    seed("generator", f"words_{of}", platform, RAW, WORDS[:3000])
    seed("generator", f"letters_5000_{of}", platform, LETTERS, u16(5000), u32(1))
    seed("generator", f"letters_2048_adler_{of}", platform | ADLER, LETTERS, u16(2048), u32(2))
seed("generator", "60_letters", CLIENT, LETTERS, u16(60), u32(3))
seed("generator", "61_letters", SERVER, LETTERS, u16(61), u32(3))
# All 61-byte windows of this byte have a hash that 137 divides.
for byte in range(65, 256):
    hash_ = sum(byte * 8 ** (61 - i) for i in range(61)) % (2 ** 56 - 1)
    if hash_ % 137 == 0 and (byte > 127 or chr(byte).isalpha()):
        seed("generator", "every_window_counts_client", CLIENT, ONE_BYTE, u16(12000), byte)
        seed("generator", "every_window_counts_server", SERVER, ONE_BYTE, u16(3000), byte)
        break
seed("generator", "binary_3_bytes", BINARY, RAW, "abc")
seed("generator", "binary_100_bytes", BINARY, RAW, bytes(range(100)))
seed("generator", "binary_10240_bytes", BINARY, LETTERS, u16(10240), u32(5))
seed("generator", "patched_passage_maximum_1084", SERVER | 5 << 4, PASSAGE, u16(4000), 99,
     WORDS[:100], u16(1020), 7, "patched!")

# ---- tree_files: sessions, bends and seal; runs of records; file and place of a bend

def run(tree, first, count, erase=False, step=1):
    """Records of a tree, inserted or erased; the choice's low part is taken modulo 3."""
    for choice in range((10 if erase else 0) << 4, 256):
        if choice % 3 == tree and choice >> 2 & 3 == step - 1 and (choice >> 4 >= 10) == erase:
            return bytes([choice, first, count - 1])
    raise ValueError


SEALED = 0x80
GROWN = (run(0, 0, 60), run(1, 0, 60, step=2), run(2, 10, 40), run(0, 20, 30, erase=True),
         run(1, 0, 1), run(2, 200, 5))  # the six steps of a session


def bend(kind, at, *content):
    return bytes([kind]) + u32(at) + bytes(content)


seed("tree_files", "as_made", 0, *GROWN)
seed("tree_files", "emptied_and_grown_again", 2, *GROWN, run(0, 0, 60, erase=True),
     run(0, 0, 60, erase=True), run(1, 0, 60, erase=True, step=2), run(2, 0, 60, erase=True),
     run(0, 5, 20), run(1, 5, 20), *GROWN)
seed("tree_files", "byte_of_a_leaf", 1 << 2, *GROWN, 0, bend(2, 4096 + 40, 0, 77))
seed("tree_files", "cut_node_file", 1 << 2, *GROWN, 2, bend(0, 5000))
seed("tree_files", "root_below_itself", SEALED | 1 << 2, *GROWN, 2, bend(2, 4096 + 24, 7, 1, 0))
seed("tree_files", "count_beyond_the_block", SEALED | 1 << 2, *GROWN, 0, bend(2, 4096 + 20, 3, 255, 255))
seed("tree_files", "stack_of_blocks_in_use", SEALED | 1 << 2, *GROWN, 1, bend(2, 16, 0, 1))
seed("tree_files", "height_of_the_header", SEALED | 1 << 2, *GROWN, 0, bend(2, 72, 0, 17))

# ---- undo_journal: commits, bends and seal; runs of records; place of a bend

COMMITTED = (run(0, 0, 60), run(1, 0, 60, step=2), run(2, 10, 40), run(0, 20, 30, erase=True),
             run(1, 0, 1))  # the five steps before a commit
UNDER_WAY = (run(0, 100, 60), run(0, 0, 20, erase=True), run(1, 30, 60), run(2, 100, 60),
             run(2, 0, 60, erase=True))

seed("undo_journal", "as_left_by_a_crash", 0, *COMMITTED, *UNDER_WAY)
seed("undo_journal", "nothing_under_way", 0, *COMMITTED)
seed("undo_journal", "of_a_second_batch", 1, *COMMITTED, *UNDER_WAY, *COMMITTED)
seed("undo_journal", "page_0_damaged", 1 << 2, *COMMITTED, *UNDER_WAY, bend(2, 40, 0, 1))
seed("undo_journal", "lengths_changed", SEALED | 1 << 2, *COMMITTED, *UNDER_WAY, bend(2, 40, 1, 0, 0))
seed("undo_journal", "length_of_a_giant", SEALED | 1 << 2, *COMMITTED, *UNDER_WAY, bend(2, 46, 0, 1))
seed("undo_journal", "record_of_another_file", SEALED | 1 << 2, *COMMITTED, *UNDER_WAY,
     bend(2, 4100, 0, 5))
seed("undo_journal", "record_cut", 1 << 2, *COMMITTED, *UNDER_WAY, bend(0, 6000))

# ---- tables: load limit; what is bent; elements; query; bends


def elements(*runs):
    """Signature, fid, and source and length of the run."""
    return bytes([len(runs) - 1]) + b"".join(
        bytes([signature, fid & 255, run]) for signature, fid, run in runs)


RUNS = elements((0, 1, 0), (8, 2, 31), (16, 3, 65), (1, 4, 5), (7, 5, 31), (71, 6, 127),
                (6, 7, 33), (14, 250, 0), (5, 9, 1), (133, 9, 95))
QUERY = bytes([40]) + bytes(range(0, 80, 2))
KNOWN = bytes([20]) + bytes(range(1, 41, 2))
for limit in (0, 2, 5, 8):
    seed("tables", f"as_made_limit_{limit}", limit, 0, RUNS, QUERY)
seed("tables", "as_made_known_signatures_again_and_again", 0, 0, RUNS, KNOWN)
seed("tables", "unsorted_query", 3, 7, RUNS, QUERY)
BEFORE, BETWEEN = 3 << 3, 7 << 5
WEAK, STRONG, WEAK_META, STRONG_META = range(4)
seed("tables", "entry_moved_beyond_the_table", 2, BEFORE, 0, RUNS, KNOWN,
     STRONG_META | 0 << 2 | 0x20, 0, 0, u32(1000000))
seed("tables", "entries_that_keep_their_sum", 2, BEFORE, 0, RUNS, KNOWN,
     STRONG_META | 1 << 2 | 0x20, 0, 7, u32(-3))
seed("tables", "entry_beyond_the_table_that_may_be_loaded_whole", 8, BEFORE, 0, RUNS, KNOWN,
     STRONG_META | 1 << 2 | 0x20, 7, 0, u32(30000))
seed("tables", "start_above_end", 2, BEFORE, 1, RUNS, KNOWN,
     STRONG_META | 1 << 2 | 0x20, 0, 7, u32(0x80000000), STRONG_META, 1, 0, 200)
seed("tables", "torn_strong_table", 2, BEFORE, 0, RUNS, KNOWN, STRONG | 4 << 2, u16(7))
seed("tables", "strong_table_cut_after_loading", 2, BETWEEN, 0, RUNS, KNOWN,
     STRONG | 4 << 2, u16(160))
seed("tables", "strong_table_unsorted", 2, BEFORE, 0, RUNS, KNOWN, STRONG | 3 << 2, u16(16), 31,
     bytes(range(32)))
seed("tables", "other_base", 2, BEFORE, 0, RUNS, KNOWN, STRONG_META | 6 << 2, 0, 9)
seed("tables", "no_weak_table", 2, BEFORE, 0, RUNS, KNOWN, WEAK | 7 << 2 | 0x20)

# ---- match: sessions; steps; questions


def add(file_id, *signatures, source=None):
    """File IDs -8 to 15; sources -1 to 2."""
    choice = len(signatures) - 1 | (0 if source is None else 0x80 | source + 1 << 5)
    return bytes([0, file_id + 8, choice]) + bytes(signatures)


def erase(*file_ids):
    return bytes([7, len(file_ids)]) + bytes(file_id + 8 for file_id in file_ids)


def session(*steps):
    return bytes([len(steps)]) + b"".join(steps)


def question(*signatures, strangers=0, fsz=1):
    return bytes([len(signatures)]) + bytes(signatures) + bytes([strangers, fsz])


seed("match", "seven_files_of_one_source", 0,
     session(*(add(i, *range(i, 12), source=0) for i in range(1, 8))),
     1, question(*range(12)), question(*range(12), strangers=200))
seed("match", "saved_on_the_way", 0, session(*(add(i, i, i + 1) for i in range(16))),
     0, question(*range(20)))
seed("match", "levels", 0,
     session(add(1, *range(12)), add(2, *range(8)), add(3, 1, 2, 3), add(4, 1)),
     2, question(*range(12), strangers=255), question(1, 1, 1, strangers=30),
     question(*range(12), strangers=255, fsz=0))
seed("match", "deleted_and_added_again", 2, session(add(1, 1, 2), add(2, 2, 3)),
     session(erase(1, 2), add(1, 3)), session(erase(5, 2), add(1, 3, 4, source=1)),
     0, question(1, 2, 3, 4, 63))
seed("match", "only_the_root", 0, session(), 0, question(63), 0)

# ---- exports: calls, some with arguments

CONFIGURE, INIT_GENERATOR, GENERATE, SET_SIZE, EXIT_GENERATOR, FREE = range(6)
INIT_INDEX, ADD, ERASE, EXIT_INDEX, SET_LIMIT, INIT_MATCH, MATCH, EXIT_MATCH, DAMAGE = (
    6, 8, 11, 12, 14, 15, 16, 18, 19)


def document(file_id, *signatures, mistake=0):
    return bytes([ADD, file_id, len(signatures) | mistake << 3]) + bytes(signatures)


def match(*signatures, mistake=0, fsz=0):
    return bytes([MATCH, len(signatures) | mistake << 4]) + bytes(signatures) + bytes([fsz])


seed("exports", "index_and_match", INIT_INDEX, document(1, 1, 2, 3), document(2, 3, 4), EXIT_INDEX,
     INIT_MATCH, match(1, 2, 3, 4), EXIT_MATCH)
seed("exports", "wrong_order", match(1), EXIT_MATCH, INIT_MATCH, EXIT_INDEX, document(1, 1),
     ERASE, 1, 3, EXIT_GENERATOR, GENERATE, 1, INIT_INDEX, INIT_INDEX, EXIT_INDEX, INIT_MATCH,
     INIT_MATCH)
seed("exports", "mistaken_arguments", INIT_INDEX,
     *(document(3, 1, mistake=m) for m in range(5)), *(bytes([ERASE, m << 3]) for m in range(5)),
     document(200, 1), document(202, 1), EXIT_INDEX, INIT_MATCH,
     *(match(1, mistake=m) for m in range(8)))
seed("exports", "generator", CONFIGURE, 1, 7, INIT_GENERATOR, 0, GENERATE, 0xF9, WORDS[:31],
     GENERATE, 0xF8, WORDS[:31], SET_SIZE, 0, SET_SIZE, 1, EXIT_GENERATOR, INIT_GENERATOR, 1,
     GENERATE, 0xF9, WORDS[40:71], FREE)
seed("exports", "limit_of_the_table", CONFIGURE, 1, 11, INIT_INDEX, document(1, 1), EXIT_INDEX,
     SET_LIMIT, 1, INIT_INDEX, document(2, 1), SET_LIMIT, 5, document(2, 1), EXIT_INDEX)
seed("exports", "two_indexes", INIT_INDEX, document(1, 1), EXIT_INDEX, CONFIGURE, 1, 10, INIT_INDEX,
     document(1, 2), EXIT_INDEX, INIT_MATCH, match(1, 2))
seed("exports", "rewritten_under_a_matcher", INIT_INDEX, document(1, 1), EXIT_INDEX, INIT_MATCH,
     INIT_INDEX, document(2, 1, 2, 3), EXIT_INDEX, match(1, 2, 3), EXIT_MATCH, INIT_MATCH, match(1))
seed("exports", "damaged_tree", INIT_INDEX, document(1, 1), EXIT_INDEX, DAMAGE, 0, 3, u16(5000), 9,
     INIT_INDEX, document(2, 2), EXIT_INDEX)
seed("exports", "pieces_of_one", CONFIGURE, 2, 0, 3, INIT_INDEX, document(1, 1, 2),
     document(2, 3, 4), document(1, 5), document(3, 1), document(4, 7), ERASE, 1, 2, EXIT_INDEX, INIT_MATCH,
     match(1, 2, 3, 7))

# ---- canonical_text: length of the declared label; label; bytes

GERMAN = "Größe „über“ – Maß… weiß " * 4
RUSSIAN = "Правление решило, что договоры будут храниться в сейфе. " * 4
JAPANESE = "取締役会は、すべての契約書を金庫に保管することを決定した。" * 3
for label, text in (("utf-8", GERMAN), ("windows-1252", GERMAN), ("koi8-r", RUSSIAN.replace("–", "-")),
                    ("windows-1251", RUSSIAN), ("shift_jis", JAPANESE), ("gb18030", JAPANESE),
                    ("iso2022_jp", JAPANESE), ("utf-7", GERMAN), ("utf-16-le", GERMAN)):
    name = label.replace("-", "_")
    seed("canonical_text", f"{name}_declared", len(label), label, text.encode(label))
    seed("canonical_text", f"{name}_guessed", 0, text.encode(label))
for encoding in ("utf-8-sig", "utf-16", "utf-32"):
    seed("canonical_text", f"mark_of_{encoding.replace('-', '_')}", 0, GERMAN.encode(encoding))
seed("canonical_text", "accents_out_of_order", 0, "a" + "\u0301\u0316\u0f73\u0344" * 30)
seed("canonical_text", "invisible_between_letter_and_accent", 0, "e\u200b\u00ad\u034f\u0301 \ufb01\u0301")
seed("canonical_text", "signs_that_are_folded", 0,
     "«a» ‚b‘ c – d … • © ½ → ĳ ﬃ Ａ～　\u2028\u2029\u0085\r\n\r\u1ffd\u0387")
seed("canonical_text", "malformed", 0, b"a\xff\xc0\x80\xed\xa0\x80\xf4\x90\x80\x80\xe2\x82")
seed("canonical_text", "jamo", 0, "\u1100" * 20 + "\u1161" * 20 + "\u11a8" * 20)

# ---- extract_archive: the document


def zip_of(*members, compression=zipfile.ZIP_DEFLATED):
    target = io.BytesIO()
    with zipfile.ZipFile(target, "w", compression) as archive:
        for name, content in members:
            archive.writestr(zipfile.ZipInfo(name), content, compression)
    return target.getvalue()


def tar_of(*members, form=tarfile.PAX_FORMAT):
    target = io.BytesIO()
    with tarfile.open(fileobj=target, mode="w", format=form) as archive:
        for name, content in members:
            header = tarfile.TarInfo(name)
            header.size = len(content)
            archive.addfile(header, io.BytesIO(content))
    return target.getvalue()


two_members = ("dir/a.txt", b"text of a\n"), ("b.txt", b"text of b\n" * 20)
small_zip = zip_of(*two_members)
small_tar = tar_of(*two_members)
seed("extract_archive", "zip", small_zip)
seed("extract_archive", "zip_stored", zip_of(*two_members, compression=zipfile.ZIP_STORED))
seed("extract_archive", "zip_lzma", zip_of(*two_members, compression=zipfile.ZIP_LZMA))
seed("extract_archive", "zip_in_zip", zip_of(("inner.zip", small_zip), ("a", b"x")))
seed("extract_archive", "tar_equal_names", tar_of(("a", b"x"), ("a", b"y")))
seed("extract_archive", "zip_bomb", zip_of(("zeros", bytes(2 << 20)), ("b", b"text")))
seed("extract_archive", "zip_without_end", small_zip[:-30])
seed("extract_archive", "office", zip_of(("[Content_Types].xml", b"<x/>"), ("word/a", b"x")))
seed("extract_archive", "tar", small_tar)
seed("extract_archive", "tar_gnu", tar_of(("n" * 200, b"text"), form=tarfile.GNU_FORMAT))
seed("extract_archive", "tar_twice", small_tar + small_tar)
seed("extract_archive", "tar_gz", gzip.compress(small_tar, mtime=0))
seed("extract_archive", "tar_bz2", bz2.compress(small_tar))
seed("extract_archive", "tar_xz", lzma.compress(small_tar))
seed("extract_archive", "gz", gzip.compress(b"some text", mtime=0))
seed("extract_archive", "gz_of_zeros", gzip.compress(bytes(4096), mtime=0))
seed("extract_archive", "gz_bomb", gzip.compress(bytes(3 << 20), mtime=0))
seed("extract_archive", "gz_in_gz", gzip.compress(gzip.compress(b"some text", mtime=0), mtime=0))
seed("extract_archive", "lzma", lzma.compress(b"some text", lzma.FORMAT_ALONE))
seed("extract_archive", "compound", b"\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1", bytes(1024))

# ---- extract_html, extract_xml, extract_mail, extract_rtf: the document itself

seed("extract_html", "page", "<!DOCTYPE html><html><head><title>T</title><meta charset=koi8-r>"
     "<script>x</script></head><body><p>one <b>bo</b>ld &uuml;<img alt='a' title=\"t\"><table><tr>"
     "<td>c<td>d</table><!-- x --></body></html><p>after")
seed("extract_html", "misnested", "<p><font size=1><b><i></p><a><p></a></b><table><b>x<tr><p><svg>"
     "<style><template><select><option>y</table></i><frameset><plaintext>")
seed("extract_xml", "document", "<?xml version='1.0' encoding='windows-1251'?><a b='c'>\u00cc",
     b"\xcc<![CDATA[d]]>&lt;<e/></a>")
seed("extract_xml", "entities", "<!DOCTYPE a [<!ENTITY b 'x'><!ENTITY c '&b;&b;'><!ENTITY d SYSTEM "
     "'file:///dev/null'><!ENTITY % p 'q'>%p;]><a>&c;&d;</a>")
seed("extract_xml", "web_page", "<!DOCTYPE html PUBLIC 'x' 'y'><html><head><title/></head><body>"
     "<p>caf&eacute;<script>x</script><br/></p></body></html>")
seed("extract_mail", "parts", "From: a@b\nSubject: =?utf-8?Q?=C3=BC?=\nMIME-Version: 1.0\n"
     "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: multipart/alternative; "
     "boundary=c\n\n--c\nContent-Type: text/plain; charset=koi8-r\nContent-Transfer-Encoding: "
     "quoted-printable\n\n=CD\n--c\nContent-Type: text/html\n\n<p>x\n--c--\n--b\nContent-Type: "
     "message/rfc822\n\nSubject: i\n\nt\n--b\nContent-Disposition: attachment; filename*=utf-8''%41"
     "\nContent-Transfer-Encoding: base64\n\nAAEC\n--b--\n")
seed("extract_mail", "mailbox", "From a\nSubject: 1\n\nx\n\nFrom b\nContent-Type: message/partial; "
     "id=x; number=1\n\ny\nbegin 644 f\n#0V%T\n`\nend\n")
seed("extract_mail", "signed", "Content-Type: application/pkcs7-mime\n\n0", b"\x28\x06\x09*\x86H"
     b"\x86\xf7\x0d\x01\x07\x02\xa0\x1b0\x19\x02\x01\x01\x31\x000\x10\x06\x09*\x86H\x86\xf7\x0d"
     b"\x01\x07\x01\xa0\x03\x04\x01x\x31\x00")
seed("extract_rtf", "document", "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0 A;}{\\f1\\fcharset"
     "204 B;}}\\uc1 a\\u1055?\\'e9{\\f1\\'cf}{\\*\\unknown x}{\\footnote n}\\par\\tab{\\pict\\bin3 "
     "}}}}{\\deleted d}\\u-10179 ?\\u-8704 ?}")
seed("extract_rtf", "object", "{\\rtf1{\\object{\\*\\objclass X}{\\*\\objdata 0105000002000000020000"
     "00410000000000000000000300000043617400}{\\result r}}{\\upr{?}{\\*\\ud{\\u1055 ?}}}{\\shp{\\*"
     "\\shpinst{\\shptxt b}}}}")

# ---- extract_office: names and contents of the members of an archive


def members(*names_and_contents):
    return "\n%\n".join(names_and_contents)


def relationship(number, kind, target):
    return f"<Relationship Id='r{number}' Type='x/{kind}' Target='{target}'/>"


seed("extract_office", "docx", members(
    "_rels/.rels", f"<R>{relationship(1, 'officeDocument', 'word/document.xml')}</R>",
    "word/document.xml", "<w:document><w:p><w:r><w:t>a</w:t><w:tab/></w:r><w:del><w:delText>b"
    "</w:delText></w:del><w:txbxContent><w:p><w:t>c</w:t></w:p></w:txbxContent></w:p></w:document>",
    "word/embeddings/o.bin", "x"))
seed("extract_office", "xlsx", members(
    "_rels/.rels", f"<R>{relationship(1, 'officeDocument', '/xl/workbook.xml')}</R>",
    "xl/workbook.xml", "<workbook><sheet name='S' r:id='r1'/></workbook>",
    "xl/_rels/workbook.xml.rels", f"<R>{relationship(1, 'worksheet', '../xl/s.xml')}"
    f"{relationship(2, 'sharedStrings', 't.xml')}</R>",
    "xl/s.xml", "<worksheet><row><c t='s'><v>0</v></c><c><v>0.10000000000000001</v></c></row>"
    "</worksheet>", "xl/t.xml", "<sst><si><t>a</t></si></sst>"))
seed("extract_office", "pptx", members(
    "_rels/.rels", f"<R>{relationship(1, 'officeDocument', 'p.xml')}</R>",
    "p.xml", "<p:presentation><p:sldId id='1' r:id='r1'/></p:presentation>",
    "_rels/p.xml.rels", f"<R>{relationship(1, 'slide', 's.xml')}</R>",
    "s.xml", "<p:sld><p:sp><a:p><a:t>a</a:t><a:fld type='slidenum'><a:t>1</a:t></a:fld></a:p></p:sp>"
    "</p:sld>", "m.xml", "<p:sldMaster><p:sp><p:ph/><a:t>b</a:t></p:sp></p:sldMaster>"))
seed("extract_office", "odt", members(
    "META-INF/manifest.xml", "<m><m:file-entry m:full-path='x'><m:encryption-data/></m:file-entry></m>",
    "content.xml", "<o><text:p>a<text:s text:c='9'/><text:note><text:p>n</text:p></text:note>"
    "<draw:frame><text:p>f</text:p></draw:frame></text:p></o>", "Object 1", "x", "x", "y"))
seed("extract_office", "epub", members(
    "META-INF/container.xml", "<c><rootfile full-path='a/b.opf'/></c>",
    "a/b.opf", "<p><dc:title>T</dc:title><item id='i' href='%31.xhtml' "
    "media-type='application/xhtml+xml'/><itemref idref='i'/></p>",
    "a/1.xhtml", "<html><p>t<br/></p></html>",
    "META-INF/encryption.xml", "<e><CipherReference URI='a/2.html'/></e>", "a/2.html", "x"))
seed("extract_office", "compound_file",
     b"\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1", bytes(22), u16(9), u16(6), bytes(14), u32(1), bytes(8),
     u32(2), u32(1), u32(0xFFFFFFFE), u32(0), u32(0),
     b"\xff" * 432,
     u32(0xFFFFFFFD), u32(0xFFFFFFFE), u32(0xFFFFFFFE), u32(4), u32(0xFFFFFFFE), b"\xff" * 492,
     "Root".encode("utf-16-le").ljust(64, b"\0"), u16(10), b"\5\1", b"\xff" * 8, u32(1), bytes(36),
     u32(3), u32(128), u32(0),
     "Package".encode("utf-16-le").ljust(64, b"\0"), u16(16), b"\2\1", b"\xff" * 12, bytes(36),
     u32(0), u32(70), u32(0), bytes(256),
     u32(1), u32(0xFFFFFFFE), b"\xff" * 504, b"x" * 1024)
