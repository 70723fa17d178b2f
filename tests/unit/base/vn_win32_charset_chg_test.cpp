// Existence and creation of directories with UTF-8 names.
#include "vn_win32_charset_chg.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "fail_point.h"
#include "log_capture.h"
#include "scoped.h"
#include "status.h"
#include "temp_dir.h"

namespace {

using dlp_btree::convert_utf8_to_wchar;
using dlp_btree::vn_exists;
using dlp_btree::vn_last_error;
using dlp_btree::vn_mkdir;

const char kName[] = "\xc3\xa9\xe6\x97\xa5";  // e with an acute accent, the sign for "sun"

TEST(ConvertPath, HandsOutTheSystemsFormOfTheWholePath) {
  platform::PathChar* converted = nullptr;
  ASSERT_EQ(kOk, convert_utf8_to_wchar(kName, &converted));
  const MallocArray<platform::PathChar> owner(converted);
  const std::filesystem::path expected(std::u8string(u8"\u00e9\u65e5"));
  EXPECT_EQ(expected.native(), std::filesystem::path::string_type(converted));
}

TEST(ConvertPath, AnEmptyPathConvertsToAnEmptyOne) {
  platform::PathChar* converted = nullptr;
  ASSERT_EQ(kOk, convert_utf8_to_wchar("", &converted));
  const MallocArray<platform::PathChar> owner(converted);
  EXPECT_EQ(0, converted[0]);
}

TEST(ConvertPath, WithoutMemoryNothingIsHandedOut) {
  LogCapture log;
  FailPoint point;
  point.fail(Call::kAllocate, 1);
  platform::PathChar* converted = nullptr;
  EXPECT_EQ(kErrMem, convert_utf8_to_wchar("a", &converted));
  EXPECT_EQ(nullptr, converted);
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(3, log.lines()[0].level);
  EXPECT_EQ("Error", log.lines()[0].word);
  EXPECT_EQ("fpe_sig_index", log.lines()[0].tag);
  EXPECT_EQ("#<dlp_btree::convert_utf8_to_wchar>#no mem for wsStr_tmp", log.lines()[0].text);
}

TEST(ConvertPath, APathThatCannotBeConvertedIsNamed) {
  LogCapture log;
  FailPoint point;
  point.fail(Call::kToNativePath, 1);
  platform::PathChar* converted = nullptr;
  EXPECT_EQ(kErrState, convert_utf8_to_wchar("some/path", &converted));
  EXPECT_EQ(nullptr, converted);
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(3, log.lines()[0].level);
  EXPECT_EQ("Error", log.lines()[0].word);
  EXPECT_EQ("#<dlp_btree::convert_utf8_to_wchar>#MultiByteToWideChar on file some/path",
            log.lines()[0].text);
}

TEST(Directory, IsMadeOnceAndExistsFromThenOn) {
  TempDir dir;
  EXPECT_FALSE(vn_exists(kName));
  EXPECT_EQ(ENOENT, vn_last_error());
  EXPECT_TRUE(vn_mkdir(kName));
  EXPECT_EQ(0, vn_last_error());
  EXPECT_TRUE(vn_exists(kName));
  EXPECT_EQ(0, vn_last_error());
  EXPECT_TRUE(std::filesystem::is_directory(std::u8string(u8"\u00e9\u65e5")));
  EXPECT_FALSE(vn_mkdir(kName));
  EXPECT_EQ(EEXIST, vn_last_error());
}

TEST(Directory, IsMadeOneLevelOnly) {
  TempDir dir;
  EXPECT_FALSE(vn_mkdir("a/b"));
  EXPECT_EQ(ENOENT, vn_last_error());
  EXPECT_FALSE(dir.exists("a"));
}

TEST(Directory, AFileExistsToo) {
  TempDir dir;
  dir.write("file", "x");
  EXPECT_TRUE(vn_exists("file"));
}

TEST(Directory, APathThatCannotBeConvertedLeaves104) {
  TempDir dir;
  FailPoint point;
  for (const Call call : {Call::kToNativePath, Call::kAllocate}) {
    EXPECT_TRUE(vn_exists("."));
    point.fail(call, 1);
    EXPECT_FALSE(vn_exists("."));
    EXPECT_EQ(104, vn_last_error());
    point.fail(call, 1);
    EXPECT_FALSE(vn_mkdir("new"));
    EXPECT_EQ(104, vn_last_error());
    EXPECT_FALSE(dir.exists("new"));
    point.fail(call, 0);
  }
}

TEST(Directory, TheSystemsErrorNumberIsKept) {
  FailPoint point;
  point.fail(Call::kMakeDirectory, 1);
  EXPECT_FALSE(vn_mkdir("new"));
  EXPECT_EQ(EACCES, vn_last_error());
  point.fail(Call::kAccess, 1);
  EXPECT_FALSE(vn_exists("."));
  EXPECT_EQ(EACCES, vn_last_error());
}

}  // namespace
