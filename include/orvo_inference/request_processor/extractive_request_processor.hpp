#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "orvo_inference/em_invoker/lexical_em_invoker.hpp"
#include "orvo_inference/request_processor/lm_request_processor.hpp"

namespace orvo_inference {

/// A request processor that needs no model: it answers by extracting, and judges by lexical
/// overlap. It serves where no server is at hand; its heuristics are simple and honest:
///
/// - `Task::answer` (for the stuff synthesizer; prompt variables "query" and "context"): the
///   context is cut into sentences (at ., ! or ? followed by a space, and at line ends; Markdown
///   headings are left out), each is scored by the lexical similarity of its words to the query,
///   and the `max_sentences` best that reach `min_similarity` are returned in their original
///   order, joined by blanks. With none, the answer is `no_answer`. With an emitter, the answer
///   is emitted word by word as RESPONSE events.
/// - `Task::judge` (for the LM-based reference formatter; prompt variables "response" and
///   "context" in its "[CHUNK]" layout): a chunk is relevant when the lexical similarity of its
///   content to the response reaches `min_similarity`. The answer is a map from the context's
///   label key to the list of relevant labels (a label shown as None is listed as null).
class ExtractiveRequestProcessor : public LMRequestProcessor {
 public:
  /// What the processor is asked to do.
  enum class Task { answer, judge };

  /// A processor for `task`; the similarity threshold defaults to 0.1 for answers and 0.3 for
  /// judgements.
  explicit ExtractiveRequestProcessor(Task task, double min_similarity = -1.0,
                                      std::size_t max_sentences = 3);

  orvo_core::Awaitable<orvo_core::Any> process(
      std::shared_ptr<orvo_core::Map> prompt_kwargs, orvo_core::Any history = {},
      std::shared_ptr<orvo_core::EventEmitter> event_emitter = nullptr,
      orvo_core::Any system_multimodal_contents = {},
      orvo_core::Any user_multimodal_contents = {}) override;

  /// The answer to `query` from `context` (the answer task, without streaming).
  [[nodiscard]] std::string answer(std::string_view query, std::string_view context) const;

  /// The judgement of a "[CHUNK]" context against `response` (the judge task).
  [[nodiscard]] orvo_core::Any judge(std::string_view response, std::string_view context) const;

  Task task;                  ///< Answer or judge.
  double min_similarity;      ///< The lowest lexical similarity that counts.
  std::size_t max_sentences;  ///< Sentences in an answer, at most.
  std::string no_answer = "I could not find an answer to that in the documents.";

 private:
  LexicalEMInvoker embedder_;
};

}  // namespace orvo_inference
