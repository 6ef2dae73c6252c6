#include "quantization/kernels/coverage_select.h"

#include <algorithm>
#include <cstdint>
#include <functional>

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wpsabi"
#endif

namespace qzdl {
namespace staticQuantization {
namespace kernels {

namespace {

struct Less {
  bool operator()(float a, float b) const { return a < b; }
};
struct Greater {
  bool operator()(float a, float b) const { return a > b; }
};

// Replaces the top of the heap heap[0..len) by `value` and restores the heap
// with the hole-to-leaf sift of libstdc++ (__adjust_heap from the root, then
// __push_heap of the value), so that equal and unordered values end where
// std::partial_sort puts them.
template <typename Comp>
inline void ReplaceTop(float* heap, ptrdiff_t len, float value, Comp comp) {
  ptrdiff_t hole = 0;
  ptrdiff_t child = 0;
  while (child < (len - 1) / 2) {
    child = 2 * (child + 1);
    if (comp(heap[child], heap[child - 1])) --child;
    heap[hole] = heap[child];
    hole = child;
  }
  if ((len & 1) == 0 && child == (len - 2) / 2) {
    child = 2 * (child + 1);
    heap[hole] = heap[child - 1];
    hole = child - 1;
  }
  ptrdiff_t parent = (hole - 1) / 2;
  while (hole > 0 && comp(heap[parent], value)) {
    heap[hole] = heap[parent];
    hole = parent;
    parent = (hole - 1) / 2;
  }
  heap[hole] = value;
}

// One element against both heaps, in the order of the partial sort.
inline void Offer(float x, float* min_heap, ptrdiff_t min_len, float* max_heap, ptrdiff_t max_len) {
  if (min_len > 0 && x < min_heap[0]) ReplaceTop(min_heap, min_len, x, Less());
  if (max_len > 0 && x > max_heap[0]) ReplaceTop(max_heap, max_len, x, Greater());
}

constexpr int kBlock = 16;
typedef float Quad __attribute__((vector_size(4 * sizeof(float))));
typedef int32_t QuadMask __attribute__((vector_size(4 * sizeof(float))));

// True if some element of the block would replace a top. A NaN top (an empty
// heap is given one) compares false with everything.
inline bool AnyBeyond(const float* block, float min_top, float max_top) {
  const Quad lo = min_top - Quad{};
  const Quad hi = max_top - Quad{};
  QuadMask hit = QuadMask{};
  for (int q = 0; q < kBlock; q += 4) {
    Quad v;
    __builtin_memcpy(&v, block + q, sizeof(v));
    hit |= (v < lo) | (v > hi);
  }
  uint64_t words[2];
  __builtin_memcpy(words, &hit, sizeof(hit));
  return (words[0] | words[1]) != 0;
}

}  // namespace

void MergeIntoStores(const float* data, size_t count, float* min_store, size_t min_size,
                     float* max_store, size_t max_size) {
  const ptrdiff_t min_len = static_cast<ptrdiff_t>(min_size);
  const ptrdiff_t max_len = static_cast<ptrdiff_t>(max_size);
  if (min_len > 0) std::make_heap(min_store, min_store + min_len, Less());
  if (max_len > 0) std::make_heap(max_store, max_store + max_len, Greater());
  const float none = __builtin_nanf("");
  size_t i = 0;
  // Most elements replace nothing once the heaps hold real data: test a block
  // against both tops at once, and walk it element by element only on a hit.
  // The tops change only on a replacement, so this is the same sequence of
  // heap operations as the plain loop.
  for (; i + kBlock <= count; i += kBlock) {
    const float min_top = min_len > 0 ? min_store[0] : none;
    const float max_top = max_len > 0 ? max_store[0] : none;
    if (!AnyBeyond(data + i, min_top, max_top)) continue;
    for (int k = 0; k < kBlock; ++k) Offer(data[i + k], min_store, min_len, max_store, max_len);
  }
  for (; i < count; ++i) Offer(data[i], min_store, min_len, max_store, max_len);
  if (min_len > 0) std::sort_heap(min_store, min_store + min_len, Less());
  if (max_len > 0) std::sort_heap(max_store, max_store + max_len, Greater());
}

}  // namespace kernels
}  // namespace staticQuantization
}  // namespace qzdl
