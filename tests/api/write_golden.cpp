// Makes the files of tests/golden anew: write_golden DIRECTORY. It replaces the
// three directories below that one. golden_test.cpp holds the library against
// them.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>

#include "golden.h"
#include "scenario.h"

namespace fs = std::filesystem;

namespace {

void emptyDirectory(const fs::path& directory) {
  fs::remove_all(directory);
  fs::create_directory(directory);
}

// The content alone: index files are their owner's only, golden files are not.
void copyContent(const fs::path& from, const fs::path& to) {
  std::ofstream(to, std::ios::binary) << std::ifstream(from, std::ios::binary).rdbuf();
}

void write(const fs::path& directory) {
  const fs::path work = directory / "work";
  emptyDirectory(work);
  fs::current_path(work);

  emptyDirectory(directory / "signatures");
  for (const auto& [name, list] : scenario::signatureLists(golden::kSeed)) {
    std::ofstream(directory / "signatures" / name, std::ios::binary) << list;
  }

  scenario::createIndex(golden::kSeed);
  emptyDirectory(directory / "index");
  for (const auto& entry : fs::directory_iterator("sig_index_DB")) {
    copyContent(entry, directory / "index" / entry.path().filename());
  }

  scenario::growIndex(golden::kSeed);
  emptyDirectory(directory / "grown");
  for (const char* name : {"meta_data.bin", "search_table.wtbl", "search_table.stbl"}) {
    copyContent(fs::path("sig_index_DB") / name, directory / "grown" / name);
  }

  fs::current_path(directory);
  fs::remove_all(work);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: write_golden DIRECTORY\n");
    return 2;
  }
  try {
    write(fs::absolute(argv[1]));
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "write_golden: %s\n", failure.what());
    return 1;
  }
  return 0;
}
