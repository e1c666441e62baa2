#include "orvo_generation/response_synthesizer/stuff_response_synthesizer.hpp"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "support/fake_lm_request_processor.hpp"
#include "support/recording_emitter.hpp"

namespace {

namespace rs = orvo_generation::response_synthesizer;
using orvo_core::Any;
using orvo_core::Kwargs;
using orvo_core::List;
using orvo_core::Map;
using orvo_test::FakeLMRequestProcessor;

struct Fixture {
  Fixture() {
    processor->respond = [](const Map& /*prompt*/, std::size_t /*i*/) { return Any("answer"); };
  }
  std::string synthesize(Any query, Any state_variables) {
    return orvo_core::run_sync(synthesizer.synthesize_response(query, state_variables));
  }
  const Map& prompt(std::size_t call = 0) const { return *processor->calls.at(call).prompt_kwargs; }

  std::shared_ptr<FakeLMRequestProcessor> processor = std::make_shared<FakeLMRequestProcessor>();
  rs::StuffResponseSynthesizer synthesizer{processor};
};

Any map_of(std::initializer_list<std::pair<const char*, Any>> entries) {
  Map map;
  for (const auto& [key, value] : entries) map.insert_or_assign(key, value);
  return map;
}

TEST(stuff_response_synthesizer, query_is_written_into_the_callers_map) {
  Fixture f;
  const Any state = map_of({{"context", "c"}});
  EXPECT_EQ(f.synthesize("abc", state), "answer");
  EXPECT_EQ(f.processor->calls[0].prompt_kwargs, state.map_ptr()) << "not a copy";
  EXPECT_EQ(state.str(), "{'context': 'c', 'query': 'abc'}");
}

TEST(stuff_response_synthesizer, a_given_query_replaces_the_old_one_in_place) {
  const struct {
    Any query;
    const char* prompt;
  } cases[] = {
      {Any("new"), "{'query': 'new', 'context': 'c'}"},
      {Any(), "{'query': 'old', 'context': 'c'}"},
      {Any(""), "{'query': 'old', 'context': 'c'}"},
  };
  for (const auto& c : cases) {
    Fixture f;
    (void)f.synthesize(c.query, map_of({{"query", "old"}, {"context", "c"}}));
    EXPECT_EQ(Any(f.prompt()).str(), c.prompt);
  }
}

TEST(stuff_response_synthesizer, without_state_variables_each_call_gets_a_fresh_map) {
  Fixture f;
  const Any empty(Map{});
  (void)f.synthesize("q", empty);
  EXPECT_EQ(Any(f.prompt(0)).str(), "{'query': 'q'}");
  EXPECT_TRUE(empty.as_map().empty()) << "the caller's empty map stays empty";
  (void)f.synthesize(Any(), Any());
  (void)f.synthesize(Any(), Any());
  EXPECT_TRUE(f.prompt(1).empty());
  EXPECT_NE(f.processor->calls[1].prompt_kwargs, f.processor->calls[2].prompt_kwargs);
}

TEST(stuff_response_synthesizer, passes_history_emitter_and_contents_unchanged) {
  Fixture f;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  const Any history(List{Any(List{Any("user"), Any("hi")})});
  const Any system(List{Any("s")});
  const Any user(List{Any("u")});
  (void)orvo_core::run_sync(
      f.synthesizer.synthesize_response(Any("q"), Any(), history, emitter, system, user));
  const auto& call = f.processor->calls[0];
  EXPECT_EQ(call.history.list_ptr(), history.list_ptr());
  EXPECT_EQ(call.event_emitter, emitter);
  EXPECT_EQ(call.system_multimodal_contents.list_ptr(), system.list_ptr());
  EXPECT_EQ(call.user_multimodal_contents.list_ptr(), user.list_ptr());
  EXPECT_TRUE(emitter->events.empty()) << "the synthesizer emits nothing itself";
}

TEST(stuff_response_synthesizer, streamable_false_withholds_the_emitter_only_through_run) {
  Fixture f;
  f.synthesizer.streamable = false;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  Kwargs kwargs;
  kwargs.emplace("event_emitter", emitter);
  (void)orvo_core::run_sync(f.synthesizer._run(kwargs));
  EXPECT_EQ(f.processor->calls[0].event_emitter, nullptr);
  (void)orvo_core::run_sync(f.synthesizer.synthesize_response(Any(), Any(), Any(), emitter));
  EXPECT_EQ(f.processor->calls[1].event_emitter, emitter);
}

TEST(stuff_response_synthesizer, the_processors_answer_is_the_response) {
  Fixture f;
  f.processor->respond = [](const Map& /*prompt*/, std::size_t /*i*/) { return Any(""); };
  EXPECT_EQ(f.synthesize(Any(), Any()), "");
  f.processor->respond = [](const Map& /*prompt*/, std::size_t /*i*/) { return Any(Map{}); };
  EXPECT_THROW((void)f.synthesize(Any(), Any()), orvo_core::TypeError);
  EXPECT_THROW((void)f.synthesize(Any("q"), Any(List{Any(1)})), orvo_core::TypeError)
      << "state variables that are not a map";
  f.processor->fail_at = f.processor->calls.size();
  EXPECT_THROW((void)f.synthesize(Any(), Any()), std::runtime_error);
}

}  // namespace
