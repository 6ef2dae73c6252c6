#include "runtime/serial_weights.h"

#include <fstream>
#include <iterator>

#include "runtime/errors.h"
#include "runtime/file_read.h"
#include "serial_model_generated.h"

namespace qzdl {

std::vector<WeightBlob> ParseSerialWeights(const void* bytes, size_t length,
                                           const std::string& source) {
  const auto* data = static_cast<const uint8_t*>(bytes);
  flatbuffers::Verifier verifier(data, length);
  if (length < 8 || !serial::ModelBufferHasIdentifier(data) || !serial::VerifyModelBuffer(verifier))
    throw NetFormatError(source + ": not a valid serial model (the container does not verify)");
  const serial::Model* model = serial::GetModel(data);
  if (model->version() != kSerialVersion)
    throw NetFormatError(source + ": unsupported serial model version " +
                         std::to_string(model->version()));
  std::vector<WeightBlob> blobs;
  if (model->blobs() == nullptr) return blobs;
  for (const serial::Blob* b : *model->blobs()) {
    WeightBlob blob;
    blob.layer = b->layer() ? b->layer()->str() : "";
    blob.name = b->name() ? b->name()->str() : "";
    const std::string label = "layer \"" + blob.layer + "\" blob \"" + blob.name + "\"";
    uint64_t expected = 1;
    if (b->dims()) {
      if (b->dims()->size() > 8) throw NetFormatError(source + ": " + label + ": rank above 8");
      for (int d : *b->dims()) {
        if (d < 0) throw NetFormatError(source + ": " + label + ": negative dimension");
        blob.dims.push_back(d);
        expected *= static_cast<uint64_t>(d);
      }
    }
    const uint64_t n = b->values() ? b->values()->size() : 0;
    if (n != expected)
      throw NetFormatError(source + ": " + label + ": holds " + std::to_string(n) +
                           " values for shape " + DimsToString(blob.dims));
    if (n) blob.values.assign(b->values()->begin(), b->values()->end());
    blobs.push_back(std::move(blob));
  }
  return blobs;
}

std::vector<WeightBlob> ReadSerialWeights(const std::string& path) {
  const std::string source = "Model file \"" + path + "\"";
  std::string bytes, error;
  if (!ReadWholeFile(path, &bytes, &error)) throw NetFormatError(source + ": cannot be read: " + error);
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
