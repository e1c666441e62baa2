// The read bound: one vectorised pass that sums floats, so it runs as fast as the memory holding
// them delivers. Compiled once per SIMD target and dispatched at run time like the library's
// cosine kernel, so both read with the same vector width.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "read_bound.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/highway.h>

#include <cstddef>
#include <cstdint>

HWY_BEFORE_NAMESPACE();
namespace orvo_bench {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

float SumFloats(const float* data, std::size_t count) {
  const hn::ScalableTag<float> d;
  const std::size_t lanes = hn::Lanes(d);
  // Eight independent chains: the adds' latency must not limit two loads per cycle.
  auto s0 = hn::Zero(d), s1 = hn::Zero(d), s2 = hn::Zero(d), s3 = hn::Zero(d);
  auto s4 = hn::Zero(d), s5 = hn::Zero(d), s6 = hn::Zero(d), s7 = hn::Zero(d);
  std::size_t i = 0;
  for (; i + 8 * lanes <= count; i += 8 * lanes) {
    s0 = hn::Add(s0, hn::LoadU(d, data + i));
    s1 = hn::Add(s1, hn::LoadU(d, data + i + lanes));
    s2 = hn::Add(s2, hn::LoadU(d, data + i + 2 * lanes));
    s3 = hn::Add(s3, hn::LoadU(d, data + i + 3 * lanes));
    s4 = hn::Add(s4, hn::LoadU(d, data + i + 4 * lanes));
    s5 = hn::Add(s5, hn::LoadU(d, data + i + 5 * lanes));
    s6 = hn::Add(s6, hn::LoadU(d, data + i + 6 * lanes));
    s7 = hn::Add(s7, hn::LoadU(d, data + i + 7 * lanes));
  }
  for (; i + lanes <= count; i += lanes) s0 = hn::Add(s0, hn::LoadU(d, data + i));
  const auto sum = hn::Add(hn::Add(hn::Add(s0, s1), hn::Add(s2, s3)),
                           hn::Add(hn::Add(s4, s5), hn::Add(s6, s7)));
  float total = hn::GetLane(hn::SumOfLanes(d, sum));
  for (; i < count; ++i) total += data[i];
  return total;
}

std::int64_t Target() {
  return HWY_TARGET;
}

}  // namespace HWY_NAMESPACE
}  // namespace orvo_bench
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include <string_view>

namespace orvo_bench {

HWY_EXPORT(SumFloats);
HWY_EXPORT(Target);

float sum_floats(const float* data, std::size_t count) {
  return HWY_DYNAMIC_DISPATCH(SumFloats)(data, count);
}

std::string_view sum_floats_target() {
  return hwy::TargetName(HWY_DYNAMIC_DISPATCH(Target)());
}

}  // namespace orvo_bench
#endif  // HWY_ONCE
