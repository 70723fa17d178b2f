#include "index_model.h"

#include <algorithm>
#include <cstring>
#include <tuple>

namespace {

template <typename Integer>
std::string littleEndian(Integer value) {
  std::string bytes;
  for (size_t i = 0; i < sizeof value; ++i) {
    bytes += static_cast<char>(static_cast<uint64_t>(value) >> (8 * i) & 0xff);
  }
  return bytes;
}

std::string text(const Signature& signature) {
  return std::string(reinterpret_cast<const char*>(signature.bytes), sizeof signature.bytes);
}

// The meta file of a table that holds `signatures`, ascending, repeats included.
std::string metaFile(int64_t base, uint32_t level, const Signatures& signatures) {
  std::vector<std::pair<uint32_t, uint32_t>> ranges(65536);
  for (uint32_t i = 0; i < signatures.size(); ++i) {
    auto& range = ranges[signatures[i].bytes[0] * 256u + signatures[i].bytes[1]];
    if (range.second == 0) range.first = i;
    range.second = i + 1;
  }
  std::string file = metaData(base, level);
  for (const auto& [start, end] : ranges) file += littleEndian(start) + littleEndian(end);
  return file;
}

// False when the file ID is too far from the base. Exact for any two numbers.
bool fidOf(int64_t file_id, int64_t base, int32_t* fid) {
  const uint64_t above = static_cast<uint64_t>(file_id) - static_cast<uint64_t>(base);
  const uint64_t distance = file_id > base ? above : 0 - above;
  if (distance >= uint64_t{1} << 31) return false;
  *fid = static_cast<int32_t>(static_cast<uint32_t>(above));
  return true;
}

}  // namespace

bool operator<(const Element& left, const Element& right) {
  const int order = std::memcmp(left.signature.bytes, right.signature.bytes, 8);
  if (order != 0) return order < 0;
  return std::tie(left.fid, left.source) < std::tie(right.fid, right.source);
}

std::string metaData(int64_t base, uint32_t level) {
  return littleEndian(base) + littleEndian(level);
}

TableFiles searchTables(int64_t base, uint32_t level, const std::set<Element>& elements) {
  TableFiles files;
  Signatures weak, strong;
  for (const Element& element : elements) {
    if (strong.empty() || !(strong.back() == element.signature)) {
      weak.push_back(element.signature);
      files[".wtbl"] += text(element.signature);
    }
    strong.push_back(element.signature);
    files[".stbl"] +=
        text(element.signature) + littleEndian(element.fid) + littleEndian(element.source);
  }
  files[".wmeta"] = metaFile(base, level, weak);
  files[".smeta"] = metaFile(base, level, strong);
  return files;
}

bool operator==(const Match& left, const Match& right) {
  return left.file_id == right.file_id && left.level == right.level;
}

std::ostream& operator<<(std::ostream& out, const Match& match) {
  return out << "file " << match.file_id << " level " << match.level;
}

Matches rank(int64_t base, const std::set<Element>& elements, const Signatures& query, int fsz) {
  struct Candidate {
    int32_t source;
    uint32_t hits;
    int32_t fid;
  };
  std::map<int32_t, Candidate> candidates;
  for (const Signature& wanted : query) {
    for (auto element = elements.lower_bound({wanted, INT32_MIN, INT32_MIN});
         element != elements.end() && element->signature == wanted; ++element) {
      auto& candidate =
          candidates.try_emplace(element->fid, Candidate{element->source, 0, element->fid})
              .first->second;
      candidate.source = std::min(candidate.source, element->source);
      ++candidate.hits;
    }
  }
  std::vector<Candidate> ordered;
  for (const auto& [fid, candidate] : candidates) ordered.push_back(candidate);
  std::sort(ordered.begin(), ordered.end(), [](const Candidate& left, const Candidate& right) {
    return std::tie(left.source, right.hits, left.fid) <
           std::tie(right.source, left.hits, right.fid);
  });

  const uint32_t wanted = static_cast<uint32_t>(query.size());
  Matches matches;
  std::map<int32_t, int> kept;
  for (const Candidate& candidate : ordered) {
    if (++kept[candidate.source] > 5) continue;
    int level = 0;
    if (fsz == 0 || candidate.hits * 10 >= wanted || candidate.hits >= 9) {
      level = 2;
    } else if (candidate.hits * 20 >= wanted || candidate.hits >= 3) {
      level = 1;
    }
    matches.push_back({base + candidate.fid, level});
  }
  return matches;
}

int IndexModel::open() {
  if (opened_) return 1;
  opened_ = true;
  if (queue(-1, {documents::signature({255, 255, 255, 255, 255, 255, 255, 255})}) == 0) return 0;
  opened_ = false;
  return 1;
}

int IndexModel::add(int64_t file_id, const Signatures& signatures) {
  return file_id == -1 ? 1 : queue(file_id, signatures);
}

int IndexModel::queue(int64_t file_id, const Signatures& signatures) {
  int32_t fid;
  if (!opened_ || !fidOf(file_id, base_, &fid) || signatures.empty()) return 1;
  if (pending_.size() == capacity_) save();
  const auto source = static_cast<int32_t>(static_cast<uint32_t>(file_id));
  return pending_.try_emplace(fid, Document{source, signatures}).second ? 0 : 2;
}

int IndexModel::erase(const std::vector<int64_t>& file_ids) {
  if (!opened_) return 1;
  for (const int64_t file_id : file_ids) {
    int32_t fid;
    if (!fidOf(file_id, base_, &fid)) return 1;
    std::erase_if(saved_, [&](const Element& element) { return element.fid == fid; });
  }
  return 0;
}

int IndexModel::close() {
  if (!opened_) return 1;
  save();
  opened_ = false;
  return 0;
}

void IndexModel::save() {
  for (const auto& [fid, document] : pending_) {
    for (const Signature& signature : document.signatures) {
      saved_.insert({signature, fid, document.source});
    }
  }
  pending_.clear();
}
