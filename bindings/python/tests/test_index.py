"""The session that changes an index."""
import os
import pickle
import stat
import threading
from concurrent.futures import ThreadPoolExecutor

import pytest
from conftest import query

import tessera
from tessera import AlreadyOpenError, ArgumentError, Index, Level, Match, Matcher
from tessera import NotOpenError, PendingError, SystemStateError, _index

SOME = [bytes([1, 2, 3, 4, 5, 6, 7, last]) for last in range(5)]


def found(home, signatures):
    with Matcher(home) as matcher:
        return [match.file_id for match in matcher.match(signatures)]


def test_what_is_added_is_found_once_the_index_is_closed(home):
    with Index(home) as index:
        index.add(7, query(0))
        index.add(8, query(1))
        assert not index.closed and index.home == home
    assert index.closed
    assert found(home, query(0)) == [7]
    assert found(home, query(0) + query(1)) == [7, 8]
    assert found(home, query(2)) == []


def test_a_home_is_made_for_its_owner_only(home):
    Index(home).close()
    assert stat.S_IMODE(home.stat().st_mode) == 0o700
    assert sorted(os.listdir(home)) == ["index_sys_config.txt", "sig_index_DB"]
    assert (home / "index_sys_config.txt").read_bytes() == b""


def test_only_the_home_is_made_and_its_parent_is_not(home):
    with pytest.raises(FileNotFoundError):
        Index(home / "deeper")
    assert not home.exists()


def test_a_home_that_shall_be_there_is_not_made(home):
    with pytest.raises(FileNotFoundError):
        Index(home, create=False)
    assert not home.exists()


def test_a_configuration_is_left_as_it_is(home):
    home.mkdir()
    (home / "index_sys_config.txt").write_text('search_table_fname = "mine"\n')
    Index(home).close()
    assert (home / "index_sys_config.txt").read_text() == 'search_table_fname = "mine"\n'
    assert (home / "sig_index_DB/mine.stbl").exists()


def test_a_missing_or_malformed_configuration_is_told(home):
    home.mkdir()
    with pytest.raises(SystemStateError, match="InitIndexSystem returned 1"):
        Index(home, create=False)
    (home / "index_sys_config.txt").write_text("max_fid_num = many\n")
    with pytest.raises(SystemStateError, match="malformed"):
        Index(home)
    (home / "index_sys_config.txt").write_text("max_fid_num = 1\n")
    Index(home, create=False).close()


def test_a_name_that_is_a_file_is_told(home):
    home.touch()
    with pytest.raises(NotADirectoryError):
        Index(home)


@pytest.fixture
def tree(filled):
    return filled / "sig_index_DB/fid_index.sigt.l.blk"


def test_a_broken_tree_cannot_be_opened_until_it_is_whole(filled, tree):
    whole = tree.read_bytes()
    tree.write_bytes(b"x" * 70000)
    with pytest.raises(SystemStateError, match="damaged"):
        Index(filled)
    tree.write_bytes(whole)
    Index(filled).close()
    assert found(filled, query(1)) == [1]


def test_damage_that_is_met_later_is_told_at_the_end(filled, tree):
    whole = tree.read_bytes()
    tree.write_bytes(whole[:100] + bytes(len(whole) - 100))
    index = Index(filled)
    index.add(9, query(5))
    with pytest.raises(SystemStateError, match="ExitIndexSystem returned 1"):
        index.close()
    assert index.closed
    tree.write_bytes(whole)
    with Index(filled) as index:
        index.add(9, query(5))
    assert found(filled, query(0) + query(5)) == [0, 9]


def test_a_process_has_one_index(home, tmp_path):
    with Index(home) as index:
        for other in (home, tmp_path / "other"):
            with pytest.raises(AlreadyOpenError) as caught:
                Index(other)
            assert str(home) in str(caught.value) and caught.value.status == 1
        assert not (tmp_path / "other").exists()
        index.add(1, SOME)
    Index(tmp_path / "other").close()
    assert found(home, SOME) == [1]


def test_a_home_has_one_process_that_writes(home, run):
    with Index(home):
        assert run("""
try:
    tessera.Index(sys.argv[1])
except tessera.SystemStateError as error:
    print("another process" in str(error))
""", home) == "True\n"


def test_nothing_works_on_a_closed_index(home):
    index = Index(home)
    index.close()
    index.close()
    for use in (lambda: index.add(1, SOME), lambda: index.delete(1), index.__enter__):
        with pytest.raises(NotOpenError, match="closed"):
            use()
    assert repr(index) == f"<tessera.Index closed {str(home)!r}>"


def test_an_exception_closes_the_index_and_loses_nothing(home):
    with pytest.raises(KeyError):
        with Index(home) as index:
            index.add(1, SOME)
            raise KeyError
    assert found(home, SOME) == [1]


def test_deleted_documents_are_not_found(filled):
    with Index(filled) as index:
        index.delete(0)
        index.delete([2, 2, 4711, -5])
        index.delete([])
        index.delete(range(100, 200))
    assert found(filled, sum(map(query, range(4)), [])) == [1, 3]


def test_a_deletion_leaves_pending_documents_alone(home):
    with Index(home) as index:
        index.add(1, SOME)
        index.delete(1)
    assert found(home, SOME) == [1]


def test_a_document_is_replaced_by_deleting_it_first(filled):
    with Index(filled) as index:
        index.delete(0)
        index.add(0, query(5))
        index.add(1, query(6))
    assert found(filled, query(0)) == []
    assert found(filled, query(5)) == [0]
    assert found(filled, query(1)) == found(filled, query(6)) == [1]  # has both


def test_a_pending_document_is_told_and_its_first_addition_stands(home):
    with Index(home) as index:
        index.add(1, SOME)
        with pytest.raises(PendingError) as caught:
            index.add(1, query(0))
        assert caught.value.status == 2
    assert found(home, SOME) == [1]
    assert found(home, query(0)) == []


def test_a_full_collector_writes_so_that_nothing_is_pending(home):
    home.mkdir()
    (home / "index_sys_config.txt").write_text("max_fid_num = 1\n")
    with Index(home) as index:
        for file_id in (1, 2, 3, 4):  # with the index's own document one too many
            index.add(file_id, SOME)
        index.add(2, query(0))
    assert found(home, query(0)) == [2]


def test_numbers_are_of_31_bits_and_a_sign(home):
    ends = [-(2**31), -2, 0, 2**31 - 2]
    with Index(home) as index:
        for file_id in ends:
            index.add(file_id, SOME)
        for file_id in (2**31 - 1, -(2**31) - 1, 2**63 - 1, -(2**63)):
            with pytest.raises(ArgumentError, match="too far"):
                index.add(file_id, SOME)
            with pytest.raises(ArgumentError, match=f"{file_id} is too far"):
                index.delete([5, file_id])
        for file_id in (2**63, -(2**63) - 1, 2**64, 10**30):
            with pytest.raises(ValueError, match="64 bits"):
                index.add(file_id, SOME)
            with pytest.raises(ValueError, match="64 bits"):
                index.delete(file_id)
    assert sorted(found(home, SOME)) == ends


def test_a_deletion_stops_at_a_number_that_is_too_far(filled):
    with Index(filled) as index:
        with pytest.raises(ArgumentError):
            index.delete([0, 2**31, 1])
    assert found(filled, query(0) + query(1)) == [1]


def test_minus_one_is_the_index_itself(home):
    with Index(home) as index:
        with pytest.raises(ValueError, match="-1"):
            index.add(-1, SOME)
        index.delete(-1)
    with Matcher(home) as matcher:  # every session brings it anew
        assert matcher.match([b"\xff" * 8]) == [Match(-1, Level.STRONG)]


@pytest.mark.parametrize("signatures, error", [
    ([], ValueError), ([b"1234567"], ValueError), ([b"12345678", b"123456789"], ValueError),
    ([b""], ValueError), ([b"1234", b"5678"], ValueError),
    (b"12345678", TypeError), ("12345678", TypeError),
    (["12345678"], TypeError), ([1, 2], TypeError), (None, TypeError), (5, TypeError),
])
def test_no_signatures_and_false_ones_do_not_reach_the_library(home, signatures, error):
    with Index(home) as index:
        with pytest.raises(error):
            index.add(1, signatures)


@pytest.mark.parametrize("file_id", ["1", 1.0, None, b"1"])
def test_a_number_is_an_int(home, file_id):
    with Index(home) as index:
        with pytest.raises(TypeError):
            index.add(file_id, SOME)
        with pytest.raises(TypeError):
            index.delete([file_id])


def test_the_order_and_kind_of_a_list_do_not_matter(home):
    with Index(home) as index:
        index.add(1, iter(SOME[::-1] * 3))
        index.add(2, {bytearray(each).hex(): each for each in SOME}.values())
    assert found(home, SOME) == [1, 2]


def test_the_largest_size_works_for_a_table_of_that_name_only(home, tmp_path):
    home.mkdir()
    (home / "index_sys_config.txt").write_text('search_table_fname = "sig_table"\n')
    with Index(home) as index:
        index.add(1, SOME)
    size = (home / "sig_index_DB/sig_table.stbl").stat().st_size
    with Index(home, max_table_size=size) as index:
        with pytest.raises(SystemStateError, match="largest size"):
            index.add(2, SOME)
    with Index(home, max_table_size=size + 1) as index:
        index.add(2, SOME)
    with Index(home) as index:  # and the next session has its own
        index.add(3, SOME)
    with Index(tmp_path / "other") as index:
        index.add(1, SOME)
    with Index(tmp_path / "other", max_table_size=1) as index:
        index.add(2, SOME)


@pytest.mark.parametrize("size, error", [(-1, ValueError), (2**32, ValueError), (1.0, TypeError)])
def test_largest_sizes_have_32_bits(home, size, error):
    with pytest.raises(error):
        Index(home, max_table_size=size)
    assert not home.exists()


def test_a_close_that_fails_is_told_and_the_index_is_closed(home, monkeypatch):
    index = Index(home)
    leave = _index.library.ExitIndexSystem
    with monkeypatch.context() as patch:
        patch.setattr(_index.library, "ExitIndexSystem", lambda: leave() or 1)
        with pytest.raises(SystemStateError, match="pending is lost"):
            index.close()
    assert index.closed
    Index(home).close()


def test_an_index_whose_home_is_gone_can_be_closed(home, tmp_path, monkeypatch):
    (tmp_path / "elsewhere").mkdir()
    monkeypatch.chdir(tmp_path / "elsewhere")
    index = Index(home)
    index.add(1, SOME)
    home.rename(tmp_path / "moved")
    with pytest.raises(FileNotFoundError):
        index.add(2, SOME)
    with pytest.raises(SystemStateError, match="cannot be entered"):
        index.close()
    assert index.closed
    assert os.listdir(tmp_path / "elsewhere") == []
    Index(home).close()


def test_relative_names_and_links_are_followed_once(home, tmp_path, monkeypatch):
    home.mkdir()
    (tmp_path / "link").symlink_to(home)
    monkeypatch.chdir(tmp_path)
    with Index("link") as index:
        assert index.home == home
        os.unlink("link")
        os.mkdir("link")
        monkeypatch.chdir("/")
        index.add(1, SOME)
    assert found(home, SOME) == [1]


def test_the_caller_keeps_its_directory(home, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    with Index(home) as index:
        assert os.getcwd() == str(tmp_path)
        index.add(1, SOME)
        assert os.getcwd() == str(tmp_path)
        index.delete(1)
        assert os.getcwd() == str(tmp_path)
    assert os.getcwd() == str(tmp_path)


def test_threads_may_add_and_delete_together(home):
    def work(file_id):
        index.add(file_id, [file_id.to_bytes(8, "big")])
        index.delete([file_id + 10000])

    with Index(home) as index:
        with ThreadPoolExecutor(8) as pool:
            list(pool.map(work, range(400)))
    with Matcher(home) as matcher:
        for file_id in range(400):
            assert matcher.match([file_id.to_bytes(8, "big")]) == [Match(file_id, Level.STRONG)]


def test_a_close_beside_additions_loses_none_that_was_accepted(home):
    accepted, started = [], threading.Event()

    def add():
        for file_id in range(100000):
            try:
                index.add(file_id, SOME[:1])
            except NotOpenError:
                return
            accepted.append(file_id)
            started.set()

    index = Index(home)
    thread = threading.Thread(target=add)
    thread.start()
    assert started.wait(10)
    index.close()
    thread.join()
    table = (home / "sig_index_DB/search_table.stbl").read_bytes()
    assert len(table) // 16 == len(accepted) + 1  # with the index's own


def test_one_thread_of_many_gets_the_index(home):
    def open_it(_):
        try:
            return Index(home)
        except AlreadyOpenError:
            return None

    with ThreadPoolExecutor(8) as pool:
        opened = [index for index in pool.map(open_it, range(30)) if index]
    assert len(opened) == 1
    opened[0].close()


def test_an_index_that_is_open_at_the_end_is_closed(home, run):
    run("tessera.Index(sys.argv[1]).add(1, [b'12345678'])", home)
    assert found(home, [b"12345678"]) == [1]


def test_a_child_leaves_the_index_to_its_parent(home, run):
    assert run("""
with tessera.Index(sys.argv[1]) as index:
    index.add(1, [b"12345678"])
    child = os.fork()
    if child == 0:
        for use in (lambda: index.add(2, [b"12345678"]), lambda: index.delete(1)):
            try:
                use()
                os._exit(1)
            except tessera.NotOpenError:
                pass
        try:
            tessera.Index(sys.argv[1])
            os._exit(1)
        except tessera.AlreadyOpenError:
            pass
        sys.exit()  # through the end of the block and the end of the interpreter
    assert os.waitpid(child, 0)[1] == 0
    assert not os.path.exists(os.path.join(sys.argv[1], "sig_index_DB/search_table.stbl"))
    index.add(3, [b"12345678"])
print("done")
""", home) == "done\n"
    assert found(home, [b"12345678"]) == [1, 3]


def test_errors_can_be_pickled():
    error = pickle.loads(pickle.dumps(PendingError("pending", "AddDocSignature", 2)))
    assert (type(error), error.status, error.function) == (PendingError, 2, "AddDocSignature")
    assert str(error) == "pending (AddDocSignature returned 2)"


def test_the_classes_of_errors():
    for error in (NotOpenError, AlreadyOpenError, ArgumentError, PendingError, SystemStateError):
        assert issubclass(error, tessera.TesseraError)
    assert issubclass(NotOpenError, ValueError) and issubclass(ArgumentError, ValueError)
