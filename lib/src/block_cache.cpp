#include "block_cache.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "mm_register.h"
#include "tpie_log.h"

namespace {

size_t placesFor(uint32_t blocks) {
  const size_t sets =
      (size_t{blocks} + BlockCache::kAssociativity - 1) / BlockCache::kAssociativity;
  return std::max<size_t>(sets, 1) * BlockCache::kAssociativity;
}

}  // namespace

BlockRef::BlockRef(BlockCache* cache, size_t place) : cache_(cache), place_(place) {
  ++cache_->places_[place_].pins;
}

BlockRef::~BlockRef() {
  if (cache_ != nullptr) --cache_->places_[place_].pins;
}

void BlockRef::markChanged() {
  cache_->places_[place_].changed = true;
  cache_->changed_ = true;
}

BlockCache::BlockCache(BlockCollection* collection, const BlockFormat& format, uint32_t blocks,
                       std::function<bool()> write_back)
    : collection_(collection),
      format_(format),
      write_back_(std::move(write_back)),
      places_(placesFor(blocks)) {
  const size_t bytes = places_.size() * format_.block_bytes;
  if (!MM_register_base::instance().register_allocation(bytes)) throw std::bad_alloc();
  memory_ = mallocArray<unsigned char>(bytes);
  if (!memory_) {
    MM_register_base::instance().register_deallocation(bytes);
    throw std::bad_alloc();
  }
  registered_bytes_ = bytes;
}

BlockCache::~BlockCache() { MM_register_base::instance().register_deallocation(registered_bytes_); }

BlockRef BlockCache::get(uint64_t number, uint32_t level) {
  size_t place = find(number);
  if (place == places_.size()) {
    place = makeRoom(number);
    if (place == places_.size()) return BlockRef();
    BlockHead* const block = blockAt(place);
    if (!collection_->read(number, block)) {
      TPIE_LOG("block " + std::to_string(number) + " cannot be read");
      return BlockRef();
    }
    if (!blockIsSound(format_, block, number)) {
      TPIE_LOG("block " + std::to_string(number) + " is damaged");
      found_damage_ = true;
      return BlockRef();
    }
    places_[place].number = number;
  }
  if (blockAt(place)->level != level) {
    TPIE_LOG("block " + std::to_string(number) + " is of another level");
    found_damage_ = true;
    return BlockRef();
  }
  return hold(place);
}

BlockRef BlockCache::create(uint64_t number, uint32_t level) {
  // A block that was free cannot be in use, unless the stack of free blocks lies.
  if (find(number) != places_.size()) return BlockRef();
  const size_t place = makeRoom(number);
  if (place == places_.size()) return BlockRef();
  BlockHead* const block = blockAt(place);
  *block = {};  // what follows is written over, or made zeros before it is written
  block->kind = format_.kind;
  block->number = number;
  block->level = level;
  places_[place].number = number;
  BlockRef ref = hold(place);
  ref.markChanged();
  return ref;
}

bool BlockCache::discard(uint64_t number) {
  const size_t place = find(number);
  if (place == places_.size()) return true;
  if (places_[place].pins > 0) return false;
  places_[place] = Place();
  return true;
}

std::vector<size_t> BlockCache::changedPlaces() const {
  std::vector<size_t> changed;
  for (size_t place = 0; place < places_.size(); ++place) {
    if (places_[place].changed) changed.push_back(place);
  }
  std::sort(changed.begin(), changed.end(),
            [this](size_t a, size_t b) { return places_[a].number < places_[b].number; });
  return changed;
}

bool BlockCache::saveOld() {
  std::vector<uint64_t> numbers;
  for (const size_t place : changedPlaces()) numbers.push_back(places_[place].number);
  return collection_->saveBlocks(numbers);
}

bool BlockCache::flush() {
  for (const size_t place : changedPlaces()) {
    BlockHead* const block = blockAt(place);
    sealBlock(format_, block);
    if (!collection_->write(places_[place].number, block)) {
      TPIE_LOG("block " + std::to_string(places_[place].number) + " cannot be written");
      return false;
    }
    places_[place].changed = false;
  }
  changed_ = false;
  return true;
}

void BlockCache::clear() {
  std::fill(places_.begin(), places_.end(), Place());
  changed_ = false;
}

size_t BlockCache::firstOfSet(uint64_t number) const {
  const size_t sets = places_.size() / kAssociativity;
  return number % sets * kAssociativity;
}

size_t BlockCache::find(uint64_t number) const {
  if (number == 0) return places_.size();  // marks empty places
  const size_t first = firstOfSet(number);
  for (size_t place = first; place < first + kAssociativity; ++place) {
    if (places_[place].number == number) return place;
  }
  return places_.size();
}

size_t BlockCache::makeRoom(uint64_t number) {
  const size_t first = firstOfSet(number);
  size_t oldest = places_.size();
  for (size_t place = first; place < first + kAssociativity; ++place) {
    if (places_[place].pins == 0 &&
        (oldest == places_.size() || places_[place].last_use < places_[oldest].last_use)) {
      oldest = place;
    }
  }
  if (oldest == places_.size()) return oldest;
  if (places_[oldest].changed && !write_back_()) return places_.size();
  places_[oldest] = Place();
  return oldest;
}

BlockRef BlockCache::hold(size_t place) {
  places_[place].last_use = ++uses_;
  return BlockRef(this, place);
}
