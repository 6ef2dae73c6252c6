// Image sessions: decode an image file (JPEG, PNG, BMP, and the other formats
// of stb_image) or take raw pixels, then hand the picture out as interleaved
// 8-bit pixels at any size. A session keeps its picture as BGR24 pixels.
// See docs/calibration-data.md, section "Images".
#pragma once

namespace qzg {

// Pixel layouts of a buffer handed to or taken from a session.
enum QZSAMP {
  QZSAMP_GRAY8 = 0,  // one byte per pixel, grey
  QZSAMP_RGB24 = 1,  // three bytes per pixel: red, green, blue
  QZSAMP_BGR24 = 2,  // three bytes per pixel: blue, green, red (the usual layout)
};

// Bytes per pixel of a layout; 0 for a value that is not one of the above.
int QZSampBytesPerPixel(QZSAMP sample);

class QZSession {
 public:
  // A new, empty session; free it with Destroy().
  static QZSession* CreateSession();

  // Decodes an image file into the session, replacing what it held. Throws
  // std::runtime_error naming the file when it cannot be read or decoded;
  // the session then holds no picture.
  void ReadImg(const char* path);
  // Takes width * height pixels of the given layout (3 bytes each for the
  // 24-bit layouts, 1 for grey). Throws std::invalid_argument for a null
  // buffer, a size below 1 or an unknown layout.
  void ReadXGX24(unsigned char* pixels, int width, int height, QZSAMP sample);

  // Size of the picture; 0 for an empty session.
  int GetImgHeight() const;
  int GetImgWidth() const;

  // Writes the picture into `out` as width * height pixels of the given
  // layout, scaled bilinearly with half-pixel centres when the size differs.
  // Throws std::runtime_error for an empty session and std::invalid_argument
  // for a null buffer, a size below 1 or an unknown layout.
  void BufferImg(unsigned char* out, int width, int height, QZSAMP sample) const;

  // Frees the session; the pointer is invalid afterwards.
  void Destroy();

  QZSession(const QZSession&) = delete;
  QZSession& operator=(const QZSession&) = delete;

 private:
  QZSession() = default;
  ~QZSession();

  int width_ = 0;
  int height_ = 0;
  unsigned char* pixels_ = nullptr;  // width_ * height_ * 3 bytes, BGR
};

// Splits interleaved 3-byte pixels into three float planes of width * height
// values. With `order` 0 the first plane holds byte 0 of every pixel, the
// second byte 1 and the third byte 2 (so BGR24 pixels give planes B, G, R);
// with any other `order` the first plane holds byte 2 and the third byte 0.
// The first plane goes to `red`. The second goes to `green`, or, if `green`
// is null, right behind the first; the third to `blue`, or, if `blue` is
// null, right behind the second.
void RGB_Split(unsigned char* pixels, float* red, float* green, float* blue, int width, int height,
               int order);

}  // namespace qzg
