// Dynamic values from arbitrary bytes: the raw bytes as a string, as JSON text and as a reference
// event's value, then values of every kind built from the bytes. The exact text forms are the
// differential test's to pin; here they must be well-formed, round-trip and compare sanely.
// Then the parsers of model-server replies: only their documented errors escape, and the event
// stream does not depend on how its bytes arrive; what they read from well-formed replies is
// the unit tests'. Their input: one byte with the embedding count, one with the number of
// sentinel floats, two with the HTTP status, four that seed the stream split, then the body.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.hpp"
#include "orvo_core/any.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/json.hpp"
#include "orvo_core/text.hpp"
#include "orvo_generation/reference_formatter/reference_formatter.hpp"
#include "orvo_inference/errors.hpp"
#include "orvo_inference/openai/openai_api.hpp"
#include "orvo_inference/output_parser/json_output_parser.hpp"

namespace {

using orvo_core::Any;
using orvo_fuzz::escaped;
using orvo_fuzz::Input;
using orvo_fuzz::ValueBuilder;
namespace openai = orvo_inference::openai;

bool printable_ascii(std::string_view s) {
  return std::all_of(s.begin(), s.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

void check_string(const std::string& s) {
  // Each step of the decoder takes at least one byte; the counts agree.
  std::size_t steps = 0;
  for (std::size_t pos = 0; pos < s.size(); ++steps) {
    const std::size_t at = pos;
    (void)orvo_core::text::decode(s, pos);
    ORVO_FUZZ_CHECK(pos > at && pos <= s.size(),
                    "at byte " + std::to_string(at) + " of " + escaped(s));
  }
  ORVO_FUZZ_CHECK(orvo_core::length(Any(s)) == steps, escaped(s));

  // A reference event carries any bytes through printable ASCII and back.
  const std::string payload = orvo_generation::reference_formatter::reference_payload(s);
  const Any event(orvo_core::Map{{"data_type", "reference"}, {"data_value", s}});
  ORVO_FUZZ_CHECK(printable_ascii(payload), escaped(payload));
  ORVO_FUZZ_CHECK(orvo_core::parse_json(payload) == event, escaped(s) + " -> " + payload);
}

// Only ValueError may escape a parse; what parses writes back as printable ASCII that parses
// to an equal value and writes again to the same text (floats keep their shortest form, maps
// their order). Only a non-finite float ("1e999") cannot be written; that every one is refused
// is the json unit test's to check.
void check_json(const std::string& text) {
  Any value;
  try {
    value = orvo_core::parse_json(text);
  } catch (const orvo_core::ValueError&) {
    return;
  }
  std::string written;
  try {
    written = orvo_core::to_json(value);
  } catch (const orvo_core::ValueError& e) {
    ORVO_FUZZ_CHECK(std::string_view(e.what()).starts_with("JSON cannot hold the float"),
                    escaped(text) + ": " + e.what());
    return;
  }
  const std::string context = escaped(text) + " -> " + written;
  ORVO_FUZZ_CHECK(printable_ascii(written), context);
  const Any reparsed = orvo_core::parse_json(written);
  ORVO_FUZZ_CHECK(reparsed == value && orvo_core::to_json(reparsed) == written, context);
}

// a == b, or nothing when the comparison gave up on a structure that holds itself.
std::optional<bool> compare(const Any& a, const Any& b) {
  try {
    return a == b;
  } catch (const orvo_core::ValueError&) {
    return std::nullopt;
  }
}

// The events of `body` fed whole, and fed in pieces cut by `seed` (some of them empty).
std::vector<std::string> events(std::string_view body, std::optional<std::uint32_t> seed) {
  std::vector<std::string> out;
  openai::EventStreamParser parser;
  std::minstd_rand cut(seed.value_or(1));
  for (std::size_t i = 0, n = 0; i < body.size(); i += n) {
    // Mostly short pieces, now and then a long one.
    const std::size_t x = cut();
    n = seed ? std::min<std::size_t>(x % 8 == 0 ? x % 64 : x % 4, body.size() - i) : body.size();
    parser.feed(body.substr(i, n), out);
  }
  parser.finish(out);
  return out;
}

void check_replies(Input in) {
  const std::size_t count = in.below(6);
  const std::size_t sentinels = in.below(4);
  const auto status = static_cast<unsigned>(in.u64(2));
  const auto seed = static_cast<std::uint32_t>(in.u64(4));
  const std::string body(in.rest());
  const std::string context = escaped(body);

  try {
    (void)openai::chat_reply_text(body);
  } catch (const orvo_inference::MalformedReplyError&) {
  }
  try {
    (void)openai::chat_delta_text(body);
  } catch (const orvo_inference::MalformedReplyError&) {
  } catch (const orvo_inference::HttpStatusError& e) {
    ORVO_FUZZ_CHECK(e.status == 200, context);
  }

  const std::string message = openai::error_message(status, body);
  ORVO_FUZZ_CHECK(message.starts_with("the server answered HTTP " + std::to_string(status)),
                  context + " -> " + escaped(message));

  std::vector<float> out(sentinels, -7.5f);
  try {
    const std::size_t dim = openai::append_embeddings(body, count, out);
    ORVO_FUZZ_CHECK((count == 0 || dim > 0) && out.size() == sentinels + count * dim, context);
  } catch (const orvo_inference::MalformedReplyError&) {
  }
  for (std::size_t i = 0; i < sentinels; ++i) ORVO_FUZZ_CHECK(out[i] == -7.5f, context);

  // CR, LF and CRLF all end a line, so no event holds a CR.
  const std::vector<std::string> whole = events(body, std::nullopt);
  ORVO_FUZZ_CHECK(events(body, seed) == whole, context);
  for (const auto& event : whole) ORVO_FUZZ_CHECK(event.find('\r') == std::string::npos, context);

  try {
    ORVO_FUZZ_CHECK(orvo_inference::JsonOutputParser().parse(body).is_map(), context);
  } catch (const orvo_inference::OutputParserError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  check_string(bytes);
  check_json(bytes);
  check_replies(Input(data, size));

  // Values of every kind; chunks whose metadata may hold the containers being built make
  // cycles through an object.
  Input in(data, size);
  ValueBuilder builder(in, [](Input&, ValueBuilder& b, int depth) { return b.chunk(depth); });
  const Any a = builder.value();
  const std::string repr = a.repr();
  ORVO_FUZZ_CHECK(orvo_fuzz::valid_utf8(repr), escaped(repr));
  // A value equals itself, unless it is a NaN; equality is symmetric (where neither side gives
  // up with ValueError on a structure that holds itself).
  const bool nan_scalar = a.is_float() && std::isnan(a.as_float());
  ORVO_FUZZ_CHECK(compare(a, a) == std::optional<bool>(!nan_scalar), escaped(repr));
  const Any c = builder.value();
  const std::optional<bool> ac = compare(a, c);
  const std::optional<bool> ca = compare(c, a);
  if (ac && ca) ORVO_FUZZ_CHECK(*ac == *ca, escaped(repr) + " vs " + escaped(c.repr()));

  // Integers against floats, judged exactly in long double (64-bit mantissa).
  const std::int64_t i = builder.integer();
  const double d = builder.floating();
  const bool exact = static_cast<long double>(i) == static_cast<long double>(d);
  ORVO_FUZZ_CHECK((Any(i) == Any(d)) == exact && (Any(d) == Any(i)) == exact,
                  std::to_string(i) + " vs " + Any(d).repr());
  return 0;
}
