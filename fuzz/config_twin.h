// The slow, obvious twin of the configuration loader: it cuts a line into its
// parts where the loader goes through it character by character. Shares nothing
// with the library but the record that both fill.
#pragma once

#include <algorithm>
#include <cstring>
#include <set>
#include <string>

#include "vn_config.h"

namespace config_twin {

class Loader {
 public:
  // Returns what Load() returns for a file of this content.
  int load(const std::string& content, IndexSysConfiguration* configuration) {
    to_ = configuration;
    for (size_t begin = 0;;) {
      // A reader's buffer takes 260 bytes of a line and what follows next time.
      size_t end = std::min(content.find('\n', begin), content.size() - 1) + 1;
      if (content.empty()) end = 0;
      end = std::min(end, begin + 260);
      const std::string line = content.substr(begin, end - begin);
      const bool at_end = line.size() < 260 && (line.empty() || line.back() != '\n');
      begin = end;
      // A NUL ends a line for all who look at it afterwards.
      const std::string text = line.substr(0, line.find('\0'));
      if (text.empty()) return at_end ? 0 : -5;
      const int status = takeLine(text);
      if (status != 0) return status;
    }
  }

 private:
  static bool isOneOf(char c, const char* set) { return c != '\0' && std::strchr(set, c); }
  static std::string word(const std::string& text) {
    const size_t begin = text.find_first_not_of(" \t\n\v\f\r");
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_first_of(" \t\n\v\f\r", begin) - begin);
  }
  static void dropBlanks(std::string* text) { text->erase(0, text->find_first_not_of(" \t")); }

  int takeLine(const std::string& text) {
    if (text.size() >= 259) return -8;
    if (text.find_first_not_of(" \t\r\n\b\f") == std::string::npos) return 0;

    std::string rest = text;
    dropBlanks(&rest);
    // The first character of a key may be anything, an "=", too.
    const size_t key_length = std::min(rest.find_first_of(" \t=", 1), rest.size());
    const std::string key = rest.substr(0, key_length);
    rest.erase(0, key_length);
    dropBlanks(&rest);
    if (rest.empty() || rest[0] != '=') return -8;
    rest.erase(0, 1);
    dropBlanks(&rest);
    if (rest.empty()) return -8;

    const bool is_string = rest[0] == '"';
    std::string value;
    if (is_string) {
      const size_t quote = rest.find('"', 1);
      if (quote == std::string::npos || quote == 1) return -8;
      value = rest.substr(1, quote - 1);
      if (value.find_first_of(" \t") != std::string::npos) return -8;
      rest.erase(0, quote + 1);
    } else {
      const size_t digits = std::min(rest.find_first_not_of("0123456789"), rest.size());
      if (digits == 0) return -8;
      value = rest.substr(0, digits);
      rest.erase(0, digits);
    }
    dropBlanks(&rest);
    if (!rest.empty() && rest != "\n" && rest != "\r\n") return -8;

    // The form of a line knows blanks and tabs only, a word ends at any white
    // space. Where that leaves nothing of the key, the value is the first word.
    if (is_string) value = word(value);
    if (value.empty()) return -5;
    const std::string name = word(key);
    return assign(name.empty() ? value : name, value, is_string);
  }

  int assign(const std::string& key, const std::string& value, bool is_string) {
    if (is_string) {
      text_ = value;
    } else {
      number_ = 0;
      for (const char digit : value) {
        number_ = std::min<uint64_t>(number_ * 10 + static_cast<uint64_t>(digit - '0'), 4294967295);
      }
    }
    uint32_t* const number = numberOf(key);
    char* const name = nameOf(key);
    if (number == nullptr && name == nullptr) return 0;
    if (assigned_.contains(key)) return -8;
    if (name != nullptr && text_.size() > 29) return -8;
    if (number != nullptr) *number = static_cast<uint32_t>(number_);
    if (name != nullptr) std::strcpy(name, text_.c_str());
    assigned_.insert(key);
    return 0;
  }

  uint32_t* numberOf(const std::string& key) const {
    if (key == "sig_page_size") return &to_->sig_page_size;
    if (key == "fid_chunk_size") return &to_->fid_chunk_size;
    if (key == "max_fid_num") return &to_->max_fid_num;
    if (key == "max_fid_num_load") return &to_->max_fid_num_load;
    if (key == "max_fid_num_save") return &to_->max_fid_num_save;
    if (key == "max_sig_num_load") return &to_->max_sig_num_load;
    if (key == "max_sig_num_save") return &to_->max_sig_num_save;
    if (key == "max_ele_num_load") return &to_->max_ele_num_load;
    if (key == "max_ele_num_save") return &to_->max_ele_num_save;
    return nullptr;
  }

  char* nameOf(const std::string& key) const {
    if (key == "fid_index_fname") return to_->fid_index_fname;
    if (key == "search_table_fname") return to_->search_table_fname;
    if (key == "index_list_fname") return to_->index_list_fname;
    return nullptr;
  }

  IndexSysConfiguration* to_ = nullptr;
  uint64_t number_ = 0;
  std::string text_;
  std::set<std::string> assigned_;
};

inline int load(const std::string& content, IndexSysConfiguration* configuration) {
  return Loader().load(content, configuration);
}

}  // namespace config_twin
