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
    "# Tides > Spring tides\nSpring tides are the largest tides. Spring tides occur at new and "
    "full moon. At those times the sun and moon pull in line.\n\n"
    "# Baking\nBread needs yeast.\n\n```\nOvens bake bread.\n```\nOvens bake bread and cakes.";

// With an emitter the answer goes out word by word.
TEST(extractive_request_processor, answers_with_what_the_question_asks_for_or_declines) {
  ExtractiveRequestProcessor processor(Task::answer);
  const std::string_view no = ExtractiveRequestProcessor::kNoAnswer;
  const struct {
    std::string question;
    std::string context;
    std::string_view answer;
  } cases[] = {
      // A cause and the sentence that carries it on, not the one that repeats the question.
      {"What causes spring tides?", kContext,
       "Spring tides occur at new and full moon. At those times the sun and moon pull in line."},
      {"What do ovens bake?", kContext, "Ovens bake bread and cakes."},  // Not from code.
      // A number for "how many", though another sentence holds more of the question's words.
      {"How many listeners may an event have by default?",
       "# Events\nAn event may have listeners by default, as many as it likes to have. By "
       "default, at most 10 listeners are allowed.",
       "By default, at most 10 listeners are allowed."},
      // A sentence that lacks its subject gets it from its heading.
      {"What does fs.existsSync() return?",
       "# File system > `fs.existsSync(path)`\n* Returns: {boolean}\n\nReturns `true` if the "
       "path exists, `false` otherwise.",
       "`fs.existsSync(path)`: Returns `true` if the path exists, `false` otherwise."},
      // "Such a point" needs the sentence before it.
      {"What is an amphidromic point?",
       "Waves swing around a point where the range is zero. Such a point is called an "
       "amphidromic point.\n\n# Other\nTides rise.",
       "Waves swing around a point where the range is zero. Such a point is called an "
       "amphidromic point."},
      {"How do I hash a password with bcrypt?",
       "# Crypto\nA hash of a password is made with scrypt. Hash functions digest data.", no},
      {"anything", "", no},
  };
  for (const auto& c : cases) EXPECT_EQ(processor.answer(c.question, c.context), c.answer);

  const auto variables = std::make_shared<orvo_core::Map>(
      orvo_core::Map{{"query", "What do ovens bake?"}, {"context", kContext}});
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  const Any answer = orvo_core::run_sync(processor.process(variables, Any(), emitter));
  EXPECT_EQ(answer, Any("Ovens bake bread and cakes."));
  EXPECT_EQ(emitter->values(),
            (std::vector<std::string>{"Ovens", " bake", " bread", " and", " cakes."}));
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
  // An unlabelled chunk is listed as null.
  EXPECT_EQ(kept, (orvo_generation::reference_formatter::Chunks{chunks[0], chunks[2]}));
  EXPECT_EQ(judge->judge("x", "").str(), "{'file_name': []}");
  EXPECT_THROW((void)judge->judge("x", "[CHUNK]\nno layout"), orvo_core::ValueError);
}

}  // namespace
