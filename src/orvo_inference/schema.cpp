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

}  // namespace orvo_inference
