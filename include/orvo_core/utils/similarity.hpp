#pragma once

#include <span>
#include <vector>

#include "orvo_core/embeddings.hpp"

namespace orvo_core {

/// The cosine similarity of `vector` with each vector of `vectors`, in order: the dot product
/// over the product of the Euclidean lengths, in [-1, 1]. A vector whose length is zero (all
/// zeros, or no elements) is similar to nothing: its scores are 0. Vectors of another length
/// than `vector` are a `ValueError`.
[[nodiscard]] std::vector<double> cosine(std::span<const float> vector, const Embeddings& vectors);

}  // namespace orvo_core
