// Existence and creation of directories whose path is UTF-8.
//
// Windows knows such a path only in UTF-16, so both calls convert it first; on
// other systems the conversion hands the bytes through.
// Tests: tests/unit/base/vn_win32_charset_chg_test.cpp.
#pragma once

#include "platform.h"

namespace dlp_btree {

// The last error when a path could not be converted.
inline constexpr int kConversionError = 104;

// Hands out `path` in the system's own form as a malloc block that the caller
// frees. Returns 0; -4 without memory, -1 when it cannot be converted.
int convert_utf8_to_wchar(const char* path, platform::PathChar** converted);

bool vn_exists(const char* path);
bool vn_mkdir(const char* path);  // one level; false also when it exists already

// 104 when the last of the two calls could not convert its path, else the C
// runtime's error number after it. Shared by all threads.
int vn_last_error();

}  // namespace dlp_btree
