#pragma once

/// Defines a response synthesizer that synthesizes a static list response.

#include <memory>
#include <string>

#include "orvo_generation/response_synthesizer/response_synthesizer.hpp"

namespace orvo_generation::response_synthesizer {

/// The default text in front of the list.
inline constexpr const char* DEFAULT_RESPONSE_PREFIX = "Here's what I found based your query:\n";

/// The default response when the list is empty.
inline constexpr const char* DEFAULT_FALLBACK_RESPONSE =
    "Sorry, I couldn't find anything based on your query.";

/// Renders the strings under the state variable "context_list" as a numbered list under a
/// prefix, or a fallback text when the list is empty, and emits the response as one event.
class StaticListResponseSynthesizer : public BaseResponseSynthesizer {
 public:
  /// Stores the prefix as `preceding_line`, the fallback and the delimiter, unchecked.
  explicit StaticListResponseSynthesizer(std::string response_prefix = DEFAULT_RESPONSE_PREFIX,
                                         std::string fallback_response = DEFAULT_FALLBACK_RESPONSE,
                                         std::string delimiter = "\n", bool streamable = true);

  /// "<preceding_line>1. a<delimiter>2. b", or `fallback_response` for an empty list; emitted
  /// once (INFO, RESPONSE) when an emitter is given. A missing "context_list", or one that is
  /// not a list of strings, is a `ValueError`. Only the state variables and the emitter are used.
  orvo_core::Awaitable<orvo_core::Any> synthesize_response(
      orvo_core::Any query = {}, orvo_core::Any state_variables = {}, orvo_core::Any history = {},
      std::shared_ptr<orvo_core::EventEmitter> event_emitter = nullptr,
      orvo_core::Any system_multimodal_contents = {},
      orvo_core::Any user_multimodal_contents = {}) override;

  std::string preceding_line;     ///< Text in front of the first entry.
  std::string fallback_response;  ///< The whole response when the list is empty.
  std::string delimiter;          ///< Text between two entries.
};

}  // namespace orvo_generation::response_synthesizer
