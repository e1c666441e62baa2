#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "orvo_core/embeddings.hpp"

namespace orvo_core {

/// The cosine similarity of `vector` with each vector of `vectors`, in order: the dot product
/// over the product of the Euclidean lengths, in [-1, 1]. A vector whose length is zero (all
/// zeros, or no elements) is similar to nothing: its scores are 0. Vectors of another length
/// than `vector` are a `ValueError`.
/// Scores are computed in one pass over each vector, widened to double as they are summed, with
/// the widest SIMD instruction set the CPU offers.
[[nodiscard]] std::vector<double> cosine(std::span<const float> vector, const Embeddings& vectors);

/// The SIMD instruction set that `cosine` uses on this CPU, for example "AVX3" or "AVX2".
[[nodiscard]] std::string_view cosine_target();

}  // namespace orvo_core
