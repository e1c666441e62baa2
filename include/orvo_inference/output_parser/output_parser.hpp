#pragma once

#include <string>

#include "orvo_core/any.hpp"
#include "orvo_core/object.hpp"

namespace orvo_inference {

/// Turns a model's reply text into the value a request processor returns.
class BaseOutputParser : public orvo_core::Object {
 public:
  /// The value of `text`; text that does not fit is an `OutputParserError` quoting an excerpt.
  [[nodiscard]] virtual orvo_core::Any parse(const std::string& text) const = 0;
};

}  // namespace orvo_inference
