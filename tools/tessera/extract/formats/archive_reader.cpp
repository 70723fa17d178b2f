#include "extract/formats/archive_reader.h"

#include <archive_entry.h>

#include <algorithm>
#include <array>
#include <new>

#include "extract/formats/zip_layout.h"

namespace tool {

namespace {

constexpr size_t kChunk = 64 << 10;

archive* checked(archive* reader) {
  if (!reader) throw std::bad_alloc();
  return reader;
}

void support(archive* reader, ArchiveReader::Kind kind) {
  switch (kind) {
    case ArchiveReader::Kind::kZip:
      archive_read_support_format_zip(reader);
      return;
    case ArchiveReader::Kind::kSevenZip:
      archive_read_support_format_7zip(reader);
      return;
    case ArchiveReader::Kind::kTarOrCompressed:
      archive_read_support_format_tar(reader);
      // What stands behind the end of a tar may be another one.
      archive_read_set_format_option(reader, "tar", "read_concatenated_archives", "1");
      [[fallthrough]];
    case ArchiveReader::Kind::kCompressed:
      archive_read_support_filter_gzip(reader);
      archive_read_support_filter_bzip2(reader);
      archive_read_support_filter_xz(reader);
      archive_read_support_filter_lzma(reader);
      archive_read_support_filter_lzip(reader);
      archive_read_support_filter_compress(reader);
      archive_read_support_filter_zstd(reader);
      archive_read_support_format_raw(reader);
      archive_read_support_format_empty(reader);
      return;
  }
}

}  // namespace

ArchiveReader::ArchiveReader(std::string_view content, Kind kind)
    : content_(content), archive_(checked(archive_read_new())) {
  support(archive_.get(), kind);
  if (kind == Kind::kZip) {
    // Up to the end that everybody else here sees, and not only near the end of the file.
    if (const auto layout = zipLayout(content)) content = layout->archive;
  }
  // "data": a NULL is no archive at all, an empty view may have one.
  if (archive_read_open_memory(archive_.get(), content.empty() ? "" : content.data(),
                               content.size()) != ARCHIVE_OK) {
    fail(Reason::kDamaged);
  }
}

bool ArchiveReader::next() {
  if (broken_) fail(Reason::kDamaged);
  int result;
  do {
    result = archive_read_next_header(archive_.get(), &entry_);
  } while (result == ARCHIVE_RETRY);
  if (result == ARCHIVE_EOF) return false;
  if (result < ARCHIVE_WARN) {
    const bool encrypted = archive_read_has_encrypted_entries(archive_.get()) > 0;
    fail(encrypted ? Reason::kEncrypted : Reason::kDamaged);
  }
  entry_start_ = static_cast<uint64_t>(archive_filter_bytes(archive_.get(), -1));
  return true;
}

std::string ArchiveReader::name() const {
  // Names kept in UTF-16 cannot be had in every locale, names that are no UTF-8 only raw.
  const char* name = archive_entry_pathname_utf8(entry_);
  if (!name) name = archive_entry_pathname(entry_);
  return name ? name : "";
}

bool ArchiveReader::regularFile() const {
  return archive_entry_filetype(entry_) == AE_IFREG && !archive_entry_hardlink(entry_);
}

bool ArchiveReader::hidesContent() const {
  return !regularFile() && archive_entry_filetype(entry_) != AE_IFLNK &&
         archive_entry_size(entry_) > 0;
}

bool ArchiveReader::singleFile() const {
  return archive_format(archive_.get()) == ARCHIVE_FORMAT_RAW;
}

std::string_view ArchiveReader::rest() const {
  const auto read = static_cast<uint64_t>(archive_filter_bytes(archive_.get(), -1));
  return content_.substr(std::min<uint64_t>(read, content_.size()));
}

int ArchiveReader::compressions() const { return archive_filter_count(archive_.get()) - 1; }

std::string ArchiveReader::read(const Document& document) {
  if (archive_entry_is_encrypted(entry_)) throw NotInspected(Reason::kEncrypted, "");
  if (archive_entry_size_is_set(entry_)) {
    // A claim that does not even fit is too large, too.
    document.expectMember(static_cast<uint64_t>(archive_entry_size(entry_)), 0);
  }
  std::string content;
  std::array<char, kChunk> chunk;
  while (true) {
    const la_ssize_t got = archive_read_data(archive_.get(), chunk.data(), chunk.size());
    if (got == ARCHIVE_RETRY) continue;
    if (got < 0) {
      noteFailure(got);
      fail(Reason::kDamaged);
    }
    if (got == 0) return content;
    document.expectMember(content.size() + static_cast<size_t>(got), consumed());
    content.append(chunk.data(), static_cast<size_t>(got));
  }
}

std::string ArchiveReader::readBeginning(size_t bytes) {
  std::string content(bytes, '\0');
  const la_ssize_t got = archive_read_data(archive_.get(), content.data(), bytes);
  if (got < 0) {
    noteFailure(got);
    fail(Reason::kDamaged);
  }
  content.resize(static_cast<size_t>(got));
  return content;
}

void ArchiveReader::skip(const Document& document) {
  const int format = archive_format(archive_.get()) & ARCHIVE_FORMAT_BASE_MASK;
  if (format == ARCHIVE_FORMAT_ZIP) return;  // next() goes straight to the next entry
  if (broken_) return;
  uint64_t expanded = 0;
  const void* block;
  size_t size;
  la_int64_t offset;
  int result;
  while ((result = archive_read_data_block(archive_.get(), &block, &size, &offset)) >=
         ARCHIVE_WARN) {
    // The end of a sparse file lies anywhere: only what is there counts.
    if (size == 0) return;
    expanded += size;
    if (beyondRatio(document.limits(), expanded, consumed())) {
      throw NotInspected(Reason::kRatioLimit, "what follows cannot be reached within the limits");
    }
    document.checkTime();
  }
  noteFailure(result);
}

// The entries of a 7z are compressed together, and libarchive would ask libbz2 for more
// after an error, which overwrites its stack then. Warnings are wrong checksums, and what
// is encrypted is not expanded at all.
void ArchiveReader::noteFailure(la_ssize_t result) {
  const int format = archive_format(archive_.get()) & ARCHIVE_FORMAT_BASE_MASK;
  broken_ =
      format == ARCHIVE_FORMAT_7ZIP && result < ARCHIVE_WARN && !archive_entry_is_encrypted(entry_);
}

uint64_t ArchiveReader::consumed() const {
  const auto position = static_cast<uint64_t>(archive_filter_bytes(archive_.get(), -1));
  // Never 0, which would say that it is unknown: many bytes from none are a bomb.
  return position > entry_start_ ? position - entry_start_ : 1;
}

void ArchiveReader::fail(Reason reason) const {
  if (archive_errno(archive_.get()) == ENOMEM) reason = Reason::kMemoryLimit;
  const char* message = archive_error_string(archive_.get());
  throw NotInspected(reason, message ? message : "");
}

}  // namespace tool
