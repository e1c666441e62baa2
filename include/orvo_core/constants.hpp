#pragma once

#include <cstdint>
#include <string_view>

namespace orvo_core {

/// The level of an event.
enum class EventLevel : std::uint8_t { TRACE, INFO, WARNING, ERROR };

/// The type of an event: progress messages, response text, or structured data.
enum class EventType : std::uint8_t { STATUS, RESPONSE, DATA };

/// The member's name, e.g. "INFO".
[[nodiscard]] std::string_view to_string(EventLevel level) noexcept;

/// The member's name, e.g. "DATA".
[[nodiscard]] std::string_view to_string(EventType type) noexcept;

}  // namespace orvo_core
