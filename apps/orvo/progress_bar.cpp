#include "progress_bar.hpp"

#include <unistd.h>

#include <string>

namespace orvo_cli {

namespace {
using Clock = std::chrono::steady_clock;
constexpr auto kQuiet = std::chrono::milliseconds(300);  // short steps draw nothing
constexpr auto kRedraw = std::chrono::milliseconds(100);
constexpr std::size_t kWidth = 30;
}  // namespace

ProgressBar::ProgressBar(std::ostream& err, bool enabled)
    : err_(err), enabled_(enabled && isatty(STDERR_FILENO) != 0) {}

ProgressBar::~ProgressBar() {
  if (shown_) err_ << "\r\x1b[K" << std::flush;
}

void ProgressBar::update(std::string_view step, std::size_t done, std::size_t total) {
  const auto now = Clock::now();
  if (!enabled_ || total == 0 || now - start_ < kQuiet || now - drawn_ < kRedraw) return;
  drawn_ = now;
  const std::size_t filled = done >= total ? kWidth : done * kWidth / total;
  std::string line = "\r";
  line += step;
  line += " [";
  line.append(filled, '#');
  line.append(kWidth - filled, ' ');
  line += "] " + std::to_string(done) + "/" + std::to_string(total) + "\x1b[K";
  err_ << line << std::flush;
  shown_ = true;
}

}  // namespace orvo_cli
