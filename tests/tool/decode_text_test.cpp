// Which encoding a text is taken for, and what is no text at all.
#include <gtest/gtest.h>
#include <unicode/ucnv.h>
#include <unicode/unistr.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "canonical_text.h"
#include "charset.h"

namespace {

using namespace std::string_literals;

std::string encodingOf(const std::string& bytes, const std::string& declared = "") {
  const auto decoded = tool::decodeText(bytes, declared);
  return decoded ? decoded->encoding : "none";
}

std::string textOf(const std::string& bytes, const std::string& declared = "") {
  const auto decoded = tool::decodeText(bytes, declared);
  return decoded ? decoded->text : "none";
}

std::string encoded(const std::string& text, const char* charset) {
  const icu::UnicodeString units = icu::UnicodeString::fromUTF8(text);
  std::string bytes(text.size() * 4 + 8, '\0');
  bytes.resize(static_cast<size_t>(units.extract(0, units.length(), bytes.data(),
                                                 static_cast<uint32_t>(bytes.size()), charset)));
  return bytes;
}

constexpr const char* kGerman =
    "Größere Überweisungen prüft die Geschäftsführung selbst. Für jede Änderung an den Verträgen "
    "gilt, dass sie schriftlich bestätigt werden muss; mündliche Zusagen genügen nicht.";
constexpr const char* kFrench =
    "Le conseil a décidé à l'unanimité que les bénéfices de l'année écoulée seraient affectés à la "
    "réserve. Le cœur du projet reste secret, même après l'été, et coûte 300 € par tête.";
constexpr const char* kPolish =
    "Zarząd spółki postanowił, że wszystkie umowy będą przechowywane w sejfie. Żaden pracownik nie "
    "może ich kopiować bez zgody przełożonego, a każda kopia musi zostać zniszczona po użyciu.";
constexpr const char* kRussian =
    "Правление решило, что все договоры будут храниться в сейфе. Ни один сотрудник не вправе "
    "снимать с них копии без согласия начальника, а каждая копия должна быть уничтожена.";
constexpr const char* kGreek =
    "Το συμβούλιο αποφάσισε ότι όλες οι συμβάσεις θα φυλάσσονται στο χρηματοκιβώτιο. Κανένας "
    "υπάλληλος δεν μπορεί να τις αντιγράψει χωρίς την άδεια του προϊσταμένου του.";
constexpr const char* kJapanese =
    "取締役会は、すべての契約書を金庫に保管することを決定した。従業員は上司の許可なくこれを複写して"
    "はならず、複写したものは使用後に必ず破棄しなければならない。";
constexpr const char* kChinese =
    "董事会决定，所有合同均保存在保险柜中。未经上级同意，任何员工不得复印，每份复印件在使用后必须销毁。";
constexpr const char* kTaiwanese =
    "董事會決定，所有合約均保存在保險櫃中。未經上級同意，任何員工不得影印，每份影本在使用後必須銷毀。";
constexpr const char* kKorean =
    "이사회는 모든 계약서를 금고에 보관하기로 결정했다. 직원은 상사의 허가 없이 이를 복사할 수 없으며 "
    "복사본은 사용 후 반드시 폐기해야 한다.";

TEST(DecodeText, AMarkDecides) {
  for (const char* const declared : {"", "windows-1252", "utf-16", "nonsense"}) {
    EXPECT_EQ("ä", textOf("\xEF\xBB\xBFä", declared));
    EXPECT_EQ("ä", textOf("\xFF\xFE\xE4\0"s, declared));
    EXPECT_EQ("ä", textOf("\xFE\xFF\0\xE4"s, declared));
    EXPECT_EQ("ä", textOf("\xFF\xFE\0\0\xE4\0\0\0"s, declared));
    EXPECT_EQ("ä", textOf("\0\0\xFE\xFF\0\0\0\xE4"s, declared));
  }
  EXPECT_EQ("UTF-32LE", encodingOf("\xFF\xFE\0\0\xE4\0\0\0"s));
}

TEST(DecodeText, TheDeclaredCharsetIsBelieved) {
  EXPECT_EQ("Ж", textOf("\xC6", "windows-1251"));
  EXPECT_EQ("ф", textOf("\xC6", "koi8-r"));
  EXPECT_EQ("ß", textOf("\xDF", "ISO-8859-2"));
  EXPECT_EQ("windows-1251", encodingOf(kGerman, "windows-1251"));  // though it is UTF-8
}

TEST(DecodeText, Latin1AndAsciiAreReadAsWindows1252) {
  for (const char* const label :
       {"iso-8859-1", "ISO_8859-1", "latin1", "us-ascii", "ASCII", "\"ISO-8859-1\"",
        " windows-1252 ", "'l1'", "ANSI_X3.4-1968", "cp1252", "x-cp1252"}) {
    EXPECT_EQ("windows-1252", encodingOf("caf\xE9 \x93", label)) << label;
    EXPECT_EQ("café “", textOf("caf\xE9 \x93", label)) << label;
  }
}

TEST(DecodeText, LabelsMeanWhatBrowsersReadInThem) {
  const std::pair<const char*, const char*> kExpected[] = {{"gb2312", "GB18030"},
                                                           {"GBK", "GB18030"},
                                                           {"shift_jis", "windows-31J"},
                                                           {"x-sjis", "windows-31J"},
                                                           {"ks_c_5601-1987", "windows-949"},
                                                           {"EUC-KR", "windows-949"},
                                                           {"big5", "Big5-HKSCS"},
                                                           {"iso-8859-9", "windows-1254"},
                                                           {"x-mac-roman", "macintosh"},
                                                           {"x-cp1251", "windows-1251"},
                                                           {"cp1250", "windows-1250"},
                                                           {"utf8", "UTF-8"},
                                                           {"UTF-16", "UTF-16LE"},
                                                           {"iso-8859-8-i", "ISO-8859-8"},
                                                           {"tis-620", "windows-874"},
                                                           {"iso-2022-jp", "ISO-2022-JP"},
                                                           {"latin2", "ISO-8859-2"},
                                                           {"utf-7", "UTF-7"}};
  for (const auto& [label, charset] : kExpected)
    EXPECT_EQ(charset, tool::charsetOf(label)) << label;
}

TEST(DecodeText, UnknownLabelsAreIgnored) {
  for (const char* const label : {"", " ", "x-unknown", "x-", "x", "x-x-x-x", "../../etc/passwd",
                                  "utf-8,version=1", "\xFF\xFE", "binary", "8bit", "-", "\""}) {
    EXPECT_EQ("", tool::charsetOf(label)) << label;
    EXPECT_EQ("UTF-8", encodingOf(kGerman, label)) << label;
  }
  EXPECT_EQ("", tool::charsetOf(std::string(1000, 'x')));
}

// Every charset that a label of ours leads to can be had, and is an extension of ASCII.
TEST(DecodeText, AsciiIsTheSameInAllThatMailsDeclare) {
  const std::string ascii = " !\"#$%&'()*+,-./0123456789:;<=>?@ABCXYZ[\\]^_`abcxyz{|}~\r\n\t";
  for (const char* const label :
       {"iso-8859-1",     "iso-8859-2",   "iso-8859-5",   "iso-8859-6",   "iso-8859-7",
        "iso-8859-8",     "iso-8859-9",   "iso-8859-10",  "iso-8859-11",  "iso-8859-13",
        "iso-8859-14",    "iso-8859-15",  "windows-1250", "windows-1251", "windows-1253",
        "windows-1255",   "windows-1256", "windows-1257", "windows-1258", "koi8-r",
        "koi8-u",         "ibm866",       "ibm850",       "ibm437",       "macintosh",
        "x-mac-cyrillic", "gb2312",       "big5",         "shift_jis",    "euc-jp",
        "iso-2022-jp",    "euc-kr",       "tis-620",      "utf-8"}) {
    EXPECT_EQ(ascii, textOf(ascii, label)) << label;
  }
}

TEST(DecodeText, ADeclaredCharsetThatCannotBeIsNotBelieved) {
  EXPECT_EQ("UTF-8", encodingOf(kJapanese, "euc-jp"));
  EXPECT_EQ("UTF-8", encodingOf(kRussian, "iso-8859-1"));  // undefined bytes
  EXPECT_EQ("windows-1252", encodingOf(encoded(kGerman, "windows-1252"), "utf-8"));
  EXPECT_EQ("UTF-8", encodingOf("<meta charset=utf-16> hello", "utf-16"));
}

TEST(DecodeText, ACharacterCutOffAtTheEndIsNoReasonForDisbelief) {
  const std::string cut = encoded(kJapanese, "EUC-JP");
  EXPECT_EQ("EUC-JP", encodingOf(cut.substr(0, cut.size() - 1), "euc-jp"));
  const std::string japanese = kJapanese;
  const auto decoded = tool::decodeText(japanese.substr(0, japanese.size() - 1), "");
  ASSERT_TRUE(decoded);
  EXPECT_EQ("UTF-8", decoded->encoding);
  EXPECT_TRUE(decoded->text.ends_with("\uFFFD"));
}

TEST(DecodeText, Utf8IsSeen) {
  for (const char* const text : {kGerman, kFrench, kPolish, kRussian, kGreek, kJapanese, "", "a"}) {
    EXPECT_EQ("UTF-8", encodingOf(text));
    EXPECT_EQ(text, textOf(text));
  }
}

TEST(DecodeText, ADamagedPlaceMakesNoOtherEncodingOfUtf8) {
  const std::string damaged = kRussian + " \xFF "s + kRussian;
  EXPECT_EQ("UTF-8", encodingOf(damaged));
  EXPECT_EQ(kRussian + " \uFFFD "s + kRussian, textOf(damaged));
}

TEST(DecodeText, WideTextsWithoutMarkAreSeenInBothOrders) {
  for (const char* const text :
       {kGerman, kFrench, kPolish, kRussian, kGreek, kJapanese, kChinese, kTaiwanese, kKorean}) {
    for (const char* const charset : {"UTF-16LE", "UTF-16BE", "UTF-32LE", "UTF-32BE"}) {
      EXPECT_EQ(charset, encodingOf(encoded(text, charset))) << text;
      EXPECT_EQ(text, textOf(encoded(text, charset))) << charset;
    }
  }
}

TEST(DecodeText, CharsetsAreGuessedFromAHundredBytesOrTwo) {
  const struct {
    const char* text;
    const char* charset;
  } kTexts[] = {{kGerman, "windows-1252"}, {kGerman, "macintosh"},     {kGerman, "IBM850"},
                {kFrench, "windows-1252"}, {kFrench, "macintosh"},     {kFrench, "ISO-8859-15"},
                {kPolish, "ISO-8859-2"},   {kRussian, "windows-1251"}, {kRussian, "KOI8-R"},
                {kRussian, "ISO-8859-5"},  {kRussian, "IBM866"},       {kGreek, "ISO-8859-7"},
                {kJapanese, "Shift_JIS"},  {kJapanese, "EUC-JP"},      {kJapanese, "ISO-2022-JP"},
                {kChinese, "GB18030"},     {kTaiwanese, "Big5"},       {kKorean, "EUC-KR"}};
  for (const auto& [text, charset] : kTexts) {
    EXPECT_EQ(text, textOf(encoded(text, charset)))
        << charset << " as " << encodingOf(encoded(text, charset));
  }
}

TEST(DecodeText, QuotesAndApostrophesAreNoAccents) {
  for (const char* const text :
       {"The insurer’s surveyor accepted that by seven o’clock. “We built a spare,” said he.",
        "It’s", "don’t won’t can’t", "a “spare” and a “flat” one", "the ‘first’ and the ‘second’",
        "“quoted”", "“quoted,”\nhe said, “at length”",
        "the companies’ licences – all 3 – cost €80"}) {
    EXPECT_EQ(text, textOf(encoded(text, "windows-1252")));
    EXPECT_EQ("windows-1252", encodingOf(encoded(text, "windows-1252")));
  }
  for (const char* const text :
       {"El señor Martín volvió así a su país, según él, y allí murió.",
        "Perché così è più facile.",
        "The insurer’s surveyor accepted that. “We built a spare tyre,” said the engineer.",
        "L’été dernier, le maître a dîné à l’île : « bientôt ! »"}) {
    EXPECT_EQ(text, textOf(encoded(text, "macintosh")));
  }
}

TEST(DecodeText, AGuessLooksWhereTheTextIsNotAscii) {
  const std::string english(200000, 'x');
  EXPECT_EQ("windows-1251", encodingOf(english + " " + encoded(kRussian, "windows-1251")));
}

TEST(DecodeText, ShortTextsAreWestern) {
  for (const char* const bytes : {"Gr\xFC\xDF"
                                  "e",
                                  "caf\xE9", "\xE4", "\xC4\xD6\xDC", "5 \x80"}) {
    EXPECT_EQ("windows-1252", encodingOf(bytes)) << bytes;
  }
}

TEST(DecodeText, AStrayControlByteIsNoReasonToRefuseAText) {
  for (const char stray : {'\0', '\x01', '\x07', '\x7F', '\x1F'}) {
    std::string text = kGerman;
    text.insert(text.size() / 2, 1, stray);
    EXPECT_EQ("UTF-8", encodingOf(text)) << static_cast<int>(stray);
    EXPECT_EQ("windows-1252", encodingOf(encoded(text, "windows-1252")));
  }
  EXPECT_EQ("UTF-8", encodingOf("B\bBO\bOL\bLD\bD \x1B[1mbold\x1B[0m\f\v"));
  EXPECT_EQ("UTF-8", encodingOf(std::string(kGerman) + "\x1A"));
}

TEST(DecodeText, ControlCharactersInQuantityAreNoText) {
  std::string text;
  for (int i = 0; i < 100; ++i) text += "record"s + '\0' + '\x01' + '\x02';
  for (const char* const declared : {"", "utf-8", "windows-1252", "shift_jis", "utf-16"}) {
    EXPECT_EQ("none", encodingOf(text, declared)) << declared;
  }
}

// A header, and then pixels: no zeros there.
TEST(DecodeText, AWhiteImageIsNoText) {
  const std::string header =
      "BM\x36\x30\0\0\0\0\0\0\x36\0\0\0\x28\0\0\0\x40\0\0\0\x40\0\0\0\x01\0\x18"s;
  EXPECT_EQ("none", encodingOf(header + std::string(25, '\0') + std::string(12288, '\xFF')));
  EXPECT_EQ("none", encodingOf("P6 64 64 255\n" + std::string(12288, '\xFF')));
}

TEST(DecodeText, RandomBytesAreNoText) {
  std::mt19937_64 random(20260301);
  for (int round = 0; round < 2000; ++round) {
    std::string bytes(100 + random() % 2000, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    EXPECT_EQ("none", encodingOf(bytes)) << round;
    EXPECT_EQ("none", encodingOf(bytes, "windows-1252")) << round;
  }
}

// The system's own files: every program and compressed file, every page of text.
class SystemFiles : public testing::Test {
 protected:
  static constexpr size_t kFiles = 150;

  static std::string read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Of those that begin so, how many were looked at.
  static size_t expectNoText(const std::filesystem::path& directory, std::string_view beginning) {
    size_t seen = 0;
    const auto options = std::filesystem::directory_options::skip_permission_denied;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory, options)) {
      std::error_code error;
      if (seen == kFiles || !entry.is_regular_file(error) || entry.file_size(error) > 1 << 20)
        continue;
      const std::string bytes = read(entry.path());
      if (!bytes.starts_with(beginning)) continue;
      ++seen;
      EXPECT_EQ("none", encodingOf(bytes)) << entry.path();
      EXPECT_EQ("none", encodingOf(bytes, "iso-8859-1")) << entry.path();
    }
    return seen;
  }
};

TEST_F(SystemFiles, ProgramsAreNoText) {
  EXPECT_GT(expectNoText("/usr/bin",
                         "\x7F"
                         "ELF"),
            50u);
}

TEST_F(SystemFiles, CompressedFilesAreNoText) {
  EXPECT_GT(expectNoText("/usr/share/doc", "\x1F\x8B"), 20u);
}

TEST_F(SystemFiles, LicencesAreText) {
  size_t seen = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/usr/share/doc")) {
    const std::filesystem::path path = entry.path() / "copyright";
    std::error_code error;
    if (seen == kFiles || !std::filesystem::is_regular_file(path, error)) continue;
    ++seen;
    EXPECT_NE("none", encodingOf(read(path))) << path;
  }
  EXPECT_GT(seen, 50u);
}

}  // namespace
