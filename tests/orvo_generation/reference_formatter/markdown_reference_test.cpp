#include "orvo_generation/reference_formatter/markdown_reference.hpp"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/chunks.hpp"

namespace {

namespace rf = orvo_generation::reference_formatter;
using orvo_core::Any;
using orvo_core::List;

// The XML that cmark makes of `markdown`.
std::string cmark_xml(const std::string& markdown) {
  const std::string path = testing::TempDir() + "orvo_markdown_reference.md";
  std::ofstream(path, std::ios::binary) << markdown;
  const std::string command = std::string(ORVO_CMARK) + " --to xml " + path;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::string xml;
  char buffer[4096];
  for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe.get())) > 0;) xml.append(buffer, n);
  return xml;
}

std::string unescape_xml(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    bool replaced = false;
    for (const auto& [entity, c] : {std::pair{"&lt;", '<'}, std::pair{"&gt;", '>'},
                                    std::pair{"&quot;", '"'}, std::pair{"&amp;", '&'}}) {
      if (s.compare(i, std::strlen(entity), entity) == 0) {
        out.push_back(c);
        i += std::strlen(entity) - 1;
        replaced = true;
        break;
      }
    }
    if (!replaced) out.push_back(s[i]);
  }
  return out;
}

// Each list item's paragraph as "link <destination> <text>" when it is exactly one link of plain
// text, "text <text>" when it is plain text only, or its XML when it is anything else.
std::vector<std::string> rendered_items(const std::string& xml) {
  static const std::regex item(R"re(<item>\s*<paragraph>\s*([\s\S]*?)\s*</paragraph>\s*</item>)re");
  static const std::regex link(
      R"re(^<link destination="([^"]*)"(?: title="")?(?: />|>([\s\S]*)</link>)$)re");
  static const std::regex texts(R"re(^(?:\s*<text xml:space="preserve">[^<]*</text>)*\s*$)re");
  static const std::regex text(R"re(<text xml:space="preserve">([^<]*)</text>)re");
  const auto plain = [](const std::string& nodes) {
    std::string out;
    for (std::sregex_iterator it(nodes.begin(), nodes.end(), text), end; it != end; ++it) {
      out += unescape_xml((*it)[1]);
    }
    return out;
  };
  std::vector<std::string> items;
  for (std::sregex_iterator it(xml.begin(), xml.end(), item), end; it != end; ++it) {
    const std::string body = (*it)[1];
    std::smatch m;
    if (std::regex_match(body, m, link) && std::regex_match(m[2].str(), texts)) {
      items.push_back("link " + unescape_xml(m[1]) + " " + plain(m[2]));
    } else if (std::regex_match(body, texts)) {
      items.push_back("text " + plain(body));
    } else {
      items.push_back(body);
    }
  }
  return items;
}

TEST(markdown_reference, every_entry_renders_in_cmark_as_exactly_what_it_says) {
  const struct {
    const char* title;
    const char* url;
    const char* rendered;
  } cases[] = {
      {"Guide [draft] (v2)", "docs/my guide (v2).md",
       "link docs/my%20guide%20%28v2%29.md Guide [draft] (v2)"},
      {"]](javascript:alert(1))", "u", "link u ]](javascript:alert(1))"},
      {"a\\b `code` *b* _i_ ~~s~~ <b>x</b> &amp; ![img](i.png)", "https://x.org/a_(b)?q=1&copy=2",
       "link https://x.org/a_%28b%29?q=1&copy=2 a\\b `code` *b* _i_ ~~s~~ <b>x</b> &amp; "
       "![img](i.png)"},
      {"Line 1\nLine 2\r\n\nLine 3", "https://x.org/\\odd path\t<x>",
       "link https://x.org/%5Codd%20path%09%3Cx%3E Line 1 Line 2  Line 3"},
      {"C:\\", "https://x.org/caf\xc3\xa9%20ok", "link https://x.org/caf\xc3\xa9%20ok C:\\"},
      {"", "u", "link u None"},  // no title
      {"# Heading", "", "text # Heading"},
      {"12. not a list", "", "text 12. not a list"},
      {"- item [x](y)", "", "text - item [x](y)"},
  };
  const auto format = rf::format_chunk_as_markdown(rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP);
  List entries;
  std::vector<std::string> expected;
  for (const auto& c : cases) {
    entries.push_back(format(*orvo_test::make_chunk("text", c.title, c.url)));
    expected.emplace_back(c.rendered);
  }
  EXPECT_EQ(rendered_items(cmark_xml(rf::format_references_as_string(entries))), expected)
      << rf::format_references_as_string(entries);
}

TEST(markdown_reference, keeps_the_default_shape_for_missing_values) {
  const auto format = rf::format_chunk_as_markdown(rf::DEFAULT_FORMAT_CHUNK_METADATA_MAP);
  EXPECT_EQ(format(*orvo_test::make_chunk("t", "", "docs/a b")), Any("[None](docs/a%20b)"));
  EXPECT_TRUE(format(*orvo_test::make_chunk("t")).is_none());
}

}  // namespace
