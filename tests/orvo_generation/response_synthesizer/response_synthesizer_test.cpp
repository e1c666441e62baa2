#include "orvo_generation/response_synthesizer/response_synthesizer.hpp"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "support/recording_emitter.hpp"

namespace {

namespace rs = orvo_generation::response_synthesizer;
using orvo_core::Any;
using orvo_core::Kwargs;
using orvo_core::List;
using orvo_core::Map;

// Records the arguments it is given.
class RecordingSynthesizer : public rs::BaseResponseSynthesizer {
 public:
  using BaseResponseSynthesizer::BaseResponseSynthesizer;

  orvo_core::Awaitable<std::string> synthesize_response(
      Any query, Any state_variables, Any history,
      std::shared_ptr<orvo_core::EventEmitter> event_emitter, Any system_multimodal_contents,
      Any user_multimodal_contents) override {
    args = {query,
            state_variables,
            history,
            Any(event_emitter),
            system_multimodal_contents,
            user_multimodal_contents};
    co_return "response";
  }

  List args;
};

TEST(response_synthesizer, run_maps_the_keyword_arguments_in_order) {
  RecordingSynthesizer synthesizer;
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  const Any state(Map{});
  const Any history(List{});
  Kwargs kwargs;
  kwargs.emplace("user_multimodal_contents", "u");
  kwargs.emplace("event_emitter", emitter);
  kwargs.emplace("query", "q");
  kwargs.emplace("system_multimodal_contents", "s");
  kwargs.emplace("state_variables", state);
  kwargs.emplace("history", history);
  kwargs.emplace("unrelated", 1);
  EXPECT_EQ(orvo_core::run_sync(synthesizer._run(kwargs)), Any("response"));
  ASSERT_EQ(synthesizer.args.size(), 6U);
  EXPECT_EQ(synthesizer.args[0], Any("q"));
  EXPECT_EQ(synthesizer.args[1].map_ptr(), state.map_ptr()) << "the caller's own map";
  EXPECT_EQ(synthesizer.args[2].list_ptr(), history.list_ptr());
  EXPECT_EQ(synthesizer.args[3].as<orvo_core::EventEmitter>(), emitter);
  EXPECT_EQ(synthesizer.args[4], Any("s"));
  EXPECT_EQ(synthesizer.args[5], Any("u"));

  EXPECT_EQ(orvo_core::run_sync(synthesizer._run({})), Any("response"));
  for (const Any& arg : synthesizer.args) EXPECT_TRUE(arg.is_none()) << arg.repr();
}

TEST(response_synthesizer, state_variables_key_wins_over_the_former_name) {
  RecordingSynthesizer synthesizer;
  const Any legacy(Map{});
  Kwargs both;
  both.emplace("state_variables", Any());
  both.emplace("variables", legacy);
  (void)orvo_core::run_sync(synthesizer._run(both));
  EXPECT_TRUE(synthesizer.args[1].is_none()) << "present but absent still wins";

  Kwargs only_legacy;
  only_legacy.emplace("variables", legacy);
  (void)orvo_core::run_sync(synthesizer._run(only_legacy));
  EXPECT_EQ(synthesizer.args[1].map_ptr(), legacy.map_ptr());
}

TEST(response_synthesizer, streamable_false_withholds_the_emitter) {
  for (const bool streamable : {true, false}) {
    RecordingSynthesizer synthesizer(streamable);
    Kwargs kwargs;
    kwargs.emplace("event_emitter", std::make_shared<orvo_test::RecordingEmitter>());
    (void)orvo_core::run_sync(synthesizer._run(kwargs));
    EXPECT_EQ(synthesizer.args[3].is_object(), streamable);
  }
}

TEST(response_synthesizer, messages_quote_the_class_query_and_response) {
  RecordingSynthesizer synthesizer;
  const struct {
    Any query;
    const char* shown;
  } cases[] = {
      {Any(), "None"},
      {Any("What is RAG?"), "'What is RAG?'"},
      {Any("It's"), "\"It's\""},
      {Any("It's \"x\""), "'It\\'s \"x\"'"},
  };
  for (const auto& c : cases) {
    Map input;
    if (!c.query.is_none()) input.emplace("query", c.query);
    EXPECT_EQ(synthesizer._format_input_event(input),
              std::string("[Start 'RecordingSynthesizer'] Processing query: ") + c.shown);
  }
  EXPECT_EQ(synthesizer._format_output_event(Any("Here's what I found based your query:\n1. a")),
            "[Finished 'RecordingSynthesizer'] Successfully synthesized response:\n"
            "\"Here's what I found based your query:\\n1. a\"");
}

TEST(response_synthesizer, the_base_operation_is_abstract) {
  RecordingSynthesizer synthesizer;
  EXPECT_THROW(
      (void)orvo_core::run_sync(synthesizer.BaseResponseSynthesizer::synthesize_response()),
      orvo_core::NotImplementedError);
}

}  // namespace
