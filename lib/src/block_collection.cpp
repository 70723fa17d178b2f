#include "block_collection.h"

#include <algorithm>
#include <new>

#include "crc32c.h"
#include "little_endian.h"
#include "tpie_log.h"

namespace {

constexpr uint32_t kStackMagic = 0x4B415453;  // "STAK"
constexpr size_t kStackCrcOffset = 4;
constexpr size_t kStackHeadBytes = 16;

constexpr uint64_t kMaxBlockBytes = uint64_t{1} << 30;

uint32_t stackCrc(std::vector<unsigned char>* bytes) {
  storeLittle32(&(*bytes)[kStackCrcOffset], 0);
  return crc32c(bytes->data(), bytes->size());
}

bool readAt(platform::File* file, uint64_t offset, void* buffer, size_t bytes) {
  return file->seek(offset) && file->read(buffer, bytes) == static_cast<int64_t>(bytes);
}

}  // namespace

bool BlockCollection::open(const std::string& name, platform::OpenMode block_mode,
                           uint32_t block_factor) {
  platform::System& system = platform::current();
  const bool read_only = block_mode == platform::OpenMode::kRead;
  header_.os_block_size = system.allocationGranularity();
  header_.logical_block_size = header_.os_block_size * block_factor;
  if (header_.logical_block_size == 0 || header_.logical_block_size > kMaxBlockBytes) return false;
  block_file_ = system.open((name + ".blk").c_str(), block_mode);
  if (!block_file_) {
    TPIE_LOG("block file of " + name + " cannot be opened");
    return false;
  }
  stack_file_ = system.open((name + ".stk").c_str(),
                            read_only ? platform::OpenMode::kRead : platform::OpenMode::kUpdate);
  if (!stack_file_) {
    TPIE_LOG("free-block stack of " + name + " cannot be opened");
    return false;
  }
  const int64_t length = block_file_->size();
  if (length < 0 || (length == 0 && read_only)) return false;
  file_length_ = static_cast<uint64_t>(length);
  if (length == 0) {
    fresh_ = true;
    stack_changed_ = true;  // a stack left over from a removed file is cut
    return true;
  }
  if (!readHeader()) {
    TPIE_LOG("header of " + name + " is damaged or of another system");
    return false;
  }
  if (header_.freeBlocks() > 0 && !readStack()) {
    TPIE_LOG("free-block stack of " + name + " is damaged");
    return false;
  }
  return true;
}

bool BlockCollection::readHeader() {
  BlockFileHeaderBytes bytes;
  BlockFileHeader header;
  if (!readAt(block_file_.get(), 0, bytes.data(), bytes.size()) ||
      !decodeBlockFileHeader(bytes, &header) || header.os_block_size != header_.os_block_size ||
      header.logical_block_size != header_.logical_block_size ||
      header.fileLength() != file_length_) {
    return false;
  }
  header_ = header;
  return true;
}

bool BlockCollection::readStack() {
  // The length first: the file's own count is not to be believed before the CRC.
  const uint64_t count = header_.freeBlocks();
  const uint64_t bytes = kStackHeadBytes + count * sizeof(uint64_t);
  if (stack_file_->size() != static_cast<int64_t>(bytes)) return false;
  std::vector<unsigned char> content(bytes);
  if (!readAt(stack_file_.get(), 0, content.data(), content.size())) return false;
  const uint32_t crc = loadLittle32(&content[kStackCrcOffset]);
  if (loadLittle32(&content[0]) != kStackMagic || loadLittle64(&content[8]) != count ||
      crc != stackCrc(&content)) {
    return false;
  }
  free_blocks_.resize(count);
  for (size_t i = 0; i < count; ++i) {
    free_blocks_[i] = loadLittle64(&content[kStackHeadBytes + i * sizeof(uint64_t)]);
  }
  std::vector<uint64_t> sorted = free_blocks_;
  std::sort(sorted.begin(), sorted.end());
  return sorted.front() >= 1 && sorted.back() < header_.last_block &&
         std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
}

bool BlockCollection::read(uint64_t number, void* block) {
  if (number == 0 || number >= header_.last_block) return false;
  const uint64_t offset = header_.os_block_size + (number - 1) * header_.logical_block_size;
  return readAt(block_file_.get(), offset, block, blockBytes());
}

bool BlockCollection::write(uint64_t number, const void* block) {
  const uint64_t offset = header_.os_block_size + (number - 1) * header_.logical_block_size;
  return overwrite(block_file_.get(), offset, block, blockBytes());
}

uint64_t BlockCollection::allocate() {
  uint64_t number = 0;
  if (!free_blocks_.empty()) {
    number = free_blocks_.back();
    free_blocks_.pop_back();
    stack_changed_ = true;
  } else {
    number = header_.last_block++;
    header_.total_blocks = header_.last_block;
  }
  ++header_.used_blocks;
  return number;
}

bool BlockCollection::release(uint64_t number) {
  try {
    free_blocks_.push_back(number);
  } catch (const std::bad_alloc&) {
    return false;
  }
  stack_changed_ = true;
  --header_.used_blocks;
  return true;
}

bool BlockCollection::extend() {
  // A block that was freed before it was ever written may be the last one.
  return file_length_ >= header_.fileLength() || setLength(block_file_.get(), header_.fileLength());
}

bool BlockCollection::writeStack() {
  if (!stack_changed_) return true;
  std::vector<unsigned char> content;
  if (!free_blocks_.empty()) {
    content.resize(kStackHeadBytes + free_blocks_.size() * sizeof(uint64_t));
    storeLittle32(&content[0], kStackMagic);
    storeLittle64(&content[8], free_blocks_.size());
    for (size_t i = 0; i < free_blocks_.size(); ++i) {
      storeLittle64(&content[kStackHeadBytes + i * sizeof(uint64_t)], free_blocks_[i]);
    }
    storeLittle32(&content[kStackCrcOffset], stackCrc(&content));
    if (!overwrite(stack_file_.get(), 0, content.data(), content.size())) return false;
  }
  if (!setLength(stack_file_.get(), content.size())) return false;
  stack_changed_ = false;
  return true;
}

bool BlockCollection::writeHeader(uint64_t root, uint64_t height, uint64_t records,
                                  uint64_t transaction) {
  header_.root = root;
  header_.height = height;
  header_.records = records;
  header_.transaction = transaction;
  const BlockFileHeaderBytes bytes = encodeBlockFileHeader(header_);
  std::vector<unsigned char> block(header_.os_block_size);
  std::copy(bytes.begin(), bytes.end(), block.begin());
  if (!overwrite(block_file_.get(), 0, block.data(), block.size())) return false;
  fresh_ = false;
  return true;
}

// Whatever changes a file of the collection passes through the next two
// functions: here the old bytes, or the old length, can be saved beforehand.

bool BlockCollection::overwrite(platform::File* file, uint64_t offset, const void* data,
                                size_t bytes) {
  if (!file->seek(offset) || !file->write(data, bytes)) return false;
  if (file == block_file_.get()) file_length_ = std::max(file_length_, offset + bytes);
  return true;
}

bool BlockCollection::setLength(platform::File* file, uint64_t length) {
  if (!file->truncate(length)) return false;
  if (file == block_file_.get()) file_length_ = length;
  return true;
}
