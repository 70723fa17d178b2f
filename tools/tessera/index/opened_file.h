// One file on its way into the catalogue: read, opened, fingerprinted.
// Tests: tests/tool/index_test.py.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "extract/limits.h"
#include "inspect/inspector.h"
#include "library/fingerprint.h"
#include "store/catalogue.h"

namespace tool {

struct OpenedFile {
  FileChange change;       // its path is set in any case
  std::string problem;     // why the file could not be read; then there is nothing else
  bool known = false;      // the catalogue has an entry for it
  bool unchanged = false;  // and this is what it would be again; nothing was opened
};

class FileOpener {
 public:
  struct Settings {
    Limits limits;
    Selection selection = Selection::kFull;
    std::string label;
  };

  // A generator comes to life with it, so the configuration is written.
  explicit FileOpener(const Settings& settings);

  // `known` is asked for what is known of the file, when its hash is at hand. May be
  // called from any thread. Throws Failure when nothing can be opened at all. When the user
  // interrupts, what is being opened is given up, with the verdict kCrashed.
  OpenedFile open(const std::string& path,
                  const std::function<std::optional<FileEntry>(const std::string&)>& known);

 private:
  void inspect(int file, FileChange* change);

  const Settings settings_;
  const std::string opened_by_;
  Fingerprinter fingerprinter_;
  Inspector inspector_;
};

}  // namespace tool
