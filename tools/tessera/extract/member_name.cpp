#include "extract/member_name.h"

namespace tool {

namespace {

constexpr size_t kMaximalLength = 1024;

// Bytes of the character at the front that does not belong into a name; 0: none.
size_t unprintable(std::string_view text) {
  const auto byte = [&](size_t i) {
    return static_cast<unsigned char>(i < text.size() ? text[i] : 0);
  };
  if (byte(0) < 0x20 || byte(0) == 0x7f) return 1;
  if (byte(0) == 0xc2 && byte(1) >= 0x80 && byte(1) <= 0x9f) return 2;  // C1 controls
  if (byte(0) != 0xe2) return 0;
  const bool marks = byte(1) == 0x80 && (byte(2) == 0x8e || byte(2) == 0x8f);  // LRM, RLM
  const bool lines_and_embeddings = byte(1) == 0x80 && byte(2) >= 0xa8 && byte(2) <= 0xae;
  const bool isolates = byte(1) == 0x81 && byte(2) >= 0xa6 && byte(2) <= 0xa9;
  return marks || lines_and_embeddings || isolates ? 3 : 0;
}

}  // namespace

std::string printable(std::string_view bytes) {
  std::string name;
  while (!bytes.empty()) {
    const size_t skipped = unprintable(bytes);
    name += skipped > 0 ? '?' : bytes.front();
    bytes.remove_prefix(skipped > 0 ? skipped : 1);
  }
  return name;
}

std::string memberName(std::string_view bytes) {
  std::string name = printable(bytes.substr(0, kMaximalLength));
  if (bytes.size() > kMaximalLength) name += "...";
  return name;
}

std::string joinNames(std::string_view outer, std::string_view inner) {
  std::string name(outer);
  if (!name.empty()) name += '!';
  return name.append(inner);
}

std::string_view baseNameOf(std::string_view name) {
  const size_t slash = name.find_last_of("/\\");
  return slash == std::string_view::npos ? name : name.substr(slash + 1);
}

std::string UniqueNames::add(const std::string& name) {
  size_t& count = seen_[name];
  if (++count == 1) return name;
  // Somebody may really be called "a#2".
  while (true) {
    std::string other = name + '#' + std::to_string(count);
    if (seen_.emplace(other, 1).second) return other;
    ++count;
  }
}

}  // namespace tool
