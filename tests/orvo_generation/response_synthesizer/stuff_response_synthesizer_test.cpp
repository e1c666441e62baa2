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
using orvo_core::List;
using orvo_core::Map;

struct Fixture {
  Fixture() {
    processor->respond = [](const Map& /*prompt*/, std::size_t /*i*/) { return Any("answer"); };
  }
  std::string synthesize(Any query, Any state_variables) {
    return orvo_core::run_sync(synthesizer.synthesize_response(query, state_variables)).as_string();
  }

  std::shared_ptr<orvo_test::FakeLMRequestProcessor> processor =
      std::make_shared<orvo_test::FakeLMRequestProcessor>();
  rs::StuffResponseSynthesizer synthesizer{processor};
};

// The query goes into the caller's own map, in place; without a map each call gets a fresh one.
TEST(stuff_response_synthesizer, the_prompt_is_the_callers_map_with_the_query) {
  Fixture f;
  const Map old{{"query", "old"}, {"context", "c"}};
  const struct {
    Any state;
    Any query;
    const char* prompt;
    bool shared;
  } cases[] = {
      {Map{{"context", "c"}}, Any("abc"), "{'context': 'c', 'query': 'abc'}", true},
      {old, Any("new"), "{'query': 'new', 'context': 'c'}", true},
      {old, Any(""), "{'query': 'old', 'context': 'c'}", true},
      {Map{}, Any("q"), "{'query': 'q'}", false},
      {Any(), Any(), "{}", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.state.repr() + " " + c.query.repr());
    EXPECT_EQ(f.synthesize(c.query, c.state), "answer");
    const auto& prompt = f.processor->calls.back().prompt_kwargs;
    EXPECT_EQ(Any(*prompt).str(), c.prompt);
    EXPECT_EQ(c.state.is_map() && prompt == c.state.map_ptr(), c.shared);
  }
  EXPECT_EQ(cases[3].state.str(), "{}") << "the caller's empty map stays empty";
}

// response_synthesizer_test checks what `_run` passes on.
TEST(stuff_response_synthesizer, not_streamable_withholds_the_emitter_only_through_run) {
  Fixture f;
  f.synthesizer.streamable = false;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  (void)orvo_core::run_sync(f.synthesizer.synthesize_response(Any(), Any(), Any(), emitter));
  (void)orvo_core::run_sync(f.synthesizer._run(Map{{"event_emitter", emitter}}));
  EXPECT_EQ(f.processor->calls[0].event_emitter, emitter);
  EXPECT_EQ(f.processor->calls[1].event_emitter, nullptr);
  EXPECT_TRUE(emitter->events.empty()) << "the synthesizer emits nothing itself";
}

TEST(stuff_response_synthesizer, state_variables_that_are_not_a_map_are_a_type_error) {
  Fixture f;
  EXPECT_THROW((void)f.synthesize(Any("q"), Any(List{Any(1)})), orvo_core::TypeError);
}

}  // namespace
