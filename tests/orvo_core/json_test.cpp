#include "orvo_core/json.hpp"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_core/schema/chunk.hpp"

namespace {

using orvo_core::Any;

TEST(json, parses_into_values_in_document_order) {
  const Any value = orvo_core::parse_json(
      R"({"b": [1, 2.5, true, null, "x\u00e9"], "a": {"n": -3}, "big": 18446744073709551615})");
  EXPECT_EQ(
      value.str(),
      "{'b': [1, 2.5, True, None, 'x\xc3\xa9'], 'a': {'n': -3}, 'big': 1.8446744073709552e+19}");
  EXPECT_TRUE(value.as_map().begin()->second.as_list()[0].is_int());
}

TEST(json, malformed_text_is_a_value_error_with_an_excerpt) {
  for (const char* text : {"", "{", "[1,]", "{\"a\" 1}", "nul"}) {
    EXPECT_THROW((void)orvo_core::parse_json(text), orvo_core::ValueError) << text;
  }
  try {
    (void)orvo_core::parse_json("{\"answer\": oops}");
  } catch (const orvo_core::ValueError& e) {
    EXPECT_NE(std::string(e.what()).find("oops"), std::string::npos) << e.what();
  }
}

TEST(json, writes_in_the_hosts_default_style) {
  orvo_core::Map map;
  map.emplace("text", "caf\xc3\xa9 \"q\"\n");
  map.emplace("n", orvo_core::List{Any(1), Any(0.1), Any(1e16), Any(), Any(false)});
  EXPECT_EQ(orvo_core::to_json(Any(map)),
            R"({"text": "caf\u00e9 \"q\"\n", "n": [1, 0.1, 1e+16, null, false]})");
  EXPECT_EQ(orvo_core::parse_json(orvo_core::to_json(Any(map))), Any(map));
}

TEST(json, values_without_a_json_form_are_refused) {
  EXPECT_THROW((void)orvo_core::to_json(Any(std::numeric_limits<double>::infinity())),
               orvo_core::ValueError);
  EXPECT_THROW((void)orvo_core::to_json(Any(std::make_shared<orvo_core::Chunk>())),
               orvo_core::TypeError);
  const Any cycle(orvo_core::List{});
  cycle.as_list().push_back(cycle);
  EXPECT_THROW((void)orvo_core::to_json(cycle), orvo_core::ValueError);
  cycle.as_list().clear();
}

}  // namespace
