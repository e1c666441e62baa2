#include "orvo_inference/prompt/prompt_template.hpp"

#include <memory>
#include <optional>
#include <utility>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_core/json.hpp"
#include "support/expect_throw_msg.hpp"

namespace {

using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;
using orvo_inference::PromptRole;
using orvo_inference::PromptTemplate;

// A pair as a host language keeps it: an object that gives its items.
class HostTuple : public orvo_core::Object {
 public:
  explicit HostTuple(List items) : items_(std::move(items)) {}
  [[nodiscard]] std::optional<List> items() const override { return items_; }

 private:
  List items_;
};

Map variables() {
  Map map;
  map.emplace("context", "C");
  map.emplace("query", "Q?");
  map.emplace("n", 3);
  return map;
}

TEST(prompt_template, fills_placeholders_with_text_forms) {
  const PromptTemplate prompt("Use {context} ({n}) {{literal}}", "{query}");
  const auto messages = prompt.format(variables());
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[0].role, PromptRole::SYSTEM);
  EXPECT_EQ(messages[0].content, Any("Use C (3) {literal}"));
  EXPECT_EQ(messages[1].role, PromptRole::USER);
  EXPECT_EQ(messages[1].content, Any("Q?"));
  EXPECT_EQ(prompt.variables(), (std::vector<std::string>{"context", "n", "query"}));
  EXPECT_EQ(PromptTemplate("", "{query}").format(variables()).size(), 1U) << "no system message";
}

TEST(prompt_template, broken_templates_and_missing_variables_are_named) {
  for (const char* broken : {"{", "}", "a {b", "a } b", "{}", "{a{b}}"}) {
    EXPECT_THROW(PromptTemplate("", broken), orvo_core::ValueError) << broken;
  }
  EXPECT_EQ(orvo_test::thrown_message<orvo_core::ValueError>(
                [] { (void)PromptTemplate("{context}", "{question}").format(variables()); }),
            "the prompt variable 'question' is missing");
}

TEST(prompt_template, history_and_multimodal_contents_become_messages_and_parts) {
  const PromptTemplate prompt("sys", "{query}");
  List turn1{Any("user"), Any("hello")};
  Map turn2;
  turn2.emplace("role", "assistant");
  turn2.emplace("content", "hi");
  const Any turn3(std::make_shared<HostTuple>(List{Any("user"), Any("and?")}));
  const Any history(List{Any(turn1), Any(turn2), turn3});
  const Any images(List{Any("https://x/cat.png"), Any("data:image/png;base64,AAAA"), Any("note")});
  const auto messages = prompt.format(variables(), history, Any(), images);
  ASSERT_EQ(messages.size(), 5U);
  EXPECT_EQ(messages[1].role, PromptRole::USER);
  EXPECT_EQ(messages[2].role, PromptRole::ASSISTANT);
  EXPECT_EQ(messages[3].role, PromptRole::USER);
  EXPECT_EQ(messages[3].content, Any("and?"));
  EXPECT_EQ(orvo_core::to_json(messages[4].content),
            R"([{"type": "text", "text": "Q?"}, )"
            R"({"type": "image_url", "image_url": {"url": "https://x/cat.png"}}, )"
            R"({"type": "image_url", "image_url": {"url": "data:image/png;base64,AAAA"}}, )"
            R"({"type": "text", "text": "note"}])");
}

TEST(prompt_template, malformed_history_is_refused) {
  const PromptTemplate prompt("", "{query}");
  const Any bad_turns[] = {Any(List{Any("user")}),
                           Any(List{Any("robot"), Any("x")}),
                           Any(List{Any("user"), Any(3)}),
                           Any("user: hi"),
                           Any(std::make_shared<HostTuple>(List{Any("user")})),
                           Any(std::make_shared<orvo_core::Object>())};
  for (const Any& turn : bad_turns) {
    EXPECT_THROW((void)prompt.format(variables(), Any(List{turn})), std::invalid_argument)
        << turn.repr();
  }
  EXPECT_THROW((void)prompt.format(variables(), Any("not a list")), orvo_core::TypeError);
}

}  // namespace
