#pragma once

/// Defines a base class for response synthesizers used in Gen AI applications.

#include <memory>
#include <string>

#include "orvo_core/any.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/event/event_emitter.hpp"
#include "orvo_core/schema/component.hpp"

namespace orvo_generation::response_synthesizer {

/// Abstract base of the response synthesizers: maps an invocation's keyword arguments onto
/// `synthesize_response` and applies the `streamable` switch.
class BaseResponseSynthesizer : public orvo_core::Component {
 public:
  /// Stores `streamable`.
  explicit BaseResponseSynthesizer(bool streamable = true);

  /// Reads "query", "state_variables" (or, only when that key is missing, the older name
  /// "variables"), "history", "event_emitter" (passed on only when `streamable`),
  /// "system_multimodal_contents" and "user_multimodal_contents", and awaits
  /// `synthesize_response` with them. No key is required; other keys are ignored.
  orvo_core::Awaitable<orvo_core::Any> _run(orvo_core::Kwargs kwargs) override;

  /// The response: a string by contract, though a synthesizer that relays a collaborator's
  /// answer returns it unchanged. Abstract; the base's body raises `NotImplementedError`.
  virtual orvo_core::Awaitable<orvo_core::Any> synthesize_response(
      orvo_core::Any query = {}, orvo_core::Any state_variables = {}, orvo_core::Any history = {},
      std::shared_ptr<orvo_core::EventEmitter> event_emitter = nullptr,
      orvo_core::Any system_multimodal_contents = {},
      orvo_core::Any user_multimodal_contents = {}) = 0;

  /// "[Start '<class>'] Processing query: <quoted query>"
  [[nodiscard]] std::string _format_input_event(const orvo_core::Map& input_dict) const override;

  /// "[Finished '<class>'] Successfully synthesized response:\n<quoted response>"
  [[nodiscard]] std::string _format_output_event(const orvo_core::Any& output) const override;

  bool streamable;  ///< Whether `_run` passes the event emitter on.
};

}  // namespace orvo_generation::response_synthesizer
