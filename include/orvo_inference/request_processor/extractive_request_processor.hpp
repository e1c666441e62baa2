#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "orvo_inference/em_invoker/lexical_em_invoker.hpp"
#include "orvo_inference/request_processor/lm_request_processor.hpp"

namespace orvo_inference {

/// A request processor that needs no model: it answers by extracting, and judges by lexical
/// overlap. It serves where no server is at hand; its heuristics are simple and honest:
///
/// - `Task::answer` (for the stuff synthesizer; prompt variables "query" and "context"): the
///   context is read as chunks, each led by a Markdown heading line (its heading path), with
///   paragraphs and list items one a line; code blocks and tables are skipped. Each sentence (a
///   list item counts as one) is scored by the share of the question's words it holds, weighted
///   by their rarity in the context (words its chunk's heading holds count in part), by how much
///   of the question its chunk holds, by whether the words open the sentence, and by whether it
///   gives the kind of answer asked for (a cause for "why", a number for "how many", ...);
///   sentences that only repeat the question lose. The best sentence, with the one before it
///   that it leans on ("Such a point ...") and the one after it that carries it on ("At those
///   times ..."), or else with the next best of its chunk when nearly as good, makes the answer,
///   at most `max_sentences` in context order. A sentence whose chunk's heading names its
///   subject in code and that does not is led by that name ("`fs.existsSync(path)`: Returns
///   ..."). When no chunk holds most of the question's weight, or the best score is below
///   `min_similarity`, the answer is `kNoAnswer`. With an emitter, the answer is emitted word by
///   word as RESPONSE events.
/// - `Task::judge` (for the LM-based reference formatter; prompt variables "response" and
///   "context" in its "[CHUNK]" layout): a chunk is relevant when the lexical similarity of its
///   content to the response reaches `min_similarity`. The answer is a map from the context's
///   label key to the list of relevant labels (a label shown as None is listed as null).
class ExtractiveRequestProcessor : public LMRequestProcessor {
 public:
  /// What the processor is asked to do.
  enum class Task { answer, judge };

  /// The answer when the context does not hold one.
  static constexpr std::string_view kNoAnswer = "I couldn't find an answer in the documents.";

  /// A processor for `task`; the threshold defaults to 0.35 for answers and 0.3 for judgements.
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
  double min_similarity;      ///< The lowest score of an answer or a relevant chunk.
  std::size_t max_sentences;  ///< Sentences in an answer, at most.

 private:
  LexicalEMInvoker embedder_;
};

}  // namespace orvo_inference
