#pragma once

#include <memory>

#include "orvo_core/any.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/event/event_emitter.hpp"
#include "orvo_core/object.hpp"
#include "orvo_inference/lm_invoker/lm_invoker.hpp"
#include "orvo_inference/output_parser/output_parser.hpp"
#include "orvo_inference/prompt/prompt_template.hpp"

namespace orvo_inference {

/// Turns a map of prompt variables into a language-model request, runs it and returns the
/// model's parsed output: the prompt makes the messages, the invoker gets the reply, the output
/// parser makes the result. Subclasses may replace `process` altogether.
class LMRequestProcessor : public orvo_core::Object {
 public:
  /// A processor from its three parts; without an output parser the reply text is the result.
  LMRequestProcessor(PromptTemplate prompt, std::shared_ptr<BaseLMInvoker> lm_invoker,
                     std::shared_ptr<BaseOutputParser> output_parser = nullptr);

  /// Runs one request. `prompt_kwargs` is the caller's own map (shared, not copied); `history`
  /// is absent or a list of turns (see `PromptTemplate::format`); `event_emitter` receives the
  /// reply as it streams; the multimodal contents are absent or lists. The result is the parsed
  /// output. A missing prompt variable is a `ValueError`; the invoker's and the parser's errors
  /// reach the caller unchanged. When the prompt's context budget changed the context, the
  /// emitter first gets an INFO DATA event `{"data_type": "context_budget", "data_value":
  /// {"variable": "context", "budget": 1000, "tokens": 990, "pieces": 8, "truncated": 5,
  /// "dropped": [6, 7]}}` (`truncated` null when no piece was cut).
  virtual orvo_core::Awaitable<orvo_core::Any> process(
      std::shared_ptr<orvo_core::Map> prompt_kwargs, orvo_core::Any history = {},
      std::shared_ptr<orvo_core::EventEmitter> event_emitter = nullptr,
      orvo_core::Any system_multimodal_contents = {}, orvo_core::Any user_multimodal_contents = {});

  /// The call with prompt variables and nothing else, as the LM-based reference formatter makes
  /// it. It forwards to `process`; a processor that tells such a call apart from one with
  /// everything absent (a host-language processor whose `process` takes one parameter, say)
  /// overrides it.
  virtual orvo_core::Awaitable<orvo_core::Any> process_variables(
      std::shared_ptr<orvo_core::Map> prompt_kwargs);

  PromptTemplate prompt;                            ///< Makes the messages.
  std::shared_ptr<BaseLMInvoker> lm_invoker;        ///< Gets the reply.
  std::shared_ptr<BaseOutputParser> output_parser;  ///< Makes the result; null: the text.

 protected:
  /// For subclasses that replace `process`.
  LMRequestProcessor() = default;
};

}  // namespace orvo_inference
