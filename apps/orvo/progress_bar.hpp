#pragma once

#include <chrono>
#include <cstddef>
#include <ostream>
#include <string_view>

namespace orvo_cli {

/// Shows how far a long step has come as a bar on a terminal, redrawn at most ten times a second
/// and only once the step has taken a moment; shows nothing elsewhere. Clears its line when done.
class ProgressBar {
 public:
  /// Draws on `err` (which must outlive the bar) when `enabled` and `err` is a terminal.
  ProgressBar(std::ostream& err, bool enabled);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// `done` of `total` units of `step` (e.g. "Embedding") are complete.
  void update(std::string_view step, std::size_t done, std::size_t total);

 private:
  std::ostream& err_;
  bool enabled_;
  bool shown_ = false;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point drawn_{};
};

}  // namespace orvo_cli
