#include "charset.h"

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>

#include <algorithm>
#include <memory>
#include <new>

namespace tool {

namespace {

struct ConverterCloser {
  void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using ScopedConverter = std::unique_ptr<UConverter, ConverterCloser>;

// Labels whose usual reading is wider than the standard of that name, or which the
// converters' own list of aliases does not know. Without '-', '_' and case.
struct Label {
  const char* label;
  const char* charset;
};
constexpr Label kLabels[] = {
    {"utf8", "UTF-8"},
    {"unicode11utf8", "UTF-8"},
    {"xunicode20utf8", "UTF-8"},
    {"unicode", "UTF-16LE"},
    {"csunicode", "UTF-16LE"},
    {"ucs2", "UTF-16LE"},
    {"iso10646ucs2", "UTF-16LE"},
    {"utf16", "UTF-16LE"},
    {"unicodefeff", "UTF-16LE"},
    {"unicodefffe", "UTF-16BE"},
    {"usascii", "windows-1252"},
    {"ascii", "windows-1252"},
    {"ansix3.41968", "windows-1252"},
    {"iso646us", "windows-1252"},
    {"us", "windows-1252"},
    {"iso88591", "windows-1252"},
    {"iso88591:1987", "windows-1252"},
    {"isoir100", "windows-1252"},
    {"csisolatin1", "windows-1252"},
    {"latin1", "windows-1252"},
    {"l1", "windows-1252"},
    {"cp819", "windows-1252"},
    {"ibm819", "windows-1252"},
    {"xansi", "windows-1252"},
    {"iso88599", "windows-1254"},
    {"latin5", "windows-1254"},
    {"l5", "windows-1254"},
    {"csisolatin5", "windows-1254"},
    {"iso885911", "windows-874"},
    {"tis620", "windows-874"},
    {"dos874", "windows-874"},
    {"iso88598i", "ISO-8859-8"},
    {"iso88598e", "ISO-8859-8"},
    {"logical", "ISO-8859-8"},
    {"visual", "ISO-8859-8"},
    {"koi", "KOI8-R"},
    {"koi8", "KOI8-R"},
    {"koi8ru", "KOI8-U"},
    {"866", "IBM866"},
    {"cp866", "IBM866"},
    {"mac", "macintosh"},
    {"xmacroman", "macintosh"},
    {"xmacukrainian", "x-mac-cyrillic"},
    {"gb2312", "GB18030"},
    {"gb231280", "GB18030"},
    {"csgb2312", "GB18030"},
    {"csiso58gb231280", "GB18030"},
    {"isoir58", "GB18030"},
    {"chinese", "GB18030"},
    {"gbk", "GB18030"},
    {"xgbk", "GB18030"},
    {"euccn", "GB18030"},
    {"cp936", "GB18030"},
    {"big5", "Big5-HKSCS"},
    {"cnbig5", "Big5-HKSCS"},
    {"csbig5", "Big5-HKSCS"},
    {"xxbig5", "Big5-HKSCS"},
    {"shiftjis", "windows-31J"},
    {"csshiftjis", "windows-31J"},
    {"sjis", "windows-31J"},
    {"xsjis", "windows-31J"},
    {"mskanji", "windows-31J"},
    {"ms932", "windows-31J"},
    {"cp932", "windows-31J"},
    {"xeucjp", "EUC-JP"},
    {"euckr", "windows-949"},
    {"cseuckr", "windows-949"},
    {"ksc56011987", "windows-949"},
    {"ksc56011989", "windows-949"},
    {"csksc56011987", "windows-949"},
    {"ksc5601", "windows-949"},
    {"korean", "windows-949"},
    {"isoir149", "windows-949"},
};
constexpr size_t kLongestLabel = 60;

// Only letters, digits and the signs that names of charsets have: nothing that the
// converters would read as an option or a path.
bool isLabel(std::string_view label) {
  return !label.empty() && label.size() <= kLongestLabel &&
         std::all_of(label.begin(), label.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  c == '-' || c == '_' || c == '.' || c == ':' || c == '+';
         });
}

std::string_view withoutQuotesAndBlanks(std::string_view label) {
  constexpr const char* kAround = " \t\r\n\f\"'";
  const size_t first = label.find_first_not_of(kAround);
  if (first == std::string_view::npos) return {};
  return label.substr(first, label.find_last_not_of(kAround) - first + 1);
}

std::string folded(std::string_view label) {
  std::string result;
  for (const char c : label) {
    if (c == '-' || c == '_') continue;
    result += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return result;
}

// By the converters' own aliases, under the name that mails use.
std::string knownToConverters(const std::string& label) {
  UErrorCode status = U_ZERO_ERROR;
  if (ucnv_countAliases(label.c_str(), &status) == 0 || U_FAILURE(status)) return {};
  for (const char* const standard : {"MIME", "IANA"}) {
    status = U_ZERO_ERROR;
    const char* const name = ucnv_getStandardName(label.c_str(), standard, &status);
    if (U_SUCCESS(status) && name != nullptr) return name;
  }
  return label;
}

ScopedConverter open(const char* charset) {
  UErrorCode status = U_ZERO_ERROR;
  ScopedConverter converter(ucnv_open(charset, &status));
  if (status == U_MEMORY_ALLOCATION_ERROR) throw std::bad_alloc();
  return converter;
}

}  // namespace

std::string charsetOf(std::string_view label) {
  label = withoutQuotesAndBlanks(label);
  if (!isLabel(label)) return {};
  const std::string wanted = folded(label);
  for (const Label& known : kLabels) {
    if (wanted == known.label) return known.charset;
  }
  std::string name = knownToConverters(std::string(label));
  const bool is_private = label.starts_with("x-") || label.starts_with("X-");  // x-cp1251
  if (name.empty() && is_private) name = charsetOf(label.substr(2));
  return name;
}

std::optional<std::string> toUtf8(std::string_view bytes, const std::string& charset,
                                  Malformed malformed) {
  const ScopedConverter from = open(charset.c_str());
  const ScopedConverter to = open("UTF-8");
  if (!from || !to) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  if (malformed == Malformed::kRefuse) {
    ucnv_setToUCallBack(from.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  }
  std::string text;
  const char* source = bytes.data();
  const char* const source_end = source + bytes.size();
  UChar pivot[4096];
  UChar* pivot_source = pivot;
  UChar* pivot_target = pivot;
  char block[3 * 4096];
  bool reset = true;
  do {
    status = U_ZERO_ERROR;
    char* target = block;
    ucnv_convertEx(to.get(), from.get(), &target, std::end(block), &source, source_end, pivot,
                   &pivot_source, &pivot_target, std::end(pivot), reset, true, &status);
    reset = false;
    text.append(block, static_cast<size_t>(target - block));
  } while (status == U_BUFFER_OVERFLOW_ERROR);
  if (status == U_MEMORY_ALLOCATION_ERROR) throw std::bad_alloc();
  if (status == U_TRUNCATED_CHAR_FOUND) {
    text += "\uFFFD";
  } else if (U_FAILURE(status)) {
    return std::nullopt;
  }
  return text;
}

}  // namespace tool
