#include "orvo_core/any.hpp"

#include <cstdint>
#include <limits>
#include <memory>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "support/expect_throw_msg.hpp"

namespace {

using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;

namespace shapes {
struct Widget : orvo_core::Object {};
template <class T>
struct Boxed : orvo_core::Object {};
}  // namespace shapes

TEST(any, truth_test_follows_the_host) {
  const struct {
    Any value;
    bool truthy;
  } cases[] = {
      {Any(0), false},
      {Any(0.0), false},
      {Any(std::numeric_limits<double>::quiet_NaN()), true},
      {Any(""), false},
      {Any(Map{}), false},
      {Any(Map{{"a", Any()}}), true},
      {Any(std::make_shared<orvo_core::Chunk>()), true},
  };
  for (const auto& c : cases) EXPECT_EQ(c.value.truthy(), c.truthy) << c.value.repr();
}

TEST(any, equality_compares_numbers_by_value_containers_by_content_and_objects_by_identity) {
  // Integers against floats, symmetry and a value against itself are the fuzz target's.
  const auto chunk = std::make_shared<orvo_core::Chunk>("x");
  const struct {
    Any a;
    Any b;
    bool equal;
  } cases[] = {
      {Any("1"), Any(1), false},
      {Any(), Any(0), false},
      {Any(List{Any(1), Any("a")}), Any(List{Any(1.0), Any("a")}), true},
      {Any(Map{{"a", 1}, {"b", 2}}), Any(Map{{"b", 2}, {"a", 1}}), true},
      {Any(List{}), Any(Map{}), false},
      {Any(chunk), Any(std::make_shared<orvo_core::Chunk>("x")), false},
  };
  for (const auto& c : cases) EXPECT_EQ(c.a == c.b, c.equal) << c.a.repr() << " vs " << c.b.repr();
}

TEST(any, self_containing_containers_render_like_the_host) {
  const Any list(List{Any(1)});
  list.as_list().push_back(list);
  EXPECT_EQ(list.repr(), "[1, [...]]");

  const Any map(Map{});
  map.as_map().insert_or_assign("self", map);
  EXPECT_EQ(map.str(), "{'self': {...}}");
  EXPECT_TRUE(map == map);
  // A chunk whose metadata reaches the chunk again, with no shared container on the way.
  const auto chunk = std::make_shared<orvo_core::Chunk>("c");
  chunk->metadata.insert_or_assign("self", chunk);
  EXPECT_EQ(Any(chunk).repr(),
            "Chunk(id='', content='c', metadata={'self': Chunk(id='', "
            "content='c', metadata={...}, score=None)}, score=None)");
  // Break the cycles so the containers are released.
  list.as_list().clear();
  map.as_map().clear();
  chunk->metadata.clear();
}

TEST(any, excessive_nesting_is_an_error_not_a_crash) {
  Any deep = List{};
  for (int i = 0; i < 2000; ++i) deep = List{deep};
  EXPECT_THROW((void)deep.repr(), orvo_core::ValueError);
  EXPECT_THROW((void)(deep == Any(List{deep})), orvo_core::ValueError);
}

TEST(any, checked_accessors_kind_tests_and_type_names) {
  EXPECT_THROW_MSG(Any(3).as_string(), orvo_core::TypeError, "expected str, got int");
  EXPECT_THROW(Any(std::numeric_limits<std::uint64_t>::max()), orvo_core::ValueError);

  struct SpecialChunk : orvo_core::Chunk {};
  EXPECT_TRUE(Any(std::make_shared<SpecialChunk>()).is<orvo_core::Chunk>());
  EXPECT_FALSE(Any(std::make_shared<shapes::Widget>()).is<orvo_core::Chunk>());
  EXPECT_TRUE(Any(std::shared_ptr<orvo_core::Chunk>()).is_none());
  EXPECT_EQ(Any(std::make_shared<shapes::Boxed<int>>()).type_name(), "Boxed");
  EXPECT_EQ(Any(std::make_shared<shapes::Widget>()).repr(), "<Widget object>");
}

TEST(any, length_counts_code_points_elements_and_entries) {
  EXPECT_EQ(orvo_core::length(Any("h\xc3\xa9llo")), 5U);
  EXPECT_EQ(orvo_core::length(Any(Map{{"a", 1}})), 1U);
  EXPECT_THROW((void)orvo_core::length(Any(5)), orvo_core::TypeError);
}

}  // namespace
