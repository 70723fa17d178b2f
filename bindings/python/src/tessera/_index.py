"""The session that changes an index. Tests: tests/test_index.py."""
from __future__ import annotations

import atexit
import contextlib
import ctypes
import operator
import os
from typing import Iterable, SupportsIndex, Union

from ._library import library
from ._session import Home, Session
from ._signatures import packed
from .errors import ArgumentError, NotOpenError, PendingError, SystemStateError

_ROOT = -1  # the file ID of the library's own document, from which the others are counted
_PENDING = 2
_INT64 = range(-(2**63), 2**63)
_USUAL_IDS = range(-(2**31), 2**31 - 1)
_CONFIGURATION = "index_sys_config.txt"


class Index(Session):
    """An index that is open for writing.

    home:           directory with the configuration file "index_sys_config.txt" and the
                    index in "sig_index_DB". str or os.PathLike
    create:         whether a home that does not exist is made (its parent must be there),
                    readable by its owner only, and an empty configuration file where there
                    is none. Without it FileNotFoundError is raised for a missing home
    max_table_size: bytes of "sig_index_DB/sig_table.stbl" from which on add() refuses, 0 to
                    4294967295. Works only when the configuration file says
                    search_table_fname = "sig_table"

    What is added is kept in memory, and written when many documents are pending (four
    times the configured "max_fid_num") and by close(). Then the tables are written, with
    which a Matcher finds it. Leaving a `with` block closes the index also when an exception
    leaves the block: what was added until then stays. So does an index that is still open
    when the interpreter ends. Keep the home as confidential as the documents: parts of them
    can be won back from it.

    The library serves one index at a time in a process, and one process at a time for each
    home. A child made by fork cannot use the index of its parent, nor open another one while
    its parent had one open at the fork: NotOpenError, AlreadyOpenError.

    Threads: all methods may be called from any thread at any time; the library does the work
    of one after the other.

    Current directory: the library finds a home only in the process's current directory. So
    during a call, and only then, the current directory is the home. Calls for the same home
    run side by side, those for another one wait. Relative names that other threads use
    meanwhile lead into the home, so threads should use absolute names; they must not change
    the directory. The home must stay where it is.

    Raises AlreadyOpenError when an index is open, OSError when the home cannot be entered or
    made, and SystemStateError when another process has the index open, the configuration is
    missing or malformed, or a file of the index is damaged or cannot be made.
    """

    _KIND = "index"
    _START = "InitIndexSystem"

    def __init__(self, home: Home, *, create: bool = True, max_table_size: int = 2**31) -> None:
        if operator.index(max_table_size) not in range(2**32):
            raise ValueError("max_table_size must be 0 to 4294967295 bytes")
        self._create = create
        self._max_table_size = max_table_size
        self._process = os.getpid()
        super().__init__(home)

    def add(self, file_id: SupportsIndex, signatures: Iterable[bytes]) -> None:
        """Adds a document.

        file_id:    its number, -2147483648 to 2147483646 but not -1
        signatures: of 8 bytes each, at least one, in any order; repeated ones count once

        Accepted is not yet on disk: see close(). To a document that is in the index, and
        written, the signatures are added; delete() it first to replace it.

        Raises PendingError when the document is pending already (nothing changes then; the
        replacement of a pending document needs a session of its own), ArgumentError for
        a number too far from the others, SystemStateError when the table has max_table_size,
        or memory or the disk is full, NotOpenError, ValueError for -1, for no signatures and
        for some that have not 8 bytes, and TypeError.
        """
        number = _int64(file_id)
        if number == _ROOT:
            raise ValueError("-1 is the number of the index's own first document")
        data = packed(signatures)
        if not data:
            raise ValueError("a document without signatures cannot be added")
        with self._in_home("AddDocSignature"):
            status = library.AddDocSignature(number, data, len(data) // 8)
        if status == _PENDING:
            raise PendingError(f"document {number} is pending already", "AddDocSignature", status)
        _require("AddDocSignature", status, [number])

    def delete(self, file_ids: Union[SupportsIndex, Iterable[SupportsIndex]]) -> None:
        """Removes a document, or several together: after a crash all of them are there, or
        none. They are removed for good when this returns.

        file_ids: numbers as for add(); those that the index does not hold are no failure.
                  Documents that are pending are not looked at, and stay.

        A disk that fails undoes the removal. That is told by the next save: the add() that
        finds too many documents pending, or close().

        Raises ArgumentError for a number too far from the others (those before it are
        removed all the same), SystemStateError when memory or the disk is full, NotOpenError,
        ValueError for a number beyond 64 bits, and TypeError.
        """
        listed = [file_ids] if isinstance(file_ids, SupportsIndex) else list(file_ids)
        numbers = [_int64(number) for number in listed]
        array = (ctypes.c_int64 * len(numbers))(*numbers)
        with self._in_home("DelDocSignature"):
            status = library.DelDocSignature(array, len(numbers))
        _require("DelDocSignature", status, numbers)

    def close(self) -> None:
        """Writes what is pending, all of it or nothing, and the tables for matching, and
        closes the index. Does nothing when it is closed.

        Waits for the running calls of all sessions, and new ones wait for it: this may take
        as long as the index is large. A process that matches without a pause lets another
        process index.

        Raises SystemStateError when what is pending could not be written, or earlier
        deletions, or the home is gone; the index is closed all the same, and what was pending
        is lost. It is not told when only the tables could not be written: open a Matcher to
        see."""
        if self._process != os.getpid():
            return  # the parent has it open, and closes it
        super().close()

    def _prepare(self) -> None:
        if not self._create:
            return
        with contextlib.suppress(FileExistsError):
            os.mkdir(self._home, 0o700)
        with contextlib.suppress(FileExistsError):
            open(os.path.join(self._home, _CONFIGURATION), "xb").close()

    def _start(self) -> None:
        library.setMaxStblSize(self._max_table_size)
        status = library.InitIndexSystem()
        if status != 0:
            raise SystemStateError(
                f"the index in {self._home} cannot be opened: another process has it open, "
                f"{_CONFIGURATION} is missing or malformed, or a file is damaged or cannot "
                "be made",
                self._START,
                status,
            )

    def _stop(self, at_home: bool) -> None:
        status = library.ExitIndexSystem()
        if not at_home:  # the library does not tell that the tables could not be written
            raise SystemStateError(
                f"{self._home} cannot be entered any more; what was not yet written there is lost",
                "ExitIndexSystem",
                status or 1,
            )
        if status != 0:
            raise SystemStateError(
                f"not all changes of the index in {self._home} could be written; what was "
                "pending is lost",
                "ExitIndexSystem",
                status,
            )

    def _require_open(self, function: str) -> None:
        super()._require_open(function)
        if self._process != os.getpid():
            raise NotOpenError("the index is open in the parent process", function)


def _int64(file_id: SupportsIndex) -> int:
    number = operator.index(file_id)
    if number not in _INT64:
        raise ValueError(f"{number} does not fit into 64 bits")
    return number


def _require(function: str, status: int, numbers: Iterable[int]) -> None:
    if status == 0:
        return
    for number in numbers:
        if number not in _USUAL_IDS:
            raise ArgumentError(
                f"{number} is too far from the other documents of the index", function, status
            )
    raise SystemStateError(
        "the index does not take the change: its table has reached its largest size, or "
        "memory or disk failed",
        function,
        status,
    )


def _close_at_exit() -> None:
    index = Session._open.get(Index._KIND)
    if index is not None:
        index.close()


atexit.register(_close_at_exit)
