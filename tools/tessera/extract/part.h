// What becomes of a document that is opened: itself and, when it is a container, its
// members, each a document of its own. Both the extractor, which opens documents, and
// the command, which fingerprints them, speak of parts.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// Why a document was not inspected, or not wholly.
enum class Reason : uint8_t {
  kNone,
  kEncrypted,
  kDamaged,
  kUnsupported,  // known, but nothing here can open it
  kTimeLimit,
  kSizeLimit,  // of one member, or of everything expanded
  kRatioLimit,
  kMemberLimit,
  kDepthLimit,
  kMemoryLimit,
  kCrashed,  // the extractor died over it
  kUnreadable,
  kProcessLimit,  // the system had no process for a program that reads it
};
inline constexpr unsigned kReasons = 13;

// Stable words for machines: "encrypted", "time-limit"; "" for kNone.
std::string_view reasonName(Reason reason);

enum class Form : uint8_t {
  kText,       // content is canonical text
  kBinary,     // content is the bytes themselves
  kContainer,  // without content: its members are what it has to say
};
inline constexpr unsigned kForms = 3;

struct Part {
  // Members from the outside in, joined by "!"; empty for the document itself. Bytes
  // as they stand in the container, but for what a terminal could choke on; the second
  // "a" of a container is "a#2". No two parts of a document have the same name, but for
  // one that only adds a reason to a part that was delivered before it was known.
  std::string name;
  std::string type;                        // by content: "application/pdf", "text/plain"
  std::string encoding;                    // of kText: what it was decoded from; may be empty
  uint64_t size = 0;                       // bytes of the document before anything was made of it
  std::array<unsigned char, 32> sha256{};  // of these bytes
  Form form = Form::kBinary;
  std::string content;
  // Not kNone: content, and the members that came, are only what was got until then.
  Reason reason = Reason::kNone;
  std::string detail;  // for the user, one line, may be empty
};

}  // namespace tool
