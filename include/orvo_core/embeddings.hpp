#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace orvo_core {

/// One embedding vector.
using Embedding = std::vector<float>;

/// A batch of embedding vectors of one length, stored row after row in one float32 buffer.
/// The buffer is shared, not copied: an invoker can hand over memory it already holds (a
/// response buffer, a precomputed matrix, a host array) by giving its owner to the constructor.
class Embeddings {
 public:
  /// An empty batch.
  Embeddings() = default;
  /// Takes `data` (rows * dim floats, row after row).
  Embeddings(std::vector<float> data, std::size_t rows, std::size_t dim);
  /// Shares a buffer of rows * dim floats; `data` keeps whatever owns the memory alive.
  Embeddings(std::shared_ptr<const float> data, std::size_t rows, std::size_t dim);
  /// Copies vectors of equal length into one buffer; unequal lengths are a `ValueError`.
  static Embeddings from_rows(const std::vector<Embedding>& rows);

  /// The number of vectors.
  [[nodiscard]] std::size_t size() const noexcept { return rows_; }
  [[nodiscard]] bool empty() const noexcept { return rows_ == 0; }
  /// The length of every vector.
  [[nodiscard]] std::size_t dim() const noexcept { return dim_; }
  /// The first float of the first vector.
  [[nodiscard]] const float* data() const noexcept { return data_.get(); }
  /// Vector `i`.
  [[nodiscard]] std::span<const float> operator[](std::size_t i) const noexcept {
    return {data_.get() + i * dim_, dim_};
  }
  /// The owner of the buffer, for sharing it further.
  [[nodiscard]] const std::shared_ptr<const float>& buffer() const noexcept { return data_; }

 private:
  std::shared_ptr<const float> data_;
  std::size_t rows_ = 0;
  std::size_t dim_ = 0;
};

}  // namespace orvo_core
