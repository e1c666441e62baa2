// One pipeline turn as a host drives it: a stuff synthesizer answers, then a similarity-based
// formatter picks the references, both streaming to one emitter.
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "orvo_generation/reference_formatter.hpp"
#include "orvo_generation/response_synthesizer.hpp"
#include "support/chunks.hpp"
#include "support/fake_em_invoker.hpp"
#include "support/fake_lm_request_processor.hpp"
#include "support/recording_emitter.hpp"

namespace {

using orvo_core::Any;
using orvo_core::EventType;

TEST(pipeline_turn, synthesize_then_reference_with_one_emitter) {
  const auto processor = std::make_shared<orvo_test::FakeLMRequestProcessor>();
  processor->stream_words = true;
  processor->respond = [](const orvo_core::Map& /*prompt*/, std::size_t /*i*/) {
    return Any("Tides follow the moon.");
  };
  const auto invoker = std::make_shared<orvo_test::FakeEMInvoker>();
  invoker->table = {{"Tides follow the moon.", {1, 0}},
                    {"The moon pulls the sea.", {0.9F, 0.1F}},
                    {"Bread needs yeast.", {0, 1}},
                    {"Spring tides are the largest.", {0.8F, 0.3F}}};
  const orvo_generation::reference_formatter::Chunks chunks{
      orvo_test::make_chunk("The moon pulls the sea.", "Moon", "docs/moon.md"),
      orvo_test::make_chunk("Bread needs yeast.", "Bread", "docs/bread.md"),
      orvo_test::make_chunk("Spring tides are the largest.", "Spring tides")};
  orvo_generation::response_synthesizer::StuffResponseSynthesizer synthesizer(processor);
  orvo_generation::reference_formatter::SimilarityBasedReferenceFormatter formatter(invoker);
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();

  orvo_core::Map state;
  state.emplace("context", "The moon pulls the sea.");
  orvo_core::Kwargs ask;
  ask.emplace("query", "Why are there tides?");
  ask.emplace("state_variables", state);
  ask.emplace("event_emitter", emitter);
  const Any response = orvo_core::run_sync(synthesizer.run(ask));
  ASSERT_TRUE(response.is_string());
  EXPECT_EQ(Any(processor->calls.at(0).snapshot).str(),
            "{'context': 'The moon pulls the sea.', 'query': 'Why are there tides?'}");

  orvo_core::Kwargs cite;
  cite.emplace("response", response);
  cite.emplace("chunks", orvo_core::List(chunks.begin(), chunks.end()));
  cite.emplace("event_emitter", emitter);
  const Any references = orvo_core::run_sync(formatter.run(cite));
  EXPECT_EQ(references, Any("References:\n1. [Moon](docs/moon.md)\n2. Spring tides"));

  const std::vector<std::pair<EventType, std::string>> expected{
      {EventType::STATUS,
       "[Start 'StuffResponseSynthesizer'] Processing query: 'Why are there tides?'"},
      {EventType::RESPONSE, "Tides"},
      {EventType::RESPONSE, " follow"},
      {EventType::RESPONSE, " the"},
      {EventType::RESPONSE, " moon."},
      {EventType::STATUS,
       "[Finished 'StuffResponseSynthesizer'] Successfully synthesized response:\n"
       "'Tides follow the moon.'"},
      {EventType::STATUS,
       "[Start 'SimilarityBasedReferenceFormatter'] Formatting references using 3 candidate "
       "chunks."},
      {EventType::DATA,
       R"js({"data_type": "reference", "data_value": "References:\n1. [Moon](docs/moon.md)\n2. Spring tides"})js"},
      {EventType::STATUS,
       "[Finished 'SimilarityBasedReferenceFormatter'] Successfully formatted references:\n"
       "'References:\\n1. [Moon](docs/moon.md)\\n2. Spring tides'"},
  };
  std::vector<std::pair<EventType, std::string>> actual;
  for (const auto& event : emitter->events) actual.emplace_back(event.type, event.value);
  EXPECT_EQ(actual, expected);
}

}  // namespace
