#include "orvo_generation/response_synthesizer/stuff_response_synthesizer.hpp"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "support/fake_lm_request_processor.hpp"

namespace {

namespace rs = orvo_generation::response_synthesizer;
using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;

// The query goes into the caller's own map, in place; without a map each call gets a fresh one.
TEST(stuff_response_synthesizer, the_prompt_is_the_callers_map_with_the_query) {
  const auto processor = std::make_shared<orvo_test::FakeLMRequestProcessor>();
  // Answers with the prompt as it was when asked; the answer comes back unchanged.
  processor->respond = [](const Map& prompt, std::size_t /*i*/) { return Any(Any(prompt).str()); };
  rs::StuffResponseSynthesizer synthesizer(processor);
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
    EXPECT_EQ(orvo_core::run_sync(synthesizer.synthesize_response(c.query, c.state)),
              Any(c.prompt));
    const auto& prompt = processor->calls.back().prompt_kwargs;
    EXPECT_EQ(c.state.is_map() && prompt == c.state.map_ptr(), c.shared) << c.prompt;
  }
  EXPECT_EQ(cases[3].state.str(), "{}") << "the caller's empty map stays empty";
  EXPECT_THROW((void)orvo_core::run_sync(synthesizer.synthesize_response(Any("q"), List{Any(1)})),
               orvo_core::TypeError);
}

}  // namespace
