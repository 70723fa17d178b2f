// The text of a part in reading order. What stands beside the text that runs (notes,
// comments, text boxes, deletions) comes after it, so that it does not part the words
// around the place it hangs from.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tool {

class Flow {
 public:
  void write(std::string_view utf8) { current() += utf8; }

  void endLine() {
    if (!current().empty() && current().back() != '\n') current() += '\n';
  }

  // What is written until endAside() stands beside. May be nested.
  void beginAside() { open_.emplace_back(); }

  void endAside() {
    if (open_.empty()) return;
    endLine();
    std::string aside = std::move(open_.back());
    open_.pop_back();
    // Office programs write many a thing twice, in an old way and in a new one.
    if (!aside.empty() && said_.insert(aside).second) asides_ += aside;
  }

  // For what turns out to be no text: forgets everything since length() was `length`,
  // with no aside begun or ended in between.
  size_t length() const { return open_.empty() ? body_.size() : open_.back().size(); }
  void cut(size_t length) { current().resize(length); }

  std::string take() {
    while (!open_.empty()) endAside();
    endLine();
    return body_ + asides_;
  }

 private:
  std::string& current() { return open_.empty() ? body_ : open_.back(); }

  std::string body_;
  std::vector<std::string> open_;  // asides inside each other
  std::string asides_;
  std::set<std::string> said_;
};

}  // namespace tool
