#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace orvo_inference {

/// The role of a turn of a conversation.
enum class PromptRole : std::uint8_t { SYSTEM, USER, ASSISTANT };

/// The role's name as chat APIs spell it: "system", "user" or "assistant".
[[nodiscard]] std::string_view to_string(PromptRole role) noexcept;

/// The role named "system", "user" or "assistant", if it is one of them.
[[nodiscard]] std::optional<PromptRole> parse_role(std::string_view name) noexcept;

}  // namespace orvo_inference
