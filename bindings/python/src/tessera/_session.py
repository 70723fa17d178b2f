"""What the sessions of indexing and of matching have in common: a home, one of a kind in
a process, and that they are closed. Tests: tests/test_index.py, tests/test_match.py."""
from __future__ import annotations

import contextlib
import os
import tempfile
from pathlib import Path
from types import TracebackType
from typing import ClassVar, Dict, Iterator, Optional, Type, TypeVar, Union

from ._process import directory
from .errors import AlreadyOpenError, NotOpenError

Home = Union[str, "os.PathLike[str]"]
Self = TypeVar("Self", bound="Session")


class Session:
    """Open from its construction until close()."""

    _KIND: ClassVar[str]
    _START: ClassVar[str]  # name of the function that opens it
    _open: ClassVar[Dict[str, Session]] = {}  # by kind

    def __init__(self, home: Home) -> None:
        self._closed = True
        # Bound to the directory as it is now, wherever a link or a relative name leads to
        # later.
        self._home = os.path.realpath(os.fspath(home))
        other = self._open.setdefault(self._KIND, self)
        if other is not self:
            raise AlreadyOpenError(
                f"this process has its {self._KIND} session in {other._home}; there is only one",
                self._START,
            )
        try:
            self._prepare()
            with directory.use(self._home, alone=True):
                self._start()
                self._closed = False
        except BaseException:
            del self._open[self._KIND]
            raise

    @property
    def home(self) -> Path:
        """The directory of the session, absolute and without links."""
        return Path(self._home)

    @property
    def closed(self) -> bool:
        """Whether the session is closed."""
        return self._closed

    def close(self) -> None:
        """Ends the session; closing a closed one does nothing.

        Waits for running calls of every session to finish. Raises SystemStateError as the
        class tells; the session is closed all the same."""
        with self._for_closing() as at_home:
            if self._closed:
                return
            self._closed = True
            try:
                self._stop(at_home)
            finally:
                del self._open[self._KIND]

    def __enter__(self: Self) -> Self:
        self._require_open(self._START)
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self._closed else "open"
        return f"<tessera.{type(self).__name__} {state} {self._home!r}>"

    def _prepare(self) -> None:
        """Makes the home, if that is to be done."""

    def _start(self) -> None:
        raise NotImplementedError

    def _stop(self, at_home: bool) -> None:
        raise NotImplementedError

    def _require_open(self, function: str) -> None:
        if self._closed:
            raise NotOpenError(f"the {self._KIND} session is closed", function)

    @contextlib.contextmanager
    def _in_home(self, function: str) -> Iterator[None]:
        """For a call of an open session."""
        with directory.use(self._home):
            self._require_open(function)
            yield

    @contextlib.contextmanager
    def _for_closing(self) -> Iterator[bool]:
        """The home; if that is gone, a place where closing cannot overwrite anything. Whether
        it is the home."""
        with contextlib.ExitStack() as places:
            try:
                places.enter_context(directory.use(self._home, alone=True))
                at_home = True
            except OSError:
                nowhere = places.enter_context(tempfile.TemporaryDirectory(prefix="tessera-"))
                places.enter_context(directory.use(nowhere, alone=True))
                at_home = False
            yield at_home
