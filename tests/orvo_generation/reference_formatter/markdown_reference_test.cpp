#include "orvo_generation/reference_formatter/markdown_reference.hpp"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "support/chunks.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;

// The HTML that cmark, a CommonMark reference parser, makes of `markdown`.
std::string cmark_html(const std::string& markdown) {
  const std::string path = testing::TempDir() + "orvo_markdown_reference.md";
  std::ofstream(path, std::ios::binary) << markdown;
  EXPECT_EQ(std::system((std::string(ORVO_CMARK) + " " + path + " > " + path + ".html").c_str()),
            0);
  std::ifstream html(path + ".html", std::ios::binary);
  return {std::istreambuf_iterator<char>(html), {}};
}

TEST(markdown_reference, every_entry_renders_in_cmark_as_exactly_one_link_to_its_address) {
  const struct {
    const char* title;
    const char* url;
    const char* html;  // the list item's content
  } cases[] = {
      {"Guide [draft] (v2)", "docs/my guide (v2).md",
       R"(<a href="docs/my%20guide%20%28v2%29.md">Guide [draft] (v2)</a>)"},
      {"]](javascript:alert(1))", "u", R"(<a href="u">]](javascript:alert(1))</a>)"},
      {"a\\b `code` *b* _i_ ~~s~~ <b>x</b> &amp; ![img](i.png)", "https://x.org/a_(b)?q=1&copy=2",
       R"(<a href="https://x.org/a_%28b%29?q=1&amp;copy=2">a\b `code` *b* _i_ ~~s~~ )"
       R"(&lt;b&gt;x&lt;/b&gt; &amp;amp; ![img](i.png)</a>)"},
      {"Line 1\nLine 2\r\n\nLine 3", "https://x.org/\\odd path\t<x>",
       R"(<a href="https://x.org/%5Codd%20path%09%3Cx%3E">Line 1 Line 2  Line 3</a>)"},
      {"C:\\", "https://x.org/caf\xc3\xa9%20ok",
       R"(<a href="https://x.org/caf%C3%A9%20ok">C:\</a>)"},
      {"", "u", R"(<a href="u">None</a>)"},  // no title
      {"- item [x](y)", "", "- item [x](y)"},
  };
  const auto format = rf::format_chunk_as_markdown(rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP);
  orvo_core::List entries;
  std::string expected = "<p>References:</p>\n<ol>\n";
  for (const auto& c : cases) {
    entries.push_back(format(*orvo_test::make_chunk("text", c.title, c.url)));
    expected += std::string("<li>") + c.html + "</li>\n";
  }
  const std::string markdown = rf::format_references_as_string(entries);
  EXPECT_EQ(cmark_html(markdown), expected + "</ol>\n") << markdown;
  EXPECT_TRUE(format(*orvo_test::make_chunk("no title, no address")).is_none());
}

}  // namespace
