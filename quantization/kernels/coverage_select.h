// Bounded selection of the most extreme elements for the coverage range.
//
// The coverage range keeps a store of the `size` smallest (and one of the
// `size` largest) elements seen so far. Merging a batch into a store is, by
// definition, a partial sort of the list "store followed by the batch" whose
// first `size` entries become the new store: a heap over the first entries,
// each later element that comes before the heap's top replacing it, then a
// heap sort.
//
// MergeIntoStores does exactly those heap operations, in the same order, on
// the store itself, so the batch is neither copied nor moved: the store ends
// bit for bit as the first `size` entries of std::partial_sort (libstdc++) of
// the concatenation. Both stores are merged in one pass over the batch.
#pragma once

#include <cstddef>

namespace qzdl {
namespace staticQuantization {
namespace kernels {

// min_store[0..min_size) becomes the min_size smallest of min_store ++ data,
// ascending (std::less<float>); max_store[0..max_size) the max_size largest
// of max_store ++ data, descending (std::greater<float>). A size of 0 leaves
// that store alone. An element that compares false both ways (NaN) never
// enters a store whose top is a number.
void MergeIntoStores(const float* data, size_t count, float* min_store, size_t min_size,
                     float* max_store, size_t max_size);

}  // namespace kernels
}  // namespace staticQuantization
}  // namespace qzdl
