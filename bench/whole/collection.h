// Documents that share no passage with each other, so that each text made from
// one of them has one right answer.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct Collection {
  std::vector<std::string> indexed;    // what the methods keep: 5 to 40 KB each
  std::vector<std::string> unrelated;  // of the same kind, in no index
};

// Made from the English documentation of this system at the first call. A system
// with too little of it gives fewer documents: one in six is then unrelated.
const Collection& collection();
