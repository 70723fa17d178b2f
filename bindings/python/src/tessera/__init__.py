"""Tessera tells which confidential documents a text shares passages with.

    >>> import tessera
    >>> with tessera.Index("home") as index:
    ...     index.add(1, tessera.signatures(contract))
    >>> with tessera.Matcher("home") as matcher:
    ...     matcher.match(tessera.signatures(outgoing_mail))
    [Match(file_id=1, level=<Level.STRONG: 2>)]

signatures() and binary_signatures() turn documents into short lists of 8-byte signatures,
Index keeps those of confidential documents in a directory, and Matcher tells which of them
a query shares signatures with. Failures are TesseraError and its subclasses; the classes
and functions tell which, and what threads may do.
"""
from ._index import Index
from ._match import Level, Match, Matcher
from ._signatures import Platform, binary_signatures, signatures
from ._version import __version__
from .errors import (
    AlreadyOpenError,
    ArgumentError,
    NotOpenError,
    PendingError,
    SystemStateError,
    TesseraError,
)

__all__ = [
    "AlreadyOpenError",
    "ArgumentError",
    "Index",
    "Level",
    "Match",
    "Matcher",
    "NotOpenError",
    "PendingError",
    "Platform",
    "SystemStateError",
    "TesseraError",
    "__version__",
    "binary_signatures",
    "signatures",
]
