// One text in everything that mails, office programs and old systems make of it: all
// variants are found by one another, through the public library, as a document indexed
// sparsely and a query of all passages.
#include <gtest/gtest.h>
#include <unicode/normalizer2.h>
#include <unicode/ucnv.h>
#include <unicode/unistr.h>

#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "canonical_text.h"
#include "host_session.h"

namespace {

struct Variant {
  std::string name;
  std::string bytes;
  std::string declared;
};

// Which single-byte charsets hold a language, by the labels that declare them.
struct Language {
  const char* name;
  std::vector<const char*> typographic;    // with dashes and quotes
  std::vector<const char*> plain;          // without
  std::vector<const char*> only_declared;  // without, and not to be guessed
};

std::ostream& operator<<(std::ostream& out, const Language& language) {
  return out << language.name;
}

icu::UnicodeString replaced(icu::UnicodeString text,
                            const std::vector<std::pair<const char*, const char*>>& pairs) {
  for (const auto& [from, to] : pairs) {
    text.findAndReplace(icu::UnicodeString::fromUTF8(from), icu::UnicodeString::fromUTF8(to));
  }
  return text;
}

icu::UnicodeString straight(const icu::UnicodeString& text) {
  return replaced(text, {{"„", "\""},
                         {"“", "\""},
                         {"”", "\""},
                         {"«", "\""},
                         {"»", "\""},
                         {"’", "'"},
                         {"–", "-"},
                         {"…", "..."}});
}

icu::UnicodeString normalized(const icu::UnicodeString& text, bool composed) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* const form = composed ? icu::Normalizer2::getNFCInstance(status)
                                                : icu::Normalizer2::getNFDInstance(status);
  return form->normalize(text, status);
}

std::string utf8(const icu::UnicodeString& text) {
  std::string bytes;
  text.toUTF8String(bytes);
  return bytes;
}

// Fails the test when the charset does not hold the text.
std::string encoded(const icu::UnicodeString& text, const char* charset) {
  UErrorCode status = U_ZERO_ERROR;
  UConverter* const converter = ucnv_open(charset, &status);
  ucnv_setFromUCallBack(converter, UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  std::string bytes(static_cast<size_t>(text.length()) * 4 + 8, '\0');
  const int32_t size = ucnv_fromUChars(converter, bytes.data(), static_cast<int32_t>(bytes.size()),
                                       text.getBuffer(), text.length(), &status);
  ucnv_close(converter);
  EXPECT_TRUE(U_SUCCESS(status)) << charset << ": " << u_errorName(status);
  bytes.resize(static_cast<size_t>(size));
  return bytes;
}

// After every fifth code unit that is no blank and no accent.
icu::UnicodeString sprinkled(const icu::UnicodeString& text, const char16_t* what) {
  icu::UnicodeString result;
  for (int32_t i = 0; i < text.length(); ++i) {
    result += text[i];
    if (i % 5 == 4 && text[i] != u' ') result += what;
  }
  return result;
}

icu::UnicodeString wrapped(const icu::UnicodeString& text, const char16_t* line_end) {
  icu::UnicodeString result;
  int32_t column = 0;
  for (int32_t i = 0; i < text.length(); ++i, ++column) {
    if (text[i] == u' ' && column > 50) {
      result += line_end;
      column = 0;
    } else {
      result += text[i];
    }
  }
  return result;
}

std::vector<Variant> variantsOf(const icu::UnicodeString& text, const Language& language) {
  const std::string mark_utf32le("\xFF\xFE\0\0", 4);
  const icu::UnicodeString plain = straight(text);
  std::vector<Variant> variants = {
      {"UTF-8", utf8(text), ""},
      {"UTF-8 declared", utf8(text), "utf-8"},
      {"UTF-8 with mark", "\xEF\xBB\xBF" + utf8(text), ""},
      {"UTF-8 with mark, declared otherwise", "\xEF\xBB\xBF" + utf8(text), "windows-1252"},
      {"UTF-8 of an unknown charset", utf8(text), "x-unknown"},
      {"UTF-16LE with mark", "\xFF\xFE" + encoded(text, "UTF-16LE"), ""},
      {"UTF-16BE with mark", "\xFE\xFF" + encoded(text, "UTF-16BE"), ""},
      {"UTF-16LE", encoded(text, "UTF-16LE"), ""},
      {"UTF-16BE", encoded(text, "UTF-16BE"), ""},
      {"UTF-16LE declared", encoded(text, "UTF-16LE"), "utf-16"},
      {"UTF-32LE with mark", mark_utf32le + encoded(text, "UTF-32LE"), ""},
      {"UTF-32LE", encoded(text, "UTF-32LE"), ""},
      {"UTF-32BE", encoded(text, "UTF-32BE"), ""},
      {"NFC", utf8(normalized(text, true)), ""},
      {"NFD", utf8(normalized(text, false)), ""},
      {"NFD in UTF-16", encoded(normalized(text, false), "UTF-16BE"), ""},
      {"soft hyphens", utf8(sprinkled(text, u"\u00AD")), ""},
      {"soft hyphens in NFD", utf8(sprinkled(normalized(text, false), u"\u00AD")), ""},
      {"zero width", utf8(sprinkled(text, u"\u200B\u2060")), ""},
      {"direction marks", utf8(sprinkled(text, u"\u200E\u202C")), ""},
      {"no-break blanks", utf8(replaced(text, {{" ", "\u00A0"}})), ""},
      {"narrow blanks", utf8(replaced(text, {{" ", "\u202F"}})), ""},
      {"ligatures",
       utf8(replaced(text, {{"ffi", "\uFB03"},
                            {"ff", "\uFB00"},
                            {"fi", "\uFB01"},
                            {"fl", "\uFB02"},
                            {"st", "\uFB06"}})),
       ""},
      {"straight quotes", utf8(plain), ""},
      {"English quotes", utf8(replaced(text, {{"„", "“"}, {"“", "”"}, {"«", "“"}, {"»", "”"}})),
       ""},
      {"em dashes", utf8(replaced(text, {{"–", "\u2014"}})), ""},
      {"CRLF", utf8(replaced(text, {{"\n", "\r\n"}})), ""},
      {"CR", utf8(replaced(text, {{"\n", "\r"}})), ""},
      {"wrapped with LF", utf8(wrapped(text, u"\n")), ""},
      {"wrapped with CRLF", utf8(wrapped(text, u"\r\n")), ""},
      {"wrapped and quoted", utf8(wrapped(text, u"\n> ")), ""},
      {"line separators", utf8(replaced(text, {{"\n", "\u2028"}})), ""}};
  for (const char* const charset : language.typographic) {
    variants.push_back({charset, encoded(text, charset), ""});
    variants.push_back({charset + std::string(" declared"), encoded(text, charset), charset});
  }
  for (const char* const charset : language.plain) {
    variants.push_back({charset, encoded(plain, charset), ""});
    variants.push_back({charset + std::string(" declared"), encoded(plain, charset), charset});
  }
  for (const char* const charset : language.only_declared) {
    variants.push_back({charset, encoded(plain, charset), charset});
  }
  return variants;
}

std::string formOf(const Variant& variant) {
  const auto decoded = tool::decodeText(variant.bytes, variant.declared);
  EXPECT_TRUE(decoded) << variant.name;
  return decoded ? tool::canonicalText(decoded->text) : std::string();
}

icu::UnicodeString textOf(const Language& language) {
  std::ifstream file(TEXT_FORM_DATA "/" + std::string(language.name) + ".txt", std::ios::binary);
  EXPECT_TRUE(file) << language.name;
  return icu::UnicodeString::fromUTF8(std::string{std::istreambuf_iterator<char>(file), {}});
}

const Language kLanguages[] = {
    {"german",
     {"windows-1252", "macintosh"},
     {"iso-8859-1", "iso-8859-15", "ibm850"},
     {"iso-8859-2", "windows-1250", "windows-1254", "utf-7"}},
    {"french", {"windows-1252", "macintosh"}, {"iso-8859-15"}, {"windows-1254", "utf-7"}},
    {"russian",
     {"windows-1251"},
     {"koi8-r", "iso-8859-5", "ibm866"},
     {"koi8-u", "x-mac-cyrillic", "gb18030"}},
    {"greek", {}, {"iso-8859-7"}, {"windows-1253"}},
};

class TextVariants : public LibraryTest, public testing::WithParamInterface<Language> {
 protected:
  // One query at a time is asked of an index of all variants.
  void index(const std::vector<std::string>& texts) {
    ASSERT_EQ(0, InitSignatureGenerator(TESSERA_SERVER));
    ASSERT_EQ(0, InitIndexSystem());
    for (size_t i = 0; i < texts.size(); ++i) {
      const Signatures list = textSignatures(texts[i]);
      if (!list.empty()) {
        ASSERT_EQ(0, addDocument(static_cast<int64_t>(i), list));
      }
    }
    ASSERT_EQ(0, ExitIndexSystem());
    ASSERT_EQ(0, InitMatchSystem());
    ASSERT_EQ(0, ExitSignatureGenerator());
    ASSERT_EQ(0, InitSignatureGenerator(TESSERA_CLIENT));
  }

  static std::set<int64_t> strongMatches(const std::string& text) {
    std::set<int64_t> found;
    for (const Match& one : match(textSignatures(text), static_cast<int>(text.size()))) {
      if (one.level == 2) found.insert(one.file_id);
    }
    return found;
  }
};

TEST_P(TextVariants, AreFoundByOneAnotherAtLevelTwo) {
  const std::vector<Variant> variants = variantsOf(textOf(GetParam()), GetParam());
  std::vector<std::string> forms;
  for (const Variant& variant : variants) forms.push_back(formOf(variant));
  index(forms);
  for (size_t query = 0; query < forms.size(); ++query) {
    const std::set<int64_t> found = strongMatches(forms[query]);
    for (size_t document = 0; document < forms.size(); ++document) {
      EXPECT_TRUE(found.contains(static_cast<int64_t>(document)))
          << variants[query].name << " does not find " << variants[document].name;
    }
  }
}

// What counts of a text: letters, digits and all that is not ASCII.
std::string carried(const std::string& text) {
  std::string result;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 128 || (byte < 128 && std::isalnum(byte))) result += c;
  }
  return result;
}

TEST_P(TextVariants, CarryTheSameText) {
  const std::vector<Variant> variants = variantsOf(textOf(GetParam()), GetParam());
  const std::string expected = carried(formOf(variants[0]));
  EXPECT_GT(expected.size(), 2000u);
  for (const Variant& variant : variants)
    EXPECT_EQ(expected, carried(formOf(variant))) << variant.name;
}

// The form is what makes them one document: as they are, most are strangers.
TEST_P(TextVariants, AreStrangersWithoutTheForm) {
  const std::vector<Variant> variants = variantsOf(textOf(GetParam()), GetParam());
  std::vector<std::string> raw;
  for (const Variant& variant : variants) raw.push_back(variant.bytes);
  index(raw);
  size_t pairs = 0;
  for (const std::string& bytes : raw) pairs += strongMatches(bytes).size();
  EXPECT_LT(pairs, raw.size() * raw.size() * 2 / 3);
}

INSTANTIATE_TEST_SUITE_P(Of, TextVariants, testing::ValuesIn(kLanguages),
                         [](const auto& language) { return std::string(language.param.name); });

}  // namespace
