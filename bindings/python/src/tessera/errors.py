"""What went wrong, as exceptions.

The library answers with a status: 0 for success, 1 for nearly every failure, 2 for a
document that is pending already. It does not say why it refused, so the class of an
exception tells which kind of trouble is possible at that place, and its message the
reasons there are. Arguments that cannot be meant, of a wrong type or out of every range,
do not reach the library: they raise TypeError or ValueError.
"""
from __future__ import annotations


class TesseraError(Exception):
    """A call of the library failed.

    function: name of the exported function that failed, or would have
    status:   what it returned, or would have: 1, 2, or a negative internal status
    """

    def __init__(self, message: str, function: str, status: int = 1) -> None:
        super().__init__(message, function, status)  # all of it, so that it can be pickled
        self.function = function
        self.status = status

    def __str__(self) -> str:
        return f"{self.args[0]} ({self.function} returned {self.status})"


class NotOpenError(TesseraError, ValueError):
    """The session is closed, or belongs to the process that this one was forked from."""

    def __str__(self) -> str:
        return str(self.args[0])  # the library was not asked


class AlreadyOpenError(TesseraError):
    """The process has a session of this kind already; the library serves one."""

    def __str__(self) -> str:
        return str(self.args[0])


class ArgumentError(TesseraError, ValueError):
    """The library refuses an argument: a file ID too far from the base of the index."""


class PendingError(TesseraError):
    """The file ID was added before and is not written yet (status 2). Its first addition
    stands, the second one changed nothing."""


class SystemStateError(TesseraError):
    """Memory, disk, configuration or index do not allow the call: something is missing,
    damaged, full, in use by another process, or was rewritten."""
