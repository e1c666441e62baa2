#pragma once

#include <optional>
#include <string>
#include <vector>

#include "orvo_core/any.hpp"
#include "orvo_inference/lm_invoker/lm_invoker.hpp"
#include "orvo_inference/prompt/context_budget.hpp"

namespace orvo_inference {

/// A prompt: a system template and a user template with named placeholders such as `{context}`
/// (write `{{` and `}}` for literal braces). Templates are checked when the prompt is built.
class PromptTemplate {
 public:
  /// A prompt with empty templates: one user message with no text.
  PromptTemplate() = default;

  /// A prompt; an unmatched brace or an empty placeholder name is a `ValueError`.
  PromptTemplate(std::string system_template, std::string user_template);

  /// The chat messages for one request (with the context within `context_budget`, if any): the
  /// system message (when its template is not empty),
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

  /// `format`, telling in `report` what the context budget did (nothing when there is none,
  /// or when the prompt variables have no such variable).
  [[nodiscard]] std::vector<ChatMessage> format(const orvo_core::Map& variables,
                                                const orvo_core::Any& history,
                                                const orvo_core::Any& system_multimodal_contents,
                                                const orvo_core::Any& user_multimodal_contents,
                                                BudgetReport& report) const;

  /// The placeholder names, in order of first appearance.
  [[nodiscard]] std::vector<std::string> variables() const;

  [[nodiscard]] const std::string& system_template() const noexcept { return system_template_; }
  [[nodiscard]] const std::string& user_template() const noexcept { return user_template_; }

  /// Caps one prompt variable, the stuffed context, at a number of tokens; none: no cap.
  std::optional<ContextBudget> context_budget;

 private:
  std::string system_template_;
  std::string user_template_;
};

/// Fills one template's placeholders from `variables` (see `PromptTemplate::format`).
[[nodiscard]] std::string fill_template(std::string_view text, const orvo_core::Map& variables);

}  // namespace orvo_inference
