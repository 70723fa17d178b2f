// The catalogue beside the index: what every file ID stands for, and all that is needed
// to make the index again without the documents.
//
// An SQLite database (docs/catalogue.md draws its tables). It knows
//
//   files      what was opened, and what of it was not inspected
//   documents  what was found in them: a file is one document, or a container with
//              members. Each has a file ID, handed out once, and its signatures
//   common     texts whose signatures count for no document
//
// The index and the catalogue cannot be changed in one step. So whatever is to become
// of the index is announced in the catalogue first, then done to the index, and settled
// in the catalogue when the index is safely closed:
//
//   kPresent   the index holds the document's signatures, without the common ones
//   kArriving  it shall hold them; it may hold nothing of the document, or older ones
//   kLeaving   it shall hold nothing of the document, and may still
//
// Documents that are not present when nobody is at work are what a run that was cut off
// has left. Whoever writes next removes all of them from the index, which is no fault
// for those it does not hold, and adds those that arrive; store.h does. Until then
// every row still lends its name to what a match finds.
// Tests: tests/tool/catalogue_test.py and tests/tool/kill_test.py.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "extract/part.h"
#include "library/signature_list.h"

struct sqlite3;

namespace tool {

using Sha256 = std::array<unsigned char, 32>;

// What was not inspected of a file: all of it, or a member.
struct Verdict {
  std::string member;  // empty: the file itself
  Reason reason = Reason::kNone;
  std::string detail;
};

struct FileEntry {
  std::string path;  // absolute
  uint64_t size = 0;
  Sha256 sha256{};  // all zero: unknown, so that the file is opened again
  Selection selection = Selection::kFull;
  std::string label;
  int64_t when = 0;       // seconds since 1970
  std::string opened_by;  // version and limits: verdicts of others may be other ones
  std::vector<Verdict> verdicts;
};

enum class State { kPresent = 0, kArriving = 1, kLeaving = 2 };

struct DocumentEntry {
  int64_t id = 0;
  std::string path;    // of the file
  std::string member;  // inside it; empty: the file itself
  uint64_t size = 0;
  Sha256 sha256{};
  std::string type;
  std::string label;
  Selection selection = Selection::kFull;
  uint64_t signatures = 0;  // common ones included; none: the text is too short
  int64_t when = 0;
  State state = State::kPresent;

  std::string name() const { return member.empty() ? path : path + "!" + member; }
};

struct NewDocument {
  std::string member;
  uint64_t size = 0;
  Sha256 sha256{};
  std::string type;
  SignatureList signatures;
};

// A file as it is now.
struct FileChange {
  FileEntry file;
  std::vector<NewDocument> documents;
};

// A document that the index is to be given.
struct Arrival {
  int64_t id;
  const SignatureList* signatures;  // common ones included
};

struct CommonText {
  std::string path;
  int64_t when = 0;
  SignatureList signatures;
};

// Every function throws Failure when the database cannot do its part.
class Catalogue {
 public:
  enum class Access {
    kRead,   // the database exists
    kWrite,  // created when it does not exist
  };

  // Refuses a catalogue of another version, or whose documents were fingerprinted in
  // another form of text.
  Catalogue(const std::filesystem::path& file, Access access);
  ~Catalogue();
  Catalogue(const Catalogue&) = delete;
  Catalogue& operator=(const Catalogue&) = delete;

  // May be called from any thread.
  std::optional<FileEntry> file(const std::string& path) const;

  // Of any document that the index may find, whatever its state.
  std::optional<DocumentEntry> document(int64_t id) const;

  // By path. `below` is a file or a directory with all in it; empty: all.
  std::vector<std::string> paths(const std::string& below) const;
  void eachFile(const std::string& below, const std::function<void(const FileEntry&)>& visit) const;

  // By path, then file ID; those that leave are left out.
  void eachDocument(const std::string& below,
                    const std::function<void(const DocumentEntry&)>& visit) const;

  // By file ID; those that leave are left out.
  void eachList(const std::function<void(int64_t id, const SignatureList&)>& visit) const;

  SignatureList signatures(int64_t id) const;

  // Of all common texts together. They are to be taken away (without()) from what goes
  // into the index, and from what is searched there.
  SignatureList commonSignatures() const;
  std::vector<CommonText> commonTexts() const;

  // The documents of these files leave, those of the changes arrive, all or none, and
  // lasting on return. A document that is the same as before stays.
  std::vector<Arrival> announce(const std::vector<FileChange>& changes);

  // All that is known of the files goes. Of single documents, members, the files stay,
  // and are opened again when they are indexed next. Returns how many documents leave.
  size_t announceRemoval(const std::vector<std::string>& paths,
                         const std::vector<int64_t>& ids = {});

  // Documents with signatures that become common, or cease to be, arrive once more.
  // Returns how many.
  size_t addCommonTexts(const std::vector<CommonText>& texts);
  size_t removeCommonText(const std::string& path);

  // For an index that was lost: every document arrives once more.
  void announceAll();

  // Arriving or leaving, by ID.
  struct Unsettled {
    int64_t id;
    State state;
  };
  std::vector<Unsettled> unsettled() const;

  // The generations of the index are counted: one begins before the index is changed and
  // ends when it is settled.
  struct Generations {
    int64_t begun = 0;  // the last one; settled + 1 while it is under way or was cut off
    int64_t settled = 0;
  };
  Generations generations() const;
  int64_t beginGeneration();

  // The index holds what was announced.
  void settle();

  // The highest file ID that was ever handed out; 0: none.
  int64_t lastId() const;

  // What SQLite finds wrong with the database; nothing: all is well.
  std::vector<std::string> problems() const;

 private:
  class Statement;
  class Transaction;

  void execute(const char* sql) const;
  void open(const std::filesystem::path& file, Access access);
  void prepareSchema();
  void checkTextForm() const;
  void insertFile(const FileEntry& file);
  int64_t insertDocument(const FileEntry& file, const NewDocument& document);
  std::vector<DocumentEntry> documentsOf(const std::string& path) const;
  size_t announceThoseWith(const SignatureList& signatures);
  [[noreturn]] void fail() const;

  const std::string name_;
  sqlite3* database_ = nullptr;
};

}  // namespace tool
