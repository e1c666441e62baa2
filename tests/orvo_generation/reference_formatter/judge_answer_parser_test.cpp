#include "orvo_generation/reference_formatter/judge_answer_parser.hpp"

#include <string>

#include <gtest/gtest.h>

#include "support/chunks.hpp"
#include "support/expect_throw_msg.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;
using orvo_core::List;
using orvo_core::Map;

TEST(judge_answer_parser, reads_fences_prose_bare_lists_and_entry_numbers) {
  const rf::Chunks batch = {orvo_test::make_chunk("a", "a.pdf"),
                            orvo_test::make_chunk("b", "b.pdf"), orvo_test::make_chunk("c", "7")};
  const struct {
    Any answer;
    const char* selected;
  } cases[] = {
      {Map{{"file_name", List{Any("c.pdf"), Any("a.pdf")}}}, "0"},
      {List{Any("b.pdf"), Any("b.pdf")}, "1"},
      {"```json\n{\"file_name\": [\"b.pdf\"]}\n```", "1"},
      {"Sure! The relevant ones are [\"a.pdf\", \"b.pdf\"]; the rest is noise.", "01"},
      {"Relevant: [2] (see {notes})", "1"},
      {"1 and 3.", "02"},
      {List{Any(2), Any(9), Any(0)}, "1"},  // out of range: ignored
      {List{Any("7")}, "2"},                // a label wins over an entry number
      {"None", ""},
      {"I cannot tell.", "ValueError"},
      {"{\"file_name\": \"a.pdf\"}", "TypeError"},
  };
  for (const auto& c : cases) {
    std::string selected;
    const std::string error = orvo_test::error_of([&] {
      for (const std::size_t i : rf::parse_judge_answer(c.answer, batch, "file_name")) {
        selected += std::to_string(i);
      }
    });
    EXPECT_EQ(error == "none" ? selected : error.substr(0, error.find(':')), c.selected)
        << c.answer.repr();
  }
}

}  // namespace
