#include "store/frequent_signatures.h"

#include <algorithm>

namespace tool {

namespace {

constexpr uint64_t kSignaturesAtOnce = uint64_t{32} << 20;  // 256 MiB

// Of all documents, those whose first byte is in [first, end); sorted, one for each
// document that holds it.
SignatureList collect(const Catalogue& catalogue, unsigned first, unsigned end) {
  SignatureList all;
  catalogue.eachList([&](int64_t, const SignatureList& list) {
    std::copy_if(
        list.begin(), list.end(), std::back_inserter(all),
        [&](const Signature& signature) { return signature[0] >= first && signature[0] < end; });
  });
  std::sort(all.begin(), all.end());
  return all;
}

void addExamples(const Catalogue& catalogue, size_t examples,
                 std::vector<FrequentSignature>* frequent) {  // by signature
  const auto before = [](const FrequentSignature& one, const Signature& signature) {
    return one.signature < signature;
  };
  catalogue.eachList([&](int64_t id, const SignatureList& list) {
    for (const Signature& signature : list) {
      const auto one = std::lower_bound(frequent->begin(), frequent->end(), signature, before);
      if (one == frequent->end() || one->signature != signature) continue;
      if (one->examples.size() < examples) one->examples.push_back(id);
    }
  });
}

}  // namespace

std::vector<FrequentSignature> frequentSignatures(const Catalogue& catalogue, size_t least,
                                                  size_t examples) {
  uint64_t total = 0;
  catalogue.eachDocument("", [&](const DocumentEntry& document) { total += document.signatures; });
  const SignatureList common = catalogue.commonSignatures();
  const auto parts = static_cast<unsigned>(std::min<uint64_t>(256, total / kSignaturesAtOnce + 1));

  std::vector<FrequentSignature> frequent;
  for (unsigned part = 0; part < parts; ++part) {
    const SignatureList all = collect(catalogue, 256 * part / parts, 256 * (part + 1) / parts);
    for (auto run = all.begin(); run != all.end();) {
      const auto end = std::upper_bound(run, all.end(), *run);
      const auto documents = static_cast<size_t>(end - run);
      if (documents >= least && !std::binary_search(common.begin(), common.end(), *run)) {
        frequent.push_back({*run, documents, {}});
      }
      run = end;
    }
  }
  addExamples(catalogue, examples, &frequent);
  std::stable_sort(frequent.begin(), frequent.end(),
                   [](const auto& a, const auto& b) { return a.documents > b.documents; });
  return frequent;
}

}  // namespace tool
