#include "orvo_core/utils/markdown.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

TEST(markdown, sentences_end_at_stops_that_a_new_sentence_follows) {
  const struct {
    std::string text;
    std::vector<std::string_view> sentences;
  } cases[] = {
      {"One here. Two there! Three? Four", {"One here.", "Two there!", "Three?", "Four"}},
      {"It stays, e.g. here, i.e. There. Next.", {"It stays, e.g. here, i.e. There.", "Next."}},
      {"Version 1.2 of Node.js is out. Is it? yes.",
       {"Version 1.2 of Node.js is out.", "Is it? yes."}},
      {"Call `a. B()` now. Then `x.` Done.", {"Call `a. B()` now.", "Then `x.` Done."}},
      {"He said \"Stop.\" Then (he left.) Fine", {"He said \"Stop.\"", "Then (he left.)", "Fine"}},
      {"Line one\n  line two.\n\n", {"Line one", "line two."}},
      {" \n ", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(orvo_core::split_sentences(c.text), c.sentences) << c.text;
}

TEST(markdown, code_spans_and_list_markers) {
  const struct {
    std::string_view text;
    std::size_t span_end;
  } spans[] = {{"`a` b", 3}, {"``a ` b`` c", 9}, {"`open\n`", 1}, {"```", 3}};
  for (const auto& c : spans) EXPECT_EQ(orvo_core::code_span_end(c.text, 0), c.span_end) << c.text;
  const struct {
    std::string_view line;
    std::size_t marker;
  } markers[] = {{"* item", 2},     {"- x", 2},   {"12. x", 4}, {"3) x", 3}, {"-", 1},
                 {"*emphasis*", 0}, {"1.5 m", 0}, {"-1 is", 0}, {"", 0}};
  for (const auto& c : markers) EXPECT_EQ(orvo_core::list_marker(c.line), c.marker) << c.line;
}

}  // namespace
