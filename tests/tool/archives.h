// Makes archives in memory, for the tests of those that open them.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace archives {

struct Entry {
  std::string name;
  std::string content;
  unsigned type = AE_IFREG;
};

// Throughout: `format` and `filter` as libarchive has them, options as
// archive_write_set_options() takes them.
inline std::string make(int format, int filter, const std::vector<Entry>& entries,
                        const char* options = nullptr) {
  std::string bytes;
  const auto append = [](archive*, void* target, const void* block, size_t length) {
    static_cast<std::string*>(target)->append(static_cast<const char*>(block), length);
    return static_cast<la_ssize_t>(length);
  };
  archive* const writer = archive_write_new();
  EXPECT_EQ(ARCHIVE_OK, archive_write_set_format(writer, format));
  EXPECT_EQ(ARCHIVE_OK, archive_write_add_filter(writer, filter));
  EXPECT_EQ(ARCHIVE_OK, archive_write_set_options(writer, options ? options : ""));
  archive_write_set_passphrase(writer, "secret");
  archive_write_set_bytes_in_last_block(writer, 1);
  EXPECT_EQ(ARCHIVE_OK, archive_write_open(writer, &bytes, nullptr, append, nullptr));
  archive_entry* const header = archive_entry_new();
  for (const Entry& entry : entries) {
    archive_entry_clear(header);
    archive_entry_set_pathname(header, entry.name.c_str());
    archive_entry_set_filetype(header, entry.type);
    archive_entry_set_perm(header, 0644);
    if (entry.type == AE_IFREG) {
      archive_entry_set_size(header, static_cast<la_int64_t>(entry.content.size()));
    } else if (entry.type == AE_IFLNK) {
      archive_entry_set_symlink(header, entry.content.c_str());
    }
    EXPECT_LE(ARCHIVE_WARN, archive_write_header(writer, header)) << archive_error_string(writer);
    if (entry.type == AE_IFREG) {
      archive_write_data(writer, entry.content.data(), entry.content.size());
    }
  }
  archive_entry_free(header);
  EXPECT_EQ(ARCHIVE_OK, archive_write_close(writer));
  archive_write_free(writer);
  return bytes;
}

inline std::string zip(const std::vector<Entry>& entries, const char* options = nullptr) {
  return make(ARCHIVE_FORMAT_ZIP, ARCHIVE_FILTER_NONE, entries, options);
}

inline std::string tar(const std::vector<Entry>& entries, int filter = ARCHIVE_FILTER_NONE) {
  return make(ARCHIVE_FORMAT_TAR_PAX_RESTRICTED, filter, entries);
}

inline std::string compressed(const std::string& content, int filter) {
  return make(ARCHIVE_FORMAT_RAW, filter, {{"data", content}});
}

inline std::string gzip(const std::string& content) {
  return compressed(content, ARCHIVE_FILTER_GZIP);
}

}  // namespace archives
