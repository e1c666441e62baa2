// The JSON text of a reference event carries any bytes through pure ASCII and back.

#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"
#include "json_string.hpp"
#include "orvo_core/json.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

namespace {

using orvo_fuzz::escaped;

void skip_space(std::string_view text, std::size_t& pos) {
  while (pos < text.size() &&
         (text[pos] == ' ' || text[pos] == '\t' || text[pos] == '\n' || text[pos] == '\r')) {
    ++pos;
  }
}

// Reads `"key": "value"` at `pos`; fails the run when it is not there.
std::pair<std::string, std::string> member(std::string_view payload, std::size_t& pos,
                                           const std::string& context) {
  std::string why;
  skip_space(payload, pos);
  const auto key = orvo_fuzz::decode_json_string(payload, pos, why);
  ORVO_FUZZ_CHECK(key.has_value(), why + " in key: " + context);
  skip_space(payload, pos);
  ORVO_FUZZ_CHECK(pos < payload.size() && payload[pos] == ':', context);
  ++pos;
  skip_space(payload, pos);
  const auto value = orvo_fuzz::decode_json_string(payload, pos, why);
  ORVO_FUZZ_CHECK(value.has_value(), why + " in value: " + context);
  skip_space(payload, pos);
  return {*key, *value};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::string payload = orvo_generation::reference_formatter::reference_payload(bytes);
  const std::string context = escaped(bytes) + " -> " + escaped(payload);

  for (const char c : payload) ORVO_FUZZ_CHECK(c >= 0x20 && c < 0x7F, context);

  std::size_t pos = 0;
  skip_space(payload, pos);
  ORVO_FUZZ_CHECK(pos < payload.size() && payload[pos] == '{', context);
  ++pos;
  const auto [type_key, type_value] = member(payload, pos, context);
  ORVO_FUZZ_CHECK(type_key == "data_type" && type_value == "reference", context);
  ORVO_FUZZ_CHECK(pos < payload.size() && payload[pos] == ',', context);
  ++pos;
  const auto [value_key, value] = member(payload, pos, context);
  ORVO_FUZZ_CHECK(value_key == "data_value", context);
  ORVO_FUZZ_CHECK(pos < payload.size() && payload[pos] == '}', context);
  ++pos;
  skip_space(payload, pos);
  ORVO_FUZZ_CHECK(pos == payload.size(), context);
  ORVO_FUZZ_CHECK(value == bytes, context + " -> " + escaped(value));

  // The general JSON writer produces the same text for the same object.
  orvo_core::Map object;
  object.insert_or_assign("data_type", "reference");
  object.insert_or_assign("data_value", std::string(bytes));
  ORVO_FUZZ_CHECK(orvo_core::to_json(orvo_core::Any(std::move(object))) == payload, context);
  return 0;
}
