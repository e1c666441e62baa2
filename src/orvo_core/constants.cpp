#include "orvo_core/constants.hpp"

namespace orvo_core {

std::string_view to_string(EventLevel level) noexcept {
  switch (level) {
    case EventLevel::TRACE:
      return "TRACE";
    case EventLevel::INFO:
      return "INFO";
    case EventLevel::WARNING:
      return "WARNING";
    case EventLevel::ERROR:
      return "ERROR";
  }
  return "UNKNOWN";
}

std::string_view to_string(EventType type) noexcept {
  switch (type) {
    case EventType::STATUS:
      return "STATUS";
    case EventType::RESPONSE:
      return "RESPONSE";
    case EventType::DATA:
      return "DATA";
  }
  return "UNKNOWN";
}

}  // namespace orvo_core
