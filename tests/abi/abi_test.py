#!/usr/bin/env python3
"""The check of the ABI sees every kind of change, and asks for the right version.

Small libraries are compiled, with one change each, and compared as the library is.
"""
import os
import subprocess
import tempfile
import unittest
from pathlib import Path

import abi

COMPILER = os.environ.get("CC", "cc")
SOURCE = """
#include <stdint.h>
typedef struct Found { int64_t id; int32_t level; } Found;
int first(Found* found, int count) { return found[0].level + count; }
int second(unsigned char (*list)[8], unsigned int bytes) { return list[0][0] + (int)bytes; }
"""


class AbiTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory(prefix="tessera_abi_")
        cls.addClassCleanup(directory.cleanup)
        cls.directory = Path(directory.name)
        cls.released = cls.directory / "released.abi"
        cls.released.write_text(abi.description(cls.library(SOURCE)))

    @classmethod
    def library(cls, source, soname="libx.so.1", debug="-g"):
        library = cls.directory / "libx.so"
        subprocess.run([COMPILER, debug, "-shared", "-fPIC", "-xc", "-", f"-Wl,-soname,{soname}",
                        "-o", library], input=source, text=True, check=True)
        return library

    def kind(self, old, new, soname="libx.so.1"):
        self.assertIn(old, SOURCE)
        return abi.change(self.released, self.library(SOURCE.replace(old, new), soname))[0]

    def test_another_body_or_name_of_a_parameter_is_no_change(self):
        self.assertEqual(abi.NOTHING, self.kind("level + count", "level - count"))

    def test_an_added_function_is_an_addition(self):
        self.assertEqual(abi.ADDED, self.kind("int first", "int third(void) { return 3; }\nint first"))

    def test_a_function_that_is_no_longer_exported_is_a_break(self):
        self.assertEqual(abi.BROKEN, self.kind("int second", "static inline int second"))

    def test_a_renamed_function_is_a_break(self):
        self.assertEqual(abi.BROKEN, self.kind("int second", "int other"))

    def test_another_size_of_a_struct_is_a_break(self):
        self.assertEqual(abi.BROKEN, self.kind("int32_t level;", "int32_t level; int64_t more;"))

    def test_another_order_of_members_is_a_break(self):
        self.assertEqual(abi.BROKEN, self.kind("int64_t id; int32_t level;",
                                               "int32_t level; int64_t id;"))

    def test_another_type_of_a_member_of_the_same_size_is_a_break(self):
        self.assertEqual(abi.BROKEN, self.kind("int32_t level", "float level"))

    def test_another_type_of_a_parameter_is_a_break(self):
        self.assertEqual(abi.BROKEN, self.kind("int count", "int64_t count"))
        self.assertEqual(abi.BROKEN, self.kind("unsigned int bytes", "int bytes"))
        self.assertEqual(abi.BROKEN, self.kind("(*list)[8]", "(*list)[16]"))

    def test_one_more_parameter_is_a_break(self):
        self.assertEqual(abi.BROKEN, self.kind("int count)", "int count, int more)"))

    def test_another_result_is_a_break(self):
        self.assertEqual(abi.BROKEN, self.kind("int second", "int64_t second"))

    def test_another_soname_is_a_break(self):
        self.assertEqual(abi.BROKEN, self.kind("level", "level", soname="libx.so.2"))

    def test_a_library_without_debug_information_is_no_witness(self):
        with self.assertRaises(SystemExit):
            abi.description(self.library(SOURCE, debug="-g0"))

    def test_versions_that_a_change_may_have(self):
        for kind, patch, minor, major in [(abi.NOTHING, True, True, True),
                                          (abi.ADDED, False, True, True),
                                          (abi.BROKEN, False, False, True)]:
            self.assertEqual(kind == abi.NOTHING, abi.allowed(kind, "1.2.3", "1.2.3"))
            self.assertEqual(patch, abi.allowed(kind, "1.2.3", "1.2.10"))
            self.assertEqual(minor, abi.allowed(kind, "1.2.3", "1.3.0"))
            self.assertEqual(major, abi.allowed(kind, "1.2.3", "2.0.0"))
            self.assertFalse(abi.allowed(kind, "1.2.3", "1.1.9"))

    def test_only_the_head_of_a_version_calls_it_unreleased(self):
        self.assertTrue(abi.is_unreleased("1.1.0", "## 1.1.0 (unreleased)\n\n## 1.0.0\n"))
        self.assertFalse(abi.is_unreleased("1.0.0", "## 1.1.0 (unreleased)\n\n## 1.0.0\n"))


if __name__ == "__main__":
    unittest.main()
