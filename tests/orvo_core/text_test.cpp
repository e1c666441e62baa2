#include "orvo_core/text.hpp"

#include <string>

#include <gtest/gtest.h>

// Decoding, with the quoted and JSON forms, of every code point, of every byte that cannot start a
// sequence and of every kind of ill-formed sequence is compared with the host's own by the
// differential test.
namespace {

namespace text = orvo_core::text;

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
