#include "runtime/int8/quantized_weights.h"

#include <cstring>

#include "runtime/byte_io.h"
#include "runtime/errors.h"

namespace qzdl {

int BlobElementBytes(BlobType type) { return type == BlobType::kUint8 ? 1 : 4; }

bool GridCountFits(uint64_t grids, const std::vector<int>& dims) {
  if (grids <= 1) return true;
  return !dims.empty() && (grids == uint64_t(dims.front()) || grids == uint64_t(dims.back()));
}

std::vector<QuantizedBlob> ParseQuantizedWeights(const char* bytes, int64_t length,
                                                 const std::string& source) {
  if (length < 0) throw NetFormatError(source + ": negative length");
  ByteReader r(reinterpret_cast<const unsigned char*>(bytes), static_cast<uint64_t>(length),
               source);
  r.Need(16, "the header");
  if (std::memcmp(bytes, "QZQW", 4) != 0) {
    r.Fail(std::memcmp(bytes, "QZWT", 4) == 0
               ? "a float weights file, not a quantized one"
               : "not a quantized weights file (bad magic number)");
  }
  r.U32("the header");
  const uint32_t version = r.U32("the header");
  if (version != kQuantizedWeightsVersion) {
    r.Fail("unsupported quantized weights file version " + std::to_string(version));
  }
  const uint32_t count = r.U32("the header");
  r.U32("the header");
  std::vector<QuantizedBlob> blobs;
  for (uint32_t b = 0; b < count; ++b) {
    const BlobHeader h = ReadBlobHeader(r, b);
    if (h.type > 2) r.Fail(h.label + ": unknown element type " + std::to_string(h.type));
    const std::string& label = h.label;
    const uint64_t n = h.count;
    QuantizedBlob blob;
    blob.layer = h.layer;
    blob.name = h.name;
    blob.dims = h.dims;
    blob.type = static_cast<BlobType>(h.type);
    const uint64_t size = BlobElementBytes(blob.type);
    if (n > r.Remaining() / size) r.Fail("truncated while reading " + label);
    blob.bytes = r.Bytes(n * size, label);
    const uint32_t grids = r.U32(label + " grid count");
    if (!GridCountFits(grids, blob.dims)) {
      r.Fail(label + ": " + std::to_string(grids) + " grids for shape " + DimsToString(blob.dims) +
             " (0, 1 or one per index of the first or the last axis)");
    }
    if (grids > r.Remaining() / 16) r.Fail("truncated while reading " + label + " grids");
    std::vector<float> fields;
    for (uint32_t g = 0; g < grids; ++g) {
      ChannelGrid grid;
      r.Floats(fields, 3, label + " grid");
      grid.min = fields[0], grid.max = fields[1], grid.scale = fields[2];
      grid.zero = static_cast<int32_t>(r.U32(label + " grid"));
      if (grid.zero < 0 || grid.zero > 255) {
        r.Fail(label + ": grid " + std::to_string(g) + " has zero point " +
               std::to_string(grid.zero) + ", outside 0 .. 255");
      }
      blob.grids.push_back(grid);
    }
    blobs.push_back(std::move(blob));
  }
  if (r.Remaining() != 0) r.Fail(std::to_string(r.Remaining()) + " unexpected trailing bytes");
  return blobs;
}

std::string SerializeQuantizedWeights(const std::vector<QuantizedBlob>& blobs) {
  std::string out = "QZQW";
  PutU32(out, kQuantizedWeightsVersion);
  PutU32(out, static_cast<uint32_t>(blobs.size()));
  PutU32(out, 0);
  for (const QuantizedBlob& b : blobs) {
    PutBlobHeader(out, b.layer, b.name, b.dims, static_cast<uint32_t>(b.type),
                  b.bytes.size() / BlobElementBytes(b.type));
    out += b.bytes;
    PutU32(out, static_cast<uint32_t>(b.grids.size()));
    for (const ChannelGrid& g : b.grids) {
      for (float f : {g.min, g.max, g.scale}) {
        uint32_t bits;
        std::memcpy(&bits, &f, 4);
        PutU32(out, bits);
      }
      PutU32(out, static_cast<uint32_t>(g.zero));
    }
  }
  return out;
}

}  // namespace qzdl
