#include "orvo_core/text.hpp"

#include <string>

#include <gtest/gtest.h>

namespace {

namespace text = orvo_core::text;

TEST(text, decode_accepts_well_formed_utf8_only) {
  const struct {
    std::string bytes;
    std::u32string code_points;
  } cases[] = {
      {"a\xc3\xa9", U"a\u00e9"},
      {"\xf0\x9f\x98\x80", U"\U0001F600"},
      {"\xf4\x8f\xbf\xbf", U"\U0010FFFF"},
      {"\xc0\xaf", U"\xdcc0\xdcaf"},                      // overlong slash
      {"\xed\xa0\x80", U"\xdced\xdca0\xdc80"},            // encoded surrogate
      {"\xf4\x90\x80\x80", U"\xdcf4\xdc90\xdc80\xdc80"},  // above U+10FFFF
      {"\xe2\x82", U"\xdce2\xdc82"},                      // truncated
      {"\xe2\x82x", U"\xdce2\xdc82x"},
      {"\xff", U"\xdcff"},
  };
  for (const auto& c : cases) {
    std::u32string decoded;
    std::size_t pos = 0;
    while (pos < c.bytes.size()) decoded.push_back(text::decode(c.bytes, pos));
    EXPECT_EQ(decoded, c.code_points) << text::quoted(c.bytes);
  }
}

TEST(text, quoted_form_escapes_what_is_not_printable) {
  const struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"", "''"},
      {"a\\b", R"('a\\b')"},
      {"tab\there\r\n", R"('tab\there\r\n')"},
      {"\x01\x7f", R"('\x01\x7f')"},
      {"caf\xc3\xa9", "'caf\xc3\xa9'"},
      {"\xc2\xa0\xc2\xad", R"('\xa0\xad')"},
      {"\xe2\x80\x8b\xe2\x80\xa8", R"('\u200b\u2028')"},
      {"\xf3\xa0\x80\x81", R"('\U000e0001')"},
      {"\xf0\x9f\x98\x80", "'\xf0\x9f\x98\x80'"},
      {"\xff", R"('\udcff')"},
      {"'", R"("'")"},
      {"\"", R"('"')"},
      {"'\"", R"('\'"')"},
  };
  for (const auto& c : cases) EXPECT_EQ(text::quoted(c.in), c.out);
}

TEST(text, json_strings_are_pure_ascii) {
  const struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"References:\n1. [Guide](docs/guide)", R"js("References:\n1. [Guide](docs/guide)")js"},
      {"a/b \"q\" \\", R"("a/b \"q\" \\")"},
      {"\b\f\t\r\x01\x7f", R"("\b\f\t\r\u0001\u007f")"},
      {"\xc3\xa9", R"("\u00e9")"},
      {"\xf0\x9f\x98\x80", R"("\ud83d\ude00")"},
      {"\xff", R"("\udcff")"},
  };
  for (const auto& c : cases) {
    std::string out;
    text::append_json_string(out, c.in);
    EXPECT_EQ(out, c.out);
  }
}

TEST(text, blank_means_only_white_space) {
  EXPECT_TRUE(text::is_blank(""));
  EXPECT_TRUE(text::is_blank("   \n"));
  EXPECT_TRUE(text::is_blank("\t\v\f\r\x1c\x1f"));
  EXPECT_TRUE(text::is_blank("\xc2\x85\xc2\xa0\xe3\x80\x80"));  // NEL, NBSP, ideographic space
  EXPECT_FALSE(text::is_blank(" a "));
  EXPECT_FALSE(text::is_blank("\xe2\x80\x8b"));  // zero-width space is not white space
  EXPECT_FALSE(text::is_blank("\xff"));
}

}  // namespace
