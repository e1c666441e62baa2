#include "orvo_generation/reference_formatter/lm_based_reference_formatter.hpp"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "support/chunks.hpp"
#include "support/fake_lm_request_processor.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;
using orvo_test::FakeLMRequestProcessor;
using orvo_test::make_chunk;
using Contents = std::vector<std::string>;

Any answer(const char* key, List values) {
  Map map;
  map.emplace(key, std::move(values));
  return map;
}

struct Fixture {
  // Answers every batch with the same list of labels unless told otherwise.
  explicit Fixture(List labels = {}) {
    processor->respond = [labels](const Map& /*prompt*/, std::size_t /*i*/) {
      return answer("file_name", labels);
    };
  }

  Contents relevant(rf::Chunks chunks) {
    const auto result = orvo_core::run_sync(formatter._get_relevant_chunks("resp", chunks));
    Contents contents;
    for (const auto& chunk : result) contents.push_back(chunk->content);
    return contents;
  }

  std::shared_ptr<FakeLMRequestProcessor> processor = std::make_shared<FakeLMRequestProcessor>();
  rf::LMBasedReferenceFormatter formatter{processor};
};

rf::Chunks labelled(int count) {
  rf::Chunks chunks;
  for (int i = 0; i < count; ++i) {
    chunks.push_back(make_chunk("c" + std::to_string(i), "f" + std::to_string(i) + ".pdf"));
  }
  return chunks;
}

TEST(lm_based_reference_formatter, defaults) {
  Fixture f;
  EXPECT_EQ(f.formatter.batch_size, Any(5));
  EXPECT_EQ(f.formatter.reference_metadata, Any("file_name"));
  EXPECT_TRUE(f.formatter.stringify);
  EXPECT_TRUE(f.formatter.streamable);
}

TEST(lm_based_reference_formatter, sends_batches_in_order_and_matches_per_batch) {
  Fixture f({Any("f1.pdf"), Any("f6.pdf"), Any("f4.pdf")});
  f.processor->respond = [](const Map& /*prompt*/, std::size_t i) {
    // The first batch's answer names a chunk of the second batch, which must not select it.
    return i == 0 ? answer("file_name", {Any("f4.pdf"), Any("f1.pdf"), Any("f6.pdf")})
                  : answer("file_name", {Any("f5.pdf")});
  };
  EXPECT_EQ(f.relevant(labelled(7)), (Contents{"c1", "c4", "c5"}));
  ASSERT_EQ(f.processor->calls.size(), 2U);
  for (const auto& call : f.processor->calls) {
    ASSERT_EQ(call.snapshot.size(), 2U);
    EXPECT_EQ(call.snapshot.begin()->first, "response");
    EXPECT_EQ((call.snapshot.begin() + 1)->first, "context");
    EXPECT_EQ(orvo_core::get(call.snapshot, "response"), Any("resp"));
    EXPECT_TRUE(call.history.is_none());
    EXPECT_EQ(call.event_emitter, nullptr);
  }
  const std::string second = orvo_core::get(f.processor->calls[1].snapshot, "context").str();
  EXPECT_EQ(second,
            "[CHUNK]\nfile_name: f5.pdf\nContent:\nc5\n\n[CHUNK]\nfile_name: f6.pdf\nContent:\nc6");
}

TEST(lm_based_reference_formatter, the_answer_only_selects) {
  const auto a = make_chunk("a", "a.pdf");
  const auto a2 = make_chunk("a2", "a.pdf");
  const auto b = make_chunk("b", "b.pdf");
  const auto c = make_chunk("c", "c.pdf");
  const auto unlabelled = make_chunk("u");
  const struct {
    const char* name;
    List labels;
    rf::Chunks chunks;
    Contents kept;
  } cases[] = {
      {"order and repeats", {Any("b.pdf"), Any("a.pdf"), Any("a.pdf")}, {a, b, c}, {"a", "b"}},
      {"shared label", {Any("a.pdf")}, {a, a2, b}, {"a", "a2"}},
      {"case-sensitive", {Any("A.pdf")}, {a}, {}},
      {"empty answer", {}, {a, b}, {}},
      {"the text None is not null", {Any("None")}, {unlabelled}, {}},
      {"null selects the unlabelled", {Any()}, {unlabelled, a}, {"u"}},
  };
  for (const auto& c_ : cases) {
    Fixture f(c_.labels);
    EXPECT_EQ(f.relevant(c_.chunks), c_.kept) << c_.name;
  }
}

TEST(lm_based_reference_formatter, context_follows_the_reference_metadata_key) {
  Fixture f;
  f.formatter.reference_metadata = "page";
  Map metadata;
  metadata.emplace("page", 7);
  const orvo_core::Chunk chunk("Alpha", metadata);
  EXPECT_EQ(f.formatter._format_chunk_as_context(chunk), "[CHUNK]\npage: 7\nContent:\nAlpha");
  EXPECT_EQ(f.formatter._format_chunk_as_context(orvo_core::Chunk("Beta")),
            "[CHUNK]\npage: None\nContent:\nBeta");
  EXPECT_EQ(f.formatter._format_batch_context({}), "");

  f.processor->respond = [](const Map& /*prompt*/, std::size_t /*i*/) {
    return answer("page", {Any(7.0)});
  };
  EXPECT_EQ(f.relevant({std::make_shared<orvo_core::Chunk>(chunk)}), Contents{"Alpha"})
      << "labels compare as values: 7 equals 7.0";
}

TEST(lm_based_reference_formatter, batch_size_rules) {
  {
    Fixture f;
    f.formatter.batch_size = -1;
    EXPECT_TRUE(f.relevant(labelled(3)).empty());
    EXPECT_TRUE(f.processor->calls.empty());
  }
  {
    Fixture f;
    f.formatter.batch_size = 0;
    EXPECT_THROW((void)f.relevant({}), orvo_core::ValueError);
  }
  for (const Any& wrong : {Any(2.5), Any("2"), Any()}) {
    Fixture f;
    f.formatter.batch_size = wrong;
    EXPECT_THROW((void)f.relevant(labelled(3)), orvo_core::TypeError) << wrong.repr();
    EXPECT_TRUE(f.processor->calls.empty());
  }
  {
    Fixture f({Any("f0.pdf"), Any("f1.pdf")});
    f.formatter.batch_size = 2;
    EXPECT_EQ(f.relevant(labelled(5)), (Contents{"c0", "c1"}));
    EXPECT_EQ(f.processor->calls.size(), 3U) << "an empty batch answer does not stop the rest";
  }
  {
    Fixture f;
    EXPECT_TRUE(f.relevant({}).empty());
    EXPECT_TRUE(f.processor->calls.empty());
  }
}

TEST(lm_based_reference_formatter, answers_of_the_wrong_shape_are_type_errors) {
  const auto under_key = [](Any value) {
    Map map;
    map.emplace("file_name", std::move(value));
    return Any(map);
  };
  const Any wrong_answers[] = {
      Any(),
      Any("f0.pdf"),
      Any(List{}),
      Any(Map{}),  // no map, or no key
      under_key(Any()),
      under_key(Any(3)),
      under_key(Any(true)),
      under_key(Any("f0.pdf, f1.pdf")),  // a string would match substrings
  };
  for (const Any& wrong : wrong_answers) {
    Fixture f;
    f.processor->respond = [wrong](const Map& /*prompt*/, std::size_t /*i*/) { return wrong; };
    EXPECT_THROW((void)f.relevant(labelled(2)), orvo_core::TypeError) << wrong.repr();
  }
}

TEST(lm_based_reference_formatter, a_failing_request_stops_the_remaining_batches) {
  Fixture f({Any("f0.pdf")});
  f.formatter.batch_size = 1;
  f.processor->fail_at = 1;
  EXPECT_THROW((void)f.relevant(labelled(3)), std::runtime_error);
  EXPECT_EQ(f.processor->calls.size(), 1U);
}

}  // namespace
