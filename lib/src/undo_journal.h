// The undo journal: the old contents of what a batch overwrites.
//
//   0        4096                                         n * 4096
//   +--------+----------+----------+-----------------------+----------+----
//   | page 0 | record 0 | record 1 | what was there before | record 2 | ...
//   +--------+----------+----------+-----------------------+----------+----
//                                  ^ a sync: the next record begins a new page
//
// Page 0 tells of a batch under way; 4096 bytes, integers little-endian:
//
//   0       4         8       16           24        28      32                     224
//   +-------+---------+-------+------------+---------+-------+----------------------+-------+
//   | magic | version | nonce | block size | CRC-32C | zero  | 12 files, each       | zeros |
//   | u32   | u32 1   | u64   | u64        | u32     | u32   | present u64, length  |       |
//   +-------+---------+-------+------------+---------+-------+ at begin u64         +-------+
//                                                            +----------------------+
//
// The CRC covers the page, its own four bytes as zeros. A page of zeros, or one
// that fails its CRC, means that no batch is under way.
//
// A record begins on a multiple of 8:
//
//   0       4      8        16       24        28     32
//   +-------+------+--------+--------+---------+------+---------------------+
//   | magic | file | offset | length | CRC-32C | zero | `length` old bytes, |
//   | u32   | u32  | u64    | u64    | u32     | u32  | zeros up to 8       |
//   +-------+------+--------+--------+---------+------+---------------------+
//
// Its CRC covers the batch's nonce, the head with its own four bytes as zeros,
// and the old bytes. So what an earlier batch left in the file is no record of
// this one. Records are read up to the first that is none; by the order of the
// syncs, whatever was overwritten is in front of it.
//
// Every member that returns bool reports the failure of a file by false.
// Tests: tests/unit/store/undo_journal_test.cpp.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform.h"

inline constexpr size_t kJournalledFiles = 12;
inline constexpr char kJournalSuffix[] = ".jnl";
inline constexpr uint64_t kLargestRecord = uint64_t{1} << 20;  // old bytes; no longer one is read

// How the files stood when the batch began.
struct BatchBegin {
  uint64_t block_size = 0;                            // bytes; of the operating system
  std::array<uint64_t, kJournalledFiles> lengths = {};  // 0 for an absent file
};

class UndoJournal {
 public:
  enum class State { kIdle, kBatch, kUnreadable };
  using Restore = std::function<bool(uint32_t file, uint64_t offset, const void* old, size_t bytes)>;

  explicit UndoJournal(std::string path);

  // Opens the file, for writing creating it, and reads page 0. The batch found
  // there is stored in *begin. kUnreadable also for another version.
  State open(bool read_only, BatchBegin* begin);
  // Calls restore() for the records of the batch that open() or start() set.
  bool replay(const BatchBegin& begin, const Restore& restore);

  // Begins a batch: page 0 is written, records can follow. Creates the file
  // when there is none; isNew() tells so until the next sync().
  bool start(const BatchBegin& begin);
  bool started() const { return started_; }
  bool isNew() const { return new_; }
  int64_t size() { return file_->size(); }  // bytes; -1 on an error. Not without a file

  // Appends the `bytes` bytes, at most kLargestRecord, that `source` holds at
  // `offset`. Throws std::bad_alloc for more than the largest record before.
  bool append(platform::File* source, uint32_t file, uint64_t offset, size_t bytes);
  // Page 0 and the records so far reach the disk. Without a new record nothing
  // is done.
  bool sync();

  // The batch is over once page 0 is zeros on disk. Also for a journal that is
  // idle: what reads as zeros may be what a sync that failed did not take there.
  bool clear();
  // Closes and removes the file. A failure leaves an idle journal, which does
  // no harm.
  void remove();
  void close() { file_.reset(); }

 private:
  bool makeEmpty(platform::File* file);

  const std::string path_;
  std::unique_ptr<platform::File> file_;
  uint64_t nonce_ = 0;
  uint64_t end_ = 0;  // where the next record goes
  bool started_ = false;
  bool unsynced_ = false;
  bool new_ = false;
  bool doubtful_ = false;  // the sync failed that was to rid the file of old records
  std::vector<unsigned char> record_;
};
