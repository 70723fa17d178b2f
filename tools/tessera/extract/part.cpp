#include "extract/part.h"

namespace tool {

std::string_view reasonName(Reason reason) {
  switch (reason) {
    case Reason::kNone:
      return "";
    case Reason::kEncrypted:
      return "encrypted";
    case Reason::kDamaged:
      return "damaged";
    case Reason::kUnsupported:
      return "unsupported";
    case Reason::kTimeLimit:
      return "time-limit";
    case Reason::kSizeLimit:
      return "size-limit";
    case Reason::kRatioLimit:
      return "ratio-limit";
    case Reason::kMemberLimit:
      return "member-limit";
    case Reason::kDepthLimit:
      return "depth-limit";
    case Reason::kMemoryLimit:
      return "memory-limit";
    case Reason::kCrashed:
      return "crashed";
    case Reason::kUnreadable:
      return "unreadable";
    case Reason::kProcessLimit:
      return "process-limit";
  }
  return "";
}

}  // namespace tool
