#include "runtime/weights_file.h"

#include <cstring>

#include "runtime/byte_io.h"
#include "runtime/errors.h"

namespace qzdl {


std::vector<WeightBlob> ParseWeights(const char* bytes, int64_t length, const std::string& source) {
  std::vector<WeightBlob> blobs;
  if (length < 0) throw NetFormatError(source + ": negative length");
  // An empty buffer holds no blobs: nets without weights may come with one.
  if (length == 0) return blobs;
  ByteReader r(reinterpret_cast<const unsigned char*>(bytes), static_cast<uint64_t>(length), source);
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
    uint64_t expected = 0;
    blob.dims = r.Dims(label, &expected);
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
    PutString(out, b.layer);
    PutString(out, b.name);
    PutDims(out, b.dims);
    PutU32(out, 0);
    PutU64(out, b.values.size());
    for (float v : b.values) {
      uint32_t bits;
      std::memcpy(&bits, &v, 4);
      PutU32(out, bits);
    }
  }
  return out;
}

}  // namespace qzdl
