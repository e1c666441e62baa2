// The length of the run of bytes at the start of a text that a JSON string holds as they are,
// found a whole vector at a time; compiled once per SIMD target, the best chosen at run time.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "orvo_core/json_scan.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>

HWY_BEFORE_NAMESPACE();
namespace orvo_core::text {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

std::size_t PlainJsonPrefix(const char* data, std::size_t size) {
  // As signed bytes, everything below the blank (control bytes and every byte of a non-ASCII
  // character) is less than 0x20; DEL, the quote and the backslash are tested one by one.
  const hn::ScalableTag<std::int8_t> d;
  const std::size_t lanes = hn::Lanes(d);
  const auto blank = hn::Set(d, 0x20);
  const auto del = hn::Set(d, 0x7F);
  const auto quote = hn::Set(d, '"');
  const auto backslash = hn::Set(d, '\\');
  const auto* bytes = reinterpret_cast<const std::int8_t*>(data);
  std::size_t i = 0;
  for (; i + lanes <= size; i += lanes) {
    const auto v = hn::LoadU(d, bytes + i);
    const auto special = hn::Or(hn::Or(hn::Lt(v, blank), hn::Eq(v, del)),
                                hn::Or(hn::Eq(v, quote), hn::Eq(v, backslash)));
    const intptr_t first = hn::FindFirstTrue(d, special);
    if (first >= 0) return i + static_cast<std::size_t>(first);
  }
  for (; i < size; ++i) {
    const std::int8_t c = bytes[i];
    if (c < 0x20 || c == 0x7F || c == '"' || c == '\\') return i;
  }
  return size;
}

}  // namespace HWY_NAMESPACE
}  // namespace orvo_core::text
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace orvo_core::text {

HWY_EXPORT(PlainJsonPrefix);

std::size_t plain_json_prefix(const char* data, std::size_t size) {
  return HWY_DYNAMIC_DISPATCH(PlainJsonPrefix)(data, size);
}

}  // namespace orvo_core::text
#endif  // HWY_ONCE
