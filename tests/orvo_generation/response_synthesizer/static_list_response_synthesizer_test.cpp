#include "orvo_generation/response_synthesizer/static_list_response_synthesizer.hpp"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "support/recording_emitter.hpp"

namespace {

namespace rs = orvo_generation::response_synthesizer;
using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;

constexpr const char* kContextListError =
    "The input state variables for response synthesizer must include a `context_list` key of "
    "type `list[str]`.";

Any with_list(Any list) {
  return Map{{"context_list", std::move(list)}};
}

// The response, or the message of the error; the one event sent must be the response.
std::string synthesize(rs::StaticListResponseSynthesizer& synthesizer, Any state) {
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  try {
    std::string response = orvo_core::run_sync(synthesizer.synthesize_response(
                                                   Any("query"), std::move(state), Any(), emitter))
                               .as_string();
    EXPECT_EQ(emitter->values(), std::vector<std::string>{response});
    EXPECT_EQ(emitter->events[0].type, orvo_core::EventType::RESPONSE);
    return response;
  } catch (const orvo_core::ValueError& e) {
    EXPECT_TRUE(emitter->events.empty());
    return e.what();
  }
}

TEST(static_list_response_synthesizer, emits_a_numbered_list_or_the_fallback_once) {
  const struct {
    Any state;
    std::string response;
  } cases[] = {
      {with_list(List{}), "Sorry, I couldn't find anything based on your query."},
      {with_list(List{Any("Paris")}), "Here's what I found based your query:\n1. Paris"},
      {with_list(List{Any("two\nlines"), Any("x\n")}),
       "Here's what I found based your query:\n1. two\nlines\n2. x\n"},
      {Any(), kContextListError},
      {with_list(List{Any("a"), Any("b"), Any(3)}), kContextListError},
  };
  for (const auto& c : cases) {
    rs::StaticListResponseSynthesizer synthesizer;
    EXPECT_EQ(synthesize(synthesizer, c.state), c.response) << c.state.repr();
  }
  rs::StaticListResponseSynthesizer custom("Results: ", "none", "; ");
  EXPECT_EQ(synthesize(custom, with_list(List{Any("a"), Any("b")})), "Results: 1. a; 2. b");
}

}  // namespace
