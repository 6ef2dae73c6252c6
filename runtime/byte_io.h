// Little-endian reading and writing of the binary model files: every length
// read is checked against the bytes that remain before it is used, and a
// defect is a NetFormatError naming the file and the byte.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "runtime/errors.h"

namespace qzdl {

class ByteReader {
 public:
  ByteReader(const unsigned char* p, uint64_t n, const std::string& source)
      : p_(p), n_(n), source_(source) {}

  [[noreturn]] void Fail(const std::string& what) const {
    throw NetFormatError(source_ + ": " + what + " (at byte " + std::to_string(pos_) + ")");
  }
  uint64_t Remaining() const { return n_ - pos_; }
  void Need(uint64_t bytes, const std::string& what) const {
    if (bytes > Remaining()) Fail("truncated while reading " + what);
  }
  uint32_t U32(const std::string& what) {
    Need(4, what);
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | p_[pos_ + i];
    pos_ += 4;
    return v;
  }
  uint64_t U64(const std::string& what) {
    const uint64_t lo = U32(what);
    const uint64_t hi = U32(what);
    return lo | (hi << 32);
  }
  std::string String(const std::string& what) {
    const uint32_t n = U32(what);
    Need(n, what);
    std::string s(reinterpret_cast<const char*>(p_ + pos_), n);
    pos_ += n;
    return s;
  }
  // `n` raw bytes.
  std::string Bytes(uint64_t n, const std::string& what) {
    Need(n, what);
    std::string s(reinterpret_cast<const char*>(p_ + pos_), n);
    pos_ += n;
    return s;
  }
  // u32 rank (at most 8) and rank x i32 dims, none negative; `count` gets
  // their product, refused above 2^40.
  std::vector<int> Dims(const std::string& label, uint64_t* count) {
    const uint32_t rank = U32(label);
    if (rank > 8) Fail(label + ": rank " + std::to_string(rank) + " is above 8");
    std::vector<int> dims;
    *count = 1;
    for (uint32_t i = 0; i < rank; ++i) {
      const int32_t d = static_cast<int32_t>(U32(label));
      if (d < 0) Fail(label + ": negative dimension");
      dims.push_back(d);
      *count *= static_cast<uint64_t>(d);
      if (*count > (uint64_t(1) << 40)) Fail(label + ": dimensions too large");
    }
    return dims;
  }
  void Floats(std::vector<float>& out, uint64_t count, const std::string& what) {
    if (count > Remaining() / 4) Fail("truncated while reading " + what);
    out.resize(count);
    for (uint64_t i = 0; i < count; ++i) {
      uint32_t bits = 0;
      const unsigned char* b = p_ + pos_ + 4 * i;
      bits = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
      std::memcpy(&out[i], &bits, 4);
    }
    pos_ += 4 * count;
  }

 private:
  const unsigned char* p_;
  uint64_t n_;
  uint64_t pos_ = 0;
  std::string source_;
};

// The start of one blob of the weights containers: its names, dims, element
// type word and element count, the count checked against the dims.
struct BlobHeader {
  std::string layer, name;
  std::string label;  // `layer "l" blob "b"`, for messages
  std::vector<int> dims;
  uint32_t type = 0;
  uint64_t count = 0;
};

inline BlobHeader ReadBlobHeader(ByteReader& r, uint32_t index) {
  const std::string where = "blob " + std::to_string(index);
  BlobHeader h;
  h.layer = r.String(where + " layer name");
  h.name = r.String(where + " name");
  h.label = "layer \"" + h.layer + "\" blob \"" + h.name + "\"";
  uint64_t expected = 0;
  h.dims = r.Dims(h.label, &expected);
  h.type = r.U32(h.label);
  h.count = r.U64(h.label);
  if (h.count != expected) {
    r.Fail(h.label + ": holds " + std::to_string(h.count) + " values for shape " +
           DimsToString(h.dims));
  }
  return h;
}

inline void PutU32(std::string& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

inline void PutU64(std::string& out, uint64_t v) {
  PutU32(out, static_cast<uint32_t>(v & 0xffffffffu));
  PutU32(out, static_cast<uint32_t>(v >> 32));
}

inline void PutString(std::string& out, const std::string& s) {
  PutU32(out, static_cast<uint32_t>(s.size()));
  out += s;
}

inline void PutDims(std::string& out, const std::vector<int>& dims) {
  PutU32(out, static_cast<uint32_t>(dims.size()));
  for (int d : dims) PutU32(out, static_cast<uint32_t>(d));
}

inline void PutBlobHeader(std::string& out, const std::string& layer, const std::string& name,
                          const std::vector<int>& dims, uint32_t type, uint64_t count) {
  PutString(out, layer);
  PutString(out, name);
  PutDims(out, dims);
  PutU32(out, type);
  PutU64(out, count);
}

}  // namespace qzdl
