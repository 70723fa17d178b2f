#include "cli/progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

namespace tool {

namespace {

constexpr std::chrono::milliseconds kBarEvery{100};
constexpr std::chrono::milliseconds kJsonEvery{500};
constexpr std::chrono::duration<double> kFirstRate{0.5};  // what is told earlier leaps about

bool isTerminal() {
  const char* kind = std::getenv("TERM");
  return ::isatty(STDERR_FILENO) == 1 && !(kind && std::string_view(kind) == "dumb");
}

size_t terminalWidth() {
  struct winsize size = {};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
  return size.ws_col;
}

std::string clockTime(double seconds) {
  const auto whole = static_cast<uint64_t>(std::clamp(seconds, 0.0, 359999.0));
  const uint64_t minutes = whole / 60;
  if (minutes < 60) return fmt::format("{}:{:02}", minutes, whole % 60);
  return fmt::format("{}:{:02}:{:02}", minutes / 60, minutes % 60, whole % 60);
}

// Progress that cannot be shown holds up no work.
void show(const std::string& text) { std::fputs(text.c_str(), stderr); }

}  // namespace

Progress::Progress(ProgressStyle style)
    : form_(style == ProgressStyle::kJson                   ? Form::kJson
            : style == ProgressStyle::kAuto && isTerminal() ? Form::kBar
                                                            : Form::kNone) {}

void Progress::count(const std::string& phase, size_t done, size_t total) {
  if (form_ == Form::kNone) return;
  const std::lock_guard lock(mutex_);
  if (phase != phase_) begin(phase);
  const Clock::time_point now = Clock::now();
  const bool last = form_ == Form::kJson && done == total;  // whoever reads it may count on it
  if (now < next_ && !last) return;
  next_ = now + (form_ == Form::kJson ? kJsonEvery : kBarEvery);
  print(done, total);
}

void Progress::say(const std::string& phase) {
  if (form_ == Form::kNone) return;
  const std::lock_guard lock(mutex_);
  begin(phase);
  print(0, 0);
}

void Progress::clear() {
  const std::lock_guard lock(mutex_);
  wipe();
}

void Progress::begin(const std::string& phase) {
  phase_ = phase;
  begun_ = Clock::now();
  next_ = begun_;
}

void Progress::print(size_t done, size_t total) {
  const double seconds = std::chrono::duration<double>(Clock::now() - begun_).count();
  const double per_second =
      seconds < kFirstRate.count() ? 0 : static_cast<double>(done) / seconds;  // 0: not known yet
  const double left = per_second > 0 ? static_cast<double>(total - done) / per_second : 0;
  if (form_ == Form::kBar) return printBar(done, total, per_second, left);

  nlohmann::ordered_json line = {{"phase", phase_}};
  if (total) {
    line["done"] = done;
    line["total"] = total;
  }
  if (per_second > 0) {
    line["per_second"] = std::round(per_second * 10) / 10;
    line["seconds_left"] = static_cast<uint64_t>(left);
  }
  show(line.dump() + "\n");
}

// "Indexing [######........]  43 %  258 of 600  35 a second  0:09 left", as wide as the
// terminal but for its last column, where some terminals break the line.
void Progress::printBar(size_t done, size_t total, double per_second, double left) {
  const size_t width = terminalWidth() - 1;
  std::string line = phase_;
  if (total) {
    std::string figures = fmt::format("{:3} %  {} of {}", 100 * done / total, done, total);
    if (per_second > 0) {
      figures += fmt::format("  {:.{}f} a second  {} left", per_second, per_second < 10 ? 1 : 0,
                             clockTime(left));
    }
    constexpr size_t kLongestFigures = 45;  // the bar keeps its length when a rate joins them
    const size_t taken = phase_.size() + 5 + std::max(figures.size(), kLongestFigures);
    if (taken + 10 <= width) {
      const size_t room = std::min<size_t>(width - taken, 40);
      const size_t full = room * done / total;
      line += fmt::format(" [{}{}] ", std::string(full, '#'), std::string(room - full, '.'));
    } else {
      line += "  ";
    }
    line += figures;
  }
  show(fmt::format("\r{}\033[K", std::string_view(line).substr(0, width)));
  shown_ = true;
}

void Progress::wipe() {
  if (shown_) show("\r\033[K");
  shown_ = false;
}

}  // namespace tool
