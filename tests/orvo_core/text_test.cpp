#include "orvo_core/text.hpp"

#include <string>

#include <gtest/gtest.h>

// The quoted and JSON forms of every code point and of every byte that cannot start a sequence
// are compared with the host's own by the differential test.
namespace {

namespace text = orvo_core::text;

TEST(text, decode_accepts_well_formed_utf8_only) {
  const struct {
    std::string bytes;
    std::u32string code_points;
  } cases[] = {
      {"a\xc3\xa9", U"a\u00e9"},
      {"\xf4\x8f\xbf\xbf", U"\U0010FFFF"},
      {"\xc0\xaf", U"\xdcc0\xdcaf"},                      // overlong slash
      {"\xed\xa0\x80", U"\xdced\xdca0\xdc80"},            // encoded surrogate
      {"\xf4\x90\x80\x80", U"\xdcf4\xdc90\xdc80\xdc80"},  // above U+10FFFF
      {"\xe2\x82x", U"\xdce2\xdc82x"},                    // truncated
      {"\xe2\x82", U"\xdce2\xdc82"},                      // truncated at the end
      {"\xff", U"\xdcff"},
  };
  for (const auto& c : cases) {
    std::u32string decoded;
    std::size_t pos = 0;
    while (pos < c.bytes.size()) decoded.push_back(text::decode(c.bytes, pos));
    EXPECT_EQ(decoded, c.code_points) << text::quoted(c.bytes);
  }
}

TEST(text, blank_means_only_white_space) {
  for (const char* blank : {"", "   \n", "\t\v\f\r\x1c\x1f", "\xc2\x85\xc2\xa0\xe3\x80\x80"}) {
    EXPECT_TRUE(text::is_blank(blank)) << text::quoted(blank);
  }
  // A zero-width space is not white space.
  for (const char* not_blank : {" a ", "\xe2\x80\x8b", "\xff"}) {
    EXPECT_FALSE(text::is_blank(not_blank)) << text::quoted(not_blank);
  }
}

}  // namespace
