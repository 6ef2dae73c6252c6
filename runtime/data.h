// A named tensor: dims (batch, channel, height, width for 4-d data), a data
// type word and storage that is owned, shared from the caller, or absent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qzdl {

// 64-byte aligned heap block that keeps its capacity across shrinking
// reshapes, so that reshaping to a smaller batch does not reallocate.
class AlignedBuffer {
 public:
  AlignedBuffer() = default;
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;
  ~AlignedBuffer() { Release(); }
  // Makes room for at least `bytes`; contents are not kept when it grows.
  void* Reserve(size_t bytes);
  void Release();
  void* get() const { return ptr_; }
  size_t capacity() const { return capacity_; }

 private:
  void* ptr_ = nullptr;
  size_t capacity_ = 0;
};

template <typename T>
class Data {
 public:
  Data();
  explicit Data(const std::string& name);
  Data(const Data&) = delete;
  Data& operator=(const Data&) = delete;

  std::string GetName() const { return name_; }
  void SetName(const std::string& name) { name_ = name; }

  std::vector<int> GetDims() const { return dims_; }
  // Dimension `axis`; a negative axis counts from the end. Axes beyond the
  // tensor's rank read as 1, so 2-d data reads as N x C x 1 x 1.
  int GetDim(int axis) const;
  int NumAxes() const { return static_cast<int>(dims_.size()); }
  // Product of the dims from `axis` to the last (1 past the last axis). Each
  // dim is an int, but the product may pass 2^31 - 1: element counts,
  // offsets and byte sizes are 64-bit throughout.
  int64_t Count(int axis) const;
  // Bytes of storage in use for the current shape (0 without storage).
  int64_t GetSize() const;

  T* GetCpuData() const { return data_; }

  // Sets the shape; storage is not touched.
  void Resize(const std::vector<int>& dims);
  // Storage for the current shape, owned by this tensor; contents undefined.
  void Reallocate();
  // The same, filled with `value`.
  void Reallocate(T value);
  // Uses a caller-owned buffer as storage.
  void ShareData(T* data);
  // Gives up the storage (owned memory is freed).
  void ClearData();

  // The data type word: "float" or "int8". A "float" tensor of an 8-bit net
  // keeps four bytes per element in its storage; owned storage is enlarged
  // when the element grows (contents undefined after a change).
  void ChangeDataType(const std::string& type);
  std::string GetDataType() const { return data_type_; }
  size_t ElementBytes() const;

  float GetMinValue() const;
  float GetMaxValue() const;
  float GetMinValue(int from, int to) const;
  float GetMaxValue(int from, int to) const;

 private:
  std::string name_;
  std::vector<int> dims_;
  std::string data_type_;
  AlignedBuffer owned_;
  T* data_ = nullptr;
};

extern template class Data<float>;
extern template class Data<unsigned char>;
extern template class Data<int>;

}  // namespace qzdl
