// Reader for NumPy array files: single arrays (.npy) and ZIP archives of them
// (.npz). Arrays are kept as raw bytes in file order; the reader records the
// element size, the shape and the order flag and converts nothing. Failures
// raise std::runtime_error with a fixed text (docs/calibration-data.md).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "runtime/errors.h"

namespace cnpy {

struct NpyArray {
  // Allocates elementCount * elementSize zero bytes.
  NpyArray(const std::vector<size_t>& shape, size_t elementSize, bool fortran_order);
  // An empty array: no shape, element count 1, no bytes.
  NpyArray();
  ~NpyArray() = default;

  template <typename T>
  T* data() {
    return reinterpret_cast<T*>(bytes->data());
  }
  template <typename T>
  const T* data() const {
    return reinterpret_cast<const T*>(bytes->data());
  }
  // Number of bytes held (the size of the shared byte vector).
  size_t byteCount() const { return bytes ? bytes->size() : 0; }

  // The contents, shared between copies of this record.
  std::shared_ptr<std::vector<char>> bytes;
  // One size per dimension, as in the header; empty for a 0-d array.
  std::vector<size_t> shape;
  // Bytes per element, as in the header.
  size_t elementSize = 0;
  bool fortran_order = false;
  // Product of shape; 1 for an empty shape.
  size_t elementCount = 1;
};

using NpzArrays = std::map<std::string, NpyArray>;

// Always '<'.
char BigEndianTest();
// 'f' float kinds, 'i' signed integers, 'u' unsigned, 'b' bool, 'c' complex, '?' else.
char map_type(const std::type_info& t);

// Append the characters of a string to a byte vector.
std::vector<char>& operator+=(std::vector<char>& lhs, const std::string& rhs);
std::vector<char>& operator+=(std::vector<char>& lhs, const char* rhs);

// Header of an NPY file at the current position of `file`; leaves the file at
// the first element byte (for headers of at most 255 characters).
void parse_npy_header(FILE* file, size_t& elementSize, std::vector<size_t>& shape,
                      bool& fortran_order);
// Header of an NPY image in memory. The form without a size trusts the
// buffer to hold the header; the sized form checks it.
void parse_npy_header(unsigned char* buffer, size_t& elementSize, std::vector<size_t>& shape,
                      bool& fortran_order);
void parse_npy_header(unsigned char* buffer, size_t bufferSize, size_t& elementSize,
                      std::vector<size_t>& shape, bool& fortran_order);
// The end-of-central-directory record of a ZIP file.
void parse_zip_footer(FILE* file, uint16_t& records, size_t& directorySize,
                      size_t& directoryOffset);

// What the three loads below raise: the fixed text of the failing step as
// its what(), and the file it was reading (qzdl::FileNamedError::file()).
class FileError : public std::runtime_error, public qzdl::FileNamedError {
 public:
  FileError(const std::string& what, const std::string& path)
      : std::runtime_error(what), qzdl::FileNamedError(path) {}
};

NpyArray npy_load(std::string path);
NpzArrays npz_load(std::string path);
NpyArray npz_load(std::string path, std::string name);

}  // namespace cnpy

// Shared by npy_load and both npz_load: header and data at the file position.
cnpy::NpyArray load_the_npy_file(FILE* file);
// A deflated NPZ member at the file position.
cnpy::NpyArray load_the_npz_array(FILE* file, uint32_t compressedBytes, uint32_t uncompressedBytes);
