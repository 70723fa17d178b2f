"""The session that matches. Tests: tests/test_match.py."""
from __future__ import annotations

import ctypes
import enum
from typing import Iterable, List, NamedTuple

from ._library import MatchRecord, library
from ._session import Home, Session
from ._signatures import packed
from .errors import SystemStateError


class Level(enum.IntEnum):
    """How much of a query a document holds."""

    TRACE = 0
    """Less than WEAK."""
    WEAK = 1
    """A twentieth of the query's signatures, or three of them."""
    STRONG = 2
    """A tenth of the query's signatures, or nine of them."""


class Match(NamedTuple):
    """A document that shares signatures with a query."""

    file_id: int
    """The number that it was added with."""
    level: Level


class Matcher(Session):
    """The tables of an index, loaded for matching.

    home: directory of the index, as for Index; nothing is made or changed in it

    The tables are those that the last Index.close() wrote. When an index in the same home is
    closed later, by this or another process, match() fails until reload(); only a table of
    exactly as many entries as before is not told apart. Opening takes about a megabyte of
    memory, whatever the size of the index.

    The library serves one matcher at a time in a process; it may be open beside an Index. Any
    number of processes may match in a home. A child made by fork while no other thread was
    matching may go on with its parent's.

    The library reads the configuration file for matching once in a process: the first Matcher
    that opens decides under which name ("search_table_fname") tables are looked for, in later
    homes as well.

    Threads and current directory: as for Index. Any number of match() calls run side by side;
    close() and reload() wait for them.

    Raises AlreadyOpenError when a matcher is open, OSError when the home cannot be entered,
    and SystemStateError when there are no tables, they are damaged, or the configuration file
    cannot be read.
    """

    _KIND = "match"
    _START = "InitMatchSystem"

    def __init__(self, home: Home) -> None:
        super().__init__(home)

    def match(self, signatures: Iterable[bytes], *, graded: bool = True) -> List[Match]:
        """The documents that share signatures with a query, by ascending numbers. Nothing in
        common, or no signatures: an empty list.

        signatures: of the query, 8 bytes each, in any order; a repeated one counts again
        graded:     False gives every match the level STRONG

        Raises SystemStateError when the index was rewritten since the tables were loaded (see
        reload()), they cannot be read, or memory runs out; NotOpenError, TypeError, and
        ValueError for signatures that have not 8 bytes.
        """
        data = packed(signatures)
        # The library wants to find a pointer that is not null.
        block = ctypes.c_void_p(ctypes.addressof(_anything))
        count = ctypes.c_int()
        with self._in_home("MatchSignature"):
            status = library.MatchSignature(
                data, len(data) // 8, int(graded), ctypes.byref(block), ctypes.byref(count)
            )
        if status != 0:
            raise SystemStateError(
                f"the tables in {self._home} were rewritten since they were loaded, or cannot "
                "be read, or memory ran out",
                "MatchSignature",
                status,
            )
        try:
            records = (MatchRecord * count.value).from_address(block.value or 0)
            return [Match(each.fileID, Level(each.match_level)) for each in records]
        finally:
            library.FreeSigMatchRet(block)

    def reload(self) -> None:
        """Loads the tables anew, after the index was changed.

        Waits for running calls. Raises NotOpenError, and SystemStateError as opening does;
        the matcher is closed then."""
        with self._for_closing() as at_home:
            self._require_open(self._START)
            try:
                self._stop(at_home)
                self._start()
            except BaseException:
                self._closed = True
                del self._open[self._KIND]
                raise

    def close(self) -> None:
        """Releases the tables, once running calls have finished. Does nothing when it is
        closed. Raises SystemStateError, with an internal negative status, should the library
        not be able to; the matcher is closed all the same."""
        super().close()

    def _start(self) -> None:
        status = library.InitMatchSystem()
        if status != 0:
            raise SystemStateError(
                f"the tables of an index in {self._home} cannot be loaded: there are none, "
                "they are damaged, or index_sys_config.txt is missing or malformed",
                self._START,
                status,
            )

    def _stop(self, at_home: bool) -> None:
        status = library.ExitMatchSystem()
        if status != 0:
            raise SystemStateError("the tables cannot be released", "ExitMatchSystem", status)


_anything = MatchRecord()
