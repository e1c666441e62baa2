// The JSON text of a reference event carries any bytes through printable ASCII and back.

#include <cstdint>
#include <string>

#include "fuzz_support.hpp"
#include "orvo_core/json.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string payload = orvo_generation::reference_formatter::reference_payload(bytes);
  const std::string context = orvo_fuzz::escaped(bytes) + " -> " + orvo_fuzz::escaped(payload);
  for (const char c : payload) ORVO_FUZZ_CHECK(c >= 0x20 && c < 0x7F, context);

  orvo_core::Map object;
  object.insert_or_assign("data_type", "reference");
  object.insert_or_assign("data_value", bytes);
  const orvo_core::Any expected(std::move(object));
  // The general writer gives the same text, and the parser reads the very bytes back.
  ORVO_FUZZ_CHECK(orvo_core::to_json(expected) == payload, context);
  ORVO_FUZZ_CHECK(orvo_core::parse_json(payload) == expected, context);
  return 0;
}
