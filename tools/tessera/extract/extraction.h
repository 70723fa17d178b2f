// Inside an extractor: opens one document and everything in it.
//
//   bytes --contentType--> a parser --text, members--> parts
//
// extract() tells the type by content and calls the parser for it, which hands what it
// finds to a Document: pieces of text, and members, which are opened in turn. Every
// parser is given hostile bytes; none trusts a length, an offset or a count in them,
// and what it allocates follows from bytes that are there or is counted against the
// limits.
// Tests: tests/tool/extraction_test.cpp and tests/tool/formats_test.cpp.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "limits.h"
#include "part.h"

namespace tool {

// Ends the parsing of a document. What it said before still counts.
class NotInspected : public std::runtime_error {
 public:
  NotInspected(Reason why, const std::string& detail) : std::runtime_error(detail), reason(why) {}

  const Reason reason;
};

// One document being parsed. All of it may throw NotInspected when a limit is reached:
// parsers let it pass.
class Document {
 public:
  // Text of the document in reading order, UTF-8. A piece ends where it ends: the
  // parser says where words and paragraphs do ("\n").
  virtual void text(std::string_view utf8) = 0;

  // Text in an encoding that is declared (a charset label) or, when empty, found out.
  virtual void encodedText(std::string_view bytes, std::string_view declared) = 0;

  // A document inside this one, of which nothing is needed when this returns. Those of
  // a container are opened at once, those of other documents after its own text.
  // `charset`: declared outside of it, or empty.
  virtual void member(std::string_view name, std::string_view content,
                      std::string_view charset = {}) = 0;

  // A member that is there but cannot be got at (encrypted, damaged, too large).
  virtual void lostMember(std::string_view name, Reason reason, const std::string& detail) = 0;

  // To be asked for before `bytes` are expanded from a compressed form: against the
  // limits of a member, of all members, and of the ratio to `compressed` bytes (0:
  // unknown). Counts nothing; member() does.
  virtual void expectMember(uint64_t bytes, uint64_t compressed) const = 0;

  // Counts bytes that were expanded without becoming a member: the parts of a DOCX,
  // say. Together with those of the members they are held to the limit of all.
  virtual void countExpanded(uint64_t bytes) = 0;

  // Largest content that member() takes now; an expander stops one byte after it.
  virtual uint64_t memberRoom() const = 0;

  // Of the file or member, without directories. Only for naming what is in it.
  virtual std::string_view baseName() const = 0;

  // Charset that was declared outside of the document, or empty.
  virtual std::string_view charset() const = 0;

  virtual const Limits& limits() const = 0;

  // Whoever works long without saying anything asks now and then: throws when the time
  // is over. secondsLeft() is never 0.
  virtual void checkTime() const = 0;
  virtual unsigned secondsLeft() const = 0;

 protected:
  ~Document() = default;
};

// A parser of one format. Throws NotInspected, or hands out what it finds; an archive
// calls member() only, and is then a container.
using Parser = void (*)(std::string_view content, Document& document);

// Where the parts go.
class PartSink {
 public:
  // The part of this name is being worked on from now on.
  virtual void begin(const std::string& name) = 0;

  // A container comes before its members, and once more when it turns out that not all
  // of them could be got.
  virtual void deliver(Part&& part) = 0;

 protected:
  ~PartSink() = default;
};

// Opens `content`, whose file is called `name` (its base name; used only to name the
// one member of a compressed file), and everything in it. Throws std::bad_alloc and what
// the sink throws, nothing else. One call at a time.
void extract(std::string_view content, std::string_view name, const Limits& limits, PartSink& sink);

}  // namespace tool
