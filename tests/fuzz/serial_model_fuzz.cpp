// Serial model files (".fb"): the verifier and both readers on a buffer,
// then the file through the serial creation path of a small net and into a
// small hybrid 8-bit net.
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "runtime/create_net.h"
#include "runtime/errors.h"
#include "runtime/int8/quantized_model.h"
#include "runtime/serial_weights.h"
#include "small_net.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qzdl_fuzz::QuietStdout();
  try {
    qzdl::ParseSerialWeights(data, size, "fuzz.fb");
  } catch (const qzdl::NetFormatError&) {
  }
  try {
    qzdl::ParseSerialQuantized(data, size, "fuzz.fb");
  } catch (const qzdl::NetFormatError&) {
  }
  static const std::string net_path =
      qzdl_fuzz::WriteInput(reinterpret_cast<const uint8_t*>(qzdl_fuzz::kSmallNet),
                            std::char_traits<char>::length(qzdl_fuzz::kSmallNet), "net.json");
  const std::string model_path = qzdl_fuzz::WriteInput(data, size, "model.fb");
  try {
    std::unique_ptr<qzdl::Net<float>> net(
        qzdl::CreateNetSerial<float>(net_path, model_path, false, false, 0, 1));
    net->ForwardAll();
  } catch (std::exception* error) {
    delete error;
  }
  static const std::string quantized_net_path = [] {
    std::string text = qzdl_fuzz::kSmallNet;
    text.insert(text.size() - 1, std::string(", ") + qzdl_fuzz::kSmallQuantizedSection);
    return qzdl_fuzz::WriteInput(reinterpret_cast<const uint8_t*>(text.data()), text.size(),
                                 "net_hybrid.json");
  }();
  try {
    std::unique_ptr<qzdl::Net<unsigned char>> net(
        qzdl::CreateQuantizedNet(quantized_net_path, model_path));
    net->ForwardAll();
  } catch (const qzdl::NetFormatError&) {
  }
  return 0;
}
