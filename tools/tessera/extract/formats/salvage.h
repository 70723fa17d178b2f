// A document made of several parts gives what it can: a part that is damaged, encrypted
// or of an unknown kind costs that part only, and is told at the end.
#pragma once

#include <optional>

#include "extract/extraction.h"

namespace tool {

class Salvage {
 public:
  // A limit that is reached passes through: it ends the document.
  template <typename Parse>
  void attempt(Parse parse) {
    try {
      parse();
    } catch (const NotInspected& failure) {
      keep(failure);
    }
  }

  void finish() const {
    if (first_) throw NotInspected(*first_);
  }

 private:
  void keep(const NotInspected& failure) {
    switch (failure.reason) {
      case Reason::kDamaged:
      case Reason::kEncrypted:
      case Reason::kUnsupported:
        if (!first_) first_.emplace(failure);
        break;
      default:
        throw NotInspected(failure);
    }
  }

  std::optional<NotInspected> first_;
};

}  // namespace tool
