// Files, opened one after the other, for verbs that show what is in them.
// Tests: tests/tool/sig_test.py.
#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "extract/part.h"
#include "files/walk.h"
#include "inspect/inspector.h"

namespace tool {

class OpenedParts {
 public:
  // "-" is the standard input. Names are looked up now: the current directory may change.
  OpenedParts(const std::vector<std::string>& files, const std::filesystem::path& home,
              const InspectOptions& options);

  // Calls `show` with every document but containers, and its name as it may be shown.
  // Complains about what is not inspected; false when there was any.
  bool each(const std::function<void(const std::string& name, const Part& part)>& show);

 private:
  bool open(const FoundFile& file,
            const std::function<void(const std::string&, const Part&)>& show);

  const Limits limits_;
  const FoundFiles found_;
  Inspector inspector_;
};

// Prints bodies, each under its name when there are several of them.
class Headings {
 public:
  explicit Headings(bool several) : several_(several) {}

  void print(const std::string& name, const std::string& body);
  void end();

 private:
  void printHeaded(const std::string& name, const std::string& body);

  bool several_;
  bool begun_ = false;
  std::optional<std::pair<std::string, std::string>> first_;  // until there is a second
};

}  // namespace tool
