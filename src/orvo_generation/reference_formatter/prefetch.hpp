#pragma once

#include <cstddef>

namespace orvo_generation::reference_formatter::detail {

// Batches smaller than this are left to the hardware.
inline constexpr std::size_t kPrefetchFrom = 32;

// Asks for the objects of a large batch ahead of use. Copying or dropping a shared pointer is an
// atomic update of a count that sits next to the object, and an atomic update of a line that is
// not in the cache stalls until it arrives; after a large batch of embeddings has streamed
// through the cache, every chunk is such a line. Fetched together first, the misses overlap.
template <class Range, class Address>
void prefetch_objects(const Range& range, Address address) {
  if (range.size() < kPrefetchFrom) return;
  for (const auto& element : range) {
    const auto* object = reinterpret_cast<const char*>(address(element));
    if (object == nullptr) continue;
    __builtin_prefetch(object);
    __builtin_prefetch(object - 16);  // the count, when the object was made with make_shared
  }
}

}  // namespace orvo_generation::reference_formatter::detail
