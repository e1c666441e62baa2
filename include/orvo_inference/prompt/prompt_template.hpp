#pragma once

#include <string>
#include <vector>

#include "orvo_core/any.hpp"
#include "orvo_inference/lm_invoker/lm_invoker.hpp"

namespace orvo_inference {

/// A prompt: a system template and a user template with named placeholders such as `{context}`
/// (write `{{` and `}}` for literal braces). Templates are checked when the prompt is built.
class PromptTemplate {
 public:
  /// A prompt with empty templates: one user message with no text.
  PromptTemplate() = default;

  /// A prompt; an unmatched brace or an empty placeholder name is a `ValueError`.
  PromptTemplate(std::string system_template, std::string user_template);

  /// The chat messages for one request: the system message (when its template is not empty),
  /// the history's turns, then the user message. Placeholders take the text form of the prompt
  /// variable of that name; a missing variable is a `ValueError` that names it. Multimodal
  /// contents are appended to their message as content parts: maps as they are, strings that are
  /// URLs (http, https, data) as images, other strings as text.
  ///
  /// `history` is absent or a list of turns; a turn is a [role, content] pair or a map with
  /// "role" and "content", the role being "system", "user" or "assistant".
  [[nodiscard]] std::vector<ChatMessage> format(
      const orvo_core::Map& variables, const orvo_core::Any& history = {},
      const orvo_core::Any& system_multimodal_contents = {},
      const orvo_core::Any& user_multimodal_contents = {}) const;

  /// The placeholder names, in order of first appearance.
  [[nodiscard]] std::vector<std::string> variables() const;

  [[nodiscard]] const std::string& system_template() const noexcept { return system_template_; }
  [[nodiscard]] const std::string& user_template() const noexcept { return user_template_; }

 private:
  std::string system_template_;
  std::string user_template_;
};

/// Fills one template's placeholders from `variables` (see `PromptTemplate::format`).
[[nodiscard]] std::string fill_template(std::string_view text, const orvo_core::Map& variables);

}  // namespace orvo_inference
