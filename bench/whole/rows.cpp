#include "rows.h"

#include <stdlib.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "host.h"

namespace fs = std::filesystem;

namespace {

bool row_failed = false;

size_t queriesOfAClass() {
  const char* const wanted = std::getenv("TESSERA_BENCH_QUERIES");
  return wanted ? std::strtoul(wanted, nullptr, 10) : 150;
}

std::string contentOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The tables that are written here must be those that the library writes.
void requireSameTables(const fs::path& written, const fs::path& made, const Archive& archive) {
  constexpr size_t kDocuments = 2500;
  writeTables(written, kDocuments, Archive(archive));
  host::makeIndex(made, kDocuments, Archive(archive));
  for (const char* const suffix : {"wtbl", "stbl", "wmeta", "smeta"}) {
    const fs::path name = fs::path("sig_index_DB") / ("search_table." + std::string(suffix));
    const std::string content = contentOf(written / name);
    require(!content.empty() && content == contentOf(made / name),
            std::string(suffix) + " differs from what the library writes");
  }
}

}  // namespace

Shared::Shared() : previous_(fs::current_path()) {
  std::string name = (previous_ / "whole.XXXXXX").string();
  require(::mkdtemp(name.data()) != nullptr, "cannot create a directory here");
  directory_ = name;
}

Shared::~Shared() {
  methods_.clear();
  host::releaseTables();
  fs::current_path(previous_);
  fs::remove_all(directory_);
}

fs::path Shared::newDirectory() { return directory_ / std::to_string(++directories_); }

std::unique_ptr<Method> Shared::newMethod(const std::string& name) {
  if (name == "tessera_sparse") return tesseraSparse(newDirectory());
  if (name == "tessera_full") return tesseraFull(newDirectory());
  if (name == "ssdeep") return ssdeep();
  return tlsh();
}

Method& Shared::method(const std::string& name) {
  std::unique_ptr<Method>& method = methods_[name];
  if (!method) {
    auto made = newMethod(name);
    made->index(collection().indexed);
    method = std::move(made);
  }
  return *method;
}

const std::vector<Query>& Shared::queries(const std::string& query_class) {
  const auto [found, fresh] = queries_.try_emplace(query_class);
  if (fresh) found->second = ::queries(collection(), query_class, queriesOfAClass());
  return found->second;
}

Archive Shared::archive() {
  if (!archive_) {
    fs::current_path(directory_);  // where the generator may leave its settings
    archive_.emplace(collection());
  }
  return *archive_;
}

void Shared::loadArchive(size_t documents) {
  if (tables_.empty()) requireSameTables(newDirectory(), newDirectory(), archive());
  const auto [found, fresh] = tables_.try_emplace(documents, newDirectory());
  if (fresh) writeTables(found->second, documents, archive());
  host::loadTables(found->second);
}

std::vector<std::string> methodNames() {
  return {"tessera_sparse", "tessera_full", "ssdeep", "tlsh"};
}

void addRow(const std::string& name, std::function<void(benchmark::State& state)> run) {
  benchmark::RegisterBenchmark(name.c_str(), [run = std::move(run)](benchmark::State& state) {
    try {
      run(state);
    } catch (const std::exception& error) {
      row_failed = true;
      state.SkipWithError(error.what());
    }
  });
}

bool anyRowFailed() { return row_failed; }

void require(bool holds, const std::string& what) {
  if (!holds) throw std::runtime_error(what);
}
