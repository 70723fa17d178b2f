"""Which library is loaded, and how."""
import ctypes
import re
import sys

import pytest
from conftest import ROOT

from tessera import _library


@pytest.mark.parametrize("platform, name", [("linux", "libtessera.so"), ("win32", "tessera.dll")])
def test_each_platform_has_its_file(monkeypatch, platform, name):
    monkeypatch.setattr(sys, "platform", platform)
    assert _library.file_name() == name


@pytest.mark.parametrize("platform", ["darwin", "cygwin", "freebsd14"])
def test_other_platforms_are_told(monkeypatch, platform):
    monkeypatch.setattr(sys, "platform", platform)
    with pytest.raises(ImportError, match=platform):
        _library.file_name()


def test_32_bits_are_told(monkeypatch):
    monkeypatch.setattr(sys, "maxsize", 2**31 - 1)
    with pytest.raises(ImportError, match="64-bit"):
        _library.file_name()


def test_a_missing_or_wrong_library_is_told(tmp_path):
    with pytest.raises(ImportError, match="none.so"):
        _library.load(tmp_path / "none.so")
    (tmp_path / "text.so").write_text("no library")
    with pytest.raises(ImportError, match="text.so"):
        _library.load(tmp_path / "text.so")


def test_a_library_without_the_exports_is_told(monkeypatch):
    monkeypatch.setitem(_library._PARAMETERS, "NoSuchFunction", [])
    with pytest.raises(ImportError, match="NoSuchFunction"):
        _library.load(_library.Path(_library.library._name))


def test_the_functions_are_those_of_the_header():
    """Names and parameters, since ctypes cannot check them."""
    header = (ROOT / "include/tessera.h").read_text()
    declared = {
        name: [kind(parameter, name) for parameter in parameters.split(",") if parameter != "void"]
        for name, parameters in re.findall(r"TESSERA_API int (\w+)\((.*?)\);", header, re.DOTALL)
    }
    assert declared == _library._PARAMETERS
    assert ctypes.sizeof(_library.MatchRecord) == 16


def kind(parameter, function):
    """The type of ctypes for a parameter in C."""
    text = " ".join(parameter.split())
    if function.startswith("Free"):
        return ctypes.c_void_p
    return {
        "int platform": ctypes.c_int, "int length": ctypes.c_int, "int bytes": ctypes.c_int,
        "int count": ctypes.c_int, "int fsz": ctypes.c_int,
        "unsigned int bytes": ctypes.c_uint,
        "int64_t file_id": ctypes.c_int64,
        "int64_t* file_ids": ctypes.POINTER(ctypes.c_int64),
        "char* content": ctypes.c_char_p,
        "unsigned char (*signatures)[8]": ctypes.c_char_p,
        "unsigned char (**signatures)[8]": ctypes.POINTER(ctypes.c_void_p),
        "_DLPSigMatchRet** result": ctypes.POINTER(ctypes.c_void_p),
        "int* count": ctypes.POINTER(ctypes.c_int),
        "int* result_count": ctypes.POINTER(ctypes.c_int),
    }[text]
