"""Lists of signatures, between Python and the library. Tests: tests/test_signatures.py."""
from __future__ import annotations

import ctypes
import enum
import operator
import tempfile
from typing import Any, Iterable, List, Optional, Tuple, Union

from ._library import library
from ._process import Shared, call_in_child, directory
from .errors import SystemStateError

Content = Union[bytes, bytearray, memoryview]

SIGNATURE_SIZE = 8  # bytes
DEFAULT_CONTENT_SIZE = 6 << 20
_CONTENT_SIZES = range(1 << 20, (75 << 20) + 1)
_INT_MAX = 2**31 - 1


class Platform(enum.IntEnum):
    """How many signatures a text gets."""

    SERVER = 1
    """A few evenly spread ones for each 1024 bytes: an index an eighth of the size, in
    which short passages are not found."""
    CLIENT = 2
    """One for every selected passage, 10000 at most: finds single paragraphs."""


_Settings = Tuple[Platform, int]


class _Generator:
    """The library's generator, which has one setting at a time. It stays initialised
    between calls, since most programs use one setting for all of them."""

    def __init__(self) -> None:
        self._settings: Optional[_Settings] = None

    def set(self, settings: _Settings) -> None:
        if settings == self._settings:
            return
        platform, max_content_size = settings
        # The library writes the settings into a configuration file in the current
        # directory, where nobody wants it.
        with tempfile.TemporaryDirectory(prefix="tessera-") as nowhere:
            with directory.use(nowhere, alone=True):
                self._settings = None
                library.ExitSignatureGenerator()  # 1 when there is nothing to release
                _require("InitSignatureGenerator", library.InitSignatureGenerator(platform))
                self._settings = (platform, DEFAULT_CONTENT_SIZE)
                _require("SetMaxContentSize", library.SetMaxContentSize(max_content_size))
                self._settings = settings


_generator: Shared[_Settings] = Shared(_Generator().set, lambda: None)
call_in_child(_generator.after_fork)


def signatures(
    text: Union[str, Content],
    *,
    platform: Platform = Platform.CLIENT,
    max_content_size: int = DEFAULT_CONTENT_SIZE,
) -> List[bytes]:
    """The signatures of a text: 8 bytes each, ascending, no two equal.

    Only ASCII letters, ASCII digits and bytes from 128 up count; blanks, line breaks,
    punctuation and NUL do not. Of a text with fewer than 61 that count there are no
    signatures, and of a short one there may be none: on average one place in 137 gives one.

    text:             a str is taken as UTF-8; bytes are UTF-8 or any single-byte encoding,
                      at most 2147483647 of them
    platform:         Platform.CLIENT or Platform.SERVER
    max_content_size: bytes of what counts that are looked at, 1048576 (1 MiB) to 78643200
                      (75 MiB); the rest of the text is left alone

    The signatures of the documents in an index and those of what is matched against it may
    be of different platforms. No file is read or written here: "max_content_size" in the
    configuration file of a home has no effect on this function.

    Threads: any number of calls run side by side. A call with other settings than the one
    before waits until the running calls of this package have finished, and takes some tens
    of milliseconds more. So does the first call.

    Raises UnicodeEncodeError, a ValueError, for a str with lone surrogates (encode it
    yourself, with errors="surrogateescape" for a str that came from os.fsdecode), TypeError
    for anything else that is no text, ValueError for a setting that there is not, and
    SystemStateError when memory runs out.
    """
    data = text.encode("utf-8") if isinstance(text, str) else _bytes_of(text, "text")
    _bound(len(data))
    return _generate("GenerateSignature4Text", data, _settings(platform, max_content_size))


def binary_signatures(data: Content) -> List[bytes]:
    """The one signature of a content that is not text: samples of its bytes and its length
    modulo 65536. It tells the same content again, and nothing that is similar.

    data: bytes, at most 2147483647; of no bytes there is no signature

    Threads as for signatures(). Raises TypeError for a str, ValueError for too many bytes,
    and SystemStateError when memory runs out.
    """
    data = _bytes_of(data, "data")
    # Any setting will do. The one in force is kept, if there is one.
    state = _generator.state or (Platform.CLIENT, DEFAULT_CONTENT_SIZE)
    return _generate("GenerateSignature4Binary", data, state)


def packed(signatures_: Iterable[bytes]) -> bytes:
    """Signatures one after the other, as the library takes them. TypeError, ValueError."""
    if isinstance(signatures_, (str, bytes, bytearray, memoryview)):
        raise TypeError("signatures must be a list of bytes, as signatures() gives it")
    listed = sorted(signatures_)
    data = b"".join(listed)
    if any(len(signature) != SIGNATURE_SIZE for signature in listed):
        raise ValueError("each signature must have 8 bytes")
    return data


def _settings(platform: Platform, max_content_size: int) -> _Settings:
    if operator.index(max_content_size) not in _CONTENT_SIZES:
        raise ValueError("max_content_size must be 1048576 to 78643200 bytes")
    return Platform(platform), max_content_size


def _bytes_of(data: Any, name: str) -> bytes:
    if not isinstance(data, (bytes, bytearray, memoryview)):
        raise TypeError(f"{name} cannot be {type(data).__name__}")
    _bound(memoryview(data).nbytes)
    return bytes(data)  # a copy only of what could change during the call


def _bound(size: int) -> None:
    if size > _INT_MAX:
        raise ValueError(f"{size} bytes are more than the {_INT_MAX} that the library takes")


def _generate(function: str, data: bytes, settings: _Settings) -> List[bytes]:
    block = ctypes.c_void_p()
    count = ctypes.c_int()
    with _generator.use(settings):
        status = getattr(library, function)(
            data, len(data), ctypes.byref(block), ctypes.byref(count)
        )
    _require(function, status)
    try:
        size = count.value * SIGNATURE_SIZE
        listed = ctypes.string_at(block.value or 0, size) if size else b""
    finally:
        library.FreeSignature(block)
    return [listed[at : at + SIGNATURE_SIZE] for at in range(0, size, SIGNATURE_SIZE)]


def _require(function: str, status: int) -> None:
    if status != 0:
        raise SystemStateError("memory ran out", function, status)
