#pragma once

#include <ostream>

#include "options.hpp"
#include "orvo_core/async.hpp"

namespace orvo_cli {

/// The exit status of an `ask` whose documents hold no answer.
inline constexpr int kExitNoAnswer = 3;

/// Runs `options.command`. `ask` runs one pipeline turn: brings the corpus's index up to date,
/// retrieves the best chunks for the question, synthesizes the answer and formats its
/// references, streaming everything to `out` (human-readable, or JSON Lines with `--json`) and
/// progress to `err`; `index` only brings the index up to date and says what it did. Returns the
/// exit status (0, or `kExitNoAnswer`); errors propagate.
orvo_core::Awaitable<int> run_command(AskOptions options, std::ostream* out, std::ostream* err);

}  // namespace orvo_cli
