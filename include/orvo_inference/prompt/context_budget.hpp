#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "orvo_core/any.hpp"

namespace orvo_inference {

/// An estimate of the tokens of a text: one per four code points, rounded up. Real tokenizers
/// make about that of English prose; other scripts and code can make twice as many.
[[nodiscard]] std::size_t estimate_tokens(std::string_view text) noexcept;

/// What a context budget did to one request's context.
struct BudgetReport {
  std::size_t budget = 0;                ///< The budget, in tokens.
  std::size_t tokens = 0;                ///< The tokens of the context as sent.
  std::size_t pieces = 0;                ///< The pieces the context was made of.
  std::optional<std::size_t> truncated;  ///< The piece that was cut short, if any (from 0).
  std::vector<std::size_t> dropped;      ///< The pieces left out (from 0).

  /// Whether the context was changed.
  [[nodiscard]] bool changed() const noexcept { return truncated || !dropped.empty(); }
};

/// Caps the prompt variable that holds the stuffed context at a number of tokens. The context
/// is a list of pieces, best first (strings, or chunks, whose content counts), or a string whose
/// pieces are the parts between separators; the pieces are joined with `separator` and the
/// lowest-ranked ones make room first.
struct ContextBudget {
  enum class Policy : std::uint8_t {
    DROP,      ///< Pieces that do not fit whole are left out.
    TRUNCATE,  ///< The first piece that does not fit is cut to the room left; later ones go.
  };

  /// A budget of `max_tokens` for the prompt variable `variable`.
  explicit ContextBudget(std::size_t max_tokens = 0, Policy policy = Policy::DROP,
                         std::string variable = "context")
      : max_tokens(max_tokens), variable(std::move(variable)), policy(policy) {}

  std::size_t max_tokens;          ///< The budget.
  std::string variable;            ///< The prompt variable it applies to.
  Policy policy;                   ///< What happens to a piece that does not fit.
  std::string separator = "\n\n";  ///< Between pieces, as given and as joined.
  /// Counts tokens; empty: `estimate_tokens`. Counts are taken as additive over pieces.
  std::function<std::size_t(std::string_view)> count_tokens;

  /// The context text within the budget, and what was done to get it.
  [[nodiscard]] std::string apply(const orvo_core::Any& context, BudgetReport& report) const;
};

}  // namespace orvo_inference
