// The parsers of model-server replies on arbitrary bodies: only their documented errors escape,
// and the event stream does not depend on how its bytes arrive. What they read from well-formed
// replies is the unit tests'.
//
// Input: one byte with the embedding count, one with the number of sentinel floats, two with
// the HTTP status, four that seed the stream split, then the body.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.hpp"
#include "orvo_inference/errors.hpp"
#include "orvo_inference/openai/openai_api.hpp"
#include "orvo_inference/output_parser/json_output_parser.hpp"

namespace {

using orvo_fuzz::escaped;
namespace openai = orvo_inference::openai;

// The events of `body` fed whole, and fed in pieces cut by `seed` (some of them empty).
std::vector<std::string> events(std::string_view body, std::optional<std::uint32_t> seed) {
  std::vector<std::string> out;
  openai::EventStreamParser parser;
  std::uint32_t x = seed.value_or(1) | 1;  // xorshift: never stuck at zero
  for (std::size_t i = 0; i < body.size();) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    // Mostly short pieces, now and then a long one.
    const std::size_t n =
        seed ? std::min<std::size_t>(x % 8 == 0 ? x % 64 : x % 4, body.size() - i) : body.size();
    parser.feed(body.substr(i, n), out);
    i += n;
  }
  parser.finish(out);
  return out;
}

}  // namespace

// Any exception that a check does not catch escapes and stops the run.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  orvo_fuzz::Input in(data, size);
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

  (void)openai::error_message(status, body);

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
  return 0;
}
