// Cosine similarity with runtime CPU dispatch: this file is compiled once per SIMD target and the
// best target the CPU supports is chosen at the first call.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "orvo_core/similarity.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

HWY_BEFORE_NAMESPACE();
namespace orvo_core {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// How many floats ahead of the current position rows are prefetched.
constexpr std::size_t kPrefetchAhead = 1024;

// Widens the query to double into `widened` and returns its squared length.
double WidenQuery(const float* query, std::size_t dim, double* widened) {
  const hn::ScalableTag<double> dd;
  const hn::Rebind<float, decltype(dd)> df;
  const std::size_t lanes = hn::Lanes(dd);
  auto sq0 = hn::Zero(dd), sq1 = hn::Zero(dd);
  std::size_t j = 0;
  for (; j + 2 * lanes <= dim; j += 2 * lanes) {
    const auto q0 = hn::PromoteTo(dd, hn::LoadU(df, query + j));
    const auto q1 = hn::PromoteTo(dd, hn::LoadU(df, query + j + lanes));
    hn::StoreU(q0, dd, widened + j);
    hn::StoreU(q1, dd, widened + j + lanes);
    sq0 = hn::MulAdd(q0, q0, sq0);
    sq1 = hn::MulAdd(q1, q1, sq1);
  }
  double norm2 = hn::GetLane(hn::SumOfLanes(dd, hn::Add(sq0, sq1)));
  for (; j < dim; ++j) {
    widened[j] = query[j];
    norm2 += widened[j] * widened[j];
  }
  return norm2;
}

// Scores `count` rows of `dim` floats against `query`, in one pass per row. Products of two
// floats are exact in double, so accumulating in double keeps the score accurate to the last few
// bits whatever the length.
void CosineRows(const float* query, std::size_t dim, double* widened, const float* rows,
                std::size_t count, double* scores) {
  const double query_norm2 = WidenQuery(query, dim, widened);
  const hn::ScalableTag<double> dd;
  const hn::Rebind<float, decltype(dd)> df;
  const std::size_t lanes = hn::Lanes(dd);
  for (std::size_t r = 0; r < count; ++r) {
    const float* row = rows + r * dim;
    // Four independent chains per sum hide the latency of the multiply-adds.
    auto dot0 = hn::Zero(dd), dot1 = hn::Zero(dd), dot2 = hn::Zero(dd), dot3 = hn::Zero(dd);
    auto sq0 = hn::Zero(dd), sq1 = hn::Zero(dd), sq2 = hn::Zero(dd), sq3 = hn::Zero(dd);
    std::size_t j = 0;
    for (; j + 4 * lanes <= dim; j += 4 * lanes) {
      // Rows from memory arrive faster when asked for ahead of the hardware prefetcher.
      hwy::Prefetch(row + j + kPrefetchAhead);
      hwy::Prefetch(row + j + kPrefetchAhead + 16);
      const auto r0 = hn::PromoteTo(dd, hn::LoadU(df, row + j));
      const auto r1 = hn::PromoteTo(dd, hn::LoadU(df, row + j + lanes));
      const auto r2 = hn::PromoteTo(dd, hn::LoadU(df, row + j + 2 * lanes));
      const auto r3 = hn::PromoteTo(dd, hn::LoadU(df, row + j + 3 * lanes));
      dot0 = hn::MulAdd(hn::LoadU(dd, widened + j), r0, dot0);
      dot1 = hn::MulAdd(hn::LoadU(dd, widened + j + lanes), r1, dot1);
      dot2 = hn::MulAdd(hn::LoadU(dd, widened + j + 2 * lanes), r2, dot2);
      dot3 = hn::MulAdd(hn::LoadU(dd, widened + j + 3 * lanes), r3, dot3);
      sq0 = hn::MulAdd(r0, r0, sq0);
      sq1 = hn::MulAdd(r1, r1, sq1);
      sq2 = hn::MulAdd(r2, r2, sq2);
      sq3 = hn::MulAdd(r3, r3, sq3);
    }
    for (; j + lanes <= dim; j += lanes) {
      const auto r0 = hn::PromoteTo(dd, hn::LoadU(df, row + j));
      dot0 = hn::MulAdd(hn::LoadU(dd, widened + j), r0, dot0);
      sq0 = hn::MulAdd(r0, r0, sq0);
    }
    const auto dots = hn::Add(hn::Add(dot0, dot1), hn::Add(dot2, dot3));
    const auto sqs = hn::Add(hn::Add(sq0, sq1), hn::Add(sq2, sq3));
    double dot = hn::GetLane(hn::SumOfLanes(dd, dots));
    double norm2 = hn::GetLane(hn::SumOfLanes(dd, sqs));
    for (; j < dim; ++j) {
      const double x = row[j];
      dot += widened[j] * x;
      norm2 += x * x;
    }
    const double denominator = std::sqrt(query_norm2 * norm2);
    scores[r] = denominator > 0.0 ? std::clamp(dot / denominator, -1.0, 1.0) : 0.0;
  }
}

std::int64_t Target() {
  return HWY_TARGET;
}

}  // namespace HWY_NAMESPACE
}  // namespace orvo_core
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include <string>

#include "orvo_core/errors.hpp"
#include "orvo_core/utils/similarity.hpp"

namespace orvo_core {

HWY_EXPORT(CosineRows);
HWY_EXPORT(Target);

std::vector<double> cosine(std::span<const float> vector, const Embeddings& vectors) {
  if (!vectors.empty() && vectors.dim() != vector.size()) {
    throw ValueError("cosine: the vector has length " + std::to_string(vector.size()) +
                     " but the batch holds vectors of length " + std::to_string(vectors.dim()));
  }
  std::vector<double> scores(vectors.size(), 0.0);
  if (vectors.empty()) return scores;
  // The widened query is scratch space, kept per thread so that small batches do not allocate.
  thread_local std::vector<double> widened;
  if (widened.size() < vector.size()) widened.resize(vector.size());
  HWY_DYNAMIC_DISPATCH(CosineRows)
  (vector.data(), vector.size(), widened.data(), vectors.data(), vectors.size(), scores.data());
  return scores;
}

std::string_view cosine_target() {
  return hwy::TargetName(HWY_DYNAMIC_DISPATCH(Target)());
}

}  // namespace orvo_core
#endif  // HWY_ONCE
