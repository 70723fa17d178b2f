#define LOG_TAG "fpe_utility"

#include "vn_config.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "config_lines.h"
#include "log.h"
#include "platform.h"
#include "status.h"

namespace {

constexpr size_t kLineBuffer = 261;  // takes a line that is one too long, to see that it is
constexpr size_t kLineLimit = 259;   // a line's length stays below

// Reads a file by lines the way fgets does.
class LineReader {
 public:
  enum class Result { kLine, kEnd, kError };

  explicit LineReader(platform::File* file) : file_(file) {}

  // Takes over the bytes up to and including the next "\n", at most
  // kLineBuffer - 1 of them, and a NUL.
  Result next(char (*line)[kLineBuffer]) {
    size_t length = 0;
    while (length < kLineBuffer - 1) {
      if (position_ == filled_ && !fill()) break;
      const char c = buffer_[position_++];
      (*line)[length++] = c;
      if (c == '\n') break;
    }
    (*line)[length] = '\0';
    if (failed_) return Result::kError;
    return length == 0 ? Result::kEnd : Result::kLine;
  }

  bool atEnd() const { return at_end_; }  // a read has met the end of the file

 private:
  bool fill() {
    const int64_t got = file_->read(buffer_, sizeof buffer_);
    failed_ = got < 0;
    at_end_ = got == 0;
    position_ = 0;
    filled_ = got > 0 ? static_cast<size_t>(got) : 0;
    return filled_ > 0;
  }

  platform::File* const file_;
  char buffer_[4096];
  size_t position_ = 0;
  size_t filled_ = 0;
  bool at_end_ = false;
  bool failed_ = false;
};

bool isBlankLine(const char* line) { return line[std::strspn(line, " \t\r\n\b\f")] == '\0'; }

bool isBlank(char c) { return c == ' ' || c == '\t'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

struct Assignment {
  size_t equals;  // position of the "="
  bool is_number;
};

// Checks the form of a line. On acceptance the "=" and the quotes of a string
// have become blanks, so that key and value can be scanned as words.
bool parseLine(char* line, Assignment* assignment) {
  enum class State {
    kBeforeKey,
    kInKey,
    kAfterKey,
    kAfterEquals,
    kBeforeValue,
    kInNumber,
    kStringStart,
    kInString,
    kAfterValue,
    kAfterCr,
    kDone
  };
  State state = State::kBeforeKey;
  size_t equals = 0;
  size_t open_quote = 0;
  size_t close_quote = 0;
  bool is_number = false;

  for (size_t i = 0; line[i] != '\0'; ++i) {
    const char c = line[i];
    switch (state) {
      case State::kBeforeKey:
        if (!isBlank(c)) state = State::kInKey;
        break;
      case State::kInKey:
      case State::kAfterKey:
        if (c == '=') {
          equals = i;
          state = State::kAfterEquals;
        } else if (isBlank(c)) {
          state = State::kAfterKey;
        } else if (state == State::kAfterKey) {
          return false;
        }
        break;
      case State::kAfterEquals:
      case State::kBeforeValue:
        if (isBlank(c)) {
          state = State::kBeforeValue;
        } else if (isDigit(c)) {
          is_number = true;
          state = State::kInNumber;
        } else if (c == '"') {
          open_quote = i;
          state = State::kStringStart;
        } else {
          return false;
        }
        break;
      case State::kInNumber:
      case State::kAfterValue:
        if (c == '\r') {
          state = State::kAfterCr;
        } else if (c == '\n') {
          state = State::kDone;
        } else if (isBlank(c)) {
          state = State::kAfterValue;
        } else if (state == State::kAfterValue || !isDigit(c)) {
          return false;
        }
        break;
      case State::kStringStart:
        if (c == '"' || isBlank(c)) return false;
        state = State::kInString;
        break;
      case State::kInString:
        if (isBlank(c)) return false;
        if (c == '"') {
          close_quote = i;
          state = State::kAfterValue;
        }
        break;
      case State::kAfterCr:
        if (c != '\n') return false;
        state = State::kDone;
        break;
      case State::kDone:
        return false;
    }
  }
  if (state != State::kInNumber && state != State::kAfterValue && state != State::kDone) {
    return false;
  }
  line[equals] = ' ';
  if (!is_number) {
    line[open_quote] = ' ';
    line[close_quote] = ' ';
  }
  *assignment = {equals, is_number};
  return true;
}

// A decimal number; what 32 bits cannot hold counts as the largest number.
bool scanNumber(const char* text, uint32_t* number) {
  while (isBlank(*text)) ++text;
  if (!isDigit(*text)) return false;
  uint64_t value = 0;
  for (; isDigit(*text); ++text) {
    value = std::min<uint64_t>(value * 10 + static_cast<uint64_t>(*text - '0'), UINT32_MAX);
  }
  *number = static_cast<uint32_t>(value);
  return true;
}

// The first word of a text. The buffer holds a whole line.
bool scanWord(const char* text, char (*word)[kLineBuffer]) {
  constexpr char kSpaces[] = " \t\n\v\f\r";
  text += std::strspn(text, kSpaces);
  const size_t length = std::strcspn(text, kSpaces);
  if (length == 0) return false;
  std::memcpy(*word, text, length);
  (*word)[length] = '\0';
  return true;
}

// Where a known key's value goes: a number or a name, never both.
struct Key {
  const char* name;
  uint32_t IndexSysConfiguration::*number;
  char (IndexSysConfiguration::*file_name)[kFileNameSize];
};

constexpr Key kKeys[] = {
    {"sig_page_size", &IndexSysConfiguration::sig_page_size, nullptr},
    {"fid_chunk_size", &IndexSysConfiguration::fid_chunk_size, nullptr},
    {"max_fid_num", &IndexSysConfiguration::max_fid_num, nullptr},
    {"fid_index_fname", nullptr, &IndexSysConfiguration::fid_index_fname},
    {"max_fid_num_load", &IndexSysConfiguration::max_fid_num_load, nullptr},
    {"max_fid_num_save", &IndexSysConfiguration::max_fid_num_save, nullptr},
    {"max_sig_num_load", &IndexSysConfiguration::max_sig_num_load, nullptr},
    {"max_sig_num_save", &IndexSysConfiguration::max_sig_num_save, nullptr},
    {"max_ele_num_load", &IndexSysConfiguration::max_ele_num_load, nullptr},
    {"max_ele_num_save", &IndexSysConfiguration::max_ele_num_save, nullptr},
    {"search_table_fname", nullptr, &IndexSysConfiguration::search_table_fname},
    {"index_list_fname", nullptr, &IndexSysConfiguration::index_list_fname},
};
constexpr size_t kKeyCount = sizeof kKeys / sizeof kKeys[0];

}  // namespace

int IndexSysConfiguration::Load(const char* path) {
  if (path == nullptr || *path == '\0') {
    LOG_ERROR("invalid config file name");
    return kErrParam;
  }
  const auto file = tessera::openConfigFile(path);
  if (!file) {
    LOG_ERROR("open config file %s fail", path);
    return kErrFile;
  }

  // Shared by all lines on purpose: the form of a value decides which of the
  // two it sets, the key which of the two it takes.
  uint32_t number = 0;
  char text[kLineBuffer] = "";
  bool assigned[kKeyCount] = {};

  LineReader reader(file.get());
  char line[kLineBuffer];
  for (int line_number = 1;; ++line_number) {
    const LineReader::Result result = reader.next(&line);
    if (result != LineReader::Result::kLine || line[0] == '\0') {
      if (result != LineReader::Result::kError && reader.atEnd()) return kOk;
      LOG_ERROR("read config file %s fail at line %d", path, line_number);
      return kErrFile;
    }
    if (std::strlen(line) >= kLineLimit) {
      LOG_ERROR("line %d of config file %s too long", line_number, path);
      return kErrFormat;
    }
    if (isBlankLine(line)) continue;

    Assignment assignment;
    if (!parseLine(line, &assignment)) {
      LOG_ERROR("wrong config file format at line %d", line_number);
      return kErrFormat;
    }
    char word[kLineBuffer];
    const char* const value = line + assignment.equals;
    if (!scanWord(line, &word) ||
        !(assignment.is_number ? scanNumber(value, &number) : scanWord(value, &text))) {
      LOG_ERROR("read config file %s fail at line %d", path, line_number);
      return kErrFile;
    }

    const Key* const key = std::find_if(
        kKeys, kKeys + kKeyCount, [&](const Key& k) { return std::strcmp(k.name, word) == 0; });
    if (key == kKeys + kKeyCount) continue;
    if (assigned[key - kKeys]) {
      LOG_ERROR("wrong config file format at line %d", line_number);
      return kErrFormat;
    }
    if (key->number != nullptr) {
      this->*key->number = number;
    } else if (std::strlen(text) + 1 > kFileNameSize) {
      LOG_ERROR("%s too long at line %d", key->name, line_number);
      return kErrFormat;
    } else {
      std::strcpy(this->*key->file_name, text);
    }
    assigned[key - kKeys] = true;
  }
}
