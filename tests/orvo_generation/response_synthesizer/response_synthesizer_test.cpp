#include "orvo_generation/response_synthesizer/response_synthesizer.hpp"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "orvo_generation/response_synthesizer/stuff_response_synthesizer.hpp"
#include "support/fake_lm_request_processor.hpp"
#include "support/recording_emitter.hpp"

namespace {

namespace rs = orvo_generation::response_synthesizer;
using orvo_core::Any;
using orvo_core::Kwargs;
using orvo_core::List;
using orvo_core::Map;

// The base's `_run` seen through the stuff synthesizer, which hands everything to its processor.
struct Fixture {
  const orvo_test::FakeLMRequestProcessor::Call& run(Kwargs kwargs) {
    (void)orvo_core::run_sync(synthesizer._run(std::move(kwargs)));
    return processor->calls.back();
  }

  std::shared_ptr<orvo_test::FakeLMRequestProcessor> processor =
      std::make_shared<orvo_test::FakeLMRequestProcessor>();
  rs::StuffResponseSynthesizer synthesizer{processor};
};

// The caller's state map, history, emitter and user contents reaching the processor as they are
// is python's StuffTest.test_the_query_lands_in_the_callers_own_map, which runs this `_run`.
TEST(response_synthesizer, run_maps_the_keyword_arguments) {
  Fixture f;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  const Any system(List{});
  const auto& call =
      f.run({{"system_multimodal_contents", system}, {"event_emitter", emitter}, {"unrelated", 1}});
  EXPECT_EQ(call.system_multimodal_contents.list_ptr(), system.list_ptr());
  EXPECT_TRUE(call.history.is_none() && call.user_multimodal_contents.is_none());
  EXPECT_EQ(call.event_emitter, emitter);

  f.synthesizer.streamable = false;
  EXPECT_EQ(f.run({{"event_emitter", emitter}}).event_emitter, nullptr);
  (void)orvo_core::run_sync(f.synthesizer.synthesize_response(Any(), Any(), Any(), emitter));
  EXPECT_EQ(f.processor->calls.back().event_emitter, emitter) << "only `_run` withholds it";
  EXPECT_TRUE(emitter->events.empty()) << "the synthesizer emits nothing itself";

  const Any legacy(Map{{"context", "c"}});
  EXPECT_EQ(f.run({{"variables", legacy}}).prompt_kwargs, legacy.map_ptr());
  EXPECT_NE(f.run({{"variables", legacy}, {"state_variables", Any()}}).prompt_kwargs,
            legacy.map_ptr())
      << "the key of today, even present but absent, wins over the former name";
}

TEST(response_synthesizer, status_messages_quote_the_query_and_the_response) {
  Fixture f;
  EXPECT_EQ(f.synthesizer._format_input_event(Map{{"query", "Why?"}}),
            "[Start 'StuffResponseSynthesizer'] Processing query: 'Why?'");
  EXPECT_EQ(f.synthesizer._format_output_event(Any("Tides.\n")),
            "[Finished 'StuffResponseSynthesizer'] Successfully synthesized response:\n"
            "'Tides.\\n'");
}

}  // namespace
