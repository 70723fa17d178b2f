#include "block_collection.h"

#include <algorithm>
#include <new>

#include "crc32c.h"
#include "little_endian.h"
#include "platform.h"
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

}  // namespace

bool BlockCollection::load(JournalledFiles* files, size_t block_file, size_t stack_file,
                           uint32_t block_factor) {
  *this = BlockCollection();
  files_ = files;
  block_file_ = block_file;
  stack_file_ = stack_file;
  header_.os_block_size = platform::current().allocationGranularity();
  header_.logical_block_size = header_.os_block_size * block_factor;
  if (header_.logical_block_size == 0 || header_.logical_block_size > kMaxBlockBytes) return false;
  const bool absent = files_->length(block_file_) == 0;
  if (!absent && !readHeader()) {
    TPIE_LOG("the header of a block file is damaged or of another system");
    return false;
  }
  // Before it is written its old content goes to the journal: all of it.
  constexpr uint64_t kTolerance = uint64_t{1} << 20;
  if (files_->length(stack_file_) > header_.blocks() * sizeof(uint64_t) + kTolerance) {
    TPIE_LOG("a stack is much longer than one of so many blocks");
    return false;
  }
  if (absent) {
    fresh_ = true;
    stack_changed_ = true;  // a stack left over from a removed file is cut
    return true;
  }
  stack_damaged_ = header_.freeBlocks() > 0 && !readStack();
  if (stack_damaged_) {
    TPIE_LOG("a stack of free blocks is damaged");
    free_blocks_.clear();
  }
  reserveBatch();
  beginBatch();
  return true;
}

bool BlockCollection::readHeader() {
  BlockFileHeaderBytes bytes;
  BlockFileHeader header;
  if (!files_->read(block_file_, 0, bytes.data(), bytes.size()) ||
      !decodeBlockFileHeader(bytes, &header) || header.os_block_size != header_.os_block_size ||
      header.logical_block_size != header_.logical_block_size ||
      header.fileLength() != files_->length(block_file_)) {
    return false;
  }
  header_ = header;
  return true;
}

bool BlockCollection::readStack() {
  // The length first: the file's own count is not to be believed before the CRC.
  const uint64_t count = header_.freeBlocks();
  const uint64_t bytes = kStackHeadBytes + count * sizeof(uint64_t);
  if (files_->length(stack_file_) != bytes) return false;
  std::vector<unsigned char> content(bytes);
  if (!files_->read(stack_file_, 0, content.data(), content.size())) return false;
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

bool BlockCollection::rebuildStack(const std::vector<bool>& used) {
  free_blocks_.clear();
  for (uint64_t number = header_.blocks(); number > 0; --number) {
    if (!used[number]) free_blocks_.push_back(number);
  }
  if (free_blocks_.size() != header_.freeBlocks()) return false;
  stack_damaged_ = false;
  stack_changed_ = true;
  beginBatch();
  return true;
}

bool BlockCollection::read(uint64_t number, void* block) {
  return number != 0 && number < header_.last_block &&
         files_->read(block_file_, offsetOf(number), block, blockBytes());
}

bool BlockCollection::write(uint64_t number, const void* block) {
  return files_->write(block_file_, offsetOf(number), block, blockBytes());
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

void BlockCollection::release(uint64_t number) {
  free_blocks_.push_back(number);
  stack_changed_ = true;
  --header_.used_blocks;
}

void BlockCollection::reserveBatch() { settled_.reserve(header_.last_block); }

void BlockCollection::beginBatch() {
  settled_.assign(header_.last_block, false);
  for (const uint64_t number : free_blocks_) settled_[number] = true;
}

// Not what is new, was free at begin, or has been saved.
bool BlockCollection::isWorthSaving(uint64_t number) const {
  return number < settled_.size() && !settled_[number];
}

bool BlockCollection::saveBlocks(const std::vector<uint64_t>& numbers) {
  for (size_t i = 0; i < numbers.size();) {
    const uint64_t first = numbers[i++];
    if (!isWorthSaving(first)) continue;
    // Neighbours are saved together.
    uint64_t end = first + 1;
    for (; i < numbers.size() && numbers[i] == end && isWorthSaving(end); ++i) ++end;
    if (!files_->saveOld(block_file_, offsetOf(first), (end - first) * blockBytes())) return false;
    for (uint64_t number = first; number < end; ++number) settled_[number] = true;
  }
  return true;
}

// Of the header's block only the header itself is ever anything but zeros.
bool BlockCollection::saveStackAndHeader() {
  return (!stack_changed_ || files_->saveOld(stack_file_, 0, files_->lengthAtBegin(stack_file_))) &&
         files_->saveOld(block_file_, 0, kBlockFileHeaderBytes);
}

bool BlockCollection::extend() {
  // A block that was freed before it was ever written may be the last one.
  return files_->length(block_file_) >= header_.fileLength() ||
         files_->setLength(block_file_, header_.fileLength());
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
    if (!files_->write(stack_file_, 0, content.data(), content.size())) return false;
  }
  if (!files_->setLength(stack_file_, content.size())) return false;
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
  if (!files_->write(block_file_, 0, block.data(), block.size())) return false;
  fresh_ = false;
  return true;
}
