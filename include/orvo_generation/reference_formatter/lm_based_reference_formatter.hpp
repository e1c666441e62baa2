#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "orvo_generation/reference_formatter/judge_answer_parser.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"
#include "orvo_generation/reference_formatter/similarity_based_reference_formatter.hpp"
#include "orvo_inference/em_invoker/em_invoker.hpp"
#include "orvo_inference/request_processor/lm_request_processor.hpp"
#include "orvo_inference/request_processor/uses_lm.hpp"

namespace orvo_generation::reference_formatter {

/// The default number of chunks shown to the language model in one request.
inline constexpr std::int64_t DEFAULT_BATCH_SIZE = 5;

/// The default metadata key that labels chunks for the model and keys its answer.
inline constexpr const char* DEFAULT_REFERENCE_METADATA = "file_name";

/// What the LM-based formatter does when judging a batch fails: its request raised, or its answer
/// could not be read. Every policy but `RAISE` reports the failure to the invocation's emitter.
enum class BatchFailurePolicy : std::uint8_t {
  RAISE,       ///< The error reaches the caller; no further batch is sent.
  DROP,        ///< The batch keeps none of its chunks.
  KEEP,        ///< The batch keeps all of its chunks.
  SIMILARITY,  ///< The batch keeps the chunks similar enough to the response, in input order.
};

/// The policy's name in lower case, e.g. "drop".
[[nodiscard]] std::string_view to_string(BatchFailurePolicy policy) noexcept;

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

  /// `_get_relevant_chunks`, but with a failure policy other than `RAISE` the batches are judged
  /// here, and each failed batch is reported once judging is over, in batch order, as one
  /// WARNING DATA event `{"data_type": "reference_batch_failure", "data_value": {"batch": <from
  /// 1>, "first_chunk": <position from 0>, "chunks": <n>, "policy": "drop", "error": <text>}}`.
  orvo_core::Awaitable<Chunks> _select_relevant_chunks(
      std::string response, Chunks chunks,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter) override;

  /// Sends the chunks batch after batch and keeps, in input order, those whose label the
  /// model's answer lists. A zero batch size is a `ValueError` and a non-integer one a
  /// `TypeError` (both before any request); a negative one keeps nothing. An answer that is not
  /// a map, or whose entry is not a list, is a `TypeError`.
  /// With `max_concurrency` above 1, that many batches are in flight at once; the result is
  /// still in input order, whatever order the answers come in. Under `RAISE` the first failure
  /// cancels the batches in flight and reaches the caller.
  orvo_core::Awaitable<Chunks> _get_relevant_chunks(std::string response, Chunks chunks) override;

  /// The context of one batch: the chunks' contexts joined by an empty line.
  [[nodiscard]] virtual std::string _format_batch_context(const Chunks& chunks) const;

  /// "[CHUNK]\n<key>: <label>\nContent:\n<content>"
  [[nodiscard]] virtual std::string _format_chunk_as_context(const orvo_core::Chunk& chunk) const;

  std::shared_ptr<orvo_inference::LMRequestProcessor> lm_request_processor;  ///< The judge.
  orvo_core::Any batch_size;          ///< Chunks per request, an integer.
  orvo_core::Any reference_metadata;  ///< Metadata key of the labels, a string.

  /// Batches in flight at once; 1 (or less) sends them one after another.
  std::int64_t max_concurrency = 1;
  /// What a failed batch does; `RAISE` lets the error through.
  BatchFailurePolicy on_batch_failure = BatchFailurePolicy::RAISE;
  /// Reads each batch's answer; empty: `read_judge_answer`, the strict reading.
  JudgeAnswerParser answer_parser;
  /// Scores a failed batch under `SIMILARITY`: the response and the batch's contents, in one
  /// request. That policy without an invoker is a `ValueError` before any request.
  std::shared_ptr<orvo_inference::BaseEMInvoker> fallback_em_invoker;
  /// The lowest similarity at which `SIMILARITY` keeps a chunk.
  double fallback_threshold = DEFAULT_THRESHOLD;

 private:
  struct Judgement;
  orvo_core::Awaitable<Chunks> judge(std::string response, Chunks chunks,
                                     std::shared_ptr<orvo_core::EventEmitter> event_emitter,
                                     BatchFailurePolicy policy);
  orvo_core::Awaitable<void> judge_batches(std::shared_ptr<Judgement> judgement);
  orvo_core::Awaitable<void> judge_batch(std::shared_ptr<Judgement> judgement, std::size_t batch);
};

}  // namespace orvo_generation::reference_formatter
