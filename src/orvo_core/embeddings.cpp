#include "orvo_core/embeddings.hpp"

#include <algorithm>
#include <string>

#include "orvo_core/errors.hpp"

namespace orvo_core {

Embeddings::Embeddings(std::vector<float> data, std::size_t rows, std::size_t dim)
    : rows_(rows), dim_(dim) {
  if (data.size() != rows * dim) {
    throw ValueError("embedding buffer holds " + std::to_string(data.size()) +
                     " floats, expected " + std::to_string(rows) + " x " + std::to_string(dim));
  }
  auto owner = std::make_shared<std::vector<float>>(std::move(data));
  data_ = std::shared_ptr<const float>(owner, owner->data());
}

Embeddings::Embeddings(std::shared_ptr<const float> data, std::size_t rows, std::size_t dim)
    : data_(std::move(data)), rows_(rows), dim_(dim) {
  if (!data_ && rows * dim != 0) throw ValueError("embedding buffer is null");
}

Embeddings Embeddings::from_rows(const std::vector<Embedding>& rows) {
  const std::size_t dim = rows.empty() ? 0 : rows.front().size();
  std::vector<float> data;
  data.reserve(rows.size() * dim);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (rows[i].size() != dim) {
      throw ValueError("embedding " + std::to_string(i) + " has length " +
                       std::to_string(rows[i].size()) + ", expected " + std::to_string(dim));
    }
    data.insert(data.end(), rows[i].begin(), rows[i].end());
  }
  return {std::move(data), rows.size(), dim};
}

}  // namespace orvo_core
