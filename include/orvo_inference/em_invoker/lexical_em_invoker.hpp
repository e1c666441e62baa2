#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "orvo_inference/em_invoker/em_invoker.hpp"

namespace orvo_inference {

/// An offline embedding that needs no model: a lexical fingerprint of the text, not a semantic
/// one. Texts that share words (and, more weakly, parts of words) score high; paraphrases with
/// no words in common score near zero.
///
/// Features are the lower-cased words (one-letter words, common English function words and
/// anything after an apostrophe left out, a plural "s" dropped) with weight 1 and the character
/// trigrams of each word with weight 1/4, each counted with a sublinear weight 1 + ln(count),
/// hashed (64-bit FNV-1a, the sign from the top bit) into `dimensions` slots, and the vector
/// L2-normalised. The result depends only on the text's bytes, so it is the same on every run and
/// machine.
class LexicalEMInvoker : public BaseEMInvoker {
 public:
  /// An invoker making vectors of `dimensions` floats (at least 1).
  explicit LexicalEMInvoker(std::size_t dimensions = 1024);

  orvo_core::Awaitable<orvo_core::Embedding> invoke(std::string text) override;
  orvo_core::Awaitable<orvo_core::Embeddings> invoke(std::vector<std::string_view> texts) override;

  /// The vector of one text, computed at once.
  [[nodiscard]] orvo_core::Embedding embed(std::string_view text) const;

  /// The words that count as content words of `text`, in order, as the vector sees them.
  [[nodiscard]] static std::vector<std::string> words(std::string_view text);

  std::size_t dimensions;  ///< The length of every vector.
};

}  // namespace orvo_inference
