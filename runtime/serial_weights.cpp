#include "runtime/serial_weights.h"

#include <cstring>
#include <fstream>
#include <iterator>

#include "runtime/errors.h"
#include "runtime/file_read.h"
#include "serial_model_generated.h"

namespace qzdl {

namespace {

// The verified model, or a NetFormatError naming `source`.
const serial::Model* VerifiedModel(const void* bytes, size_t length, const std::string& source) {
  const auto* data = static_cast<const uint8_t*>(bytes);
  flatbuffers::Verifier verifier(data, length);
  if (length < 8 || !serial::ModelBufferHasIdentifier(data) || !serial::VerifyModelBuffer(verifier))
    throw NetFormatError(source + ": not a valid serial model (the container does not verify)");
  const serial::Model* model = serial::GetModel(data);
  if (model->version() != kSerialVersion)
    throw NetFormatError(source + ": unsupported serial model version " +
                         std::to_string(model->version()));
  return model;
}

std::string Label(const serial::Blob* b) {
  return "layer \"" + (b->layer() ? b->layer()->str() : "") + "\" blob \"" +
         (b->name() ? b->name()->str() : "") + "\"";
}

// The dims of `b` and their product, checked.
std::vector<int> BlobDims(const serial::Blob* b, const std::string& source, uint64_t* count) {
  std::vector<int> dims;
  *count = 1;
  if (b->dims()) {
    if (b->dims()->size() > 8) throw NetFormatError(source + ": " + Label(b) + ": rank above 8");
    for (int d : *b->dims()) {
      if (d < 0) throw NetFormatError(source + ": " + Label(b) + ": negative dimension");
      dims.push_back(d);
      *count *= static_cast<uint64_t>(d);
    }
  }
  return dims;
}

void CheckCount(uint64_t n, uint64_t expected, const serial::Blob* b, const std::vector<int>& dims,
                const std::string& source) {
  if (n != expected)
    throw NetFormatError(source + ": " + Label(b) + ": holds " + std::to_string(n) +
                         " values for shape " + DimsToString(dims));
}

}  // namespace

std::vector<WeightBlob> ParseSerialWeights(const void* bytes, size_t length,
                                           const std::string& source) {
  const serial::Model* model = VerifiedModel(bytes, length, source);
  std::vector<WeightBlob> blobs;
  if (model->blobs() == nullptr) return blobs;
  for (const serial::Blob* b : *model->blobs()) {
    if (b->type() != 0)
      throw NetFormatError(
          source + ": " + Label(b) +
          " is quantized: this is a quantized model, which only an 8-bit net loads");
    WeightBlob blob;
    blob.layer = b->layer() ? b->layer()->str() : "";
    blob.name = b->name() ? b->name()->str() : "";
    uint64_t expected = 1;
    blob.dims = BlobDims(b, source, &expected);
    const uint64_t n = b->values() ? b->values()->size() : 0;
    CheckCount(n, expected, b, blob.dims, source);
    if (n) blob.values.assign(b->values()->begin(), b->values()->end());
    blobs.push_back(std::move(blob));
  }
  return blobs;
}

std::vector<QuantizedBlob> ParseSerialQuantized(const void* bytes, size_t length,
                                                const std::string& source) {
  const serial::Model* model = VerifiedModel(bytes, length, source);
  std::vector<QuantizedBlob> blobs;
  if (model->blobs() == nullptr) return blobs;
  for (const serial::Blob* b : *model->blobs()) {
    QuantizedBlob blob;
    blob.layer = b->layer() ? b->layer()->str() : "";
    blob.name = b->name() ? b->name()->str() : "";
    uint64_t expected = 1;
    blob.dims = BlobDims(b, source, &expected);
    if (b->type() > 2)
      throw NetFormatError(source + ": " + Label(b) + ": unknown element type " +
                           std::to_string(b->type()));
    blob.type = static_cast<BlobType>(b->type());
    if (blob.type == BlobType::kFloat32) {
      const uint64_t n = b->values() ? b->values()->size() : 0;
      CheckCount(n, expected, b, blob.dims, source);
      if (n) blob.bytes.assign(reinterpret_cast<const char*>(b->values()->data()), n * 4);
    } else if (blob.type == BlobType::kUint8) {
      const uint64_t n = b->codes() ? b->codes()->size() : 0;
      CheckCount(n, expected, b, blob.dims, source);
      if (n) blob.bytes.assign(reinterpret_cast<const char*>(b->codes()->data()), n);
    } else {
      const uint64_t n = b->ints() ? b->ints()->size() : 0;
      CheckCount(n, expected, b, blob.dims, source);
      if (n) blob.bytes.assign(reinterpret_cast<const char*>(b->ints()->data()), n * 4);
    }
    const uint64_t grids = b->grids() ? b->grids()->size() : 0;
    if (!GridCountFits(grids, blob.dims))
      throw NetFormatError(source + ": " + Label(b) + ": " + std::to_string(grids) +
                           " grids for shape " + DimsToString(blob.dims) +
                           " (0, 1 or one per index of the first or the last axis)");
    for (uint64_t g = 0; g < grids; ++g) {
      const serial::Grid* grid = b->grids()->Get(static_cast<flatbuffers::uoffset_t>(g));
      if (grid->zero() < 0 || grid->zero() > 255)
        throw NetFormatError(source + ": " + Label(b) + ": grid " + std::to_string(g) +
                             " has zero point " + std::to_string(grid->zero()) +
                             ", outside 0 .. 255");
      blob.grids.push_back({grid->min(), grid->max(), grid->scale(), grid->zero()});
    }
    blobs.push_back(std::move(blob));
  }
  return blobs;
}

std::string SerializeSerialQuantized(const std::vector<QuantizedBlob>& blobs) {
  flatbuffers::FlatBufferBuilder fbb;
  std::vector<flatbuffers::Offset<serial::Blob>> offsets;
  for (const QuantizedBlob& b : blobs) {
    const auto layer = fbb.CreateString(b.layer);
    const auto name = fbb.CreateString(b.name);
    const auto dims = fbb.CreateVector(b.dims);
    flatbuffers::Offset<flatbuffers::Vector<float>> values;
    flatbuffers::Offset<flatbuffers::Vector<uint8_t>> codes;
    flatbuffers::Offset<flatbuffers::Vector<int32_t>> ints;
    const size_t n = b.bytes.size() / BlobElementBytes(b.type);
    if (b.type == BlobType::kFloat32) {
      std::vector<float> v(n);
      if (n) std::memcpy(v.data(), b.bytes.data(), n * 4);
      values = fbb.CreateVector(v);
    } else if (b.type == BlobType::kUint8) {
      codes = fbb.CreateVector(reinterpret_cast<const uint8_t*>(b.bytes.data()), n);
    } else {
      std::vector<int32_t> v(n);
      if (n) std::memcpy(v.data(), b.bytes.data(), n * 4);
      ints = fbb.CreateVector(v);
    }
    std::vector<serial::Grid> grids;
    for (const ChannelGrid& g : b.grids) grids.emplace_back(g.min, g.max, g.scale, g.zero);
    const auto grid_vector = fbb.CreateVectorOfStructs(grids);
    offsets.push_back(serial::CreateBlob(fbb, layer, name, dims, values,
                                         static_cast<uint32_t>(b.type), codes, ints, grid_vector));
  }
  auto model = serial::CreateModel(fbb, kSerialVersion, fbb.CreateVector(offsets));
  serial::FinishModelBuffer(fbb, model);
  return std::string(reinterpret_cast<const char*>(fbb.GetBufferPointer()), fbb.GetSize());
}

std::vector<WeightBlob> ReadSerialWeights(const std::string& path) {
  const std::string source = "Model file \"" + path + "\"";
  std::string bytes, error;
  if (!ReadWholeFile(path, &bytes, &error))
    throw NetFormatError(source + ": cannot be read: " + error);
  return ParseSerialWeights(bytes.data(), bytes.size(), source);
}

std::string SerializeSerialWeights(const std::vector<WeightBlob>& blobs) {
  flatbuffers::FlatBufferBuilder fbb;
  std::vector<flatbuffers::Offset<serial::Blob>> offsets;
  for (const WeightBlob& b : blobs) {
    offsets.push_back(serial::CreateBlob(fbb, fbb.CreateString(b.layer), fbb.CreateString(b.name),
                                         fbb.CreateVector(b.dims), fbb.CreateVector(b.values)));
  }
  auto model = serial::CreateModel(fbb, kSerialVersion, fbb.CreateVector(offsets));
  serial::FinishModelBuffer(fbb, model);
  return std::string(reinterpret_cast<const char*>(fbb.GetBufferPointer()), fbb.GetSize());
}

}  // namespace qzdl
