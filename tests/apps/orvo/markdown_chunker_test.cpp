#include "markdown_chunker.hpp"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using orvo_cli::chunk_markdown;
using orvo_cli::DocumentChunk;

std::string describe(const std::vector<DocumentChunk>& chunks) {
  std::string out;
  for (const auto& chunk : chunks) {
    out += "[#" + chunk.anchor + " |";
    for (const auto& heading : chunk.headings) out += " " + heading + " |";
    out += " " + chunk.text + "]";
  }
  return out;
}

TEST(markdown_chunker, blocks_stay_whole_and_chunks_carry_their_heading_path) {
  const struct {
    std::string text;
    std::size_t max_chars;
    std::string chunks;
  } cases[] = {
      // Hard-wrapped lines joined; path and anchors, repeats numbered; setext headings.
      {"# Top\n\nOne\nline.\n\n## Sub `a.b(c[, d])`\nText.\n\n# Top\n\n### Deep: 'x'\n\nMore.", 800,
       "[#top | Top | One line.][#sub-abc-d | Top | Sub `a.b(c[, d])` | Text.]"
       "[#deep-x | Top | Deep: 'x' | More.]"},
      {"Intro.\n\nTitle\n=====\n\nBody.", 800, "[# | Intro.][#title | Title | Body.]"},
      // Items on their lines, fences and tables kept; comments, bare tags, reference
      // definitions and link syntax dropped.
      {"<!-- YAML\nadded: v1\n-->\n<a id=\"x\"></a>\n* one\n  wrapped\n* [`fs`][] two\n\n"
       "```js\nconst a = 1;\n\nb();\n```\n\n| a | b |\n|---|---|\n\nSee [docs](x.md). "
       "![pic](p.png)\n\n[`fs`]: fs.md\n\n---\n",
       800,
       "[# | * one wrapped\n* `fs` two\n\n```js\nconst a = 1;\n\nb();\n```\n\n| a | b |\n|---|---|"
       "\n\nSee docs. pic]"},
      // Too long: cut between sentences; a half-empty chunk takes the next paragraph's first
      // sentences; code cut between lines and fenced again.
      {"One sentence that is rather long. Another sentence that is long too. And a third.", 60,
       "[# | One sentence that is rather long.][# | Another sentence that is long too. And a "
       "third.]"},
      {"Short.\n\nFirst of two. The second sentence is long enough to overflow the chunk.", 60,
       "[# | Short.\n\nFirst of two.][# | The second sentence is long enough to overflow the "
       "chunk.]"},
      {"```\n" + std::string(30, 'a') + "\n" + std::string(30, 'b') + "\n```", 45,
       "[# | ```\n" + std::string(30, 'a') + "\n```][# | ```\n" + std::string(30, 'b') + "\n```]"},
      {"```sh\nunclosed", 800, "[# | ```sh\nunclosed]"},
      {" \n\n<!-- only -->\n", 800, ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(describe(chunk_markdown(c.text, {c.max_chars})), c.chunks) << c.text;
  }
}

TEST(markdown_chunker, no_chunk_exceeds_the_limit) {
  const std::string text = "# H\n\n" + std::string(300, 'x') + " tail.\n\n* " +
                           std::string(100, 'y') + "\n\n\xc3\xa9" + std::string(200, 'z');
  for (const auto& chunk : chunk_markdown(text, {50})) {
    EXPECT_LE(chunk.text.size(), 50U) << chunk.text;
    EXPECT_FALSE(chunk.text.empty());
  }
  // Runs of unmatched brackets and backticks in one long paragraph are read in linear time.
  std::string runs;
  for (int i = 0; i < 20000; ++i) runs += i % 2 == 0 ? "[a `b " : "](";
  EXPECT_FALSE(chunk_markdown(runs, {800}).empty());
}

}  // namespace
