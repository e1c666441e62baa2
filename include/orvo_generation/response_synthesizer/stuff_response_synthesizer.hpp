#pragma once

#include <memory>
#include <string>

#include "orvo_generation/response_synthesizer/response_synthesizer.hpp"
#include "orvo_inference/request_processor/lm_request_processor.hpp"
#include "orvo_inference/request_processor/uses_lm.hpp"

namespace orvo_generation::response_synthesizer {

/// Synthesizes the response with one language-model request into whose prompt the query and
/// all state variables are put at once.
class StuffResponseSynthesizer : public BaseResponseSynthesizer, public orvo_inference::UsesLM {
 public:
  /// Stores the request processor (shared, not copied) and `streamable`.
  explicit StuffResponseSynthesizer(
      std::shared_ptr<orvo_inference::LMRequestProcessor> lm_request_processor,
      bool streamable = true);

  /// Awaits one `process` call. The prompt variables are the caller's own `state_variables` map
  /// when it has entries (so the caller sees the "query" entry afterwards), a new map
  /// otherwise; a non-empty query is set under "query". History, emitter and multimodal
  /// contents go to `process` unchanged, and its answer is returned unchanged.
  orvo_core::Awaitable<orvo_core::Any> synthesize_response(
      orvo_core::Any query = {}, orvo_core::Any state_variables = {}, orvo_core::Any history = {},
      std::shared_ptr<orvo_core::EventEmitter> event_emitter = nullptr,
      orvo_core::Any system_multimodal_contents = {},
      orvo_core::Any user_multimodal_contents = {}) override;

  std::shared_ptr<orvo_inference::LMRequestProcessor> lm_request_processor;  ///< The model.
};

}  // namespace orvo_generation::response_synthesizer
