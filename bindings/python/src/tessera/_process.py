"""What the library keeps once for the whole process, and how threads share it.

Two things: the current directory, in which the library looks for the configuration file
and the index, and the settings of the generator. Threads that want the same home, or the
same settings, work side by side; one that wants others waits until those have finished.
Tests: tests/test_process.py.
"""
from __future__ import annotations

import collections
import contextlib
import os
import sys
import threading
from typing import Any, Callable, Deque, Generic, Iterator, Optional, TypeVar, Union

State = TypeVar("State")


class Shared(Generic[State]):
    """Something of the process that is in one state at a time.

    Users of the same state are let in together, in the order in which they came, so that
    nobody waits for ever behind a stream of others. `begin` makes the state, as the first
    user comes in; `end` is called as the last one goes.
    """

    def __init__(self, begin: Callable[[State], None], end: Callable[[], None]) -> None:
        self._begin = begin
        self._end = end
        self._reset()

    def _reset(self) -> None:
        self._changed = threading.Condition()
        self._queue: Deque[object] = collections.deque()
        self._users = 0
        self._alone = False
        self._state: Optional[State] = None

    @contextlib.contextmanager
    def use(self, state: State, alone: bool = False) -> Iterator[None]:
        """Waits until the state can be `state`, and keeps it there inside the block; with
        `alone`, for nobody else."""
        turn = object()
        with self._changed:
            self._queue.append(turn)
            try:
                self._changed.wait_for(
                    lambda: self._queue[0] is turn and self._lets_in(state, alone)
                )
                if self._users == 0:
                    self._begin(state)
                self._users += 1
                self._state = state
                self._alone = alone
            finally:
                self._queue.remove(turn)
                self._changed.notify_all()
        try:
            yield
        finally:
            with self._changed:
                self._users -= 1
                if self._users == 0:
                    self._end()
                self._changed.notify_all()

    def _lets_in(self, state: State, alone: bool) -> bool:
        return self._users == 0 or (state == self._state and not alone and not self._alone)

    @property
    def state(self) -> Optional[State]:
        """The last state that it was in, None before the first."""
        return self._state

    def after_fork(self) -> None:
        """In the child, whose only thread is the one that forked: nobody uses it now."""
        if self._users > 0:
            self._end()
        self._reset()


class _CurrentDirectory:
    """Enters a home and comes back.

    The place to come back to is held open where the system can, so that it may be renamed
    or removed meanwhile. A directory to which another thread changed in between is left
    as it is, since that thread means it.
    """

    def __init__(self) -> None:
        self._home: Optional[os.stat_result] = None
        self._before: Union[int, str, None] = None

    def enter(self, home: str) -> None:
        before = _here()
        try:
            os.chdir(home)
            self._home = os.stat(os.curdir)
        except BaseException:
            _forget(before)
            raise
        self._before = before

    def leave(self) -> None:
        home, before, self._before = self._home, self._before, None
        # A place that is gone cannot be gone back to, which is no failure of the call.
        with contextlib.suppress(OSError):
            if home and before is not None and os.path.samestat(os.stat(os.curdir), home):
                os.chdir(before)
        _forget(before)


def _here() -> Union[int, str, None]:
    if os.chdir in os.supports_fd:
        return os.open(os.curdir, getattr(os, "O_PATH", os.O_RDONLY))
    try:
        return os.getcwd()
    except OSError:
        return None


def _forget(place: Union[int, str, None]) -> None:
    if isinstance(place, int):
        os.close(place)


_current = _CurrentDirectory()
directory: Shared[str] = Shared(_current.enter, _current.leave)


def call_in_child(function: Callable[[], Any]) -> None:
    """Has `function` called in each process that is forked from this one."""
    if sys.platform != "win32":
        os.register_at_fork(after_in_child=function)


call_in_child(directory.after_fork)
