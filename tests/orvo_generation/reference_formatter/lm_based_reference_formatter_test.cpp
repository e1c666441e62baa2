#include "orvo_generation/reference_formatter/lm_based_reference_formatter.hpp"

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "orvo_core/errors.hpp"
#include "support/async_fakes.hpp"
#include "support/chunks.hpp"
#include "support/fake_em_invoker.hpp"
#include "support/fake_lm_request_processor.hpp"
#include "support/recording_emitter.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;
using orvo_test::make_chunk;

Any answer(Any labels) {
  return Map{{"file_name", std::move(labels)}};
}

// The contents of the chunks kept, or the error: the kind of a documented one, else its text.
std::string outcome(orvo_core::Awaitable<rf::Chunks> work) {
  try {
    std::string kept;
    for (const auto& chunk : orvo_core::run_sync(std::move(work))) {
      kept += (kept.empty() ? "" : " ") + chunk->content;
    }
    return kept;
  } catch (const orvo_core::ValueError&) {
    return "ValueError";
  } catch (const orvo_core::TypeError&) {
    return "TypeError";
  } catch (const std::exception& e) {
    return e.what();
  }
}

// Answers every batch with `reply` unless told otherwise.
struct Fixture {
  explicit Fixture(Any reply = answer(List{})) {
    processor->respond = [reply](const Map& /*prompt*/, std::size_t /*i*/) { return reply; };
  }

  std::string relevant(const rf::Chunks& chunks) {
    return outcome(formatter._get_relevant_chunks("resp", chunks));
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
      {"the text None is not null", answer(List{Any("None")}), {unlabelled}, ""},
      {"null selects the unlabelled", answer(List{Any()}), {unlabelled, a}, "u"},
      {"not a map", Any("a.pdf"), {a}, "TypeError"},
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
  EXPECT_EQ(f.relevant({chunk, make_chunk("Beta")}), "Alpha") << "7 equals 7.0";
  EXPECT_EQ(orvo_core::get(f.processor->calls[0].snapshot, "context").str(),
            "[CHUNK]\npage: 7\nContent:\nAlpha\n\n[CHUNK]\npage: None\nContent:\nBeta");
}

TEST(lm_based_reference_formatter, batch_size_rules) {
  const struct {
    Any batch_size;
    int chunks;
    const char* kept;
    std::size_t calls;
  } cases[] = {
      {Any(-1), 3, "", 0},
      // An answer is matched within its own batch only, and one that selects nothing does not
      // stop the rest.
      {Any(2), 5, "c0 c1", 3},
      {Any(0), 0, "ValueError", 0},
      {Any("2"), 3, "TypeError", 0},
  };
  for (const auto& c : cases) {
    Fixture f(answer(List{Any("f0.pdf"), Any("f1.pdf")}));
    f.formatter.batch_size = c.batch_size;
    EXPECT_EQ(f.relevant(labelled(c.chunks)), c.kept) << c.batch_size.repr();
    EXPECT_EQ(f.processor->calls.size(), c.calls) << c.batch_size.repr();
  }
}

// A judge that answers after random delays, so that batches finish out of order; it selects the
// even labels, and fails the batch whose context shows `fail_label`.
std::shared_ptr<orvo_test::FakeLMRequestProcessor> slow_judge(orvo_test::RandomDelay& delay,
                                                              std::string fail_label = "") {
  auto judge = std::make_shared<orvo_test::FakeLMRequestProcessor>();
  judge->delay = &delay;
  judge->respond = [fail_label](const Map& prompt, std::size_t /*i*/) {
    const std::string context = orvo_core::get(prompt, "context").str();
    if (!fail_label.empty() && context.find(fail_label + "\n") != std::string::npos) {
      throw std::runtime_error("judge failed");
    }
    return answer(List{Any("f0.pdf"), Any("f2.pdf"), Any("f4.pdf"), Any("f6.pdf"), Any("f8.pdf")});
  };
  return judge;
}

TEST(lm_based_reference_formatter, concurrent_batches_merge_in_input_order) {
  const struct {
    std::int64_t concurrency;
    const char* fail_label;
    const char* kept;
    std::size_t peak;
    std::size_t most_calls;  // a failure stops the batches not yet sent
  } cases[] = {{8, "", "c0 c2 c4 c6 c8", 5, 5}, {2, "f0.pdf", "judge failed", 2, 3}};
  orvo_test::RandomDelay delay(7, std::chrono::milliseconds(20));
  for (const auto& c : cases) {
    const auto judge = slow_judge(delay, c.fail_label);
    rf::LMBasedReferenceFormatter formatter(judge, 2);
    formatter.max_concurrency = c.concurrency;
    EXPECT_EQ(outcome(formatter._get_relevant_chunks("r", labelled(10))), c.kept);
    EXPECT_EQ(judge->peak_in_flight, c.peak) << c.concurrency;
    EXPECT_LE(judge->calls.size(), c.most_calls) << c.concurrency;
  }
}

TEST(lm_based_reference_formatter, batch_failure_policies_decide_and_report) {
  const struct {
    rf::BatchFailurePolicy policy;
    const char* kept;
  } cases[] = {
      {rf::BatchFailurePolicy::RAISE, "process failed"},
      {rf::BatchFailurePolicy::DROP, "c0 c4"},
      {rf::BatchFailurePolicy::KEEP, "c0 c2 c3 c4"},
      {rf::BatchFailurePolicy::SIMILARITY, "c0 c3 c4"},
  };
  for (const auto& c : cases) {
    Fixture f;
    f.processor->respond = [](const Map& /*prompt*/, std::size_t i) {
      if (i == 1) throw std::runtime_error("process failed");
      return answer(List{Any("f0.pdf"), Any("f4.pdf")});
    };
    f.formatter.batch_size = 2;
    f.formatter.on_batch_failure = c.policy;
    auto invoker = std::make_shared<orvo_test::FakeEMInvoker>();
    invoker->table = {{"resp", {1, 0}}, {"c2", {0, 1}}, {"c3", {1, 1}}};
    f.formatter.fallback_em_invoker = invoker;
    const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
    EXPECT_EQ(outcome(f.formatter._select_relevant_chunks("resp", labelled(6), emitter)), c.kept);
    const std::string policy(rf::to_string(c.policy));
    const std::vector<std::string> reported{
        R"({"data_type": "reference_batch_failure", "data_value": {"batch": 2, )"
        R"("first_chunk": 2, "chunks": 2, "policy": ")" +
        policy + R"(", "error": "process failed"}})"};
    const bool raised = c.policy == rf::BatchFailurePolicy::RAISE;
    EXPECT_EQ(emitter->values(), raised ? std::vector<std::string>{} : reported) << policy;
  }
  Fixture f;
  f.formatter.on_batch_failure = rf::BatchFailurePolicy::SIMILARITY;
  EXPECT_EQ(f.relevant(labelled(1)), "ValueError") << "no fallback invoker";
}

TEST(lm_based_reference_formatter, cancelling_the_call_is_no_batch_failure) {
  orvo_test::RandomDelay delay(7, std::chrono::milliseconds(400));
  for (const std::int64_t concurrency : {1, 4}) {
    const auto judge = slow_judge(delay);
    rf::LMBasedReferenceFormatter formatter(judge, 2);
    formatter.max_concurrency = concurrency;
    formatter.on_batch_failure = rf::BatchFailurePolicy::KEEP;
    boost::asio::io_context io;
    boost::asio::cancellation_signal cancel;
    std::exception_ptr error;
    const auto done = [&error](std::exception_ptr e, const rf::Chunks&) { error = std::move(e); };
    boost::asio::co_spawn(io, formatter._get_relevant_chunks("r", labelled(10)),
                          boost::asio::bind_cancellation_slot(cancel.slot(), done));
    boost::asio::steady_timer later(io, std::chrono::milliseconds(5));
    later.async_wait([&cancel](auto) { cancel.emit(boost::asio::cancellation_type::all); });
    io.run();
    EXPECT_TRUE(error) << concurrency;
  }
}

}  // namespace
