// The files of a store, changed in batches that happen whole or not at all.
//
// All reading and writing of the files passes through here. A batch begins by
// itself after an opening, a commit or a rollback, and changes files in three
// steps, as often as it needs to:
//
//   saveOld()   what will be overwritten goes to the journal
//   barrier()   what was saved is on disk
//   write(), setLength()   the files are changed in place
//
// commit() then syncs every changed file and empties the journal: that is the
// moment from which the batch has happened. rollback() undoes it on the open
// files; recover() does the same at the next opening for what a crash left.
//
// A sync that failed may have lost data that a second one would not miss. So
// after it, and after a failed rollback, the files are poisoned: every
// operation fails, and the journal stays for the next opening.
//
// Tests: tests/unit/store/tree_store_test.cpp, tests/fault/.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform.h"
#include "undo_journal.h"

class JournalledFiles {
 public:
  // The journal is base_name + kJournalSuffix, in the directory of the files.
  explicit JournalledFiles(const std::string& base_name);
  ~JournalledFiles();  // closes the files and removes the journal, unless it tells of a batch
  JournalledFiles(const JournalledFiles&) = delete;
  JournalledFiles& operator=(const JournalledFiles&) = delete;

  // Gives the file the number `number`, below kJournalledFiles. False when it
  // cannot be opened.
  bool open(size_t number, const std::string& path, platform::OpenMode mode);

  // After all files were opened and before any is read: undoes what a crash
  // left behind. Open for reading only, it fails instead when there is any.
  bool recover(bool read_only);

  uint64_t length(size_t number) const { return files_[number].length; }  // bytes
  uint64_t lengthAtBegin(size_t number) const { return begin_.lengths[number]; }
  bool read(size_t number, uint64_t offset, void* buffer, size_t bytes);

  // Saves what these bytes were at the begin of the batch; the part past the
  // length at begin was nothing. Not after they were written. Throws
  // std::bad_alloc.
  bool saveOld(size_t number, uint64_t offset, uint64_t bytes);
  bool barrier();
  bool write(size_t number, uint64_t offset, const void* data, size_t bytes);
  bool setLength(size_t number, uint64_t length);

  bool commit();
  bool rollback();

 private:
  struct OpenFile {
    std::unique_ptr<platform::File> file;
    uint64_t length = 0;
    bool changed = false;  // since the begin of the batch
  };

  bool beginJournal();
  bool undo(const BatchBegin& begin);
  bool lengthsAreLikely(const BatchBegin& begin);
  bool readLengths();
  void beginBatch();
  bool syncFiles();
  bool poison();

  const std::string directory_;
  UndoJournal journal_;
  OpenFile files_[kJournalledFiles];
  BatchBegin begin_;
  bool writable_ = false;  // recovered, and ours to write
  bool poisoned_ = false;
};
