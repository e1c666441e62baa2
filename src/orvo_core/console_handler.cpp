#include "orvo_core/event/console_handler.hpp"

#include <unistd.h>

#include <iostream>

#include "orvo_core/json.hpp"

namespace orvo_core {
namespace {

constexpr const char* kReset = "\x1b[0m";
constexpr const char* kDim = "\x1b[2m";
constexpr const char* kCyan = "\x1b[36m";
constexpr const char* kYellow = "\x1b[33m";
constexpr const char* kRed = "\x1b[31m";

bool is_terminal(const std::ostream& stream) {
  if (&stream == &std::cout) return isatty(STDOUT_FILENO) != 0;
  if (&stream == &std::cerr || &stream == &std::clog) return isatty(STDERR_FILENO) != 0;
  return false;
}

bool use_color(ConsoleHandler::Color color, const std::ostream& stream) {
  switch (color) {
    case ConsoleHandler::Color::always:
      return true;
    case ConsoleHandler::Color::never:
      return false;
    case ConsoleHandler::Color::automatic:
      return is_terminal(stream);
  }
  return false;
}

// The text of a reference event; other data as it came.
std::string data_text(const std::string& value) {
  try {
    const Any payload = parse_json(value);
    if (payload.is_map() && get(payload.as_map(), "data_type") == Any("reference")) {
      return get(payload.as_map(), "data_value").str();
    }
  } catch (const std::exception&) {
  }
  return value;
}

}  // namespace

ConsoleHandler::ConsoleHandler(std::ostream& out, std::ostream& status_out, bool show_status,
                               Color color)
    : out_(out),
      status_out_(status_out),
      show_status_(show_status),
      color_out_(use_color(color, out)),
      color_status_(use_color(color, status_out)) {}

void ConsoleHandler::finish_line() {
  if (mid_line_) out_ << '\n' << std::flush;
  mid_line_ = false;
}

Awaitable<void> ConsoleHandler::handle(Event event) {
  const char* level_color = event.level == EventLevel::ERROR     ? kRed
                            : event.level == EventLevel::WARNING ? kYellow
                                                                 : "";
  switch (event.type) {
    case EventType::RESPONSE:
      out_ << event.value << std::flush;
      if (!event.value.empty()) mid_line_ = event.value.back() != '\n';
      break;
    case EventType::DATA: {
      finish_line();
      const std::string text = data_text(event.value);
      if (color_out_) {
        out_ << '\n' << kCyan << text << kReset << '\n' << std::flush;
      } else {
        out_ << '\n' << text << '\n' << std::flush;
      }
      break;
    }
    case EventType::STATUS:
      if (!show_status_ && event.level < EventLevel::WARNING) break;
      if (&status_out_ == &out_) finish_line();
      if (color_status_) {
        status_out_ << (*level_color != '\0' ? level_color : kDim) << event.value << kReset << '\n';
      } else {
        status_out_ << event.value << '\n';
      }
      status_out_ << std::flush;
      break;
  }
  co_return;
}

}  // namespace orvo_core
