#pragma once

#include <string>

#include "orvo_inference/output_parser/output_parser.hpp"

namespace orvo_inference {

/// Returns the JSON object in the reply, also when the model wrapped it in a Markdown code fence
/// or surrounded it with prose.
class JsonOutputParser : public BaseOutputParser {
 public:
  [[nodiscard]] orvo_core::Any parse(const std::string& text) const override;
};

}  // namespace orvo_inference
