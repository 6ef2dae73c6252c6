#include "runtime/weights_file.h"

#include <cstring>

#include "runtime/errors.h"

namespace qzdl {

namespace {

class Reader {
 public:
  Reader(const unsigned char* p, uint64_t n, const std::string& source)
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

void PutU32(std::string& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}

}  // namespace

std::vector<WeightBlob> ParseWeights(const char* bytes, int64_t length, const std::string& source) {
  std::vector<WeightBlob> blobs;
  if (length < 0) throw NetFormatError(source + ": negative length");
  // An empty buffer holds no blobs: nets without weights may come with one.
  if (length == 0) return blobs;
  Reader r(reinterpret_cast<const unsigned char*>(bytes), static_cast<uint64_t>(length), source);
  r.Need(4, "the header");
  if (std::memcmp(bytes, "QZWT", 4) != 0) r.Fail("not a weights file (bad magic number)");
  r.U32("the header");
  const uint32_t version = r.U32("the header");
  if (version != kWeightsVersion)
    r.Fail("unsupported weights file version " + std::to_string(version));
  const uint32_t count = r.U32("the header");
  r.U32("the header");
  for (uint32_t b = 0; b < count; ++b) {
    const std::string where = "blob " + std::to_string(b);
    WeightBlob blob;
    blob.layer = r.String(where + " layer name");
    blob.name = r.String(where + " name");
    const std::string label = "layer \"" + blob.layer + "\" blob \"" + blob.name + "\"";
    const uint32_t rank = r.U32(label);
    if (rank > 8) r.Fail(label + ": rank " + std::to_string(rank) + " is above 8");
    uint64_t expected = 1;
    for (uint32_t i = 0; i < rank; ++i) {
      const int32_t d = static_cast<int32_t>(r.U32(label));
      if (d < 0) r.Fail(label + ": negative dimension");
      blob.dims.push_back(d);
      expected *= static_cast<uint64_t>(d);
      if (expected > (uint64_t(1) << 40)) r.Fail(label + ": dimensions too large");
    }
    const uint32_t type = r.U32(label);
    if (type != 0) r.Fail(label + ": unknown element type " + std::to_string(type));
    const uint64_t n = r.U64(label);
    if (n != expected)
      r.Fail(label + ": holds " + std::to_string(n) + " values for shape " +
             DimsToString(blob.dims));
    r.Floats(blob.values, n, label);
    blobs.push_back(std::move(blob));
  }
  if (r.Remaining() != 0) r.Fail(std::to_string(r.Remaining()) + " unexpected trailing bytes");
  return blobs;
}

std::string SerializeWeights(const std::vector<WeightBlob>& blobs) {
  std::string out = "QZWT";
  PutU32(out, kWeightsVersion);
  PutU32(out, static_cast<uint32_t>(blobs.size()));
  PutU32(out, 0);
  for (const WeightBlob& b : blobs) {
    PutU32(out, static_cast<uint32_t>(b.layer.size()));
    out += b.layer;
    PutU32(out, static_cast<uint32_t>(b.name.size()));
    out += b.name;
    PutU32(out, static_cast<uint32_t>(b.dims.size()));
    for (int d : b.dims) PutU32(out, static_cast<uint32_t>(d));
    PutU32(out, 0);
    const uint64_t n = b.values.size();
    PutU32(out, static_cast<uint32_t>(n & 0xffffffffu));
    PutU32(out, static_cast<uint32_t>(n >> 32));
    for (float v : b.values) {
      uint32_t bits;
      std::memcpy(&bits, &v, 4);
      PutU32(out, bits);
    }
  }
  return out;
}

}  // namespace qzdl
