"""The session that matches."""
import os
import random
import shutil
import struct
import threading
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

import pytest
from conftest import ROOT, TEXTS, query

import tessera
from tessera import AlreadyOpenError, Index, Level, Match, Matcher, NotOpenError
from tessera import SystemStateError, _match, signatures


def test_a_text_finds_the_document_it_comes_from(filled):
    with Matcher(filled) as matcher:
        for number in range(4):
            assert matcher.match(query(number)) == [Match(number, Level.STRONG)]
            assert matcher.match(signatures(TEXTS[number][1000:3000])) == [(number, 2)]
        assert matcher.match(query(4)) == []


def test_a_match_has_two_fields(filled):
    with Matcher(filled) as matcher:
        (match,) = matcher.match(query(1))
    assert match._fields == ("file_id", "level")
    assert (match.file_id, match.level) == (1, Level.STRONG)
    assert isinstance(match.level, Level) and isinstance(match.level, int)


def test_no_signatures_match_nothing(filled):
    with Matcher(filled) as matcher:
        assert matcher.match([]) == matcher.match([], graded=False) == []


@pytest.mark.parametrize("hits, size, level", [
    (1, 100, 0), (2, 100, 0), (3, 100, 1), (8, 100, 1), (9, 100, 2), (1, 21, 0), (1, 20, 1),
    (1, 11, 1), (1, 10, 2), (9, 1000, 2), (3, 1000, 1),
])
def test_levels_follow_the_share_of_the_query(home, hits, size, level):
    known = [struct.pack(">Q", number) for number in range(hits)]
    others = [struct.pack(">Q", 2**40 + number) for number in range(size - hits)]
    with Index(home) as index:
        index.add(1, known)
    with Matcher(home) as matcher:
        assert matcher.match(known + others) == [(1, level)]
        assert matcher.match(known + others, graded=False) == [(1, Level.STRONG)]


def test_the_order_of_a_query_does_not_matter_and_repeats_count(home):
    known = struct.pack(">Q", 5)
    others = [struct.pack(">Q", 2**40 + number) for number in range(97)]
    with Index(home) as index:
        index.add(1, [known])
    with Matcher(home) as matcher:
        assert matcher.match([*others, known]) == matcher.match([known, *others]) == [(1, 0)]
        assert matcher.match(iter([known, *others[:48], known, *others[48:], known])) == [(1, 1)]


def elements():
    """The strong table of the golden index: signature, file ID, source."""
    for signature, fid, source in struct.iter_unpack(
            "<8sii", (ROOT / "tests/golden/index/search_table.stbl").read_bytes()):
        yield signature, fid - 1, source


def expected(wanted):
    hits, sources = Counter(), {}
    for signature, file_id, source in elements():
        if signature in wanted:
            hits[file_id] += 1
            sources[file_id] = source
    found = [(file_id, 2 if n * 10 >= len(wanted) or n >= 9 else
              1 if n * 20 >= len(wanted) or n >= 3 else 0) for file_id, n in hits.items()]
    return sorted(found, key=lambda match: sources[match[0]])


def test_an_index_of_the_c_library_answers_as_a_plain_count(home):
    home.mkdir()
    (home / "index_sys_config.txt").touch()
    shutil.copytree(ROOT / "tests/golden/index", home / "sig_index_DB")
    known = sorted({signature for signature, _, _ in elements()})
    choose = random.Random(1)
    with Matcher(home) as matcher:
        for size in (1, 5, 20, 40):
            wanted = set(choose.sample(known, size)) | {choose.randbytes(8) for _ in range(size)}
            matches = matcher.match(wanted)
            assert len(matches) > 0 and matches == expected(wanted)


def test_there_must_be_tables(home):
    with pytest.raises(FileNotFoundError):
        Matcher(home)
    assert not home.exists()
    home.mkdir()
    (home / "index_sys_config.txt").touch()
    with pytest.raises(SystemStateError, match="there are none"):
        Matcher(home)
    assert os.listdir(home) == ["index_sys_config.txt"]
    with Index(home):
        with pytest.raises(SystemStateError):  # they come with its end
            Matcher(home)
    Matcher(home).close()


@pytest.mark.parametrize("suffix", ["stbl", "wtbl", "smeta", "wmeta"])
def test_damaged_tables_are_refused(filled, suffix):
    table = filled / f"sig_index_DB/search_table.{suffix}"
    whole = table.read_bytes()
    for damaged in (b"", whole[:-1], whole[:10]):
        table.write_bytes(damaged)
        with pytest.raises(SystemStateError, match="InitMatchSystem returned 1"):
            Matcher(filled)
    table.write_bytes(whole)
    with Matcher(filled) as matcher:
        assert matcher.match(query(2)) == [(2, 2)]


def test_a_table_that_is_gone_fails_the_search_only(filled):
    with Matcher(filled) as matcher:
        table = filled / "sig_index_DB/search_table.stbl"
        table.rename(filled / "aside")
        with pytest.raises(SystemStateError) as caught:
            matcher.match(query(1))
        assert (caught.value.function, caught.value.status) == ("MatchSignature", 1)
        (filled / "aside").rename(table)
        assert matcher.match(query(1)) == [(1, 2)]


def test_an_index_that_changed_is_told_until_it_is_loaded_anew(filled):
    with Matcher(filled) as matcher:
        with Index(filled) as index:
            index.add(9, query(5))
            assert matcher.match(query(0)) == [(0, 2)]  # nothing is rewritten yet
        with pytest.raises(SystemStateError, match="rewritten"):
            matcher.match(query(0))
        matcher.reload()
        assert matcher.match(query(0)) == [(0, 2)]
        assert matcher.match(query(5)) == [(9, 2)]


def test_a_reload_that_fails_closes_the_matcher(filled):
    matcher = Matcher(filled)
    shutil.rmtree(filled / "sig_index_DB")
    with pytest.raises(SystemStateError):
        matcher.reload()
    assert matcher.closed
    with pytest.raises(NotOpenError):
        matcher.reload()
    Index(filled).close()
    Matcher(filled).close()


def test_a_matcher_whose_home_is_gone_can_be_closed(filled):
    matcher = Matcher(filled)
    shutil.rmtree(filled)
    with pytest.raises(FileNotFoundError):
        matcher.match(query(0))
    matcher.close()
    assert matcher.closed


def test_a_process_has_one_matcher(filled):
    with Matcher(filled) as matcher:
        with pytest.raises(AlreadyOpenError) as caught:
            Matcher(filled)
        assert str(filled) in str(caught.value)
        assert matcher.match(query(0)) == [(0, 2)]
    with pytest.raises(NotOpenError, match="closed"):
        matcher.match(query(0))
    with pytest.raises(NotOpenError):
        with matcher:
            pass
    matcher.close()
    with Matcher(filled) as again:
        assert again.match(query(0)) == [(0, 2)]


@pytest.mark.parametrize("wanted, error", [
    ([b"1234567"], ValueError), (b"12345678", TypeError), (["12345678"], TypeError),
    ("12345678", TypeError), (None, TypeError), ([None], TypeError),
])
def test_false_signatures_do_not_reach_the_library(filled, wanted, error):
    with Matcher(filled) as matcher:
        with pytest.raises(error):
            matcher.match(wanted)


def test_what_the_library_returns_is_freed(filled, monkeypatch):
    freed = []
    free = _match.library.FreeSigMatchRet
    monkeypatch.setattr(_match.library, "FreeSigMatchRet",
                        lambda block: (freed.append(block.value), free(block)))
    with Matcher(filled) as matcher:
        matcher.match(query(0))
        matcher.match(query(4))
    assert len(freed) == 2 and None not in freed


def test_memory_does_not_grow_with_calls(run, filled):
    assert int(run("""
import resource
def peak():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
text = bytes(range(256)) * 2000
wanted = tessera.signatures(text, platform=1)
with tessera.Matcher(sys.argv[1]) as matcher:
    def work(times):
        for _ in range(times):
            tessera.binary_signatures(text)
            tessera.signatures(text)
            matcher.match([b"12345678"])
    work(50)
    before = peak()
    work(600)
print(peak() - before)
""", filled)) < 1024  # KiB; the lists of signatures alone are five times that


def test_many_threads_each_get_their_own_answers(filled):
    wanted = [query(number) for number in range(5)]
    wanted.append(wanted[0] + wanted[3])
    answers = [[(0, 2)], [(1, 2)], [(2, 2)], [(3, 2)], [], [(0, 2), (3, 2)]]
    with Matcher(filled) as matcher, ThreadPoolExecutor(16) as pool:
        made = pool.map(lambda i: matcher.match(wanted[i % 6]), range(3000))
        assert all(answer == answers[i % 6] for i, answer in enumerate(made))


def test_searches_run_side_by_side(filled, monkeypatch):
    both = threading.Barrier(2, timeout=10)
    match = _match.library.MatchSignature
    monkeypatch.setattr(_match.library, "MatchSignature",
                        lambda *arguments: (both.wait(), match(*arguments))[1])
    with Matcher(filled) as matcher, ThreadPoolExecutor(2) as pool:
        assert list(pool.map(matcher.match, [query(0), query(1)])) == [[(0, 2)], [(1, 2)]]


def test_threads_match_beside_an_index_in_another_home_and_a_close(filled, tmp_path):
    answers, failures, started = Counter(), [], threading.Event()
    wanted = query(2)

    def work():
        try:
            while True:
                answers[tuple(matcher.match(wanted))] += 1
                started.set()
        except NotOpenError:
            pass
        except Exception as error:
            failures.append(error)

    matcher = Matcher(filled)
    threads = [threading.Thread(target=work) for _ in range(6)]
    for thread in threads:
        thread.start()
    assert started.wait(10)
    with Index(tmp_path / "other") as index:
        for file_id in range(100):
            index.add(file_id, wanted)
    for _ in range(5):
        matcher.reload()
    matcher.close()
    for thread in threads:
        thread.join()
    assert failures == []
    assert list(answers) == [((2, 2),)]


def test_the_first_matcher_decides_under_which_name_tables_are_looked_for(run, filled, tmp_path):
    other = tmp_path / "named"
    other.mkdir()
    (other / "index_sys_config.txt").write_text('search_table_fname = "named"\n')
    Index(other).close()
    program = """
for home in sys.argv[1:]:
    try:
        tessera.Matcher(home).close()
        print("found", end=" ")
    except tessera.SystemStateError:
        print("none", end=" ")
"""
    assert run(program, filled, other, filled) == "found none found "
    assert run(program, other, filled, other) == "found none found "


def test_the_first_matcher_needs_a_configuration_and_later_ones_do_not(run, filled):
    assert run("""
config = os.path.join(sys.argv[1], "index_sys_config.txt")
os.rename(config, "aside")
try:
    tessera.Matcher(sys.argv[1])
except tessera.SystemStateError as error:
    print(error.function)
os.rename("aside", config)
tessera.Matcher(sys.argv[1]).close()
os.unlink(config)
tessera.Matcher(sys.argv[1]).close()
""", filled) == "InitMatchSystem\n"


def test_a_child_may_go_on_matching(run, filled):
    wanted = b"".join(query(3)).hex()
    assert run("""
wanted = bytes.fromhex(sys.argv[2])
wanted = [wanted[at : at + 8] for at in range(0, len(wanted), 8)]
with tessera.Matcher(sys.argv[1]) as matcher:
    child = os.fork()
    found = matcher.match(wanted) == [(3, 2)]
    if child == 0:
        os._exit(0 if found else 1)
    print(found, os.waitpid(child, 0)[1])
""", filled, wanted) == "True 0\n"
