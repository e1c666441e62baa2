#include "orvo_generation/response_synthesizer/static_list_response_synthesizer.hpp"

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

constexpr const char* kContextListError =
    "The input state variables for response synthesizer must include a `context_list` key of "
    "type `list[str]`.";

Any with_list(Any list) {
  Map map;
  map.emplace("context_list", std::move(list));
  return map;
}

List strings(std::initializer_list<const char*> items) {
  List list;
  for (const char* item : items) list.emplace_back(item);
  return list;
}

std::string synthesize(rs::StaticListResponseSynthesizer& synthesizer, Any state,
                       std::shared_ptr<orvo_core::EventEmitter> emitter = nullptr) {
  return orvo_core::run_sync(
      synthesizer.synthesize_response(Any("query"), std::move(state), Any(), std::move(emitter)));
}

TEST(static_list_response_synthesizer, renders_a_numbered_list_or_the_fallback) {
  rs::StaticListResponseSynthesizer synthesizer;
  const struct {
    List items;
    std::string response;
  } cases[] = {
      {{}, "Sorry, I couldn't find anything based on your query."},
      {strings({"Paris"}), "Here's what I found based your query:\n1. Paris"},
      {strings({"a", "b", "c"}), "Here's what I found based your query:\n1. a\n2. b\n3. c"},
      {strings({"two\nlines", "x\n"}),
       "Here's what I found based your query:\n1. two\nlines\n2. x\n"},
  };
  for (const auto& c : cases) EXPECT_EQ(synthesize(synthesizer, with_list(c.items)), c.response);

  List eleven(11, Any("x"));
  const std::string long_list = synthesize(synthesizer, with_list(eleven));
  EXPECT_NE(long_list.find("\n9. x\n10. x\n11. x"), std::string::npos) << long_list;
  EXPECT_NE(long_list.find(":\n1. x\n"), std::string::npos);

  rs::StaticListResponseSynthesizer custom("Results: ", "none", "; ");
  EXPECT_EQ(synthesize(custom, with_list(strings({"a", "b"}))), "Results: 1. a; 2. b");
  EXPECT_EQ(custom.preceding_line, "Results: ");
}

TEST(static_list_response_synthesizer, rejects_anything_but_a_list_of_strings) {
  const Any rejected[] = {
      Any(),
      Any(Map{}),
      Any("context_list"),
      with_list(Any("a, b")),
      with_list(Any()),
      with_list(List{Any("a"), Any("b"), Any(3)}),
      with_list(List{Any("a"), Any()}),
  };
  for (const Any& state : rejected) {
    rs::StaticListResponseSynthesizer synthesizer;
    const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
    try {
      (void)synthesize(synthesizer, state, emitter);
      ADD_FAILURE() << state.repr() << " was accepted";
    } catch (const orvo_core::ValueError& e) {
      EXPECT_STREQ(e.what(), kContextListError);
    }
    EXPECT_TRUE(emitter->events.empty());
  }
}

TEST(static_list_response_synthesizer, emits_the_response_once) {
  for (const List& items : {List{}, strings({"a"})}) {
    rs::StaticListResponseSynthesizer synthesizer;
    const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
    const std::string response = synthesize(synthesizer, with_list(items), emitter);
    ASSERT_EQ(emitter->events.size(), 1U);
    EXPECT_EQ(emitter->events[0].value, response);
    EXPECT_EQ(emitter->events[0].level, orvo_core::EventLevel::INFO);
    EXPECT_EQ(emitter->events[0].type, orvo_core::EventType::RESPONSE);
  }
}

TEST(static_list_response_synthesizer, ignores_query_history_and_contents) {
  rs::StaticListResponseSynthesizer synthesizer(rs::DEFAULT_RESPONSE_PREFIX,
                                                rs::DEFAULT_FALLBACK_RESPONSE, "\n", false);
  const auto emitter = std::make_shared<orvo_test::RecordingEmitter>();
  Kwargs kwargs;
  kwargs.emplace("query", "anything");
  kwargs.emplace("state_variables", with_list(strings({"a"})));
  kwargs.emplace("history", List{Any("turn")});
  kwargs.emplace("user_multimodal_contents", List{Any("image")});
  kwargs.emplace("event_emitter", emitter);
  EXPECT_EQ(orvo_core::run_sync(synthesizer._run(kwargs)),
            Any("Here's what I found based your query:\n1. a"));
  EXPECT_TRUE(emitter->events.empty()) << "not streamable: nothing reaches the emitter via _run";
}

}  // namespace
