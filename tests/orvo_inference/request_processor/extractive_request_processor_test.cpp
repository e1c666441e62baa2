#include "orvo_inference/request_processor/extractive_request_processor.hpp"

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_generation/reference_formatter/lm_based_reference_formatter.hpp"
#include "support/chunks.hpp"
#include "support/recording_emitter.hpp"

namespace {

using orvo_core::Any;
using orvo_inference::ExtractiveRequestProcessor;
using Task = ExtractiveRequestProcessor::Task;

constexpr const char* kContext =
    "# Tides\n\nThe moon pulls the oceans into two bulges. Bread needs yeast.\n"
    "Spring tides happen at new and full moon! Ovens bake bread.";

TEST(extractive_request_processor, answers_with_the_best_sentences_in_context_order) {
  ExtractiveRequestProcessor processor(Task::answer, 0.1, 2);
  EXPECT_EQ(processor.answer("When do spring tides happen and what pulls the oceans?", kContext),
            "The moon pulls the oceans into two bulges. Spring tides happen at new and full moon!");
  EXPECT_EQ(processor.answer("How do volcanoes erupt?", kContext), processor.no_answer);
  EXPECT_EQ(processor.answer("anything", ""), processor.no_answer);
}

TEST(extractive_request_processor, streams_the_answer_word_by_word) {
  ExtractiveRequestProcessor processor(Task::answer, 0.1, 1);
  auto variables = std::make_shared<orvo_core::Map>();
  variables->emplace("query", "What do ovens bake?");
  variables->emplace("context", kContext);
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  const Any answer = orvo_core::run_sync(processor.process(variables, Any(), emitter));
  EXPECT_EQ(answer, Any("Ovens bake bread."));
  EXPECT_EQ(emitter->values(), (std::vector<std::string>{"Ovens", " bake", " bread."}));
  variables->erase("context");
  EXPECT_THROW((void)orvo_core::run_sync(processor.process(variables)), orvo_core::ValueError);
}

TEST(extractive_request_processor, judges_the_lm_formatters_context) {
  // The formatter builds the context and reads the answer; the judge sits in the model's place.
  const auto judge = std::make_shared<ExtractiveRequestProcessor>(Task::judge);
  orvo_generation::reference_formatter::LMBasedReferenceFormatter formatter(judge, 2);
  const orvo_generation::reference_formatter::Chunks chunks{
      orvo_test::make_chunk("The moon pulls the oceans into two bulges.", "moon.md"),
      orvo_test::make_chunk("Bread needs yeast and a hot oven.", "bread.md"),
      orvo_test::make_chunk("Spring tides: the moon and sun pull the oceans together."),
  };
  const auto kept = orvo_core::run_sync(
      formatter._get_relevant_chunks("The moon pulls the oceans, most at spring tides.", chunks));
  ASSERT_EQ(kept.size(), 2U);
  EXPECT_EQ(kept[0], chunks[0]);
  EXPECT_EQ(kept[1], chunks[2]) << "an unlabelled chunk is listed as null";
  EXPECT_EQ(judge->judge("x", "").str(), "{'file_name': []}");
  EXPECT_THROW((void)judge->judge("x", "[CHUNK]\nno layout"), orvo_core::ValueError);
}

}  // namespace
