// How it works: the stream is records of a type and a length, some of which contain
// others. Going into every one that does makes a flat list, and needs no recursion.
#include "extract/formats/ppt.h"

#include <unicode/unistr.h>

#include <cstddef>
#include <cstdint>

namespace tool {
namespace {

constexpr size_t kHeaderBytes = 8;

enum RecordType : uint32_t {
  kMainMaster = 0x03f8,
  kPlaceholder = 0x0bc3,
  kTextInUtf16 = 0x0fa0,
  kTextInLatin1 = 0x0fa8,
  kShape = 0xf004,
};

uint32_t littleEndian(std::string_view bytes, size_t at, size_t length) {
  uint32_t number = 0;
  for (size_t i = 0; i < length; ++i) {
    number |= static_cast<uint32_t>(static_cast<unsigned char>(bytes[at + i])) << 8 * i;
  }
  return number;
}

// `bytes_each`: 2 for UTF-16, 1 when all units are below 256.
void append(std::string_view bytes, size_t bytes_each, std::string* text) {
  icu::UnicodeString units;
  for (size_t at = 0; at + bytes_each <= bytes.size(); at += bytes_each) {
    const auto unit = static_cast<char16_t>(littleEndian(bytes, at, bytes_each));
    units.append(unit == u'\r' || unit == u'\v' ? u'\n' : unit);
  }
  units.append(u'\n').toUTF8String(*text);
}

}  // namespace

std::string pptText(std::string_view stream) {
  std::string text;
  size_t master_end = 0;
  bool is_placeholder = false;
  for (size_t at = 0; at + kHeaderBytes <= stream.size();) {
    const bool has_records = (littleEndian(stream, at, 2) & 0xf) == 0xf;
    const uint32_t type = littleEndian(stream, at + 2, 2);
    const uint32_t length = littleEndian(stream, at + 4, 4);
    at += kHeaderBytes;
    const std::string_view content = stream.substr(at, length);
    if (type == kMainMaster) master_end = at + content.size();
    if (type == kShape) is_placeholder = false;
    if (type == kPlaceholder) is_placeholder = true;
    // "Click to edit ...", in all presentations alike.
    const bool is_prompt = at < master_end && is_placeholder;
    if (type == kTextInUtf16 && !is_prompt) append(content, 2, &text);
    if (type == kTextInLatin1 && !is_prompt) append(content, 1, &text);
    if (!has_records) at += content.size();
  }
  return text;
}

}  // namespace tool
