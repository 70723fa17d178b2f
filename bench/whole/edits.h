// What happens to a document on its way: the texts that are asked about.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "collection.h"

struct Query {
  std::string text;
  std::optional<size_t> source;  // the indexed document it was made from; none when unrelated
};

// whole_copy, half, ... unrelated.
std::vector<std::string> queryClasses();

// `count` queries of a class, each from another document as long as there are
// enough; the same at each call.
std::vector<Query> queries(const Collection& collection, const std::string& query_class,
                           size_t count);
