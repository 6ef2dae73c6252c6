// Image sessions: decoding of the fixtures of scripts/fixtures/make_image_fixtures.py,
// pixel order, scaling and the split into float planes.
#include "runtime/image/qz_session.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using qzg::QZSession;

const std::string kImageDir = std::string(QZDL_TEST_DATA_DIR) + "/images/";

// The colour fixtures' pixel formula (x column, y row), as R, G, B.
std::vector<int> Formula(int x, int y) {
  return {20 * x + 60 * y + 5, 250 - 17 * x - 31 * y, (37 * x * y + 11) % 256};
}

// A session that is destroyed at the end of the test.
struct Session {
  Session() : s(QZSession::CreateSession()) {}
  ~Session() { s->Destroy(); }
  QZSession* operator->() { return s; }
  QZSession* s;
};

std::vector<unsigned char> Buffer(Session& session, int width, int height,
                                  qzg::QZSAMP sample = qzg::QZSAMP_BGR24) {
  std::vector<unsigned char> out(
      static_cast<size_t>(width) * height * qzg::QZSampBytesPerPixel(sample), 0xAB);
  session->BufferImg(out.data(), width, height, sample);
  return out;
}

// Reference scaling: bilinear, half-pixel centres, clamped at the edges, in
// double, rounded to the nearest byte.
std::vector<double> Taps(int in, int out, int o) {
  double s = (o + 0.5) * in / out - 0.5;
  if (s < 0) s = 0;
  int i0 = static_cast<int>(std::floor(s));
  double f = s - i0;
  if (i0 >= in - 1) {
    i0 = in - 1;
    f = 0;
  }
  return {static_cast<double>(i0), static_cast<double>(std::min(i0 + 1, in - 1)), f};
}

std::vector<unsigned char> ReferenceScale(const std::vector<unsigned char>& bgr, int w, int h,
                                          int ow, int oh) {
  std::vector<unsigned char> out;
  for (int oy = 0; oy < oh; ++oy) {
    const std::vector<double> ty = Taps(h, oh, oy);
    for (int ox = 0; ox < ow; ++ox) {
      const std::vector<double> tx = Taps(w, ow, ox);
      for (int c = 0; c < 3; ++c) {
        auto at = [&](double y, double x) {
          return static_cast<double>(
              bgr[(static_cast<size_t>(y) * w + static_cast<size_t>(x)) * 3 + c]);
        };
        const double top = at(ty[0], tx[0]) * (1 - tx[2]) + at(ty[0], tx[1]) * tx[2];
        const double bottom = at(ty[1], tx[0]) * (1 - tx[2]) + at(ty[1], tx[1]) * tx[2];
        const double v = top * (1 - ty[2]) + bottom * ty[2];
        out.push_back(static_cast<unsigned char>(std::lround(std::min(255.0, std::max(0.0, v)))));
      }
    }
  }
  return out;
}

void ExpectFormulaPixels(const std::string& file) {
  Session session;
  session->ReadImg((kImageDir + file).c_str());
  ASSERT_EQ(session->GetImgWidth(), 4);
  ASSERT_EQ(session->GetImgHeight(), 3);
  const std::vector<unsigned char> bgr = Buffer(session, 4, 3);
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 4; ++x) {
      const std::vector<int> rgb = Formula(x, y);
      const size_t p = static_cast<size_t>(y * 4 + x) * 3;
      EXPECT_EQ(bgr[p + 0], rgb[2]) << file << " blue at " << x << "," << y;
      EXPECT_EQ(bgr[p + 1], rgb[1]) << file << " green at " << x << "," << y;
      EXPECT_EQ(bgr[p + 2], rgb[0]) << file << " red at " << x << "," << y;
    }
  }
}

TEST(QZSessionTest, EmptySession) {
  Session session;
  EXPECT_EQ(session->GetImgWidth(), 0);
  EXPECT_EQ(session->GetImgHeight(), 0);
  unsigned char out[3];
  EXPECT_THROW(session->BufferImg(out, 1, 1, qzg::QZSAMP_BGR24), std::runtime_error);
}

TEST(QZSessionTest, PngIsBgrInOrder) { ExpectFormulaPixels("rgb_4x3.png"); }

TEST(QZSessionTest, BmpIsBgrInOrder) { ExpectFormulaPixels("rgb_4x3.bmp"); }

TEST(QZSessionTest, AlphaIsDropped) {
  Session session;
  session->ReadImg((kImageDir + "rgba_2x2.png").c_str());
  ASSERT_EQ(session->GetImgWidth(), 2);
  const std::vector<unsigned char> bgr = Buffer(session, 2, 2);
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 2; ++x) {
      const std::vector<int> rgb = Formula(x, y);
      const size_t p = static_cast<size_t>(y * 2 + x) * 3;
      EXPECT_EQ((std::vector<int>{bgr[p], bgr[p + 1], bgr[p + 2]}),
                (std::vector<int>{rgb[2], rgb[1], rgb[0]}));
    }
  }
}

TEST(QZSessionTest, GreyImageFillsAllThreeChannels) {
  Session session;
  session->ReadImg((kImageDir + "gray_3x2.png").c_str());
  ASSERT_EQ(session->GetImgWidth(), 3);
  ASSERT_EQ(session->GetImgHeight(), 2);
  const std::vector<unsigned char> bgr = Buffer(session, 3, 2);
  for (int y = 0; y < 2; ++y) {
    for (int x = 0; x < 3; ++x) {
      const size_t p = static_cast<size_t>(y * 3 + x) * 3;
      const int v = 40 * x + 100 * y + 3;
      EXPECT_EQ((std::vector<int>{bgr[p], bgr[p + 1], bgr[p + 2]}), (std::vector<int>{v, v, v}));
    }
  }
}

TEST(QZSessionTest, JpegDecodesCloseToItsColour) {
  Session session;
  session->ReadImg((kImageDir + "solid_16x8.jpg").c_str());
  ASSERT_EQ(session->GetImgWidth(), 16);
  ASSERT_EQ(session->GetImgHeight(), 8);
  const std::vector<unsigned char> bgr = Buffer(session, 16, 8);
  for (size_t p = 0; p < bgr.size(); p += 3) {
    EXPECT_NEAR(bgr[p + 0], 50, 3);
    EXPECT_NEAR(bgr[p + 1], 100, 3);
    EXPECT_NEAR(bgr[p + 2], 200, 3);
  }
}

TEST(QZSessionTest, OtherLayoutsOfBufferImg) {
  Session session;
  session->ReadImg((kImageDir + "rgb_4x3.png").c_str());
  const std::vector<unsigned char> rgb = Buffer(session, 4, 3, qzg::QZSAMP_RGB24);
  const std::vector<unsigned char> grey = Buffer(session, 4, 3, qzg::QZSAMP_GRAY8);
  ASSERT_EQ(grey.size(), 12u);
  for (int i = 0; i < 12; ++i) {
    const std::vector<int> f = Formula(i % 4, i / 4);
    EXPECT_EQ((std::vector<int>{rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]}), f);
    EXPECT_EQ(grey[i], (299 * f[0] + 587 * f[1] + 114 * f[2] + 500) / 1000);
  }
}

TEST(QZSessionTest, ScalingMatchesTheBilinearReference) {
  Session session;
  session->ReadImg((kImageDir + "rgb_4x3.png").c_str());
  const std::vector<unsigned char> own = Buffer(session, 4, 3);
  for (auto size : std::vector<std::pair<int, int>>{{7, 5}, {2, 2}, {1, 1}, {9, 2}, {3, 6}}) {
    const std::vector<unsigned char> scaled = Buffer(session, size.first, size.second);
    const std::vector<unsigned char> expected = ReferenceScale(own, 4, 3, size.first, size.second);
    ASSERT_EQ(scaled.size(), expected.size());
    for (size_t i = 0; i < scaled.size(); ++i) {
      EXPECT_NEAR(scaled[i], expected[i], 1) << size.first << " x " << size.second << " at " << i;
    }
  }
}

TEST(QZSessionTest, ScalingUsesHalfPixelCentres) {
  // Two pixels to four: 0, 1/4, 3/4 and the last pixel.
  unsigned char pixels[] = {0, 0, 0, 200, 100, 40};
  Session session;
  session->ReadXGX24(pixels, 2, 1, qzg::QZSAMP_BGR24);
  const std::vector<unsigned char> out = Buffer(session, 4, 1);
  EXPECT_EQ(out, (std::vector<unsigned char>{0, 0, 0, 50, 25, 10, 150, 75, 30, 200, 100, 40}));
  // One pixel to 3 x 2 is that pixel everywhere.
  session->ReadXGX24(pixels + 3, 1, 1, qzg::QZSAMP_BGR24);
  const std::vector<unsigned char> spread = Buffer(session, 3, 2);
  for (size_t p = 0; p < spread.size(); p += 3) {
    EXPECT_EQ((std::vector<int>{spread[p], spread[p + 1], spread[p + 2]}),
              (std::vector<int>{200, 100, 40}));
  }
}

TEST(QZSessionTest, RawPixelsOfTheDefaultSet) {
  // As for calibration.bin: 224 x 224 x 3 bytes with layout 2, read back at
  // the same size unchanged.
  std::vector<unsigned char> pixels(224 * 224 * 3);
  for (size_t i = 0; i < pixels.size(); ++i)
    pixels[i] = static_cast<unsigned char>((i * 7919) >> 3);
  Session session;
  session->ReadXGX24(pixels.data(), 224, 224, static_cast<qzg::QZSAMP>(2));
  EXPECT_EQ(session->GetImgWidth(), 224);
  EXPECT_EQ(session->GetImgHeight(), 224);
  EXPECT_EQ(Buffer(session, 224, 224, static_cast<qzg::QZSAMP>(2)), pixels);
}

TEST(QZSessionTest, RgbAndGreyRawInput) {
  unsigned char rgb[] = {1, 2, 3, 4, 5, 6};
  Session session;
  session->ReadXGX24(rgb, 2, 1, qzg::QZSAMP_RGB24);
  EXPECT_EQ(Buffer(session, 2, 1), (std::vector<unsigned char>{3, 2, 1, 6, 5, 4}));
  unsigned char grey[] = {9, 8};
  session->ReadXGX24(grey, 1, 2, qzg::QZSAMP_GRAY8);
  EXPECT_EQ(session->GetImgWidth(), 1);
  EXPECT_EQ(session->GetImgHeight(), 2);
  EXPECT_EQ(Buffer(session, 1, 2), (std::vector<unsigned char>{9, 9, 9, 8, 8, 8}));
}

TEST(QZSessionTest, BadArguments) {
  Session session;
  unsigned char pixels[12] = {};
  EXPECT_THROW(session->ReadXGX24(nullptr, 2, 2, qzg::QZSAMP_BGR24), std::invalid_argument);
  EXPECT_THROW(session->ReadXGX24(pixels, 0, 2, qzg::QZSAMP_BGR24), std::invalid_argument);
  EXPECT_THROW(session->ReadXGX24(pixels, 2, 2, static_cast<qzg::QZSAMP>(7)),
               std::invalid_argument);
  session->ReadXGX24(pixels, 2, 2, qzg::QZSAMP_BGR24);
  EXPECT_THROW(session->BufferImg(nullptr, 2, 2, qzg::QZSAMP_BGR24), std::invalid_argument);
  EXPECT_THROW(session->BufferImg(pixels, 2, -1, qzg::QZSAMP_BGR24), std::invalid_argument);
  EXPECT_EQ(qzg::QZSampBytesPerPixel(static_cast<qzg::QZSAMP>(7)), 0);
}

// The message names the file; the session is left empty.
void ExpectDecodeFailure(const std::string& file) {
  const std::string path = kImageDir + file;
  Session session;
  unsigned char pixels[3] = {1, 2, 3};
  session->ReadXGX24(pixels, 1, 1, qzg::QZSAMP_BGR24);
  try {
    session->ReadImg(path.c_str());
    ADD_FAILURE() << file << " decoded";
  } catch (const std::runtime_error& e) {
    const std::string message = e.what();
    EXPECT_EQ(message.rfind("ReadImg: cannot decode image file \"" + path + "\": ", 0), 0u)
        << message;
  }
  EXPECT_EQ(session->GetImgWidth(), 0);
  EXPECT_EQ(session->GetImgHeight(), 0);
  EXPECT_THROW(Buffer(session, 1, 1), std::runtime_error);
}

TEST(QZSessionTest, TruncatedPngIsAnErrorNamingTheFile) { ExpectDecodeFailure("truncated.png"); }

TEST(QZSessionTest, TextFileIsAnErrorNamingTheFile) { ExpectDecodeFailure("not_an_image.jpg"); }

TEST(QZSessionTest, MissingFileIsAnErrorNamingTheFile) { ExpectDecodeFailure("missing.png"); }

// The decoder hands back a buffer for a header with no rows; the session
// refuses it rather than scaling from an empty picture.
TEST(QZSessionTest, ImageWithNoRowsIsAnErrorNamingTheFile) {
  ExpectDecodeFailure("zero_height.bmp");
  const std::string path = kImageDir + "zero_height.bmp";
  qzg::QZSession* session = qzg::QZSession::CreateSession();
  try {
    session->ReadImg(path.c_str());
    ADD_FAILURE() << "decoded";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(
        e.what(),
        ("ReadImg: cannot decode image file \"" + path + "\": empty image (4 x 0)").c_str());
  }
  session->Destroy();
}

TEST(RgbSplitTest, PlanesOneBehindTheOtherInPixelByteOrder) {
  // Two BGR pixels: (blue 1, green 2, red 3) and (4, 5, 6).
  unsigned char pixels[] = {1, 2, 3, 4, 5, 6};
  std::vector<float> planes(6, -1.0f);
  qzg::RGB_Split(pixels, planes.data(), nullptr, nullptr, 2, 1, 0);
  EXPECT_EQ(planes, (std::vector<float>{1, 4, 2, 5, 3, 6}));
  qzg::RGB_Split(pixels, planes.data(), nullptr, nullptr, 1, 2, 1);
  EXPECT_EQ(planes, (std::vector<float>{3, 6, 2, 5, 1, 4}));
  std::vector<float> first(2), second(2), third(2);
  qzg::RGB_Split(pixels, first.data(), second.data(), third.data(), 2, 1, 0);
  EXPECT_EQ(first, (std::vector<float>{1, 4}));
  EXPECT_EQ(second, (std::vector<float>{2, 5}));
  EXPECT_EQ(third, (std::vector<float>{3, 6}));
}

TEST(RgbSplitTest, DecodedImageToPlanes) {
  // The path of an image sample: BGR pixels, then planes B, G, R.
  Session session;
  session->ReadImg((kImageDir + "rgb_4x3.png").c_str());
  std::vector<unsigned char> bgr = Buffer(session, 4, 3, static_cast<qzg::QZSAMP>(2));
  std::vector<float> planes(36);
  qzg::RGB_Split(bgr.data(), planes.data(), nullptr, nullptr, 4, 3, 0);
  for (int i = 0; i < 12; ++i) {
    const std::vector<int> f = Formula(i % 4, i / 4);
    EXPECT_EQ(planes[i], f[2]);
    EXPECT_EQ(planes[12 + i], f[1]);
    EXPECT_EQ(planes[24 + i], f[0]);
  }
}

}  // namespace
