// Small calibration files for the tests: binary PPM images, NPY arrays of
// 32-bit floats, raw float sets and text files.
#pragma once

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace qzdl::test {

// A binary PPM of width x height pixels, all of one colour.
inline void WritePpm(const std::string& path, int width, int height, unsigned char red,
                     unsigned char green, unsigned char blue) {
  std::ofstream out(path, std::ios::binary);
  out << "P6\n" << width << " " << height << "\n255\n";
  for (int i = 0; i < width * height; ++i) {
    out.put(static_cast<char>(red)).put(static_cast<char>(green)).put(static_cast<char>(blue));
  }
}

// An NPY file (format 1.0) of little-endian 32-bit floats with `shape`.
inline void WriteNpy(const std::string& path, const std::vector<size_t>& shape,
                     const std::vector<float>& values, const char* descr = "<f4") {
  std::string dims;
  for (size_t d : shape) dims += std::to_string(d) + ", ";
  if (shape.size() > 1) dims.resize(dims.size() - 2);
  if (shape.size() == 1) dims.resize(dims.size() - 1);
  std::string header =
      std::string("{'descr': '") + descr + "', 'fortran_order': False, 'shape': (" + dims + "), }";
  while ((10 + header.size() + 1) % 64 != 0) header += ' ';
  header += '\n';
  std::ofstream out(path, std::ios::binary);
  out.write("\x93NUMPY\x01\x00", 8);
  const uint16_t length = static_cast<uint16_t>(header.size());
  out.put(static_cast<char>(length & 0xFF)).put(static_cast<char>(length >> 8));
  out << header;
  out.write(reinterpret_cast<const char*>(values.data()),
            static_cast<std::streamsize>(values.size() * sizeof(float)));
}

// Raw floats in machine order, then `spare` extra bytes.
inline void WriteFloats(const std::string& path, const std::vector<float>& values,
                        size_t spare = 0) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(values.data()),
            static_cast<std::streamsize>(values.size() * sizeof(float)));
  for (size_t i = 0; i < spare; ++i) out.put('\x7f');
}

inline void WriteText(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// 0, 1, 2, ... n - 1 as floats.
inline std::vector<float> Ramp(size_t n, float start = 0.0f) {
  std::vector<float> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = start + static_cast<float>(i);
  return v;
}

}  // namespace qzdl::test
