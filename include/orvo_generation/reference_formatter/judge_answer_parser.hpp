#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "orvo_core/any.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

namespace orvo_generation::reference_formatter {

/// Reads a language model's judgement of one batch: `lm_output` is what the request processor
/// returned for the batch, `reference_metadata` the key that labels its chunks. The result is the
/// positions (from 0, in any order) of the chunks of `batch_chunks` that it selects. An
/// answer that cannot be read is an error, which the formatter treats as the batch's failure.
using JudgeAnswerParser = std::function<std::vector<std::size_t>(
    const orvo_core::Any& lm_output, const Chunks& batch_chunks,
    const orvo_core::Any& reference_metadata)>;

/// The strict reading: `lm_output` must be a map whose entry under `reference_metadata` is a
/// list; a chunk is selected when its label is an element of that list. Anything else is a
/// `TypeError`.
[[nodiscard]] std::vector<std::size_t> read_judge_answer(const orvo_core::Any& lm_output,
                                                         const Chunks& batch_chunks,
                                                         const orvo_core::Any& reference_metadata);

/// A lenient reading for processors that return the model's text. The answer may be a map as
/// above, a bare list, or text holding either as JSON (inside a Markdown code fence, or with
/// prose around it); text that is only whole numbers ("1, 3") is a list of them, and text that
/// says nothing ("", "none", "[]") selects nothing. An element selects the chunks whose label
/// equals it; an integer that is no label of the batch selects the batch's entry of that number,
/// counted from 1 in the order of the context. A map without the key, or text without a list, is
/// a `ValueError` that quotes the answer.
[[nodiscard]] std::vector<std::size_t> parse_judge_answer(const orvo_core::Any& lm_output,
                                                          const Chunks& batch_chunks,
                                                          const orvo_core::Any& reference_metadata);

}  // namespace orvo_generation::reference_formatter
