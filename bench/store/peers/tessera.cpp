// The index itself: what its collector does between its opening and its end.
#include "posting_store.h"
#include "vn_config.h"
#include "vn_fid_sig_index_collector_btree.h"

namespace {

class Tessera final : public PostingStore {
 public:
  explicit Tessera(const std::string& directory) {
    require(collector_.Init(IndexSysConfiguration(), directory.c_str()) == 0, "Init");
  }

  void add(uint32_t fid, uint32_t source, const std::vector<Signature>& signatures) override {
    require(collector_.AddFidSignature(fid, source, static_cast<uint32_t>(signatures.size()),
                                       signatures.data()) == 0,
            "AddFidSignature");
  }
  void commit() override { require(collector_.SaveFidSignature() == 0, "SaveFidSignature"); }
  void writeTables(const std::string& directory) override {
    require(collector_.CreateSearchTable(directory.c_str(), {-1, 3}) == 0, "CreateSearchTable");
  }

 private:
  dlp_btree::FidSigIndexCollector collector_;
};

}  // namespace

// Not durable: the program swallows the syncs.
std::unique_ptr<PostingStore> openTessera(const std::string& directory, bool) {
  return std::make_unique<Tessera>(directory);
}
