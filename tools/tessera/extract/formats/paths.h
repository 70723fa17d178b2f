// Names of members in a package, as one member refers to another.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

inline bool endsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// What `target` means in the member `base`: "xl/a.xml", "../media/x" -> "media/x".
inline std::string resolved(std::string_view base, std::string_view target) {
  std::vector<std::string_view> steps;
  const auto take = [&steps](std::string_view path) {
    for (size_t at = 0; at <= path.size();) {
      const size_t end = std::min(path.find('/', at), path.size());
      const std::string_view step = path.substr(at, end - at);
      if (step == "..") {
        if (!steps.empty()) steps.pop_back();
      } else if (!step.empty() && step != ".") {
        steps.push_back(step);
      }
      at = end + 1;
    }
  };
  if (target.substr(0, 1) != "/") take(base.substr(0, base.rfind('/') + 1));
  take(target);
  std::string path;
  for (const std::string_view step : steps) (path.empty() ? path : path += '/') += step;
  return path;
}

// "a%20b" -> "a b"; without a fragment.
inline std::string decodedUri(std::string_view uri) {
  const auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
  };
  std::string path;
  for (size_t i = 0; i < uri.size() && uri[i] != '#'; ++i) {
    const int high = i + 2 < uri.size() ? digit(uri[i + 1]) : -1;
    const int low = i + 2 < uri.size() ? digit(uri[i + 2]) : -1;
    if (uri[i] == '%' && high >= 0 && low >= 0) {
      path += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      path += uri[i];
    }
  }
  return path;
}

}  // namespace tool
