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
using orvo_test::make_chunk;

Any answer(Any labels) {
  return Map{{"file_name", std::move(labels)}};
}

// Answers every batch with `reply` unless told otherwise.
struct Fixture {
  explicit Fixture(Any reply = answer(List{})) {
    processor->respond = [reply](const Map& /*prompt*/, std::size_t /*i*/) { return reply; };
  }

  // The contents of the chunks kept, or the kind of error.
  std::string relevant(const rf::Chunks& chunks) {
    try {
      std::string kept;
      for (const auto& chunk :
           orvo_core::run_sync(formatter._get_relevant_chunks("resp", chunks))) {
        kept += (kept.empty() ? "" : " ") + chunk->content;
      }
      return kept;
    } catch (const orvo_core::ValueError&) {
      return "ValueError";
    } catch (const orvo_core::TypeError&) {
      return "TypeError";
    }
  }

  std::shared_ptr<orvo_test::FakeLMRequestProcessor> processor =
      std::make_shared<orvo_test::FakeLMRequestProcessor>();
  rf::LMBasedReferenceFormatter formatter{processor};
};

// Chunks "c0", "c1", ... labelled "f0.pdf", "f1.pdf", ...
rf::Chunks labelled(int count) {
  rf::Chunks chunks;
  for (int i = 0; i < count; ++i) {
    chunks.push_back(make_chunk("c" + std::to_string(i), "f" + std::to_string(i) + ".pdf"));
  }
  return chunks;
}

TEST(lm_based_reference_formatter, sends_batches_of_five_in_order_and_matches_per_batch) {
  Fixture f;
  f.processor->respond = [](const Map& /*prompt*/, std::size_t i) {
    // The first batch's answer names a chunk of the second batch, which must not select it.
    return i == 0 ? answer(List{Any("f4.pdf"), Any("f1.pdf"), Any("f6.pdf")})
                  : answer(List{Any("f5.pdf")});
  };
  EXPECT_EQ(f.relevant(labelled(7)), "c1 c4 c5");
  ASSERT_EQ(f.processor->calls.size(), 2U);
  for (const auto& call : f.processor->calls) {
    ASSERT_EQ(call.snapshot.size(), 2U);
    EXPECT_EQ(call.snapshot.begin()->first, "response");
    EXPECT_EQ(orvo_core::get(call.snapshot, "response"), Any("resp"));
    EXPECT_TRUE(call.history.is_none());
    EXPECT_EQ(call.event_emitter, nullptr);
  }
  EXPECT_EQ(orvo_core::get(f.processor->calls[1].snapshot, "context").str(),
            "[CHUNK]\nfile_name: f5.pdf\nContent:\nc5\n\n[CHUNK]\nfile_name: f6.pdf\nContent:\nc6");
}

TEST(lm_based_reference_formatter, the_answer_only_selects_and_must_be_a_list) {
  const auto a = make_chunk("a", "a.pdf");
  const auto a2 = make_chunk("a2", "a.pdf");
  const auto b = make_chunk("b", "b.pdf");
  const auto unlabelled = make_chunk("u");
  const struct {
    const char* name;
    Any answer;
    rf::Chunks chunks;
    const char* kept;
  } cases[] = {
      {"order and repeats",
       answer(List{Any("b.pdf"), Any("a.pdf"), Any("a.pdf")}),
       {a, b, unlabelled},
       "a b"},
      {"shared label", answer(List{Any("a.pdf")}), {a, a2, b}, "a a2"},
      {"case-sensitive", answer(List{Any("A.pdf")}), {a}, ""},
      {"the text None is not null", answer(List{Any("None")}), {unlabelled}, ""},
      {"null selects the unlabelled", answer(List{Any()}), {unlabelled, a}, "u"},
      {"no map", Any(List{}), {a}, "TypeError"},
      {"no key", Any(Map{}), {a}, "TypeError"},
      {"null", answer(Any()), {a}, "TypeError"},
      {"a number", answer(Any(3)), {a}, "TypeError"},
      {"a string would match substrings", answer(Any("a.pdf, b.pdf")), {a}, "TypeError"},
  };
  for (const auto& c : cases) {
    Fixture f(c.answer);
    EXPECT_EQ(f.relevant(c.chunks), c.kept) << c.name;
  }
}

TEST(lm_based_reference_formatter, context_and_answer_follow_the_reference_metadata_key) {
  Fixture f(Map{{"page", List{Any(7.0)}}});
  f.formatter.reference_metadata = "page";
  const auto chunk = std::make_shared<orvo_core::Chunk>("Alpha", Map{{"page", 7}});
  EXPECT_EQ(f.formatter._format_chunk_as_context(*chunk), "[CHUNK]\npage: 7\nContent:\nAlpha");
  EXPECT_EQ(f.formatter._format_chunk_as_context(orvo_core::Chunk("Beta")),
            "[CHUNK]\npage: None\nContent:\nBeta");
  EXPECT_EQ(f.relevant({chunk}), "Alpha") << "labels compare as values: 7 equals 7.0";
}

TEST(lm_based_reference_formatter, batch_size_rules) {
  const struct {
    Any batch_size;
    int chunks;
    const char* kept;
    std::size_t calls;
  } cases[] = {
      {Any(-1), 3, "", 0},
      {Any(2), 5, "c0 c1", 3},  // An answer that selects nothing does not stop the rest.
      {Any(5), 0, "", 0},
      {Any(0), 0, "ValueError", 0},
      {Any(2.5), 3, "TypeError", 0},
      {Any("2"), 3, "TypeError", 0},
      {Any(), 3, "TypeError", 0},
  };
  for (const auto& c : cases) {
    Fixture f(answer(List{Any("f0.pdf"), Any("f1.pdf")}));
    f.formatter.batch_size = c.batch_size;
    EXPECT_EQ(f.relevant(labelled(c.chunks)), c.kept) << c.batch_size.repr();
    EXPECT_EQ(f.processor->calls.size(), c.calls) << c.batch_size.repr();
  }
}

TEST(lm_based_reference_formatter, a_failing_request_stops_the_remaining_batches) {
  Fixture f(answer(List{Any("f0.pdf")}));
  f.formatter.batch_size = 1;
  f.processor->fail_at = 1;
  EXPECT_THROW((void)f.relevant(labelled(3)), std::runtime_error);
  EXPECT_EQ(f.processor->calls.size(), 1U);
}

}  // namespace
