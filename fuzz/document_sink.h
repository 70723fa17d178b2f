// A document that forgets what a parser says, and checks that it keeps within what it
// was given: for the targets that fuzz the parsers of formats.
#pragma once

#include <cstdint>
#include <string_view>

#include "extract/extraction.h"
#include "harness.h"

namespace fuzz {

class DocumentSink final : public tool::Document {
 public:
  void text(std::string_view utf8) override { count(utf8.size(), &said_); }
  void encodedText(std::string_view bytes, std::string_view) override { text(bytes); }
  void member(std::string_view, std::string_view content, std::string_view) override {
    count(content.size(), &expanded_);
    countMember();
  }
  void lostMember(std::string_view, tool::Reason reason, const std::string&) override {
    FUZZ_CHECK(reason != tool::Reason::kNone);
    countMember();
  }
  void expectMember(uint64_t bytes, uint64_t) const override {
    if (bytes > limits_.member_bytes) throw tool::NotInspected(tool::Reason::kSizeLimit, "");
  }
  void countExpanded(uint64_t bytes) override { count(bytes, &expanded_); }
  uint64_t memberRoom() const override { return limits_.member_bytes; }
  std::string_view baseName() const override { return "document"; }
  std::string_view charset() const override { return {}; }
  const tool::Limits& limits() const override { return limits_; }
  void checkTime() const override {}
  unsigned secondsLeft() const override { return 10; }

  // Whatever a parser throws but this is a finding.
  void parse(tool::Parser parser, std::string_view content) {
    try {
      parser(content, *this);
    } catch (const tool::NotInspected& failure) {
      FUZZ_CHECK(failure.reason != tool::Reason::kNone);
    }
  }

 private:
  static tool::Limits smallLimits() {
    tool::Limits limits;
    limits.seconds = 8;
    limits.total_bytes = limits.member_bytes = 4 << 20;
    limits.members = 1000;
    limits.memory_bytes = 512 << 20;
    return limits;
  }

  void count(uint64_t bytes, uint64_t* counter) const {
    *counter += bytes;
    if (*counter > limits_.total_bytes) throw tool::NotInspected(tool::Reason::kSizeLimit, "");
  }

  void countMember() {
    if (++members_ > limits_.members) throw tool::NotInspected(tool::Reason::kMemberLimit, "");
  }

  const tool::Limits limits_ = smallLimits();
  uint64_t said_ = 0;
  uint64_t expanded_ = 0;
  uint32_t members_ = 0;
};

}  // namespace fuzz
