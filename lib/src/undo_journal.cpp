#include "undo_journal.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include "commit_protocol.h"
#include "crc32c.h"
#include "little_endian.h"
#include "vn_win32_charset_chg.h"

namespace {

constexpr uint32_t kPageMagic = 0x4F444E55;    // "UNDO"
constexpr uint32_t kRecordMagic = 0x42444C4F;  // "OLDB"
constexpr uint32_t kVersion = 1;
constexpr size_t kPageBytes = 4096;
constexpr size_t kPageCrcOffset = 24;
constexpr size_t kPageFilesOffset = 32;
constexpr size_t kRecordHeadBytes = 32;
constexpr size_t kRecordCrcOffset = 24;

using Page = std::array<unsigned char, kPageBytes>;

uint64_t roundUp(uint64_t value, uint64_t unit) { return (value + unit - 1) / unit * unit; }

uint32_t pageCrc(Page page) {
  storeLittle32(&page[kPageCrcOffset], 0);
  return crc32c(page.data(), page.size());
}

Page encodePage(uint64_t nonce, const BatchBegin& begin) {
  Page page = {};
  storeLittle32(&page[0], kPageMagic);
  storeLittle32(&page[4], kVersion);
  storeLittle64(&page[8], nonce);
  storeLittle64(&page[16], begin.block_size);
  for (size_t i = 0; i < kJournalledFiles; ++i) {
    unsigned char* const entry = &page[kPageFilesOffset + 16 * i];
    storeLittle64(entry, begin.lengths[i] != 0 ? 1 : 0);
    storeLittle64(entry + 8, begin.lengths[i]);
  }
  storeLittle32(&page[kPageCrcOffset], pageCrc(page));
  return page;
}

// The CRC of a record whose head has zeros in the CRC's place.
uint32_t recordCrc(uint64_t nonce, const unsigned char* record, size_t bytes) {
  unsigned char nonce_bytes[8];
  storeLittle64(nonce_bytes, takes(ProtocolStep::kNonce) ? nonce : 0);
  return crc32c(record, bytes, crc32c(nonce_bytes, sizeof nonce_bytes));
}

bool readAt(platform::File* file, uint64_t offset, void* buffer, size_t bytes) {
  return file->seek(offset) && file->read(buffer, bytes) == static_cast<int64_t>(bytes);
}

bool writeAt(platform::File* file, uint64_t offset, const void* data, size_t bytes) {
  return file->seek(offset) && file->write(data, bytes);
}

}  // namespace

// The first nonce is another every second: a file system may show in a new file
// what a removed one held.
UndoJournal::UndoJournal(std::string path)
    : path_(std::move(path)), nonce_(static_cast<uint64_t>(platform::current().time()) << 32) {}

UndoJournal::State UndoJournal::open(bool read_only, BatchBegin* begin) {
  file_ = platform::current().open(
      path_.c_str(), read_only ? platform::OpenMode::kRead : platform::OpenMode::kUpdate);
  if (!file_) {
    const bool absent =
        read_only && !dlp_btree::vn_exists(path_.c_str()) && dlp_btree::vn_last_error() == ENOENT;
    return absent ? State::kIdle : State::kUnreadable;
  }
  const int64_t size = file_->size();
  if (size < 0) return State::kUnreadable;
  if (size < static_cast<int64_t>(kPageBytes)) return State::kIdle;
  Page page;
  if (!readAt(file_.get(), 0, page.data(), page.size())) return State::kUnreadable;
  if (loadLittle32(&page[0]) != kPageMagic ||
      loadLittle32(&page[kPageCrcOffset]) != pageCrc(page)) {
    return State::kIdle;
  }
  // Whole, but not to be understood: it must not be thrown away.
  if (loadLittle32(&page[4]) != kVersion) return State::kUnreadable;
  nonce_ = loadLittle64(&page[8]);
  begin->block_size = loadLittle64(&page[16]);
  for (size_t i = 0; i < kJournalledFiles; ++i) {
    begin->lengths[i] = loadLittle64(&page[kPageFilesOffset + 16 * i + 8]);
  }
  started_ = true;
  return State::kBatch;
}

bool UndoJournal::replay(const BatchBegin& begin, const Restore& restore) {
  const int64_t size = file_->size();
  if (size < 0) return false;
  uint64_t position = kPageBytes;
  const auto readRecord = [&](bool* valid) {
    *valid = false;
    if (position + kRecordHeadBytes > static_cast<uint64_t>(size)) return true;
    record_.resize(std::max(record_.size(), kRecordHeadBytes));
    if (!readAt(file_.get(), position, record_.data(), kRecordHeadBytes)) return false;
    const uint32_t file = loadLittle32(&record_[4]);
    const uint64_t offset = loadLittle64(&record_[8]);
    const uint64_t length = loadLittle64(&record_[16]);
    const uint32_t crc = loadLittle32(&record_[kRecordCrcOffset]);
    // Old bytes lie below the length at begin, and all of them are in the file.
    if (loadLittle32(&record_[0]) != kRecordMagic || file >= kJournalledFiles ||
        length > kLargestRecord || offset > begin.lengths[file] ||
        length > begin.lengths[file] - offset ||
        length > static_cast<uint64_t>(size) - position - kRecordHeadBytes) {
      return true;
    }
    record_.resize(std::max<size_t>(record_.size(), kRecordHeadBytes + length));
    if (!readAt(file_.get(), position + kRecordHeadBytes, &record_[kRecordHeadBytes], length)) {
      return false;
    }
    storeLittle32(&record_[kRecordCrcOffset], 0);
    if (crc != recordCrc(nonce_, record_.data(), kRecordHeadBytes + length)) return true;
    *valid = true;
    position += roundUp(kRecordHeadBytes + length, 8);
    return restore(file, offset, &record_[kRecordHeadBytes], length);
  };
  for (;;) {
    bool valid;
    if (!readRecord(&valid)) return false;
    if (valid) continue;
    const uint64_t next_page = roundUp(position, kPageBytes);
    if (next_page == position) return true;
    position = next_page;  // a sync may have ended the page before
    if (!readRecord(&valid)) return false;
    if (!valid) return true;
  }
}

bool UndoJournal::start(const BatchBegin& begin) {
  if (!file_) {
    std::unique_ptr<platform::File> file =
        platform::current().open(path_.c_str(), platform::OpenMode::kUpdate);
    if (!file || !makeEmpty(file.get())) return false;
    file_ = std::move(file);
    new_ = true;
  }
  const Page page = encodePage(++nonce_, begin);
  started_ = true;  // from here on the file may tell of a batch
  unsynced_ = true;
  end_ = kPageBytes;
  return writeAt(file_.get(), 0, page.data(), page.size());
}

// A journal that could not be removed holds records of an earlier opening, whose
// nonces come again. They must be gone before a page 0 can bring them back.
bool UndoJournal::makeEmpty(platform::File* file) {
  const int64_t size = file->size();
  if (size <= 0 || doubtful_) return size == 0 && !doubtful_;
  if (!file->truncate(0)) return false;
  doubtful_ = !file->sync();
  return !doubtful_;
}

bool UndoJournal::append(platform::File* source, uint32_t file, uint64_t offset, size_t bytes) {
  const size_t padded = roundUp(kRecordHeadBytes + bytes, 8);
  record_.resize(padded);
  std::fill_n(record_.begin(), kRecordHeadBytes, 0);
  std::fill(record_.begin() + static_cast<std::ptrdiff_t>(kRecordHeadBytes + bytes), record_.end(),
            0);
  storeLittle32(&record_[0], kRecordMagic);
  storeLittle32(&record_[4], file);
  storeLittle64(&record_[8], offset);
  storeLittle64(&record_[16], bytes);
  if (!readAt(source, offset, &record_[kRecordHeadBytes], bytes)) return false;
  storeLittle32(&record_[kRecordCrcOffset],
                recordCrc(nonce_, record_.data(), kRecordHeadBytes + bytes));
  unsynced_ = true;
  if (!writeAt(file_.get(), end_, record_.data(), record_.size())) return false;
  end_ += padded;
  return true;
}

bool UndoJournal::sync() {
  if (!unsynced_) return true;
  if (takes(ProtocolStep::kJournalSync) && !file_->sync()) return false;
  unsynced_ = false;
  new_ = false;
  end_ = roundUp(end_, kPageBytes);
  return true;
}

bool UndoJournal::clear() {
  constexpr Page kZeros = {};
  const int64_t size = file_->size();
  if (size < 0) return false;
  // Less than a page tells of nothing, and on a full disk the rest of one may find
  // no room.
  const bool cleared = size < static_cast<int64_t>(kPageBytes)
                           ? size == 0 || file_->truncate(0)
                           : writeAt(file_.get(), 0, kZeros.data(), kZeros.size());
  if (!cleared) return false;
  if (size > 0 && takes(ProtocolStep::kCommitPointSync) && !file_->sync()) return false;
  started_ = false;
  return true;
}

void UndoJournal::remove() {
  file_.reset();
  started_ = false;
  platform::current().remove(path_.c_str());
}
