// The tables that are searched, the queries, and what is right for them. All of it
// is made when it is first asked for, from fixed seeds.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "table_format.h"

// The pairs of a query in order: file << 32 | source.
using Pairs = std::vector<uint64_t>;

inline uint64_t pairOf(int32_t fid, int32_t source) {
  return uint64_t{static_cast<uint32_t>(fid)} << 32 | static_cast<uint32_t>(source);
}

struct Query {
  std::vector<Signature> signatures;  // ascending, no two equal
  Pairs expected;
};

struct Table {
  uint32_t ele_num;
  std::filesystem::path directory;
  std::map<uint32_t, std::vector<Query>> queries;  // by the number of signatures
};

inline constexpr uint32_t kQuerySizes[] = {40, 400, 4000};  // signatures

// A fresh directory below the current one for all that is made. Goes with its
// owner, and when require() ends the program.
class WorkDirectory {
 public:
  WorkDirectory();
  ~WorkDirectory();
  WorkDirectory(const WorkDirectory&) = delete;
  WorkDirectory& operator=(const WorkDirectory&) = delete;

 private:
  const std::filesystem::path start_ = std::filesystem::current_path();
};

// Ends the program with a message unless `holds`.
void require(bool holds, const char* what);

// The table of a kind, "uniform" or "text", and of a size, as "10M" elements. Its
// directory becomes the current one. Needs a WorkDirectory.
const Table& table(const std::string& kind, const std::string& size);

// Calls `take` for every signature of the table with all its pairs.
void forEachSignature(const Table& of,
                      const std::function<void(const Signature&, const Pairs&)>& take);
