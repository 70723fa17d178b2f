// Any bytes as a document, meant for archives and compressed files: whatever comes out is
// within the limits, has a name that is fit for a terminal and no other part has, and
// everything that was begun was delivered.
#include <set>
#include <string>

#include "extract/extraction.h"
#include "extract/member_name.h"
#include "harness.h"

namespace {

tool::Limits smallLimits() {
  tool::Limits limits;
  limits.seconds = 20;
  limits.total_bytes = 1'000'000;
  limits.member_bytes = 300'000;
  limits.depth = 4;
  limits.members = 50;
  return limits;
}

class CheckingSink final : public tool::PartSink {
 public:
  explicit CheckingSink(const tool::Limits& limits) : limits_(limits) {}

  void begin(const std::string& name) override { begun_.insert(name); }

  void deliver(tool::Part&& part) override {
    FUZZ_CHECK(begun_.contains(part.name) || part.reason != tool::Reason::kNone);
    FUZZ_CHECK(names_.insert(part.name).second || part.reason != tool::Reason::kNone);
    FUZZ_CHECK(part.name == tool::printable(part.name));
    FUZZ_CHECK(part.detail == tool::printable(part.detail));
    FUZZ_CHECK(part.content.size() <= limits_.total_bytes);
    FUZZ_CHECK(part.form != tool::Form::kContainer || part.content.empty());
    FUZZ_CHECK(part.reason != tool::Reason::kTimeLimit);
    if (part.name.empty()) return;
    FUZZ_CHECK(part.size <= limits_.member_bytes);
    expanded_ += part.reason == tool::Reason::kNone ? part.size : 0;
    FUZZ_CHECK(expanded_ <= limits_.total_bytes);
    FUZZ_CHECK(names_.size() <= limits_.members + 1);
  }

  bool delivered(const std::string& name) const { return names_.contains(name); }
  const std::set<std::string>& begun() const { return begun_; }

 private:
  const tool::Limits& limits_;
  std::set<std::string> begun_;
  std::set<std::string> names_;
  uint64_t expanded_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const tool::Limits limits = smallLimits();
  CheckingSink sink(limits);
  tool::extract({reinterpret_cast<const char*>(data), size}, "document.gz", limits, sink);
  for (const std::string& name : sink.begun()) FUZZ_CHECK(sink.delivered(name));
  return 0;
}
