#pragma once

#include <optional>
#include <string>

#include "orvo_core/any.hpp"
#include "orvo_core/object.hpp"

namespace orvo_core {

/// One retrieved piece of a document. Components share chunks by `std::shared_ptr` and never
/// copy or change them.
class Chunk : public Object {
 public:
  /// A chunk with its text, its metadata (title, address, ...), an identifier and an optional
  /// retrieval score.
  explicit Chunk(std::string content = {}, Map metadata = {}, std::string id = {},
                 std::optional<double> score = std::nullopt);

  std::string id;               ///< Identifier; empty when the producer gave none.
  std::string content;          ///< The chunk's text.
  Map metadata;                 ///< Metadata such as "file_name" and "file_url".
  std::optional<double> score;  ///< Retrieval score, if any.

  /// The fields as a new map, in the order id, content, metadata, score (absent when unset).
  [[nodiscard]] virtual Map model_dump() const;

  /// "Chunk(id='…', content='…', metadata={…}, score=None)", named after the concrete class.
  [[nodiscard]] std::string repr() const override;
};

}  // namespace orvo_core
