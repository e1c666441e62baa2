#include "orvo_core/utils/similarity.hpp"

#include <cmath>
#include <string>

#include "orvo_core/errors.hpp"

namespace orvo_core {

std::vector<double> cosine(std::span<const float> vector, const Embeddings& vectors) {
  if (!vectors.empty() && vectors.dim() != vector.size()) {
    throw ValueError("cosine: the vector has length " + std::to_string(vector.size()) +
                     " but the batch holds vectors of length " + std::to_string(vectors.dim()));
  }
  double query_norm2 = 0.0;
  for (const float x : vector) query_norm2 += double{x} * double{x};
  std::vector<double> scores(vectors.size(), 0.0);
  for (std::size_t i = 0; i < vectors.size(); ++i) {
    const auto row = vectors[i];
    double dot = 0.0;
    double norm2 = 0.0;
    for (std::size_t j = 0; j < row.size(); ++j) {
      dot += double{vector[j]} * double{row[j]};
      norm2 += double{row[j]} * double{row[j]};
    }
    const double denominator = std::sqrt(query_norm2) * std::sqrt(norm2);
    scores[i] = denominator > 0.0 ? dot / denominator : 0.0;
  }
  return scores;
}

}  // namespace orvo_core
