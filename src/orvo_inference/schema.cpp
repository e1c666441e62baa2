#include "orvo_inference/schema.hpp"

namespace orvo_inference {

std::string_view to_string(PromptRole role) noexcept {
  switch (role) {
    case PromptRole::SYSTEM:
      return "system";
    case PromptRole::USER:
      return "user";
    case PromptRole::ASSISTANT:
      return "assistant";
  }
  return "unknown";
}

std::optional<PromptRole> parse_role(std::string_view name) noexcept {
  for (const PromptRole role : {PromptRole::SYSTEM, PromptRole::USER, PromptRole::ASSISTANT}) {
    if (name == to_string(role)) return role;
  }
  return std::nullopt;
}

}  // namespace orvo_inference
