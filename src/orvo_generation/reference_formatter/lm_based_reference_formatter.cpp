#include "orvo_generation/reference_formatter/lm_based_reference_formatter.hpp"

#include <algorithm>
#include <utility>

#include "orvo_core/errors.hpp"

namespace orvo_generation::reference_formatter {

using orvo_core::Any;

namespace {

// The step of the batching loop: an integer (a boolean counts as 0 or 1, as in the host).
std::int64_t batch_step(const Any& batch_size) {
  std::int64_t step = 0;
  if (batch_size.is_int()) {
    step = batch_size.as_int();
  } else if (batch_size.is_bool()) {
    step = batch_size.as_bool() ? 1 : 0;
  } else {
    throw orvo_core::TypeError("`batch_size` must be an integer, got " + batch_size.type_name());
  }
  if (step == 0) throw orvo_core::ValueError("`batch_size` must not be zero");
  return step;
}

// Whether the model's answer lists `label`. Only a list is an answer: membership in a string
// would match substrings, and in anything else it is meaningless.
bool lists(const Any& answer, const Any& label, const Any& key) {
  if (!answer.is_list()) {
    throw orvo_core::TypeError("the language model's answer under " + key.repr() +
                               " must be a list, got " + answer.type_name());
  }
  const auto& values = answer.as_list();
  return std::find(values.begin(), values.end(), label) != values.end();
}

}  // namespace

LMBasedReferenceFormatter::LMBasedReferenceFormatter(
    std::shared_ptr<orvo_inference::LMRequestProcessor> lm_request_processor, Any batch_size,
    Any reference_metadata, bool stringify, FormatReferencesFunc format_references_func,
    FormatChunkFunc format_chunk_func, Any format_chunk_metadata_map, bool streamable)
    : BaseReferenceFormatter(stringify, std::move(format_references_func),
                             std::move(format_chunk_func), std::move(format_chunk_metadata_map),
                             streamable),
      lm_request_processor(std::move(lm_request_processor)),
      batch_size(std::move(batch_size)),
      reference_metadata(std::move(reference_metadata)) {}

orvo_core::Awaitable<Chunks> LMBasedReferenceFormatter::_get_relevant_chunks(std::string response,
                                                                             Chunks chunks) {
  const std::int64_t step = batch_step(batch_size);
  Chunks relevant_chunks;
  if (step < 0) co_return relevant_chunks;
  const auto size = static_cast<std::size_t>(step);
  for (std::size_t i = 0; i < chunks.size(); i += std::min(size, chunks.size() - i)) {
    const auto first = chunks.begin() + static_cast<std::ptrdiff_t>(i);
    const Chunks batch_chunks(
        first, first + static_cast<std::ptrdiff_t>(std::min(size, chunks.size() - i)));
    auto prompt_kwargs = std::make_shared<orvo_core::Map>();
    prompt_kwargs->emplace("response", response);
    prompt_kwargs->emplace("context", _format_batch_context(batch_chunks));
    const Any lm_output =
        co_await lm_request_processor->process_variables(std::move(prompt_kwargs));
    if (!lm_output.is_map()) {
      throw orvo_core::TypeError("the language model's answer must be a map, got " +
                                 lm_output.type_name());
    }
    const Any key = reference_metadata;
    const Any batch_relevant_metadata = orvo_core::lookup(lm_output.as_map(), key);
    for (const auto& chunk : batch_chunks) {
      if (lists(batch_relevant_metadata, orvo_core::lookup(chunk->metadata, key), key)) {
        relevant_chunks.push_back(chunk);
      }
    }
  }
  co_return relevant_chunks;
}

std::string LMBasedReferenceFormatter::_format_batch_context(const Chunks& chunks) const {
  std::string context;
  for (std::size_t i = 0; i < chunks.size(); ++i) {
    if (i != 0) context += "\n\n";
    context += _format_chunk_as_context(*chunks[i]);
  }
  return context;
}

std::string LMBasedReferenceFormatter::_format_chunk_as_context(
    const orvo_core::Chunk& chunk) const {
  std::string context = "[CHUNK]\n";
  reference_metadata.append_str(context);
  context += ": ";
  orvo_core::lookup(chunk.metadata, reference_metadata).append_str(context);
  context += "\nContent:\n";
  context += chunk.content;
  return context;
}

}  // namespace orvo_generation::reference_formatter
