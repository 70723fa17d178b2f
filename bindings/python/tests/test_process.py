"""What is shared by the whole process: who waits for whom, and the current directory."""
import os
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from tessera import _process
from tessera._process import Shared


@pytest.fixture
def log():
    return []


@pytest.fixture
def shared(log):
    return Shared(log.append, lambda: log.append("end"))


def waiting(shared, number):
    """Waits until `number` threads wait."""
    end = time.monotonic() + 10
    while len(shared._queue) < number:
        assert time.monotonic() < end
        time.sleep(0.001)


def in_thread(shared, state, log, alone=False):
    def use():
        with shared.use(state, alone):
            log.append(f"in {state}")

    thread = threading.Thread(target=use)
    thread.start()
    return thread


def test_users_of_one_state_are_let_in_together(shared, log):
    with shared.use("a"), shared.use("a"):
        in_thread(shared, "a", log).join()
    assert log == ["a", "in a", "end"]


def test_another_state_waits_for_the_last_user(shared, log):
    with shared.use("a"):
        with shared.use("a"):
            thread = in_thread(shared, "b", log)
            waiting(shared, 1)
        assert log == ["a"]
    thread.join()
    assert log == ["a", "end", "b", "in b", "end"]


def test_who_wants_to_be_alone_waits_and_is_waited_for(shared, log):
    with shared.use("a"):
        alone = in_thread(shared, "a", log, alone=True)
        waiting(shared, 1)
    alone.join()
    with shared.use("a", alone=True):
        other = in_thread(shared, "a", log)
        waiting(shared, 1)
    other.join()
    assert log == ["a", "end", "a", "in a", "end", "a", "end", "a", "in a", "end"]


def test_nobody_overtakes_who_waits(shared, log):
    with shared.use("a"):
        first = in_thread(shared, "b", log)
        waiting(shared, 1)
        second = in_thread(shared, "a", log)
        waiting(shared, 2)
        time.sleep(0.02)
        assert log == ["a"]
    first.join()
    second.join()
    assert log == ["a", "end", "b", "in b", "end", "a", "in a", "end"]


def test_a_state_that_cannot_be_made_leaves_the_others_free(log):
    def begin(state):
        if state == "bad":
            raise OSError(state)

    shared = Shared(begin, lambda: log.append("end"))
    with pytest.raises(OSError):
        with shared.use("bad"):
            pass
    with shared.use("good"):
        pass
    assert log == ["end"]


def test_the_current_directory_comes_back(tmp_path):
    before = os.getcwd()
    with pytest.raises(ZeroDivisionError):
        with _process.directory.use(str(tmp_path)):
            assert os.path.samefile(os.curdir, tmp_path)
            1 / 0
    assert os.getcwd() == before


def test_a_directory_that_is_not_there_is_told(tmp_path):
    (tmp_path / "file").touch()
    for name, error in (("none", FileNotFoundError), ("file", NotADirectoryError)):
        with pytest.raises(error):
            with _process.directory.use(str(tmp_path / name)):
                pass


def test_a_place_that_was_renamed_is_found_again(tmp_path, monkeypatch):
    (tmp_path / "old").mkdir()
    monkeypatch.chdir(tmp_path / "old")
    with _process.directory.use(str(tmp_path)):
        os.rename("old", "new")
    assert os.getcwd() == str(tmp_path / "new")


def test_a_place_that_was_removed_is_gone_back_to_all_the_same(tmp_path, monkeypatch):
    (tmp_path / "gone").mkdir()
    monkeypatch.chdir(tmp_path / "gone")
    os.rmdir(tmp_path / "gone")
    with _process.directory.use(str(tmp_path)):
        pass
    with pytest.raises(FileNotFoundError):
        os.getcwd()


def test_another_threads_change_of_directory_is_left_alone(tmp_path, monkeypatch):
    monkeypatch.chdir("/")  # and back afterwards
    (tmp_path / "home").mkdir()
    with _process.directory.use(str(tmp_path / "home")):
        os.chdir(tmp_path)
    assert os.getcwd() == str(tmp_path)


def test_without_open_directories_names_are_gone_back_to(tmp_path, monkeypatch):
    before = os.getcwd()
    monkeypatch.setattr(os, "supports_fd", set())
    with _process.directory.use(str(tmp_path)):
        assert os.getcwd() == str(tmp_path)
    assert os.getcwd() == before


def test_no_file_stays_open(tmp_path):
    before = os.listdir("/proc/self/fd")
    for _ in range(3):
        with _process.directory.use(str(tmp_path)):
            pass
        with pytest.raises(FileNotFoundError):
            with _process.directory.use(str(tmp_path / "none")):
                pass
    assert len(os.listdir("/proc/self/fd")) == len(before)


def test_many_threads_find_themselves_in_their_own_home(tmp_path):
    homes = [tmp_path / str(number) for number in range(3)]
    for home in homes:
        home.mkdir()

    def visit(number):
        home = homes[number % 3]
        with _process.directory.use(str(home), alone=number % 7 == 0):
            return os.path.samefile(os.curdir, home)

    with ThreadPoolExecutor(16) as pool:
        assert all(pool.map(visit, range(600)))


def test_a_child_is_not_kept_waiting_by_threads_it_has_not(run):
    assert run("""
import threading
from tessera import _process
os.mkdir("home")
before = os.getcwd()
inside, go_on = threading.Event(), threading.Event()
def use():
    with _process.directory.use("home", alone=True):
        inside.set()
        go_on.wait(30)
thread = threading.Thread(target=use)
thread.start()
inside.wait(30)
child = os.fork()
if child == 0:
    back = os.getcwd() == before
    with _process.directory.use(os.path.join(before, "home")):
        os._exit(0 if back else 1)
status = os.waitpid(child, 0)[1]
go_on.set()
thread.join()
print(status, os.getcwd() == before)
""") == "0 True\n"
