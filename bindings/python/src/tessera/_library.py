"""The shared library: which file it is on this platform, and the types of its functions.

All that differs between platforms is here. ctypes lets other threads run during a call.
"""
from __future__ import annotations

import ctypes
import sys
from ctypes import POINTER, c_char_p, c_int, c_int32, c_int64, c_uint, c_void_p
from pathlib import Path


class MatchRecord(ctypes.Structure):
    """_DLPSigMatchRet, 16 bytes."""

    _fields_ = [("fileID", c_int64), ("match_level", c_int32)]


# The parameters of each function; all of them return an int. What the library only reads
# is c_char_p, so that the bytes of Python are passed without a copy.
_PARAMETERS = {
    "InitSignatureGenerator": [c_int],
    "GenerateSignature4Text": [c_char_p, c_int, POINTER(c_void_p), POINTER(c_int)],
    "GenerateSignature4Binary": [c_char_p, c_int, POINTER(c_void_p), POINTER(c_int)],
    "SetMaxContentSize": [c_int],
    "FreeSignature": [c_void_p],
    "ExitSignatureGenerator": [],
    "InitIndexSystem": [],
    "AddDocSignature": [c_int64, c_char_p, c_int],
    "DelDocSignature": [POINTER(c_int64), c_int],
    "ExitIndexSystem": [],
    "setMaxStblSize": [c_uint],
    "InitMatchSystem": [],
    "MatchSignature": [c_char_p, c_int, c_int, POINTER(c_void_p), POINTER(c_int)],
    "FreeSigMatchRet": [c_void_p],
    "ExitMatchSystem": [],
}


def file_name() -> str:
    """The library's file, which lies beside this one. ImportError on other systems."""
    if sys.maxsize < 2**32:
        raise ImportError("Tessera needs a 64-bit Python")
    if sys.platform == "win32":
        return "tessera.dll"
    if sys.platform.startswith("linux"):
        return "libtessera.so"
    raise ImportError(f"Tessera has no library for {sys.platform}, only for Linux and Windows")


def load(path: Path) -> ctypes.CDLL:
    """Loads the library. ImportError, with the reason, when that fails."""
    try:
        library = ctypes.CDLL(str(path))
        for name, parameters in _PARAMETERS.items():
            function = getattr(library, name)
            function.argtypes = parameters
            function.restype = c_int
    except (OSError, AttributeError) as error:
        raise ImportError(f"{path} cannot be loaded: {error}") from error
    return library


library = load(Path(__file__).resolve().parent / file_name())
