"""Texts and other contents to signatures."""
import hashlib
import os
import threading
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import golden_texts
import pytest
from conftest import ROOT, TEXTS

import tessera
from tessera import Platform, _signatures, binary_signatures, signatures

GOLDEN = ROOT / "tests/golden/signatures"


def golden(name):
    content = (GOLDEN / name).read_bytes()
    return [content[at : at + 8] for at in range(0, len(content), 8)]


@pytest.mark.parametrize("platform", Platform)
@pytest.mark.parametrize("name, text", [
    *((f"letters{length}", golden_texts.letters(length)) for length in (1000, 2000, 3500, 9000)),
    ("words", golden_texts.words()),
    ("bytes", golden_texts.any_bytes(30000)),
    ("same", b"\x89" * 5000),
], ids=lambda value: value if isinstance(value, str) else "")
def test_lists_are_those_of_the_c_library(platform, name, text):
    expected = golden(f"{name}.{platform.name.lower()}")
    assert expected
    assert signatures(text, platform=platform) == expected


def test_binary_lists_are_those_of_the_c_library():
    made = [binary_signatures(golden_texts.any_bytes(length, golden_texts.SEED + length))
            for length in (1, 3, 4, 20, 21, 100, 10239, 10240, 70000)]
    assert [len(each) for each in made] == [1] * 9
    assert sum(made, []) == golden("contents.binary")


def test_lists_ascend_without_repeats():
    made = signatures(TEXTS[0] + TEXTS[0])
    assert len(made) > 5
    assert made == sorted(set(made))
    assert {len(each) for each in made} == {8}


def test_a_str_is_its_utf8():
    text = "Über die Straße zum Café — 東京都 " * 60 + TEXTS[0]
    assert signatures(text) == signatures(text.encode()) != []
    assert signatures(text) != signatures(text.encode("utf-16"))


def test_a_buffer_is_its_bytes():
    text = TEXTS[0].encode()
    expected = signatures(text)
    assert signatures(bytearray(text)) == signatures(memoryview(text)) == expected
    assert signatures(memoryview(text * 2)[: len(text)]) == expected
    assert signatures(memoryview(b"".join(bytes([b, 0]) for b in text))[::2]) == expected
    assert binary_signatures(bytearray(text)) == binary_signatures(text)


def test_nul_ends_no_text_and_counts_for_nothing():
    text = TEXTS[0]
    assert signatures("\0" + text[:2000] + "\0" + text[2000:]) == signatures(text) != []


def test_lone_surrogates_are_left_to_the_caller():
    text = TEXTS[0] + os.fsdecode(b"\xff\xfe" * 200)
    with pytest.raises(UnicodeEncodeError):
        signatures(text)
    assert signatures(text.encode(errors="surrogateescape")) != []


def test_short_texts_have_no_signatures():
    assert signatures("") == signatures(b"") == []
    text = golden_texts.letters(1000)
    assert all(signatures(text[at : at + 60]) == [] for at in range(900))
    assert any(signatures(text[at : at + 61]) != [] for at in range(900))
    assert signatures(" .,;" * 10000) == []


def test_of_no_bytes_there_is_no_binary_signature():
    assert binary_signatures(b"") == []
    assert binary_signatures(b"\x10\x10\x10") == [b"\x30\x20\x10\x000003"]


def test_a_large_text_is_read_as_far_as_its_maximum_size():
    text = hashlib.shake_128(b"large").hexdigest(1 << 20)  # 2 MiB of hexadecimal digits
    first = text[: 1 << 20]
    server = {"platform": Platform.SERVER}
    assert signatures(text, max_content_size=1 << 20, **server) == signatures(first, **server)
    assert signatures(text, **server) != signatures(first, **server)
    assert signatures(text, max_content_size=75 << 20, **server) == signatures(text, **server)


def test_a_client_text_has_ten_thousand_signatures_at_most():
    made = signatures(hashlib.shake_128(b"larger").hexdigest(2 << 20))
    assert 9900 < len(made) <= 10000


@pytest.mark.parametrize("size", [-1, 0, (1 << 20) - 1, (75 << 20) + 1, 2**40])
def test_maximum_sizes_have_bounds(size):
    with pytest.raises(ValueError, match="1048576 to 78643200"):
        signatures("text", max_content_size=size)


@pytest.mark.parametrize("arguments, keywords, error", [
    ((None,), {}, TypeError), ((5,), {}, TypeError), ((["text"],), {}, TypeError),
    (("text",), {"max_content_size": 2097152.0}, TypeError),
    (("text",), {"max_content_size": "1"}, TypeError),
    (("text",), {"platform": 3}, ValueError), (("text",), {"platform": "client"}, ValueError),
    ((), {}, TypeError),
])
def test_misuse_does_not_reach_the_library(arguments, keywords, error):
    with pytest.raises(error):
        signatures(*arguments, **keywords)


def test_a_str_is_no_binary_content():
    with pytest.raises(TypeError, match="str"):
        binary_signatures("text")


def test_lengths_end_where_those_of_the_library_do():
    content = bytes(2**31)  # not written to, so not in memory
    for generate in (signatures, binary_signatures):
        with pytest.raises(ValueError, match="2147483648"):
            generate(content)


def test_the_length_of_a_str_is_that_of_its_utf8(monkeypatch):
    monkeypatch.setattr(_signatures, "_INT_MAX", 99)
    with pytest.raises(ValueError, match="100 bytes"):
        signatures("\u00e9" * 50)


def test_nothing_is_left_in_the_current_directory(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    for platform in Platform:
        signatures(TEXTS[0], platform=platform)
    assert list(tmp_path.iterdir()) == []


def test_what_the_library_returns_is_freed(monkeypatch):
    freed = []
    free = _signatures.library.FreeSignature
    monkeypatch.setattr(_signatures.library, "FreeSignature",
                        lambda block: (freed.append(block.value), free(block)))
    signatures(TEXTS[0])
    binary_signatures(b"bytes")
    assert len(freed) == 2 and None not in freed


def test_failing_calls_tell_their_function_and_status(monkeypatch):
    monkeypatch.setattr(_signatures.library, "GenerateSignature4Text", lambda *_: 1)
    with pytest.raises(tessera.SystemStateError) as caught:
        signatures("text")
    assert (caught.value.function, caught.value.status) == ("GenerateSignature4Text", 1)
    assert "memory" in str(caught.value)


@pytest.mark.parametrize("afterwards", Platform)
def test_a_generator_that_cannot_be_set_up_is_set_up_by_the_next_call(monkeypatch, afterwards):
    expected = signatures(TEXTS[0], platform=afterwards)
    signatures(TEXTS[0], platform=Platform.CLIENT)
    with monkeypatch.context() as patch:
        patch.setattr(_signatures.library, "InitSignatureGenerator", lambda _: 1)
        with pytest.raises(tessera.SystemStateError, match="InitSignatureGenerator returned 1"):
            signatures(TEXTS[0], platform=Platform.SERVER)
    assert signatures(TEXTS[0], platform=afterwards) == expected


def test_threads_with_different_settings_each_get_their_own():
    settings = [{"platform": platform, "max_content_size": size}
                for platform in Platform for size in (1 << 20, 2 << 20)]
    text = hashlib.shake_128(b"threads").hexdigest(1 << 20)
    expected = [signatures(text, **each) for each in settings]
    assert len({tuple(each) for each in expected}) > 2
    with ThreadPoolExecutor(8) as pool:
        made = pool.map(lambda i: signatures(text, **settings[i % 4]), range(24))
        assert all(each == expected[i % 4] for i, each in enumerate(made))


def test_calls_of_the_same_settings_run_side_by_side(monkeypatch):
    both = threading.Barrier(2, timeout=10)
    generate = _signatures.library.GenerateSignature4Text
    monkeypatch.setattr(_signatures.library, "GenerateSignature4Text",
                        lambda *arguments: (both.wait(), generate(*arguments))[1])
    with ThreadPoolExecutor(2) as pool:
        assert all(pool.map(signatures, TEXTS[:2]))


def test_the_unpacked_package_is_under_test():
    assert (Path(tessera.__file__).parent / "py.typed").exists()
    assert ROOT / "bindings" not in Path(tessera.__file__).parents
