#pragma once

// Shared pieces of the fuzz targets: a byte reader, a builder of dynamic values, a UTF-8 check
// and the failure report.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orvo_core/any.hpp"
#include "orvo_core/schema/chunk.hpp"
#include "orvo_core/text.hpp"

namespace orvo_fuzz {

/// Reports a broken property with the value that broke it and stops the run, so that libFuzzer
/// keeps the input.
[[noreturn]] inline void fail(const char* property, const std::string& detail = {}) {
  std::fprintf(stderr, "\n*** property broken: %s\n%s\n", property, detail.c_str());
  std::fflush(stderr);
  std::abort();
}

#define ORVO_FUZZ_CHECK(condition, detail)                   \
  do {                                                       \
    if (!(condition)) ::orvo_fuzz::fail(#condition, detail); \
  } while (false)

/// Bytes for a failure report, in their quoted form.
inline std::string escaped(std::string_view bytes) {
  return orvo_core::Any(std::string(bytes)).repr();
}

/// A chunk of a derived class and an object of no known class: no path may assume the exact
/// class of what it is given.
struct DerivedChunk : orvo_core::Chunk {
  using Chunk::Chunk;
};
struct Opaque : orvo_core::Object {};

/// Reads the fuzz input front to back; once it is used up every read yields zeros, so any input
/// builds something.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  std::uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }

  bool flag() { return (byte() & 1) != 0; }

  /// A number in [0, n); n > 0.
  std::size_t below(std::size_t n) { return byte() % n; }

  std::uint64_t u64(std::size_t bytes = 8) {
    std::uint64_t v = 0;
    for (std::size_t i = 0; i < bytes; ++i) v = v << 8 | byte();
    return v;
  }

  /// Up to `max` raw bytes, the count coming first.
  std::string bytes(std::size_t max) {
    const std::size_t n = std::min<std::size_t>(below(max + 1), size_ - pos_);
    std::string out(reinterpret_cast<const char*>(data_ + pos_), n);
    pos_ += n;
    return out;
  }

  /// Everything not read yet.
  std::string_view rest() {
    std::string_view out(reinterpret_cast<const char*>(data_ + pos_), size_ - pos_);
    pos_ = size_;
    return out;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t pos_ = 0;
};

/// Whether `s` is well-formed UTF-8: the library's decoder, pinned by its unit table, escapes
/// each byte that starts no sequence as U+DC80..U+DCFF, which no well-formed sequence encodes.
inline bool valid_utf8(std::string_view s) {
  for (std::size_t pos = 0; pos < s.size();) {
    const char32_t cp = orvo_core::text::decode(s, pos);
    if (cp >= 0xDC80 && cp <= 0xDCFF) return false;
  }
  return true;
}

/// Pieces that exercise quoting and decoding: quotes, escapes, non-printable and unassigned
/// code points, and every kind of ill-formed UTF-8.
// clang-format off
inline constexpr std::string_view kTextPieces[] = {
    "a", "Z", " ", "'", "\"", "\\", "\n", "\r", "\t", "\b", "\f", std::string_view("\0", 1),
    "\x1f", "\x7f", "\xc2\xa0", "\xc3\xa9", "\xcd\xb8", "\xe2\x80\xa8", "\xe3\x80\x80",
    "\xef\xbb\xbf", "\xef\xbf\xbd", "\xf0\x9f\x98\x80", "\xf3\xa0\x80\x81", "\xf4\x8f\xbf\xbf",
    // Ill-formed: lone bytes, truncations, overlong forms, surrogates, above U+10FFFF.
    "\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc3", "\xe0\x80\x80", "\xe0\xa0", "\xed\xa0\x80",
    "\xed\xb2\x80", "\xf0\x80\x80\x80", "\xf0\x9f\x98", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80",
    "\xfe", "\xff", "[", "]", "(", ")", "{", "}", "References:", "https://x.y/z", "1. ",
    "file_name", "file_url", "\\udcff", "\\u00e9", "...",
};
// clang-format on

/// Builds dynamic values of every kind from the input: scalars, strings of raw bytes, nested
/// lists and maps, containers shared between several places and containers that hold themselves.
/// Objects come from the caller's factory, when there is one.
class ValueBuilder {
 public:
  using ObjectFactory = std::function<orvo_core::Any(Input&, ValueBuilder&, int depth)>;

  explicit ValueBuilder(Input& in, ObjectFactory objects = {}, int max_depth = 5)
      : in_(in), objects_(std::move(objects)), max_depth_(max_depth) {}

  /// Empties every container and chunk built, which breaks the reference cycles that would
  /// otherwise leak: a value that holds itself is never freed by reference counting.
  ~ValueBuilder() {
    for (orvo_core::Any& c : done_) {
      if (c.is_list()) c.as_list().clear();
      if (c.is_map()) c.as_map().clear();
    }
    for (const auto& chunk : chunks_) chunk->metadata.clear();
  }

  orvo_core::Any value(int depth = 0) {
    const bool leaf = depth >= max_depth_;
    const std::size_t pick = in_.below(leaf ? 6 : 10);
    if (pick == 0) return {};
    if (pick == 1) return in_.flag();
    if (pick == 2) return integer();
    if (pick == 3) return floating();
    if (pick <= 5) return string();
    if (pick <= 7) return container(depth, pick == 7);
    if (pick == 8) return shared(depth);
    return objects_ ? objects_(in_, *this, depth + 1) : orvo_core::Any(string());
  }

  std::int64_t integer() {
    const std::size_t pick = in_.below(4);
    if (pick == 0) return static_cast<std::int8_t>(in_.byte());
    if (pick == 1) return static_cast<std::int64_t>(in_.u64());
    if (pick == 2) return std::numeric_limits<std::int64_t>::min() + in_.byte();
    return std::numeric_limits<std::int64_t>::max() - in_.byte();
  }

  double floating() {
    // clang-format off
    static constexpr double kSpecial[] = {
        0.0, -0.0, 1.0, 0.1, 0.5, 1e16, 1e15, 1e-4, 1e-5, 123456789012345678.0, 9007199254740993.0,
        9223372036854775808.0, -9223372036854775808.0, 5e-324, 1.7976931348623157e308,
        std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
        std::numeric_limits<double>::quiet_NaN()};
    // clang-format on
    if (in_.flag()) return kSpecial[in_.below(std::size(kSpecial))];
    return std::bit_cast<double>(in_.u64());
  }

  std::string string() {
    if (in_.flag()) return in_.bytes(24);
    std::string out;
    for (std::size_t n = in_.below(6); n > 0; --n)
      out += kTextPieces[in_.below(std::size(kTextPieces))];
    return out;
  }

  std::string key() {
    static constexpr const char* kKeys[] = {"file_name",    "file_url", "title",
                                            "url",          "query",    "context",
                                            "context_list", "response", "chunks"};
    if (in_.flag()) return kKeys[in_.below(std::size(kKeys))];
    return string();
  }

  /// A chunk, at times of a derived class, with an identifier or a score; its metadata holds
  /// values built at `depth`, which may reach the containers being built.
  std::shared_ptr<orvo_core::Chunk> chunk(int depth) {
    orvo_core::Map metadata;
    for (std::size_t n = in_.below(4); n > 0; --n) {
      std::string k = key();
      orvo_core::Any v = value(depth);
      metadata.insert_or_assign(std::move(k), std::move(v));
    }
    std::string content = string();
    const auto& made = chunks_.emplace_back(
        in_.below(4) == 0
            ? std::make_shared<DerivedChunk>(std::move(content), std::move(metadata))
            : std::make_shared<orvo_core::Chunk>(std::move(content), std::move(metadata)));
    if (in_.below(4) == 0) made->id = string();
    if (in_.below(4) == 0) made->score = floating();
    return made;
  }

 private:
  orvo_core::Any container(int depth, bool is_map) {
    const orvo_core::Any self = is_map ? orvo_core::Any(orvo_core::Map()) : orvo_core::List();
    open_.push_back(self);
    for (std::size_t n = in_.below(5); n > 0; --n) {
      std::string k = is_map ? key() : std::string();
      orvo_core::Any v = value(depth + 1);
      if (is_map) {
        self.as_map().insert_or_assign(std::move(k), std::move(v));
      } else {
        self.as_list().push_back(std::move(v));
      }
    }
    open_.pop_back();
    done_.push_back(self);
    return self;
  }

  // A container built before, or one still being filled, which closes a cycle.
  orvo_core::Any shared(int depth) {
    if (in_.flag() && !open_.empty()) return open_[in_.below(open_.size())];
    if (done_.empty()) return container(depth, false);
    return done_[in_.below(done_.size())];
  }

  Input& in_;
  ObjectFactory objects_;
  int max_depth_;
  std::vector<orvo_core::Any> open_;  // containers being filled, outermost first
  std::vector<orvo_core::Any> done_;  // containers finished
  std::vector<std::shared_ptr<orvo_core::Chunk>> chunks_;  // chunks built
};

}  // namespace orvo_fuzz
