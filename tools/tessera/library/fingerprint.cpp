#include "library/fingerprint.h"

namespace tool {

SignatureList Fingerprinter::signatures(const Part& part) const {
  switch (part.form) {
    case Form::kText:
      return selection_ == Selection::kFull ? textSignatures(part.content)
                                            : generator_.sparseSignatures(part.content);
    case Form::kBinary:
      return generator_.binarySignatures(part.content);
    case Form::kContainer:
      break;
  }
  return {};
}

}  // namespace tool
