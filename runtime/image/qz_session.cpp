// Image sessions on stb_image (Debian libstb-dev, linked as libstb).
#include "runtime/image/qz_session.h"

#include <stb/stb_image.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace qzg {

namespace {

// One axis of the bilinear sampling: source index of the left (upper)
// neighbour, the index of the right (lower) one, and the weight of the latter.
struct Tap {
  int i0;
  int i1;
  float f;
};

// Half-pixel centres: the centre of output pixel o maps to
// (o + 0.5) * in / out - 0.5 in the source. Positions before the first
// centre take the first pixel, positions past the last take the last.
std::vector<Tap> MakeTaps(int in, int out) {
  std::vector<Tap> taps(static_cast<size_t>(out));
  const float scale = static_cast<float>(in) / static_cast<float>(out);
  for (int o = 0; o < out; ++o) {
    float s = (static_cast<float>(o) + 0.5f) * scale - 0.5f;
    if (s < 0.0f) s = 0.0f;
    int i0 = static_cast<int>(s);
    float f = s - static_cast<float>(i0);
    if (i0 >= in - 1) {
      i0 = in - 1;
      f = 0.0f;
    }
    taps[static_cast<size_t>(o)] = {i0, std::min(i0 + 1, in - 1), f};
  }
  return taps;
}

uint8_t RoundToByte(float v) {
  if (v <= 0.0f) return 0;
  if (v >= 255.0f) return 255;
  return static_cast<uint8_t>(v + 0.5f);
}

void CheckArguments(const char* what, const unsigned char* buffer, int width, int height,
                    QZSAMP sample) {
  if (buffer == nullptr) throw std::invalid_argument(std::string(what) + ": null pixel buffer");
  if (width < 1 || height < 1) {
    throw std::invalid_argument(std::string(what) + ": bad image size " + std::to_string(width) +
                                " x " + std::to_string(height));
  }
  if (QZSampBytesPerPixel(sample) == 0) {
    throw std::invalid_argument(std::string(what) + ": unknown pixel layout " +
                                std::to_string(static_cast<int>(sample)));
  }
}

}  // namespace

int QZSampBytesPerPixel(QZSAMP sample) {
  switch (sample) {
    case QZSAMP_GRAY8:
      return 1;
    case QZSAMP_RGB24:
    case QZSAMP_BGR24:
      return 3;
  }
  return 0;
}

QZSession* QZSession::CreateSession() { return new QZSession(); }

QZSession::~QZSession() { delete[] pixels_; }

void QZSession::Destroy() { delete this; }

int QZSession::GetImgHeight() const { return height_; }

int QZSession::GetImgWidth() const { return width_; }

void QZSession::ReadImg(const char* path) {
  delete[] pixels_;
  pixels_ = nullptr;
  width_ = height_ = 0;
  if (path == nullptr) throw std::runtime_error("ReadImg: no image file named");
  int width = 0;
  int height = 0;
  int channels = 0;
  // stb gives R, G, B for every format; grey and alpha are expanded/dropped.
  unsigned char* rgb = stbi_load(path, &width, &height, &channels, 3);
  if (rgb == nullptr) {
    const char* reason = stbi_failure_reason();
    throw std::runtime_error("ReadImg: cannot decode image file \"" + std::string(path) +
                             "\": " + (reason != nullptr ? reason : "unknown error"));
  }
  // stb accepts some headers that declare no rows or columns (a BMP of
  // height 0, say) and hands back a buffer for them: that is no picture.
  if (width < 1 || height < 1) {
    stbi_image_free(rgb);
    throw std::runtime_error("ReadImg: cannot decode image file \"" + std::string(path) +
                             "\": empty image (" + std::to_string(width) + " x " +
                             std::to_string(height) + ")");
  }
  const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
  pixels_ = new unsigned char[pixels * 3];
  for (size_t i = 0; i < pixels; ++i) {
    pixels_[3 * i + 0] = rgb[3 * i + 2];
    pixels_[3 * i + 1] = rgb[3 * i + 1];
    pixels_[3 * i + 2] = rgb[3 * i + 0];
  }
  stbi_image_free(rgb);
  width_ = width;
  height_ = height;
}

void QZSession::ReadXGX24(unsigned char* pixels, int width, int height, QZSAMP sample) {
  CheckArguments("ReadXGX24", pixels, width, height, sample);
  const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
  unsigned char* bgr = new unsigned char[count * 3];
  for (size_t i = 0; i < count; ++i) {
    unsigned char* d = bgr + 3 * i;
    if (sample == QZSAMP_GRAY8) {
      d[0] = d[1] = d[2] = pixels[i];
    } else if (sample == QZSAMP_RGB24) {
      d[0] = pixels[3 * i + 2];
      d[1] = pixels[3 * i + 1];
      d[2] = pixels[3 * i + 0];
    } else {
      std::memcpy(d, pixels + 3 * i, 3);
    }
  }
  delete[] pixels_;
  pixels_ = bgr;
  width_ = width;
  height_ = height;
}

void QZSession::BufferImg(unsigned char* out, int width, int height, QZSAMP sample) const {
  CheckArguments("BufferImg", out, width, height, sample);
  if (pixels_ == nullptr) throw std::runtime_error("BufferImg: the session holds no image");
  const std::vector<Tap> xs = MakeTaps(width_, width);
  const std::vector<Tap> ys = MakeTaps(height_, height);
  const size_t stride = static_cast<size_t>(width_) * 3;
  const bool same = width == width_ && height == height_;
  for (int oy = 0; oy < height; ++oy) {
    const Tap& ty = ys[static_cast<size_t>(oy)];
    const unsigned char* row0 = pixels_ + static_cast<size_t>(ty.i0) * stride;
    const unsigned char* row1 = pixels_ + static_cast<size_t>(ty.i1) * stride;
    for (int ox = 0; ox < width; ++ox) {
      const Tap& tx = xs[static_cast<size_t>(ox)];
      uint8_t bgr[3];
      for (int c = 0; c < 3; ++c) {
        if (same) {
          bgr[c] = row0[3 * static_cast<size_t>(ox) + c];
          continue;
        }
        const size_t x0 = 3 * static_cast<size_t>(tx.i0) + c;
        const size_t x1 = 3 * static_cast<size_t>(tx.i1) + c;
        const float a = row0[x0];
        const float b = row0[x1];
        const float d = row1[x0];
        const float e = row1[x1];
        const float top = a + (b - a) * tx.f;
        const float bottom = d + (e - d) * tx.f;
        bgr[c] = RoundToByte(top + (bottom - top) * ty.f);
      }
      const size_t o = static_cast<size_t>(oy) * static_cast<size_t>(width) + ox;
      if (sample == QZSAMP_GRAY8) {
        out[o] =
            static_cast<unsigned char>((299 * bgr[2] + 587 * bgr[1] + 114 * bgr[0] + 500) / 1000);
      } else if (sample == QZSAMP_RGB24) {
        out[3 * o + 0] = bgr[2];
        out[3 * o + 1] = bgr[1];
        out[3 * o + 2] = bgr[0];
      } else {
        std::memcpy(out + 3 * o, bgr, 3);
      }
    }
  }
}

void RGB_Split(unsigned char* pixels, float* red, float* green, float* blue, int width, int height,
               int order) {
  if (pixels == nullptr || red == nullptr || width < 1 || height < 1) {
    throw std::invalid_argument("RGB_Split: null buffer or bad image size");
  }
  const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
  float* plane0 = red;
  float* plane1 = green != nullptr ? green : plane0 + count;
  float* plane2 = blue != nullptr ? blue : plane1 + count;
  const int first = order == 0 ? 0 : 2;
  const int last = 2 - first;
  for (size_t i = 0; i < count; ++i) {
    plane0[i] = pixels[3 * i + first];
    plane1[i] = pixels[3 * i + 1];
    plane2[i] = pixels[3 * i + last];
  }
}

}  // namespace qzg
