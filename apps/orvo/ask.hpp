#pragma once

#include <ostream>

#include "options.hpp"
#include "orvo_core/async.hpp"

namespace orvo_cli {

/// Runs one pipeline turn: loads and indexes the corpus, retrieves the top chunks for the
/// question, synthesizes the answer and formats its references, streaming everything to `out`
/// (human-readable, or JSON Lines with `--json`) and progress to `err`. A declined answer gets
/// no references. Yields whether the question was answered. Errors propagate.
orvo_core::Awaitable<bool> ask(AskOptions options, std::ostream* out, std::ostream* err);

}  // namespace orvo_cli
