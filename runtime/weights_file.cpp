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
    const BlobHeader h = ReadBlobHeader(r, b);
    if (h.type != 0) r.Fail(h.label + ": unknown element type " + std::to_string(h.type));
    WeightBlob blob;
    blob.layer = h.layer;
    blob.name = h.name;
    blob.dims = h.dims;
    r.Floats(blob.values, h.count, h.label);
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
    PutBlobHeader(out, b.layer, b.name, b.dims, 0, b.values.size());
    for (float v : b.values) {
      uint32_t bits;
      std::memcpy(&bits, &v, 4);
      PutU32(out, bits);
    }
  }
  return out;
}

}  // namespace qzdl
