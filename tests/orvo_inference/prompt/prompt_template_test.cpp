#include "orvo_inference/prompt/prompt_template.hpp"

#include <memory>

#include <gtest/gtest.h>

#include "orvo_core/errors.hpp"
#include "orvo_core/json.hpp"
#include "support/expect_throw_msg.hpp"

namespace {

using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;
using orvo_inference::PromptTemplate;

Map variables() {
  return {{"context", "C"}, {"query", "Q?"}, {"n", 3}};
}

// "<role>: <content as JSON>", one line per message.
std::string describe(const std::vector<orvo_inference::ChatMessage>& messages) {
  std::string out;
  for (const auto& message : messages) {
    out += std::string(to_string(message.role)) + ": " + orvo_core::to_json(message.content) + "\n";
  }
  return out;
}

// Placeholders take the text forms of the variables; an empty system template sends no system
// message.
TEST(prompt_template, placeholders_history_and_multimodal_contents_become_messages_and_parts) {
  const PromptTemplate prompt("Use {context} ({n}) {{literal}}", "{query}");
  EXPECT_EQ(prompt.variables(), (std::vector<std::string>{"context", "n", "query"}));
  EXPECT_EQ(describe(PromptTemplate("", "{query}").format(variables())), "user: \"Q?\"\n");
  const Any history(List{Any(List{Any("user"), Any("hello")}),
                         Any(Map{{"role", "assistant"}, {"content", "hi"}})});
  const Any images(List{Any("https://x/cat.png"), Any("note")});
  EXPECT_EQ(describe(prompt.format(variables(), history, Any(), images)),
            "system: \"Use C (3) {literal}\"\nuser: \"hello\"\nassistant: \"hi\"\n"
            R"(user: [{"type": "text", "text": "Q?"}, )"
            R"({"type": "image_url", "image_url": {"url": "https://x/cat.png"}}, )"
            R"({"type": "text", "text": "note"}])"
            "\n");
}

TEST(prompt_template, broken_templates_missing_variables_and_malformed_history_are_refused) {
  for (const char* broken : {"{", "}", "a {b", "a } b", "{}", "{a{b}}"}) {
    EXPECT_THROW(PromptTemplate("", broken), orvo_core::ValueError) << broken;
  }
  EXPECT_EQ(orvo_test::thrown_message<orvo_core::ValueError>(
                [] { (void)PromptTemplate("{context}", "{question}").format(variables()); }),
            "the prompt variable 'question' is missing");
  const PromptTemplate prompt("", "{query}");
  const Any bad_turns[] = {Any(List{Any("user")}), Any(List{Any("robot"), Any("x")}),
                           Any(List{Any("user"), Any(3)}), Any("user: hi"),
                           Any(std::make_shared<orvo_core::Object>())};
  for (const Any& turn : bad_turns) {
    EXPECT_THROW((void)prompt.format(variables(), Any(List{turn})), std::invalid_argument)
        << turn.repr();
  }
  EXPECT_THROW((void)prompt.format(variables(), Any("not a list")), orvo_core::TypeError);
}

}  // namespace
