// The text forms and equality of dynamic values built from arbitrary bytes.

#include <cmath>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz_support.hpp"
#include "orvo_core/any.hpp"
#include "orvo_core/errors.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "orvo_core/text.hpp"

namespace {

using orvo_core::Any;
using orvo_fuzz::escaped;
using orvo_fuzz::Input;
using orvo_fuzz::ValueBuilder;

void check_string(const std::string& s) {
  // Each step of the decoder takes at least one byte; the counts agree.
  std::size_t steps = 0;
  for (std::size_t pos = 0; pos < s.size(); ++steps) {
    const std::size_t at = pos;
    (void)orvo_core::text::decode(s, pos);
    ORVO_FUZZ_CHECK(pos > at && pos <= s.size(),
                    "at byte " + std::to_string(at) + " of " + escaped(s));
  }
  ORVO_FUZZ_CHECK(orvo_core::text::code_point_count(s) == steps, escaped(s));
  ORVO_FUZZ_CHECK(orvo_core::length(Any(s)) == steps, escaped(s));

  const Any value(s);
  const std::string q = value.repr();
  ORVO_FUZZ_CHECK(value.str() == s, escaped(s));
  ORVO_FUZZ_CHECK(orvo_fuzz::valid_utf8(q), escaped(s) + " -> " + escaped(q));
  ORVO_FUZZ_CHECK(orvo_core::text::quoted(s) == q, escaped(s));
}

// a == b, or nothing when the comparison gave up on a structure that holds itself.
std::optional<bool> compare(const Any& a, const Any& b) {
  try {
    return a == b;
  } catch (const orvo_core::ValueError&) {
    return std::nullopt;
  }
}

void check_value_text(const Any& a) {
  const std::string r = a.repr();
  ORVO_FUZZ_CHECK(orvo_fuzz::valid_utf8(r), escaped(r));
  if (!a.is_string() && !a.is_object()) ORVO_FUZZ_CHECK(a.str() == r, escaped(r));
  std::string appended = "x";
  a.append_repr(appended);
  ORVO_FUZZ_CHECK(appended == "x" + r, escaped(r));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  check_string(std::string(reinterpret_cast<const char*>(data), size));

  // Objects: a pool fixed before the values are built, so that two builds from the same bytes
  // refer to the same objects, and fresh chunks whose metadata may hold the containers being
  // built, which makes cycles through an object.
  Input in(data, size);
  ValueBuilder pool_builder(in);
  std::vector<Any> pool{Any(std::make_shared<orvo_fuzz::Opaque>()), Any(pool_builder.chunk(3)),
                        Any(pool_builder.chunk(3))};
  bool fresh = false;
  const auto objects = [&pool, &fresh](Input& i, ValueBuilder& builder, int depth) -> Any {
    if (i.flag() || depth > 3) return pool[i.below(pool.size())];
    fresh = true;
    return builder.chunk(depth);
  };

  // Two builds from the same bytes: equal values in distinct containers.
  Input again = in;
  ValueBuilder builder(in, objects);
  const Any a = builder.value();
  ValueBuilder twin_builder(again, objects);
  const Any twin = twin_builder.value();

  check_value_text(a);
  if (a.is_string()) check_string(a.as_string());
  ORVO_FUZZ_CHECK(twin.repr() == a.repr(), escaped(a.repr()));
  // A value equals itself (unless it is a NaN), and a separate build of itself (cycles may give
  // up with ValueError).
  const bool nan_scalar = a.is_float() && std::isnan(a.as_float());
  ORVO_FUZZ_CHECK(compare(a, a) == std::optional<bool>(!nan_scalar), escaped(a.repr()));
  if (!builder.made_nan && !fresh) {
    const std::optional<bool> same = compare(a, twin);
    ORVO_FUZZ_CHECK(same == true || (!same && builder.made_cycle), escaped(a.repr()));
  }
  // Equality is symmetric.
  const Any c = builder.value();
  check_value_text(c);
  const std::optional<bool> ac = compare(a, c);
  const std::optional<bool> ca = compare(c, a);
  if (ac && ca) ORVO_FUZZ_CHECK(*ac == *ca, escaped(a.repr()) + " vs " + escaped(c.repr()));

  // Integers against floats, judged exactly in long double (64-bit mantissa).
  const std::int64_t i = builder.integer();
  const double d = builder.floating();
  const bool exact = static_cast<long double>(i) == static_cast<long double>(d);
  ORVO_FUZZ_CHECK((Any(i) == Any(d)) == exact, std::to_string(i) + " vs " + Any(d).repr());
  ORVO_FUZZ_CHECK((Any(d) == Any(i)) == exact, std::to_string(i) + " vs " + Any(d).repr());
  ORVO_FUZZ_CHECK((Any(true) == Any(d)) == (d == 1.0), Any(d).repr());

  return 0;
}
