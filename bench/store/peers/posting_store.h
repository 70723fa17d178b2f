// What the stores under comparison have to do, and what they share.
//
// A posting says that a document holds a signature. Every store keeps the same
// three orders, so that it could delete by document as well: document, source
// and signature; source and document; signature, document and source. From the
// last one it writes the search tables.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform.h"
#include "signature.h"
#include "table_format.h"

// A record as bytes whose memcmp order is that of the fields.
struct Key {
  unsigned char bytes[16];
};
struct SourceKey {
  unsigned char bytes[8];
};

Key fidSigKey(uint32_t fid, uint32_t source, const Signature& signature);
Key sigFidKey(const Signature& signature, uint32_t fid, uint32_t source);
SourceKey srcFidKey(uint32_t source, uint32_t fid);

void sortKeys(std::vector<Key>* keys);

// The four files of a search table, written from postings that ascend by
// signature, document and source. Synced at the end.
class TableFiles {
 public:
  explicit TableFiles(const std::string& directory);  // an existing one
  void append(const Key& sig_fid);
  void finish();

 private:
  void flushWeak();
  void flushStrong();

  const std::string base_;
  const std::unique_ptr<platform::File> weak_file_;
  const std::unique_ptr<platform::File> strong_file_;
  std::vector<Signature> weak_;
  std::vector<StrongElement> strong_;
  uint32_t weak_count_ = 0;
  uint32_t strong_count_ = 0;
  Signature last_ = {};
  uint32_t prefix_ = 0;
  std::vector<PrefixRange> weak_ranges_;
  std::vector<PrefixRange> strong_ranges_;
};

class PostingStore {
 public:
  virtual ~PostingStore() = default;  // closes it

  // Documents come in ascending order and only once, their signatures ascend.
  virtual void add(uint32_t fid, uint32_t source, const std::vector<Signature>& signatures) = 0;
  virtual void commit() = 0;  // everything added is lasting
  virtual void writeTables(const std::string& directory) = 0;
};

// Gathers a batch and hands it over in the three orders, each ascending.
class SortedBatchStore : public PostingStore {
 public:
  void add(uint32_t fid, uint32_t source, const std::vector<Signature>& signatures) override;
  void commit() override;

 protected:
  virtual void insert(const std::vector<Key>& fid_sig, const std::vector<Key>& sig_fid,
                      const std::vector<SourceKey>& src_fid) = 0;

 private:
  std::vector<Key> fid_sig_;
  std::vector<Key> sig_fid_;
  std::vector<SourceKey> src_fid_;
};

// Each in an empty directory, which exists. `durable` is false where no commit
// has to survive a loss of power.
std::unique_ptr<PostingStore> openTessera(const std::string& directory, bool durable);
std::unique_ptr<PostingStore> openLmdbSorted(const std::string& directory, bool durable);
std::unique_ptr<PostingStore> openLmdbArrival(const std::string& directory, bool durable);
std::unique_ptr<PostingStore> openRocksDb(const std::string& directory, bool durable);
std::unique_ptr<PostingStore> openLevelDb(const std::string& directory, bool durable);
std::unique_ptr<PostingStore> openSqlite(const std::string& directory, bool durable);

// No store at all: every posting is kept in memory and sorted when the tables are
// written. What the tables cost at least.
std::unique_ptr<PostingStore> openLimit(const std::string& directory, bool durable);

// Ends the program when a peer reports an error.
void require(bool success, const char* what);
