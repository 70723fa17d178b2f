// "tessera delete": documents leave the index. Tests: tests/tool/store_verbs_test.py.
#include <fmt/format.h>

#include <set>

#include "cli/names.h"
#include "commands.h"
#include "failure.h"
#include "store/store.h"

namespace tool {

namespace {

// What is to leave, and complaints about what is not there.
class Departures {
 public:
  explicit Departures(const Catalogue* catalogue) : catalogue_(catalogue) {}

  void addPath(const std::string& named, const std::string& path) {
    const std::vector<std::string> found = catalogue_->paths(path);
    files.insert(found.begin(), found.end());
    if (found.empty() && !addMember(path)) {
      miss(fmt::format("there is no document {} in the index", shownName(named)));
    }
  }

  void addId(int64_t id) {
    const auto document = catalogue_->document(id);
    if (document && document->state != State::kLeaving) {
      documents.insert(id);
    } else {
      miss(fmt::format("there is no document with the file ID {} in the index", id));
    }
  }

  void addLabel(const std::string& label) {
    const size_t before = files.size();
    catalogue_->eachFile("", [&](const FileEntry& file) {
      if (file.label == label) files.insert(file.path);
    });
    if (files.size() == before) {
      miss(fmt::format("there is no document with the label {} in the index", shownName(label)));
    }
  }

  std::set<std::string> files;
  std::set<int64_t> documents;  // members alone
  bool missed = false;

 private:
  void miss(const std::string& message) {
    complain(message);
    missed = true;
  }

  // A name as "match" and "list" tell it: the file's, "!", the member's.
  bool addMember(const std::string& name) {
    for (size_t mark = name.find('!'); mark != std::string::npos; mark = name.find('!', mark + 1)) {
      bool found = false;
      catalogue_->eachDocument(name.substr(0, mark), [&](const DocumentEntry& document) {
        if (document.name() != name) return;
        documents.insert(document.id);
        found = true;
      });
      if (found) return true;
    }
    return false;
  }

  const Catalogue* const catalogue_;
};

}  // namespace

int deleteCommand(const CommonOptions& common, const DeleteOptions& options) {
  const std::vector<std::string> paths = cataloguedPaths(options.paths);
  Store store(common.home, Store::Missing::kRefuse);
  Departures departures(&store.catalogue());
  for (size_t i = 0; i < paths.size(); ++i) departures.addPath(options.paths[i], paths[i]);
  for (const int64_t id : options.ids) departures.addId(id);
  if (!options.label.empty()) departures.addLabel(options.label);

  const size_t removed =
      store.catalogue().announceRemoval({departures.files.begin(), departures.files.end()},
                                        {departures.documents.begin(), departures.documents.end()});
  store.finish();
  fmt::print("{} {} removed\n", removed, removed == 1 ? "document" : "documents");
  return departures.missed ? kFailed : kDone;
}

}  // namespace tool
