#include "orvo_generation/reference_formatter/lm_based_reference_formatter.hpp"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "support/async_fakes.hpp"
#include "support/chunks.hpp"
#include "support/expect_throw_msg.hpp"
#include "support/fake_em_invoker.hpp"
#include "support/fake_lm_request_processor.hpp"
#include "support/recording_emitter.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;
using orvo_test::make_chunk;
using Policy = rf::BatchFailurePolicy;

Any answer(List labels) {
  return Map{{"file_name", std::move(labels)}};
}

// The first `count` of: a, a2 and b with labels (a shared one), u without, c with its own.
rf::Chunks mixed(std::size_t count = 5) {
  rf::Chunks chunks{make_chunk("a", "a.pdf"), make_chunk("a2", "a.pdf"), make_chunk("b", "b.pdf"),
                    make_chunk("u"), make_chunk("c", "c.pdf")};
  chunks.resize(count);
  return chunks;
}

const Any ac = answer(List{Any("a.pdf"), Any("c.pdf")});

// A formatter whose judge gives every batch the same answer.
struct Judge {
  explicit Judge(Any reply, Any batch_size = rf::DEFAULT_BATCH_SIZE)
      : formatter(processor, std::move(batch_size)) {
    processor->respond = [reply](const Map& /*prompt*/, std::size_t /*i*/) { return reply; };
  }

  // The contents of the chunks kept, or the kind of the error.
  std::string relevant(const rf::Chunks& chunks,
                       std::shared_ptr<orvo_core::EventEmitter> emitter = nullptr) {
    std::string kept;
    const std::string error = orvo_test::error_of([&] {
      for (const auto& chunk :
           orvo_core::run_sync(formatter._select_relevant_chunks("resp", chunks, emitter))) {
        kept += (kept.empty() ? "" : " ") + chunk->content;
      }
    });
    return error == "none" ? kept : error.substr(0, error.find(':'));
  }

  std::shared_ptr<orvo_test::FakeLMRequestProcessor> processor =
      std::make_shared<orvo_test::FakeLMRequestProcessor>();
  rf::LMBasedReferenceFormatter formatter;
};

// Batches of two put b and u together; the policy decides for them when their batch fails.
TEST(lm_based_reference_formatter, each_batch_keeps_the_chunks_its_answer_lists) {
  const struct {
    const char* name;
    Any answer;
    Any batch_size;
    const char* kept;
    std::size_t calls;
    Policy policy = Policy::RAISE;
    std::optional<std::size_t> fail_at = std::nullopt;
  } cases[] = {
      {"input order, repeats, shared labels",
       answer(List{Any("c.pdf"), Any("a.pdf"), Any("a.pdf")}), 10, "a a2 c", 1},
      {"the text None is not null", answer(List{Any("None")}), 10, "", 1},
      {"null selects the unlabelled", answer(List{Any()}), 10, "u", 1},
      {"not a map", Any("a.pdf"), 10, "TypeError", 1},
      {"a string would match substrings", Map{{"file_name", "a.pdf, b.pdf"}}, 10, "TypeError", 1},
      // Matched within its own batch; batches that select nothing do not stop the rest.
      {"one chunk per batch", answer(List{Any("b.pdf")}), 1, "b", 5},
      {"a negative batch size asks no one", ac, -1, "", 0},
      {"a zero batch size", ac, 0, "ValueError", 0},
      {"a batch size that is no integer", ac, "2", "TypeError", 0},
      {"raise", ac, 2, "runtime_error", 2, Policy::RAISE, 1},
      {"drop", ac, 2, "a a2 c", 3, Policy::DROP, 1},
      {"keep", ac, 2, "a a2 b u c", 3, Policy::KEEP, 1},
      {"similarity", ac, 2, "a a2 u c", 3, Policy::SIMILARITY, 1},
  };
  for (const auto& c : cases) {
    Judge judge(c.answer, c.batch_size);
    judge.processor->fail_at = c.fail_at;
    judge.formatter.on_batch_failure = c.policy;
    const auto invoker = std::make_shared<orvo_test::FakeEMInvoker>();
    invoker->table = {{"resp", {1, 0}}, {"b", {0, 1}}, {"u", {1, 1}}};
    judge.formatter.fallback_em_invoker = invoker;
    const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
    EXPECT_EQ(judge.relevant(mixed(), emitter), c.kept) << c.name;
    EXPECT_EQ(judge.processor->calls.size(), c.calls) << c.name;
    std::vector<std::string> reported;
    if (c.fail_at && c.policy != Policy::RAISE) {
      reported.push_back(R"({"data_type": "reference_batch_failure", "data_value": {"batch": 2, )"
                         R"("first_chunk": 2, "chunks": 2, "policy": ")" +
                         std::string(rf::to_string(c.policy)) +
                         R"(", "error": "process failed"}})");
    }
    EXPECT_EQ(emitter->values(), reported) << c.name;
  }
  Judge judge(ac);
  judge.formatter.on_batch_failure = Policy::SIMILARITY;
  EXPECT_EQ(judge.relevant(mixed()), "ValueError") << "no fallback invoker";
}

TEST(lm_based_reference_formatter, context_and_answer_follow_the_reference_metadata_key) {
  Judge judge(Map{{"page", List{Any(7.0)}}});
  judge.formatter.reference_metadata = "page";
  const auto chunk = std::make_shared<orvo_core::Chunk>("Alpha", Map{{"page", 7}});
  EXPECT_EQ(judge.relevant({chunk, make_chunk("Beta")}), "Alpha") << "7 equals 7.0";
  EXPECT_EQ(orvo_core::get(*judge.processor->calls[0].prompt_kwargs, "context").str(),
            "[CHUNK]\npage: 7\nContent:\nAlpha\n\n[CHUNK]\npage: None\nContent:\nBeta");
}

// A judge that answers after random delays, so that batches of one finish out of order.
TEST(lm_based_reference_formatter, concurrent_batches_merge_in_input_order) {
  const struct {
    std::int64_t concurrency;
    std::optional<std::size_t> fail_at;
    const char* kept;
    std::size_t peak;
    std::size_t most_calls;  // a failure stops the batches not yet sent
  } cases[] = {{8, std::nullopt, "a a2 c", 5, 5}, {2, 0, "runtime_error", 2, 3}};
  orvo_test::RandomDelay delay(7, std::chrono::milliseconds(20));
  for (const auto& c : cases) {
    Judge judge(ac, 1);
    judge.processor->delay = &delay;
    judge.processor->fail_at = c.fail_at;
    judge.formatter.max_concurrency = c.concurrency;
    EXPECT_EQ(judge.relevant(mixed()), c.kept);
    EXPECT_EQ(judge.processor->peak_in_flight, c.peak) << c.concurrency;
    EXPECT_LE(judge.processor->calls.size(), c.most_calls) << c.concurrency;
  }
}

// Each worker's only batch is cancelled: taken for a failed batch, it would be kept.
TEST(lm_based_reference_formatter, cancelling_the_call_is_no_batch_failure) {
  orvo_test::RandomDelay delay(7, std::chrono::milliseconds(400));
  for (const auto& [concurrency, chunks] : {std::pair(1, 1UL), std::pair(4, 4UL)}) {
    Judge judge(ac, 1);
    judge.processor->delay = &delay;
    judge.formatter.max_concurrency = concurrency;
    judge.formatter.on_batch_failure = Policy::KEEP;
    boost::asio::io_context io;
    boost::asio::cancellation_signal cancel;
    std::exception_ptr error;
    const auto done = [&error](std::exception_ptr e, const rf::Chunks&) { error = std::move(e); };
    boost::asio::co_spawn(io, judge.formatter._get_relevant_chunks("r", mixed(chunks)),
                          boost::asio::bind_cancellation_slot(cancel.slot(), done));
    boost::asio::steady_timer later(io, std::chrono::milliseconds(5));
    later.async_wait([&cancel](auto) { cancel.emit(boost::asio::cancellation_type::all); });
    io.run();
    EXPECT_TRUE(error) << concurrency;
  }
}

}  // namespace
