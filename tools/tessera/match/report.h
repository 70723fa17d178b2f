// What `match` tells of the files it has inspected: as text, as JSON lines, as SARIF.
// docs/command.md describes the records, share/tessera/match.schema.json the JSON.
// Tests: tests/tool/report_test.py.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "commands.h"
#include "match/matcher.h"

namespace tool {

struct Totals {
  size_t files = 0;
  size_t documents = 0;  // containers not counted
  size_t matched = 0;
  size_t not_inspected = 0;  // or not wholly, whether they matched or not
  size_t binary = 0;         // compared as a whole, by its bytes
  size_t too_short = 0;
  size_t problems = 0;  // what could not be found or read

  void add(const InspectedFile& file);
};

// Each function returns what is to be printed now.
class Reporter {
 public:
  virtual ~Reporter() = default;

  virtual std::string file(const InspectedFile& file) = 0;
  virtual std::string problem(const std::string& message) = 0;
  virtual std::string end(const Totals& totals, int status) = 0;
};

std::unique_ptr<Reporter> makeTextReporter(bool colours);
std::unique_ptr<Reporter> makeJsonReporter();
std::unique_ptr<Reporter> makeSarifReporter();

}  // namespace tool
