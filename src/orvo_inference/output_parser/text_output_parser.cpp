#include "orvo_inference/output_parser/text_output_parser.hpp"

namespace orvo_inference {

orvo_core::Any TextOutputParser::parse(const std::string& text) const {
  return text;
}

}  // namespace orvo_inference
