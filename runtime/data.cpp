#include "runtime/data.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

namespace qzdl {

void* AlignedBuffer::Reserve(size_t bytes) {
  if (bytes <= capacity_ && ptr_ != nullptr) return ptr_;
  Release();
  // Rounding up must not wrap to a small block.
  if (bytes > SIZE_MAX - 63) throw std::bad_alloc();
  const size_t rounded = std::max<size_t>(64, (bytes + 63) / 64 * 64);
  ptr_ = std::aligned_alloc(64, rounded);
  if (ptr_ == nullptr) throw std::bad_alloc();
  capacity_ = rounded;
  return ptr_;
}

void AlignedBuffer::Release() {
  std::free(ptr_);
  ptr_ = nullptr;
  capacity_ = 0;
}

namespace {
template <typename T>
const char* DefaultType() {
  return std::is_same<T, unsigned char>::value ? "int8" : "float";
}
}  // namespace

template <typename T>
Data<T>::Data() : data_type_(DefaultType<T>()) {}

template <typename T>
Data<T>::Data(const std::string& name) : name_(name), data_type_(DefaultType<T>()) {}

template <typename T>
int Data<T>::GetDim(int axis) const {
  const int n = NumAxes();
  if (axis < 0) axis += n;
  if (axis < 0 || axis >= n) return 1;
  return dims_[axis];
}

template <typename T>
int64_t Data<T>::Count(int axis) const {
  if (axis < 0) axis = 0;
  int64_t count = 1;
  for (int i = axis; i < NumAxes(); ++i) count *= dims_[i];
  return count;
}

template <typename T>
int64_t Data<T>::GetSize() const {
  if (data_ == nullptr) return 0;
  return Count(0) * static_cast<int64_t>(ElementBytes());
}

template <typename T>
size_t Data<T>::ElementBytes() const {
  // An 8-bit net's "float" tensors hold floats in their storage.
  if (std::is_same<T, unsigned char>::value && data_type_ == "float") return sizeof(float);
  return sizeof(T);
}

template <typename T>
void Data<T>::Resize(const std::vector<int>& dims) {
  dims_ = dims;
}

template <typename T>
void Data<T>::Reallocate() {
  // Counts are int64 (they may pass 2^31 - 1); the bytes must not wrap.
  const uint64_t count = static_cast<uint64_t>(std::max<int64_t>(Count(0), 0));
  if (count > SIZE_MAX / ElementBytes()) throw std::bad_alloc();
  data_ = static_cast<T*>(owned_.Reserve(static_cast<size_t>(count) * ElementBytes()));
}

template <typename T>
void Data<T>::Reallocate(T value) {
  Reallocate();
  // A "float" tensor of an 8-bit net has four bytes an element.
  std::fill(data_, data_ + Count(0) * int64_t(ElementBytes() / sizeof(T)), value);
}

template <typename T>
void Data<T>::ShareData(T* data) {
  owned_.Release();
  data_ = data;
}

template <typename T>
void Data<T>::ClearData() {
  owned_.Release();
  data_ = nullptr;
}

template <typename T>
void Data<T>::ChangeDataType(const std::string& type) {
  const size_t before = ElementBytes();
  data_type_ = type;
  // Owned storage grows with the element size (its contents are then
  // undefined); a caller's buffer is the caller's to size.
  if (data_ != nullptr && data_ == owned_.get() && ElementBytes() > before) Reallocate();
}

namespace {

template <typename T>
float ReduceRange(const Data<T>& d, int64_t from, int64_t to, bool want_max) {
  const T* p = d.GetCpuData();
  from = std::max<int64_t>(from, 0);
  to = std::min<int64_t>(to, d.Count(0));
  if (p == nullptr || from >= to) return 0.0f;
  if (std::is_same<T, unsigned char>::value && d.GetDataType() == "float") {
    const float* f = reinterpret_cast<const float*>(p);
    float best = f[from];
    for (int64_t i = from + 1; i < to; ++i) best = want_max ? std::max(best, f[i]) : std::min(best, f[i]);
    return best;
  }
  T best = p[from];
  for (int64_t i = from + 1; i < to; ++i) best = want_max ? std::max(best, p[i]) : std::min(best, p[i]);
  return static_cast<float>(best);
}

}  // namespace

template <typename T>
float Data<T>::GetMinValue() const {
  return ReduceRange(*this, 0, Count(0), false);
}
template <typename T>
float Data<T>::GetMaxValue() const {
  return ReduceRange(*this, 0, Count(0), true);
}
template <typename T>
float Data<T>::GetMinValue(int from, int to) const {
  return ReduceRange(*this, from, to, false);
}
template <typename T>
float Data<T>::GetMaxValue(int from, int to) const {
  return ReduceRange(*this, from, to, true);
}

template class Data<float>;
template class Data<unsigned char>;
template class Data<int>;

}  // namespace qzdl
