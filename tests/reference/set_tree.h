// The B-tree's slow, obvious twin: a std::set that lives in memory.
#pragma once

#include <cstddef>
#include <set>
#include <vector>

template <typename Record, typename Less>
class SetTree {
 public:
  bool insert(const Record& record) { return records_.insert(record).second; }
  bool erase(const Record& record) { return records_.erase(record) == 1; }

  std::vector<bool> insertBatch(const std::vector<Record>& records) {
    std::vector<bool> refused;
    for (const Record& record : records) refused.push_back(!insert(record));
    return refused;
  }
  std::vector<bool> eraseBatch(const std::vector<Record>& records) {
    std::vector<bool> refused;
    for (const Record& record : records) refused.push_back(!erase(record));
    return refused;
  }

  // The run of records with same(record, probe), from the first one that is not
  // less than the probe.
  template <typename Same>
  std::vector<Record> query(const Record& probe, Same same) const {
    std::vector<Record> run;
    for (auto it = records_.lower_bound(probe); it != records_.end(); ++it) {
      if (same(*it, probe)) {
        run.push_back(*it);
      } else if (!run.empty()) {
        break;
      }
    }
    return run;
  }

  size_t size() const { return records_.size(); }
  std::vector<Record> records() const { return {records_.begin(), records_.end()}; }

 private:
  std::set<Record, Less> records_;
};
