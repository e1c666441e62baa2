#include "orvo_core/json.hpp"

#include <bit>
#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "support/expect_throw_msg.hpp"

namespace {

using orvo_core::Any;

// Values in document order are the differential test's, which reads python3's JSON of each value.
TEST(json, parses_into_values_in_document_order) {
  EXPECT_EQ(orvo_core::parse_json(R"({"a": 1, "b": 2, "a": [3]})").str(), "{'a': [3], 'b': 2}");
}

// The offset is the original text's, also after escapes of bytes earlier on. Lone surrogates
// that no byte stands for have no form in UTF-8.
TEST(json, malformed_text_is_a_value_error_with_an_excerpt) {
  const struct {
    std::string text;
    std::string fragment;
  } cases[] = {
      {R"({"answer": oops})", R"(at offset 11): '{"answer": oops}')"},
      {R"(["\udc80\udcff", "\udc80", oops])", "at offset 27"},
      {"[1] 2", "at offset 4"},
      {R"("\udc7f")", ""},
      {R"("\udd80")", ""},
      {R"("\ud800")", ""},
      {R"("\ud800\u0041")", ""},
      {R"("\udc8g")", ""},
      {R"(["x", \udc80])", ""},  // outside a string
  };
  for (const auto& c : cases) {
    EXPECT_THROW_MSG(orvo_core::parse_json(c.text), orvo_core::ValueError, c.fragment);
  }
}

TEST(json, nesting_up_to_the_limit_parses_and_writes_back) {
  const std::string deepest = std::string(1000, '[') + std::string(1000, ']');
  EXPECT_EQ(orvo_core::to_json(orvo_core::parse_json(deepest)), deepest);
  EXPECT_THROW((void)orvo_core::parse_json("[" + deepest + "]"), orvo_core::ValueError);
}

// The writer spells each byte that is not UTF-8 as \udc80..\udcff, and reading maps it back; the
// differential test reads every byte and code point so, in keys and values. Here the escapes
// that python3 never writes.
TEST(json, lone_surrogate_escapes_of_bytes_read_back_as_those_bytes) {
  const struct {
    const char* json;
    std::string value;
  } cases[] = {
      {R"("\udcc3\udca9")", "\xc3\xa9"},  // bytes that happen to spell U+00E9
      {R"("\\udc80")", "\\udc80"},        // an escaped backslash, then plain text
      {"\"\xff\xc3\"", "\xff\xc3"},       // raw bytes pass through
  };
  for (const auto& c : cases) EXPECT_EQ(orvo_core::parse_json(c.json), Any(c.value)) << c.json;
}

// The shortest forms python3 writes (extremes, signed zero and int64 bounds included) are the
// differential test's; here the forms it never writes.
TEST(json, numbers_read_as_the_nearest_double) {
  const struct {
    const char* json;
    double value;
  } cases[] = {
      // Seventeen digits where a faster reader lands one unit in the last place off.
      {"933907.1683960299", 933907.1683960299},
      {"2.4703282292062328e-324", 5e-324},
      // Beyond the doubles: infinity or a signed zero.
      {"1.7976931348623159e308", std::numeric_limits<double>::infinity()},
      {"2.4703282292062327e-324", 0.0},
      // Integers beyond 64 bits.
      {"9223372036854775808", 9223372036854775808.0},
      {"-9223372036854775809", -9223372036854775809.0},
  };
  for (const auto& c : cases) {
    const Any parsed = orvo_core::parse_json(std::string("[") + c.json + "]").as_list().at(0);
    ASSERT_TRUE(parsed.is_float()) << c.json;
    EXPECT_EQ(std::bit_cast<std::uint64_t>(parsed.as_float()),
              std::bit_cast<std::uint64_t>(c.value))
        << c.json;
  }
  EXPECT_TRUE(orvo_core::parse_json("-0").is_int());
}

// Floats JSON has no number for are the differential test's, nested anywhere in a value.
TEST(json, values_without_a_json_form_are_refused) {
  EXPECT_THROW((void)orvo_core::to_json(Any(std::make_shared<orvo_core::Chunk>())),
               orvo_core::TypeError);
  const Any cycle(orvo_core::List{});
  cycle.as_list().push_back(cycle);
  EXPECT_THROW((void)orvo_core::to_json(cycle), orvo_core::ValueError);
  cycle.as_list().clear();
}

}  // namespace
