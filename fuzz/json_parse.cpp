// Parsing arbitrary text as JSON, and writing back what was parsed.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/json.hpp"

namespace {

using orvo_core::Any;

// Whether a parsed value (a tree: no sharing, no cycles) holds a float that is not finite.
bool non_finite(const Any& v) {
  if (v.is_float()) return !std::isfinite(v.as_float());
  if (v.is_list()) return std::any_of(v.as_list().begin(), v.as_list().end(), non_finite);
  if (!v.is_map()) return false;
  return std::any_of(v.as_map().begin(), v.as_map().end(),
                     [](const auto& entry) { return non_finite(entry.second); });
}

}  // namespace

// Only ValueError may escape a parse of the input; anything else stops the run.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Any value;
  try {
    value = orvo_core::parse_json(text);
  } catch (const orvo_core::ValueError&) {
    return 0;
  }
  const std::string context = orvo_fuzz::escaped(text);
  std::string written;
  try {
    written = orvo_core::to_json(value);
  } catch (const orvo_core::ValueError& e) {
    ORVO_FUZZ_CHECK(non_finite(value), context + ": " + e.what());
    return 0;
  }
  ORVO_FUZZ_CHECK(!non_finite(value), context);
  for (const char c : written) ORVO_FUZZ_CHECK(c >= 0x20 && c < 0x7F, context + " -> " + written);
  // Parses back to an equal value, and writing that again is a fixed
  // point: floats keep their shortest form, maps their order.
  const Any reparsed = orvo_core::parse_json(written);
  ORVO_FUZZ_CHECK(reparsed == value, context + " -> " + written);
  ORVO_FUZZ_CHECK(orvo_core::to_json(reparsed) == written, context + " -> " + written);
  return 0;
}
