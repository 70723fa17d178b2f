// Opens documents of any format without trusting them: every one is parsed by an
// extractor, a sandboxed process that serves some documents and is then replaced.
// Whatever happens to the extractor, the command lives and says what was not inspected.
//
//   file --descriptor--> extractor --parts--> deliver
//
// Tests: tests/tool/inspector_test.cpp and tests/tool/documents/bombs_test.py.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "extract/limits.h"
#include "extract/part.h"

namespace tool {

class Inspector {
 public:
  struct Settings {
    Limits limits;
    unsigned documents_per_extractor = 100;
    // The program that opens documents; empty: ../libexec/tessera/tessera-extract as seen
    // from the directory of this program.
    std::string extractor = {};
    bool namespaces = true;  // where the system allows them
    // Asked now and then, from any thread. When it says true, documents that are being
    // opened are given up: their last part is kCrashed.
    std::function<bool()> given_up = [] { return false; };
  };

  explicit Inspector(const Settings& settings);  // starts nothing yet
  ~Inspector();                                  // ends all extractors
  Inspector(const Inspector&) = delete;
  Inspector& operator=(const Inspector&) = delete;

  // Opens the regular file behind the descriptor `file`, from its beginning, and hands
  // out the document and its members as they come, the document itself first. A
  // document that breaks its extractor, or takes too long, gets one more Part, with the
  // name of what was being opened, that says so. May be called from several threads,
  // each of which then has an extractor of its own; `deliver` is called from the
  // calling thread, its time is not the document's, and what it throws comes out here.
  // Throws Failure when no extractor can be started at all.
  void inspect(int file, std::string_view name, const std::function<void(Part&&)>& deliver);

  // How extractors are held: "seccomp, namespaces, rlimits", say. For the user. Starts
  // an extractor to find out; throws Failure when that cannot be done.
  std::string confinement() const;

 private:
  class Pool;
  const std::unique_ptr<Pool> pool_;
};

}  // namespace tool
