// The exports as a C++ host would wrap them, and the fixture of every test that
// sees only the built library.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "index_model.h"
#include "temp_dir.h"
#include "tessera.h"

// The list a Generate function makes, which is freed; fails the test unless it
// returns 0.
Signatures textSignatures(const std::string& text);
Signatures binarySignatures(const std::string& content);

int addDocument(int64_t file_id, const Signatures& signatures);
int deleteDocuments(std::vector<int64_t> file_ids);

// One whole search; fails the test unless it returns 0.
Matches match(const Signatures& query, int fsz = 1);

// One that may fail: stores the answer when it returns 0, and checks nothing.
int tryMatch(const Signatures& query, int fsz, Matches* matches);

// The four search tables of "sig_index_DB" below the current directory, as they
// are and as they shall be.
TableFiles readTables(const TempDir& dir, const std::string& name = "search_table");
void writeTables(const TempDir& dir, const TableFiles& files,
                 const std::string& name = "search_table");
void expectTables(const TableFiles& expected, const TableFiles& actual);

// Works in a fresh directory and leaves the library as it was when it was
// loaded, but for the match configuration: that is read once per process, so
// tests with another one need a program of their own.
class LibraryTest : public testing::Test {
 protected:
  ~LibraryTest() override;
  void configure(const std::string& lines = "") { dir_.write("index_sys_config.txt", lines); }

  TempDir dir_;
};
