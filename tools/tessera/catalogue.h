// The catalogue beside the index: which file ID stands for which document.
//
// An SQLite database with one table, "documents":
//
//   id               the file ID; counts up from 1 and is never used twice
//   path             absolute, the bytes of the file name
//   size             bytes of the (decompressed) content
//   signatures       how many the index holds of it
//   signatures_hash  64-bit FNV-1a of them: has the document changed?
//   state            0 present, 1 arriving, 2 leaving
//
// The index and the catalogue cannot be changed in one step, so an indexing
// run announces in the catalogue what it is about to do to the index
// (arriving, leaving), does it, and settles the catalogue when the index is
// safely closed. Documents that are not "present" at the start of a run are
// what a run that was cut off has left: the index may or may not hold them.
// The next run removes all of them from the index, which is no fault for those
// it does not hold, and indexes their paths again. Until then every row still
// lends its name to what a match finds. Tests: tests/tool/tool_test.py.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace tool {

struct Document {
  int64_t id = 0;
  std::filesystem::path path;
  uint64_t size = 0;
  uint32_t signatures = 0;
  uint64_t signatures_hash = 0;
};

// Every function throws Failure when the database cannot do its part.
class Catalogue {
 public:
  enum class Access {
    kRead,   // the database exists
    kWrite,  // created when it does not exist
  };

  Catalogue(const std::filesystem::path& file, Access access);
  ~Catalogue();
  Catalogue(const Catalogue&) = delete;
  Catalogue& operator=(const Catalogue&) = delete;

  // The document present under `path`.
  std::optional<Document> find(const std::filesystem::path& path) const;

  // The name of any document that the index may hold.
  std::optional<std::filesystem::path> name(int64_t id) const;

  // Enters documents as arriving and gives them their file IDs, all or none,
  // lasting on return.
  void announceArrivals(std::vector<Document>* documents);
  void announceDepartures(const std::vector<int64_t>& ids);

  // For an index that was lost: every document is leaving.
  void announceDepartureOfAll();

  // Takes back an arrival that the index refused. Its ID stays used up.
  void cancelArrival(int64_t id);

  // Arriving or leaving, by ID.
  std::vector<Document> unsettled() const;

  // A run that takes over from one that was cut off: its arrivals leave.
  void turnArrivalsAway();

  // The index holds what was announced.
  void settle();

 private:
  class Statement;
  class Transaction;

  void execute(const char* sql) const;
  void prepareSchema();
  [[noreturn]] void fail() const;

  const std::string name_;
  sqlite3* database_ = nullptr;
};

}  // namespace tool
