#pragma once

/// Defines a base class for reference formatters used in Gen AI applications.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "orvo_core/any.hpp"
#include "orvo_core/async.hpp"
#include "orvo_core/event/event_emitter.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "orvo_core/schema/component.hpp"

namespace orvo_generation::reference_formatter {

/// A list of chunks, shared with the caller.
using Chunks = std::vector<std::shared_ptr<orvo_core::Chunk>>;

/// Turns the per-chunk texts into the whole reference text.
using FormatReferencesFunc = std::function<std::string(const orvo_core::List&)>;

/// Turns one chunk into its reference entry (a string, or any value rendered by its text form).
using FormatChunkFunc = std::function<orvo_core::Any(const orvo_core::Chunk&)>;

/// The default metadata map: `title` -> "file_name", `url` -> "file_url". Formatters built
/// without a map of their own share this one map.
extern const orvo_core::Any DEFAULT_FORMAT_CHUNK_METADATA_MAP;

/// Formats a list of formatted chunks as a string of references: "References:" and one numbered
/// line per entry; the empty string when there is no entry.
[[nodiscard]] std::string format_references_as_string(const orvo_core::List& formatted_chunks);

/// Creates a function that formats a chunk as a string of reference: "[title](url)" from the
/// metadata keys that `metadata_map` names under "title" and "url", or the bare title value when
/// the chunk has no address. The function keeps `metadata_map` (a shared map) and reads it at
/// every call.
[[nodiscard]] FormatChunkFunc format_chunk_as_string(orvo_core::Any metadata_map);

/// The JSON text of a reference event: {"data_type": "reference", "data_value": <value>}.
[[nodiscard]] std::string reference_payload(std::string_view data_value);

/// The JSON text of another data event: {"data_type": <data_type>, "data_value": <data_value as
/// JSON>}.
[[nodiscard]] std::string data_payload(std::string_view data_type, orvo_core::Any data_value);

/// Abstract base of the reference formatters: checks the inputs, asks the subclass for the
/// relevant chunks, renders them and streams what it yields to the event emitter.
class BaseReferenceFormatter : public orvo_core::Component {
 public:
  /// Stores the settings; absent functions fall back to the defaults above, and an absent or
  /// empty metadata map to `DEFAULT_FORMAT_CHUNK_METADATA_MAP`.
  explicit BaseReferenceFormatter(bool stringify = true,
                                  FormatReferencesFunc format_references_func = {},
                                  FormatChunkFunc format_chunk_func = {},
                                  orvo_core::Any format_chunk_metadata_map = {},
                                  bool streamable = true);

  /// Checks "response" and "chunks", then awaits `format_reference`. The emitter under
  /// "event_emitter" is passed on only when `streamable` is true.
  orvo_core::Awaitable<orvo_core::Any> _run(orvo_core::Kwargs kwargs) override;

  /// `_run` for a caller that has read the chunks itself: "chunks" is not read.
  orvo_core::Awaitable<orvo_core::Any> _run_chunks(orvo_core::Kwargs kwargs, Chunks chunks);

  /// The relevant chunks, rendered as the reference text (`stringify`) or as the list of
  /// chunks, and streamed to `event_emitter` as reference events when there is something to
  /// stream.
  virtual orvo_core::Awaitable<orvo_core::Any> format_reference(
      std::string response, Chunks chunks,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter = nullptr);

  /// Streams `references` (what `format_reference` returns: the reference text, or a list
  /// holding `relevant_chunks`) to `event_emitter`: the text as one reference event, or one
  /// event per chunk with the text form of its dump; nothing when it is empty.
  orvo_core::Awaitable<void> stream_references(
      const orvo_core::Any& references, const Chunks& relevant_chunks,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter);

  /// The relevance step of `format_reference`, with the invocation's emitter at hand for
  /// formatters that report on the way (batch failures, scores). The base awaits
  /// `_get_relevant_chunks` and emits nothing.
  virtual orvo_core::Awaitable<Chunks> _select_relevant_chunks(
      std::string response, Chunks chunks, std::shared_ptr<orvo_core::EventEmitter> event_emitter);

  /// The chunks relevant to `response`, as a new list of the given chunks. Abstract; the base's
  /// body raises `NotImplementedError`.
  virtual orvo_core::Awaitable<Chunks> _get_relevant_chunks(std::string response,
                                                            Chunks chunks) = 0;

  /// The reference text of `chunks`, through `format_chunk_func` and `format_references_func`.
  [[nodiscard]] virtual std::string _format_as_string(const Chunks& chunks) const;

  /// "[Start '<class>'] Formatting references using <n> candidate chunks."
  [[nodiscard]] std::string _format_input_event(const orvo_core::Map& input_dict) const override;

  /// "[Finished '<class>'] Successfully formatted references:\n<quoted result>"
  [[nodiscard]] std::string _format_output_event(const orvo_core::Any& output) const override;

  bool stringify;                               ///< Result is the text (true) or the chunks.
  FormatReferencesFunc format_references_func;  ///< Per-chunk texts to reference text.
  FormatChunkFunc format_chunk_func;            ///< One chunk to its entry.
  bool streamable;                              ///< Whether `_run` passes the emitter on.
};

}  // namespace orvo_generation::reference_formatter
