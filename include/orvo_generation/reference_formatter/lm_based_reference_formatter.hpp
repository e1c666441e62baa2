#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "orvo_generation/reference_formatter/reference_formatter.hpp"
#include "orvo_inference/request_processor/lm_request_processor.hpp"
#include "orvo_inference/request_processor/uses_lm.hpp"

namespace orvo_generation::reference_formatter {

/// The default number of chunks shown to the language model in one request.
inline constexpr std::int64_t DEFAULT_BATCH_SIZE = 5;

/// The default metadata key that labels chunks for the model and keys its answer.
inline constexpr const char* DEFAULT_REFERENCE_METADATA = "file_name";

/// Lets a language model judge which chunks are relevant, `batch_size` chunks per request. Each
/// chunk is shown with its `reference_metadata` value as label; the model answers with a map
/// whose `reference_metadata` entry lists the labels of the relevant chunks.
class LMBasedReferenceFormatter : public BaseReferenceFormatter, public orvo_inference::UsesLM {
 public:
  /// Stores the processor, batch size and metadata key, unchecked; the rest goes to the base.
  explicit LMBasedReferenceFormatter(
      std::shared_ptr<orvo_inference::LMRequestProcessor> lm_request_processor,
      orvo_core::Any batch_size = DEFAULT_BATCH_SIZE,
      orvo_core::Any reference_metadata = DEFAULT_REFERENCE_METADATA, bool stringify = true,
      FormatReferencesFunc format_references_func = {}, FormatChunkFunc format_chunk_func = {},
      orvo_core::Any format_chunk_metadata_map = {}, bool streamable = true);

  /// Sends the chunks batch after batch and keeps, in input order, those whose label the
  /// model's answer lists. A zero batch size is a `ValueError` and a non-integer one a
  /// `TypeError` (both before any request); a negative one keeps nothing. An answer that is not
  /// a map, or whose entry is not a list, is a `TypeError`.
  orvo_core::Awaitable<Chunks> _get_relevant_chunks(std::string response, Chunks chunks) override;

  /// The context of one batch: the chunks' contexts joined by an empty line.
  [[nodiscard]] virtual std::string _format_batch_context(const Chunks& chunks) const;

  /// "[CHUNK]\n<key>: <label>\nContent:\n<content>"
  [[nodiscard]] virtual std::string _format_chunk_as_context(const orvo_core::Chunk& chunk) const;

  std::shared_ptr<orvo_inference::LMRequestProcessor> lm_request_processor;  ///< The judge.
  orvo_core::Any batch_size;          ///< Chunks per request, an integer.
  orvo_core::Any reference_metadata;  ///< Metadata key of the labels, a string.
};

}  // namespace orvo_generation::reference_formatter
