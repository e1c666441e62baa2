#include "orvo_inference/output_parser/json_output_parser.hpp"

#include "orvo_core/errors.hpp"
#include "orvo_core/json.hpp"
#include "orvo_core/text.hpp"
#include "orvo_inference/errors.hpp"

namespace orvo_inference {

namespace {

// The candidate JSON text: a fenced block's body if there is one, else from the first '{' to the
// last '}'.
std::string_view json_candidate(std::string_view text) {
  const std::size_t fence = text.find("```");
  if (fence != std::string_view::npos) {
    const std::size_t body = text.find('\n', fence);
    const std::size_t end = body == std::string_view::npos ? body : text.find("```", body);
    if (end != std::string_view::npos) return text.substr(body + 1, end - body - 1);
  }
  const std::size_t open = text.find('{');
  const std::size_t close = text.rfind('}');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
    return {};
  }
  return text.substr(open, close - open + 1);
}

}  // namespace

orvo_core::Any JsonOutputParser::parse(const std::string& text) const {
  const std::string_view candidate = json_candidate(text);
  orvo_core::Any value;
  if (!candidate.empty()) {
    try {
      value = orvo_core::parse_json(candidate);
    } catch (const orvo_core::ValueError&) {
      value = {};
    }
  }
  if (!value.is_map()) {
    throw OutputParserError("expected a JSON object in the model's reply, got " +
                            orvo_core::text::quoted(orvo_core::text::excerpt(text)));
  }
  return value;
}

}  // namespace orvo_inference
