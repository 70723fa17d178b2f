#include "journalled_files.h"

#include <algorithm>
#include <new>

#include "commit_protocol.h"
#include "paths.h"
#include "tpie_log.h"

JournalledFiles::JournalledFiles(const std::string& base_name)
    : directory_(directoryOf(base_name)), journal_(base_name + kJournalSuffix) {
  begin_.block_size = platform::current().allocationGranularity();
}

JournalledFiles::~JournalledFiles() {
  // Whoever did not come to own the files must leave the owner's journal alone.
  if (writable_ && !journal_.started()) journal_.remove();
}

bool JournalledFiles::open(size_t number, const std::string& path, platform::OpenMode mode) {
  OpenFile& file = files_[number];
  file.file = platform::current().open(path.c_str(), mode);
  if (file.file) return true;
  TPIE_LOG("file " + path + " cannot be opened");
  return false;
}

bool JournalledFiles::recover(bool read_only) {
  BatchBegin begin;
  const UndoJournal::State state = journal_.open(read_only, &begin);
  if (state == UndoJournal::State::kUnreadable || (state == UndoJournal::State::kBatch && read_only)) {
    TPIE_LOG("the journal cannot be read, or has a batch that cannot be undone here");
    return poison();
  }
  if (read_only) {
    journal_.close();
  } else if (state == UndoJournal::State::kBatch) {
    if (!undo(begin)) return poison();
  } else {
    if (!journal_.clear()) return poison();
    journal_.remove();
  }
  writable_ = !read_only;
  if (!readLengths()) return poison();
  beginBatch();
  return true;
}

// The whole recovery. It may end anywhere and be done again: every step leaves
// the journal as it was until all files are restored and on disk.
bool JournalledFiles::undo(const BatchBegin& begin) {
  if (begin.block_size != begin_.block_size || !lengthsAreLikely(begin)) return false;
  try {
    const bool restored = journal_.replay(
        begin, [this](uint32_t number, uint64_t offset, const void* old, size_t bytes) {
          platform::File* const file = files_[number].file.get();
          return file->seek(offset) && file->write(old, bytes);
        });
    if (!restored) return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  for (size_t i = 0; i < kJournalledFiles; ++i) {
    platform::File* const file = files_[i].file.get();
    if (file == nullptr) continue;
    const int64_t length = file->size();
    if (length < 0 || static_cast<uint64_t>(length) < begin.lengths[i]) return false;
    if (static_cast<uint64_t>(length) > begin.lengths[i] &&
        takes(ProtocolStep::kRecoveryTruncate) && !file->truncate(begin.lengths[i])) {
      return false;
    }
    if (takes(ProtocolStep::kRecoverySync) && !file->sync()) return false;
  }
  if (!journal_.clear()) return false;
  journal_.remove();
  return platform::current().syncDirectory(directory_.c_str());
}

// What a batch makes shorter is in the journal as a whole. So no file was longer
// than it is now and than the journal is: one that says so is not ours, and must
// not make us fill the disk. Nor is one of files that are not open here.
bool JournalledFiles::lengthsAreLikely(const BatchBegin& begin) {
  const int64_t journal = journal_.size();
  for (size_t i = 0; i < kJournalledFiles; ++i) {
    const int64_t length = files_[i].file ? files_[i].file->size() : 0;
    if (length < 0 || journal < 0 || (!files_[i].file && begin.lengths[i] != 0) ||
        begin.lengths[i] > static_cast<uint64_t>(std::max(length, journal))) {
      return false;
    }
  }
  return true;
}

bool JournalledFiles::readLengths() {
  for (OpenFile& file : files_) {
    if (!file.file) continue;
    const int64_t length = file.file->size();
    if (length < 0) return false;
    file.length = static_cast<uint64_t>(length);
  }
  return true;
}

void JournalledFiles::beginBatch() {
  for (size_t i = 0; i < kJournalledFiles; ++i) {
    begin_.lengths[i] = files_[i].length;
    files_[i].changed = false;
  }
}

bool JournalledFiles::poison() {
  poisoned_ = true;
  return false;
}

bool JournalledFiles::read(size_t number, uint64_t offset, void* buffer, size_t bytes) {
  platform::File* const file = files_[number].file.get();
  return !poisoned_ && file->seek(offset) &&
         file->read(buffer, bytes) == static_cast<int64_t>(bytes);
}

bool JournalledFiles::beginJournal() { return journal_.started() || journal_.start(begin_); }

bool JournalledFiles::saveOld(size_t number, uint64_t offset, uint64_t bytes) {
  if (poisoned_ || !beginJournal()) return false;
  const uint64_t length = begin_.lengths[number];
  if (offset >= length || bytes == 0) return true;
  const uint64_t end = offset + std::min<uint64_t>(bytes, length - offset);
  for (; offset < end; offset += kLargestRecord) {
    const uint64_t piece = std::min<uint64_t>(kLargestRecord, end - offset);
    if (!journal_.append(files_[number].file.get(), static_cast<uint32_t>(number), offset,
                         static_cast<size_t>(piece))) {
      return false;
    }
  }
  return true;
}

bool JournalledFiles::barrier() {
  if (poisoned_ || !beginJournal()) return false;
  const bool is_new = journal_.isNew();
  if (!journal_.sync()) return poison();
  if (is_new && takes(ProtocolStep::kJournalDirectorySync) &&
      !platform::current().syncDirectory(directory_.c_str())) {
    return poison();
  }
  return true;
}

bool JournalledFiles::write(size_t number, uint64_t offset, const void* data, size_t bytes) {
  OpenFile& file = files_[number];
  if (poisoned_) return false;
  file.changed = true;
  if (!file.file->seek(offset) || !file.file->write(data, bytes)) return false;
  file.length = std::max(file.length, offset + bytes);
  return true;
}

bool JournalledFiles::setLength(size_t number, uint64_t length) {
  OpenFile& file = files_[number];
  if (poisoned_) return false;
  if (file.length == length) return true;
  file.changed = true;
  if (!file.file->truncate(length)) return false;
  file.length = length;
  return true;
}

bool JournalledFiles::commit() {
  if (poisoned_) return false;
  if (!journal_.started()) return true;  // nothing was changed
  if (!syncFiles() || !journal_.clear()) return poison();
  beginBatch();
  return true;
}

bool JournalledFiles::syncFiles() {
  bool created = false;
  for (size_t i = 0; i < kJournalledFiles; ++i) {
    if (!files_[i].changed) continue;
    if (takes(ProtocolStep::kDataSync) && !files_[i].file->sync()) return false;
    created = created || begin_.lengths[i] == 0;
  }
  return !created || !takes(ProtocolStep::kFilesDirectorySync) ||
         platform::current().syncDirectory(directory_.c_str());
}

bool JournalledFiles::rollback() {
  if (poisoned_) return false;
  if (journal_.started() && !undo(begin_)) return poison();
  if (!readLengths()) return poison();
  beginBatch();
  return true;
}
