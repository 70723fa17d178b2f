// A matcher with several threads that goes on answering while its index is
// rebuilt. There are two directories, say "blue" and "green": the matcher uses
// one, another process rebuilds the index in the other, and then the matcher
// changes over. No query is lost, and none is answered from half of each.
//
//   flags=$(pkg-config --cflags --libs tessera)
//   c++ -std=c++20 -pthread blue_green_matcher.cpp $flags -o blue_green_matcher
//
//   blue_green_matcher index blue 100 FILE...   documents 100, 101, ...
//   blue_green_matcher match blue               takes requests from its input,
//                                               one a line, until that ends:
//
//       match ID FILE     prints "ID DOCUMENT:LEVEL ...", or "ID failed"
//       use DIRECTORY     prints "use DIRECTORY done", or "... failed", and goes
//                         on with the index that it had
//
// Why it is done in this way: the library has one match system in a process,
// and the index is the one below the current directory, which belongs to the
// whole process, too. Every search opens a file there. So the directory may
// change only while nobody searches, and between ExitMatchSystem() and
// InitMatchSystem() there is nothing to search in. Both happen behind a lock that
// searches share: they wait for the few milliseconds of a change instead of
// failing. A host whose current directory must stay, or that cannot wait, keeps
// the matcher in a process of its own, as this program is one, or starts the next
// matcher in the new directory before it lets the old one end.
//
// Both directories need the same settings: a process reads those of matching once.
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <shared_mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tessera.h"

namespace fs = std::filesystem;

namespace {

constexpr int kThreads = 4;

bool complain(const std::string& what) {
  std::cerr << "blue_green_matcher: " + what + "\n";
  return false;
}

// Lengths are ints for the library: a file of 2 GiB or more is not read.
bool readFile(const fs::path& path, std::string* content) {
  std::error_code failure;
  const uintmax_t size = fs::file_size(path, failure);
  if (failure || size > INT32_MAX) return false;
  content->resize(size);
  std::ifstream file(path, std::ios::binary);
  file.read(content->data(), static_cast<std::streamsize>(size));
  return file.gcount() == static_cast<std::streamsize>(size);
}

// The signatures of a text. Knows no index, so it needs no lock.
class Signatures {
 public:
  explicit Signatures(std::string text)
      : ok_(GenerateSignature4Text(text.data(), static_cast<int>(text.size()), &list_, &count_) ==
            0) {}
  ~Signatures() { FreeSignature(list_); }
  Signatures(const Signatures&) = delete;
  Signatures& operator=(const Signatures&) = delete;

  bool ok() const { return ok_; }
  unsigned char (*list() const)[8] { return list_; }
  int count() const { return count_; }

 private:
  unsigned char (*list_)[8] = nullptr;
  int count_ = 0;
  bool ok_;
};

// The process's match system, used by many threads and changed by any of them.
class Matcher {
 public:
  ~Matcher() {
    if (loaded_) ExitMatchSystem();
  }

  // Changes to the index in `directory`, an absolute path. Searches that have
  // begun end before, later ones wait. A failure leaves the index that was used.
  bool use(const fs::path& directory) {
    const std::lock_guard closed(door_);
    const std::lock_guard alone(index_);
    if (loaded_ && ExitMatchSystem() != 0) return false;
    loaded_ = load(directory);
    if (loaded_) {
      directory_ = directory;
      return true;
    }
    if (!directory_.empty()) loaded_ = load(directory_);
    return false;
  }

  // Finds the documents that share passages with a text of `size` bytes.
  bool match(const Signatures& query, int size, std::vector<_DLPSigMatchRet>* documents) {
    std::unique_lock entering(door_);
    const std::shared_lock searching(index_);
    entering.unlock();
    // A query too short for signatures has no list, and matches nothing.
    if (query.count() == 0) return true;
    _DLPSigMatchRet none;
    _DLPSigMatchRet* found = &none;  // must not be null on entry
    int count = 0;
    if (MatchSignature(query.list(), query.count(), size, &found, &count) != 0) return false;
    documents->assign(found, found + count);
    FreeSigMatchRet(found);
    return true;
  }

 private:
  static bool load(const fs::path& directory) {
    std::error_code failure;
    fs::current_path(directory, failure);
    return !failure && InitMatchSystem() == 0;
  }

  // Held while a thread enters, and by a change from before its wait to its end:
  // threads that search without a pause would keep it waiting for ever otherwise.
  std::mutex door_;
  std::shared_mutex index_;  // shared: a search; alone: a change
  fs::path directory_;
  bool loaded_ = false;
};

// Answers requests until the input ends. The current directory moves, so every
// name is taken from the one where the program was started.
class Server {
 public:
  Server(Matcher* matcher, fs::path start) : matcher_(matcher), start_(std::move(start)) {}

  // Any number of threads may run it.
  void run() {
    std::string request;
    while (next(&request)) {
      std::istringstream words(request);
      std::string verb, id, name;
      words >> verb;
      if (verb == "use") {
        std::getline(words >> std::ws, name);
        say("use " + name + (matcher_->use(start_ / name) ? " done" : " failed"));
      } else if (verb == "match") {
        words >> id;
        std::getline(words >> std::ws, name);
        say(id + answer(name));
      } else {
        complain("no such request: " + request);
      }
    }
  }

 private:
  bool next(std::string* request) {
    const std::lock_guard alone(input_);
    return static_cast<bool>(std::getline(std::cin, *request));
  }

  void say(const std::string& line) {
    const std::lock_guard alone(output_);
    std::cout << line << std::endl;  // whoever waits for it wants it now
  }

  std::string answer(const std::string& name) try {
    std::string text;
    if (!readFile(start_ / name, &text)) return " failed";
    const Signatures query(text);
    std::vector<_DLPSigMatchRet> documents;
    if (!query.ok() || !matcher_->match(query, static_cast<int>(text.size()), &documents)) {
      return " failed";
    }
    std::string line;
    for (const _DLPSigMatchRet& document : documents) {
      line += ' ';
      line += std::to_string(document.fileID);
      line += ':';
      line += std::to_string(document.match_level);
    }
    return line;
  } catch (const std::exception&) {
    return " failed";
  }

  Matcher* const matcher_;
  const fs::path start_;
  std::mutex input_, output_;
};

bool match(const fs::path& directory) {
  const fs::path start = fs::current_path();
  Matcher matcher;
  if (!matcher.use(start / directory)) return complain("no index in " + directory.string());
  if (InitSignatureGenerator(TESSERA_CLIENT) != 0) return complain("no generator");
  Server server(&matcher, start);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back([&server] { server.run(); });
  for (std::thread& thread : threads) thread.join();
  return ExitSignatureGenerator() == 0;
}

bool add(int64_t number, const fs::path& path) {
  std::string text;
  if (!readFile(path, &text)) return complain("cannot read " + path.string());
  const Signatures document(text);
  if (!document.ok()) return complain("no memory for " + path.string());
  if (document.count() == 0) return complain("too short: " + path.string());
  return AddDocSignature(number, document.list(), document.count()) == 0 ||
         complain("cannot add " + path.string());
}

// Builds the index of a directory anew. No matcher may be using it.
bool index(const fs::path& directory, int64_t number, const std::vector<fs::path>& files) {
  const fs::path start = fs::current_path();
  fs::create_directories(directory);
  fs::current_path(directory);
  fs::remove_all("sig_index_DB");
  // Creates the settings, too, which the others read.
  if (InitSignatureGenerator(TESSERA_CLIENT) != 0) return complain("no generator");
  if (InitIndexSystem() != 0) return complain("cannot make an index");
  bool ok = true;
  for (const fs::path& file : files) ok = add(number++, start / file) && ok;
  if (ExitIndexSystem() != 0) ok = complain("cannot write the documents");
  // Whether the search tables could be written shows only when they are loaded.
  if (InitMatchSystem() != 0 || ExitMatchSystem() != 0) ok = complain("the index does not load");
  return ExitSignatureGenerator() == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 2 && words[0] == "match") return match(words[1]) ? 0 : 1;
  if (words.size() > 3 && words[0] == "index") {
    const std::vector<fs::path> files(words.begin() + 3, words.end());
    return index(words[1], std::stoll(words[2]), files) ? 0 : 1;
  }
  std::fputs(
      "usage: blue_green_matcher index DIRECTORY NUMBER FILE...\n"
      "       blue_green_matcher match DIRECTORY\n",
      stderr);
  return 2;
} catch (const std::exception& failure) {
  complain(failure.what());
  return 1;
}
