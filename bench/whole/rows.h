// The rows of the measurement and what they share.
#pragma once

#include <benchmark/benchmark.h>

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "collection.h"
#include "edits.h"
#include "methods.h"
#include "written_tables.h"

// Each part is made when a row first needs it. Files lie in a new directory below
// the current one, which goes with the object.
class Shared {
 public:
  Shared();
  ~Shared();
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  std::filesystem::path newDirectory();  // a name for one

  std::unique_ptr<Method> newMethod(const std::string& name);  // with nothing indexed
  Method& method(const std::string& name);                     // with the collection indexed
  const std::vector<Query>& queries(const std::string& query_class);

  Archive archive();  // from its first document on

  // Loads the tables of so many documents of the archive.
  void loadArchive(size_t documents);

 private:
  const std::filesystem::path previous_;
  std::filesystem::path directory_;
  int directories_ = 0;
  std::map<std::string, std::unique_ptr<Method>> methods_;
  std::map<std::string, std::vector<Query>> queries_;
  std::optional<Archive> archive_;
  std::map<size_t, std::filesystem::path> tables_;  // by the number of documents
};

std::vector<std::string> methodNames();

// Registers a row. What it throws is its error, and the program then fails.
void addRow(const std::string& name, std::function<void(benchmark::State& state)> run);
bool anyRowFailed();

// Throws std::runtime_error unless `holds`.
void require(bool holds, const std::string& what);

// In whole.cpp and growth.cpp:
void addWholeRows(Shared* shared);
void addGrowthRows(Shared* shared);
