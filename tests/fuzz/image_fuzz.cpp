// Image files through the session's decoder, then out again at another size
// in each layout. An unreadable image is reported by a thrown
// std::runtime_error naming the file. Inputs that declare more than 4M
// pixels are skipped: a few bytes can declare a picture of a gigabyte, which
// decodes correctly but so slowly under instrumentation that the run would
// do little else. (A top-down BMP declares a negative height.)
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "fuzz_support.h"
#include "runtime/image/qz_session.h"
#include "stb/stb_image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int w = 0, h = 0, n = 0;
  if (stbi_info_from_memory(data, static_cast<int>(size), &w, &h, &n) != 0 &&
      std::llabs(static_cast<long long>(w) * h) > (1LL << 22)) {
    return 0;
  }
  const std::string path = qzdl_fuzz::WriteInput(data, size, "input.img");
  qzg::QZSession* session = qzg::QZSession::CreateSession();
  try {
    session->ReadImg(path.c_str());
    std::vector<unsigned char> out(7 * 5 * 3);
    session->BufferImg(out.data(), 7, 5, qzg::QZSAMP_BGR24);
    session->BufferImg(out.data(), 7, 5, qzg::QZSAMP_RGB24);
    session->BufferImg(out.data(), 7, 5, qzg::QZSAMP_GRAY8);
    w = session->GetImgWidth();
    h = session->GetImgHeight();
    if (static_cast<long long>(w) * h <= 1 << 16) {
      std::vector<unsigned char> same(static_cast<size_t>(w) * h * 3);
      session->BufferImg(same.data(), w, h, qzg::QZSAMP_BGR24);
    }
  } catch (const std::runtime_error&) {
  }
  session->Destroy();
  return 0;
}
