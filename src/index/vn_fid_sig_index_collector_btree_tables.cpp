// Writing of the search tables: one ordered walk over the sig-fid tree fills
// both tables and both prefix directories. An index may be far larger than
// memory, so it holds one leaf, one buffer for each table and the directories.
//
// The files are rewritten in place, and a failure, a kill or a loss of power
// leaves what there is by then. No such set of files must load. A table that is
// merely cut is refused as empty, but one that grew as long as the old one would
// pass for it: so the old meta files are cut, on the disk, before the first
// element is written, and the new ones follow when both tables are on the disk.
#define LOG_TAG "fpe_sig_index"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

#include "log.h"
#include "paths.h"
#include "platform.h"
#include "scoped.h"
#include "status.h"
#include "table_format.h"
#include "vn_fid_sig_index_collector_btree.h"

namespace dlp_btree {

namespace {

using platform::OpenMode;

// Any eight bytes are a signature, so this refuses none. The walk must refuse no
// others either: what the trees hold, a search has to find.
bool isValidSignature(const Signature& signature) {
  return std::all_of(std::begin(signature.bytes), std::end(signature.bytes),
                     [](unsigned int byte) { return byte <= 255; });
}

// A table under way: elements gathered in a buffer and written when it is full.
template <typename Element>
class TableWriter {
 public:
  TableWriter(platform::File* file, Element* buffer, uint32_t capacity)
      : file_(file), buffer_(buffer), capacity_(capacity) {}

  bool append(const Element& element) {  // false when the file cannot be written
    if (buffered_ == capacity_ && !flush()) return false;
    buffer_[buffered_++] = element;
    ++count_;
    return true;
  }

  bool flush() {
    const uint32_t elements = buffered_;
    buffered_ = 0;
    return elements == 0 || file_->write(buffer_, elements * sizeof(Element));
  }

  uint32_t count() const { return count_; }  // elements appended so far
  const Element& last() const { return buffer_[buffered_ - 1]; }

 private:
  platform::File* const file_;
  Element* const buffer_;
  const uint32_t capacity_;
  uint32_t buffered_ = 0;
  uint32_t count_ = 0;
};

// Asked in two ways, since only the second knows names in another encoding than
// UTF-8. What cannot be told counts as present.
bool isAbsent(const std::string& path) {
  platform::System& system = platform::current();
  std::vector<platform::PathChar> native(path.size() + 1);
  return system.toNativePath(path.c_str(), native.data(), native.size()) &&
         system.access(native.data()) == ENOENT && !system.open(path.c_str(), OpenMode::kRead);
}

}  // namespace

int FidSigIndexCollector::CreateSearchTable(const char* sch_table_dir,
                                            const MetaData& meta_data) try {
  if (!initialised_) {
    LOG_NOTICE("Error: CreateSearchTable before init.");
    return kErrState;
  }
  if (sch_table_dir == nullptr || *sch_table_dir == '\0') {
    LOG_NOTICE("Error: invalid sch_table_dir parameter");
    return kErrParam;
  }
  const std::string directory = withSeparator(sch_table_dir);
  const int status = make_dir(directory);
  if (status != kOk) return status;
  if (!store_->valid() && !store_->rollback()) return kErrFile;
  if (sig_fid_tree_->size() == 0) {
    LOG_ERROR("index signature is empty");
    LOG_ERROR("kilo_dbg ret == VN_NO_INDEX_DATA_ERR");
    return CreateEmptySearchTable(sch_table_dir);
  }

  const std::string base_name = directory + search_table_name_;
  MallocArray<PrefixRange> weak_sig_block;
  MallocArray<PrefixRange> strong_sig_block;
  {
    const std::string weak_path = base_name + kWeakTableSuffix;
    const auto weak_file = platform::current().open(weak_path.c_str(), OpenMode::kRewrite);
    if (!weak_file) {
      LOG_ERROR("open file %s fail", weak_path.c_str());
      return kErrFile;
    }
    const std::string strong_path = base_name + kStrongTableSuffix;
    const auto strong_file = platform::current().open(strong_path.c_str(), OpenMode::kRewrite);
    if (!strong_file) {
      LOG_ERROR("open file %s fail", strong_path.c_str());
      return kErrFile;
    }
    // Both tables are empty by now, which no meta file agrees with: should this
    // fail, what is there is refused all the same.
    for (const char* const suffix : {kWeakMetaSuffix, kStrongMetaSuffix}) {
      const std::string path = base_name + suffix;
      if (isAbsent(path)) continue;
      const auto file = platform::current().open(path.c_str(), OpenMode::kRewrite);
      if (!file) {
        LOG_ERROR("open file %s fail", path.c_str());
        return kErrFile;
      }
      if (!file->sync()) {
        LOG_ERROR("write file %s fail", path.c_str());
        return kErrFile;
      }
    }
    weak_sig_block = mallocArray<PrefixRange>(kPrefixCount);
    if (!weak_sig_block) {
      LOG_ERROR("no mem for weak_sig_block");
      return kErrMem;
    }
    strong_sig_block = mallocArray<PrefixRange>(kPrefixCount);
    if (!strong_sig_block) {
      LOG_ERROR("no mem for strong_sig_block");
      return kErrMem;
    }
    const auto signature_weak = mallocArray<Signature>(batch_element_count_);
    if (!signature_weak) {
      LOG_ERROR("no mem for signature_weak");
      return kErrMem;
    }
    const auto signature_strong = mallocArray<StrongElement>(batch_element_count_);
    if (!signature_strong) {
      LOG_ERROR("no mem for signature_strong");
      return kErrMem;
    }
    std::memset(weak_sig_block.get(), 0, kPrefixDirectoryBytes);
    std::memset(strong_sig_block.get(), 0, kPrefixDirectoryBytes);

    TableWriter<Signature> weak(weak_file.get(), signature_weak.get(), batch_element_count_);
    TableWriter<StrongElement> strong(strong_file.get(), signature_strong.get(),
                                      batch_element_count_);
    uint32_t current = 0;  // prefix
    bool first = true;
    std::vector<SigFidRecord> records;
    for (uint64_t leaf = sig_fid_tree_->nextLeaf(0); leaf != 0;
         leaf = sig_fid_tree_->nextLeaf(leaf)) {
      if (!sig_fid_tree_->readLeaf(leaf, &records)) return kErrFile;
      for (size_t i = 0; i < records.size(); ++i) {
        const SigFidRecord& record = records[i];
        const uint32_t prefix = signaturePrefix(record.signature);
        if (first) {
          if (!isValidSignature(record.signature)) {
            LOG_ERROR("invalid signature (first)");
            return kErrSignature;
          }
          weak.append(record.signature);  // into the empty buffer
          current = prefix;
          first = false;
        }
        if (!isValidSignature(record.signature)) {
          LOG_ERROR("invalid signature (%u)", static_cast<uint32_t>(i % batch_element_count_));
          return kErrSignature;
        }
        if (prefix != current) {
          weak_sig_block[current].end = weak_sig_block[prefix].start = weak.count();
          strong_sig_block[current].end = strong_sig_block[prefix].start = strong.count();
          current = prefix;
        }
        if (!(record.signature == weak.last()) && !weak.append(record.signature)) {
          LOG_ERROR("write weak search table file fail");
          return kErrFile;
        }
        if (!strong.append({record.signature, record.fid, record.source})) {
          LOG_ERROR("write strong search table file fail");
          return kErrFile;
        }
      }
    }
    // A walk that an I/O error ended has not seen everything.
    if (!sig_fid_tree_->is_valid()) return kErrFile;
    weak_sig_block[current].end = weak.count();
    strong_sig_block[current].end = strong.count();
    if (!weak.flush() || !weak_file->sync()) {
      LOG_ERROR("write weak search table file fail");
      return kErrFile;
    }
    if (!strong.flush() || !strong_file->sync()) {
      LOG_ERROR("write strong search table file fail");
      return kErrFile;
    }
  }

  unsigned char meta_record[kMetaDataBytes];
  encodeMetaData(meta_data, &meta_record);
  const std::pair<const char*, const PrefixRange*> metas[] = {
      {kWeakMetaSuffix, weak_sig_block.get()}, {kStrongMetaSuffix, strong_sig_block.get()}};
  for (const auto& [suffix, prefix_directory] : metas) {
    const std::string path = base_name + suffix;
    const auto file = platform::current().open(path.c_str(), OpenMode::kRewrite);
    if (!file) {
      LOG_ERROR("open file %s fail", path.c_str());
      return kErrFile;
    }
    if (!file->write(meta_record, sizeof meta_record)) {
      LOG_ERROR("write file for meta data %s fail", path.c_str());
      return kErrFile;
    }
    if (!file->write(prefix_directory, kPrefixDirectoryBytes) || !file->sync()) {
      LOG_ERROR("write file %s fail", path.c_str());
      return kErrFile;
    }
  }
  if (!platform::current().syncDirectory(directory.c_str())) {
    LOG_ERROR("write file %s fail", directory.c_str());
    return kErrFile;
  }
  return kOk;
} catch (const std::bad_alloc&) {
  return kErrMem;
}

int FidSigIndexCollector::CreateEmptySearchTable(const char* sch_table_dir) try {
  if (!initialised_) {
    LOG_NOTICE("Error: CreateEmptySearchTable before init.");
    return kErrState;
  }
  if (sch_table_dir == nullptr || *sch_table_dir == '\0') {
    LOG_NOTICE("Error: invalid sch_table_dir parameter");
    return kErrParam;
  }
  const std::string directory = withSeparator(sch_table_dir);
  const int status = make_dir(directory);
  if (status != kOk) return status;
  for (const char* const suffix :
       {kWeakTableSuffix, kStrongTableSuffix, kWeakMetaSuffix, kStrongMetaSuffix}) {
    const std::string path = directory + search_table_name_ + suffix;
    // A cut that is undone later has not been made.
    const auto file = platform::current().open(path.c_str(), OpenMode::kRewrite);
    if (!file || !file->sync()) {
      LOG_ERROR("open file %s fail", path.c_str());
      return kErrFile;
    }
  }
  if (!platform::current().syncDirectory(directory.c_str())) {
    LOG_ERROR("open file %s fail", directory.c_str());
    return kErrFile;
  }
  return kOk;
} catch (const std::bad_alloc&) {
  return kErrMem;
}

}  // namespace dlp_btree
