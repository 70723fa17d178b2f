// Records what the library logs while it lives. One at a time.
#pragma once

#include <string>
#include <vector>

struct LogLine {
  int level;
  std::string word;      // "Error" or "Info"
  std::string tag;       // "fpe_sig_index"
  std::string function;  // "dlp_btree::load_meta_data"
  std::string message;   // "read meta data file fail"
  std::string text;      // "#<dlp_btree::load_meta_data>#read meta data file fail"
};

class LogCapture {
 public:
  LogCapture();   // installs a sink at every level
  ~LogCapture();  // and takes it away
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;  // in the order logged
  std::vector<std::string> messages() const;
  bool has(const std::string& message) const;
  void clear();
};
