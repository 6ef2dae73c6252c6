// NPY and NPZ reader: NumPy-written fixtures (scripts/fixtures/make_npy_fixtures.py)
// and hand-made files for the header cases, the quirks and malformed input.
#include "dataloader/cnpy.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <complex>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using cnpy::NpyArray;

const std::string kNpyDir = std::string(QZDL_TEST_DATA_DIR) + "/npy/";

// A fresh directory for the files of one test.
class CnpyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = ::testing::TempDir() + "cnpy_test_XXXXXX";
    ASSERT_NE(mkdtemp(&pattern[0]), nullptr);
    dir_ = pattern + "/";
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

  std::string Write(const std::string& name, const std::string& bytes) {
    const std::string path = dir_ + name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }

  std::string dir_;
};

// An NPY file as NumPy writes it (version 1.0): magic, version, header
// length, then `header` padded with blanks to a multiple of 64 and a newline.
std::string NpyFile(const std::string& header, const std::string& data) {
  std::string text = header;
  const size_t total = 10 + text.size() + 1;
  text.append((64 - total % 64) % 64, ' ');
  text += '\n';
  std::string file("\x93NUMPY\x01\x00", 8);
  file += static_cast<char>(text.size() & 0xFF);
  file += static_cast<char>(text.size() >> 8);
  return file + text + data;
}

std::string Header(const std::string& descr, bool fortran, const std::string& shape) {
  return "{'descr': '" + descr + "', 'fortran_order': " + (fortran ? "True" : "False") +
         ", 'shape': " + shape + ", }";
}

std::string Floats(std::vector<float> values) {
  return std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float));
}

void Le16(std::string& s, uint32_t v) {
  s += static_cast<char>(v & 0xFF);
  s += static_cast<char>((v >> 8) & 0xFF);
}
void Le32(std::string& s, uint32_t v) {
  Le16(s, v & 0xFFFF);
  Le16(s, v >> 16);
}

std::string RawDeflate(const std::string& data) {
  z_stream stream{};
  EXPECT_EQ(deflateInit2(&stream, 9, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY), Z_OK);
  std::string out(deflateBound(&stream, data.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(&out[0]);
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

struct Member {
  std::string name;
  std::string data;  // the member's bytes as stored (already deflated for method 8)
  uint16_t method = 0;
  uint32_t compressed = 0;  // sizes written to the local header
  uint32_t uncompressed = 0;
  std::string extra;
};

Member Stored(const std::string& name, const std::string& npy) {
  return {name, npy, 0, static_cast<uint32_t>(npy.size()), static_cast<uint32_t>(npy.size()), ""};
}

Member Deflated(const std::string& name, const std::string& npy) {
  const std::string packed = RawDeflate(npy);
  return {name, packed, 8, static_cast<uint32_t>(packed.size()), static_cast<uint32_t>(npy.size()),
          ""};
}

std::string LocalHeader(const Member& m) {
  std::string s("PK\x03\x04", 4);
  Le16(s, 20);
  Le16(s, 0);
  Le16(s, m.method);
  Le32(s, 0);  // time and date
  Le32(s, 0);  // crc, not read
  Le32(s, m.compressed);
  Le32(s, m.uncompressed);
  Le16(s, static_cast<uint32_t>(m.name.size()));
  Le16(s, static_cast<uint32_t>(m.extra.size()));
  return s + m.name + m.extra;
}

// A ZIP archive of the members; `directory` false stops after the last one.
std::string Zip(const std::vector<Member>& members, bool directory = true) {
  std::string s;
  std::string central;
  for (const Member& m : members) {
    const uint32_t offset = static_cast<uint32_t>(s.size());
    s += LocalHeader(m) + m.data;
    central += std::string("PK\x01\x02", 4);
    Le16(central, 20);
    Le16(central, 20);
    Le16(central, 0);
    Le16(central, m.method);
    Le32(central, 0);
    Le32(central, 0);
    Le32(central, m.compressed);
    Le32(central, m.uncompressed);
    Le16(central, static_cast<uint32_t>(m.name.size()));
    Le16(central, 0);
    Le16(central, 0);
    Le16(central, 0);
    Le16(central, 0);
    Le32(central, 0);
    Le32(central, offset);
    central += m.name;
  }
  if (!directory) return s;
  const uint32_t directoryOffset = static_cast<uint32_t>(s.size());
  s += central;
  s += std::string("PK\x05\x06", 4);
  Le16(s, 0);
  Le16(s, 0);
  Le16(s, static_cast<uint32_t>(members.size()));
  Le16(s, static_cast<uint32_t>(members.size()));
  Le32(s, static_cast<uint32_t>(central.size()));
  Le32(s, directoryOffset);
  Le16(s, 0);
  return s;
}

// Expects `call` to throw std::runtime_error with exactly `message`.
template <typename F>
void ExpectRuntimeError(F call, const std::string& message) {
  try {
    call();
    ADD_FAILURE() << "no exception, expected \"" << message << "\"";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), message);
  }
}

std::vector<float> AsFloats(const NpyArray& a) {
  return std::vector<float>(a.data<float>(), a.data<float>() + a.byteCount() / sizeof(float));
}

const std::vector<float> kF4Values = {0.0f, 0.5f, 1.0f, 1.5f, 2.0f, 2.5f};

void ExpectF4Array(const NpyArray& a) {
  EXPECT_EQ(a.shape, (std::vector<size_t>{2, 3}));
  EXPECT_EQ(a.elementSize, 4u);
  EXPECT_FALSE(a.fortran_order);
  EXPECT_EQ(a.elementCount, 6u);
  EXPECT_EQ(a.byteCount(), 24u);
  EXPECT_EQ(AsFloats(a), kF4Values);
}

void ExpectI4Array(const NpyArray& a) {
  EXPECT_EQ(a.shape, (std::vector<size_t>{3}));
  EXPECT_EQ(a.elementSize, 4u);
  ASSERT_EQ(a.byteCount(), 12u);
  EXPECT_EQ(a.data<int32_t>()[0], 7);
  EXPECT_EQ(a.data<int32_t>()[1], -8);
  EXPECT_EQ(a.data<int32_t>()[2], 9);
}

// ---- The array record and the small helpers ----

TEST(CnpyArray, ConstructorZeroFillsAndCopiesShareBytes) {
  NpyArray a({2, 3}, 4, false);
  EXPECT_EQ(a.elementCount, 6u);
  EXPECT_EQ(a.byteCount(), 24u);
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(a.data<float>()[i], 0.0f);
  NpyArray b = a;
  b.data<float>()[1] = 2.0f;
  EXPECT_EQ(a.data<float>()[1], 2.0f);
  EXPECT_EQ(a.bytes.get(), b.bytes.get());
  NpyArray scalar({}, 8, true);
  EXPECT_EQ(scalar.elementCount, 1u);
  EXPECT_EQ(scalar.byteCount(), 8u);
  EXPECT_TRUE(scalar.fortran_order);
}

TEST(CnpyHelpers, BigEndianTestAndMapType) {
  EXPECT_EQ(cnpy::BigEndianTest(), '<');
  EXPECT_EQ(cnpy::map_type(typeid(float)), 'f');
  EXPECT_EQ(cnpy::map_type(typeid(double)), 'f');
  EXPECT_EQ(cnpy::map_type(typeid(long double)), 'f');
  for (const std::type_info* t :
       {&typeid(int), &typeid(char), &typeid(short), &typeid(long), &typeid(long long)}) {
    EXPECT_EQ(cnpy::map_type(*t), 'i') << t->name();
  }
  for (const std::type_info* t :
       {&typeid(unsigned int), &typeid(unsigned char), &typeid(unsigned short),
        &typeid(unsigned long), &typeid(unsigned long long)}) {
    EXPECT_EQ(cnpy::map_type(*t), 'u') << t->name();
  }
  EXPECT_EQ(cnpy::map_type(typeid(bool)), 'b');
  EXPECT_EQ(cnpy::map_type(typeid(std::complex<float>)), 'c');
  EXPECT_EQ(cnpy::map_type(typeid(std::complex<double>)), 'c');
  EXPECT_EQ(cnpy::map_type(typeid(std::complex<long double>)), 'c');
  EXPECT_EQ(cnpy::map_type(typeid(std::string)), '?');
  EXPECT_EQ(cnpy::map_type(typeid(signed char)), '?');
}

TEST(CnpyHelpers, AppendOperators) {
  using cnpy::operator+=;
  std::vector<char> v = {'x'};
  v += std::string("ab");
  v += "cd";
  EXPECT_EQ(std::string(v.begin(), v.end()), "xabcd");
}

// ---- NPY files written by NumPy ----

TEST(CnpyNpy, ReadsNumpyFloatMatrix) { ExpectF4Array(cnpy::npy_load(kNpyDir + "f4_2x3.npy")); }

TEST(CnpyNpy, ZeroDimensionalArrayHasEmptyShapeAndOneElement) {
  const NpyArray a = cnpy::npy_load(kNpyDir + "f8_scalar.npy");
  EXPECT_TRUE(a.shape.empty());
  EXPECT_EQ(a.elementCount, 1u);
  EXPECT_EQ(a.elementSize, 8u);
  ASSERT_EQ(a.byteCount(), 8u);
  EXPECT_EQ(a.data<double>()[0], 3.25);
}

TEST(CnpyNpy, TrailingCommaShapeGivesOneDimension) {
  ExpectI4Array(cnpy::npy_load(kNpyDir + "i4_3.npy"));
}

TEST(CnpyNpy, ZeroDimensionGivesNoElements) {
  const NpyArray a = cnpy::npy_load(kNpyDir + "f4_0x4.npy");
  EXPECT_EQ(a.shape, (std::vector<size_t>{0, 4}));
  EXPECT_EQ(a.elementCount, 0u);
  EXPECT_EQ(a.byteCount(), 0u);
}

TEST(CnpyNpy, FortranOrderIsOnlyReported) {
  const NpyArray a = cnpy::npy_load(kNpyDir + "f4_fortran.npy");
  EXPECT_TRUE(a.fortran_order);
  EXPECT_EQ(a.shape, (std::vector<size_t>{2, 3}));
  // File order is column by column; nothing is transposed.
  EXPECT_EQ(AsFloats(a), (std::vector<float>{0, 3, 1, 4, 2, 5}));
}

TEST(CnpyNpy, BigEndianIsAcceptedAndBytesKept) {
  const NpyArray a = cnpy::npy_load(kNpyDir + "i2_big.npy");
  EXPECT_EQ(a.elementSize, 2u);
  ASSERT_EQ(a.byteCount(), 4u);
  const unsigned char* b = a.data<unsigned char>();
  EXPECT_EQ(std::vector<int>(b, b + 4), (std::vector<int>{0x00, 0x01, 0x01, 0x02}));
}

TEST(CnpyNpy, ElementKindIsNotLookedAt) {
  // '<U2' holds 8 bytes per element, but the reader takes the number after
  // the kind character as the element size.
  const NpyArray a = cnpy::npy_load(kNpyDir + "u2_2.npy");
  EXPECT_EQ(a.elementSize, 2u);
  EXPECT_EQ(a.elementCount, 2u);
  ASSERT_EQ(a.byteCount(), 4u);
  EXPECT_EQ(a.data<char>()[0], 'a');
}

// ---- Hand-made NPY headers ----

TEST_F(CnpyTest, NotNpyButKeysOnOneLineParses) {
  const std::string path =
      Write("plain.txt", "hello world{'descr': '<f4', 'fortran_order': False, 'shape': (2,), }\n" +
                             Floats({1.5f, -2.0f}));
  const NpyArray a = cnpy::npy_load(path);
  EXPECT_EQ(a.shape, (std::vector<size_t>{2}));
  EXPECT_EQ(AsFloats(a), (std::vector<float>{1.5f, -2.0f}));
}

TEST_F(CnpyTest, FileUnderElevenBytesFails) {
  ExpectRuntimeError([&] { cnpy::npy_load(Write("short.npy", "\x93NUMPY\x01")); },
                     "parse_npy_header: failed fread");
  ExpectRuntimeError([&] { cnpy::npy_load(Write("empty.npy", "")); },
                     "parse_npy_header: failed fread");
}

TEST_F(CnpyTest, NothingAfterElevenBytesIsTheNullStringFailure) {
  const std::string path = Write("eleven.npy", std::string("\x93NUMPY\x01\x00\x76\x00{", 11));
  EXPECT_THROW(cnpy::npy_load(path), std::logic_error);
  try {
    cnpy::npy_load(path);
  } catch (const std::logic_error& e) {
    EXPECT_EQ(std::string(e.what()), "basic_string: construction from null is not valid");
  }
}

TEST_F(CnpyTest, ShortDataFails) {
  const std::string path =
      Write("short_data.npy", NpyFile(Header("<f4", false, "(2, 3)"), Floats({1, 2, 3, 4, 5})));
  ExpectRuntimeError([&] { cnpy::npy_load(path); }, "load_the_npy_file: failed fread");
}

TEST_F(CnpyTest, HugeClaimsFailWithoutAllocating) {
  // 2e9 x 2e9 floats, and a product that does not fit in 64 bits.
  ExpectRuntimeError(
      [&] {
        cnpy::npy_load(Write(
            "huge.npy", NpyFile(Header("<f4", false, "(2000000000, 2000000000)"), Floats({1}))));
      },
      "load_the_npy_file: failed fread");
  ExpectRuntimeError(
      [&] {
        cnpy::npy_load(Write(
            "overflow.npy",
            NpyFile(Header("<f4", false, "(2000000000, 2000000000, 2000000000)"), Floats({1}))));
      },
      "load_the_npy_file: failed fread");
  // A negative element size wraps to a huge one.
  ExpectRuntimeError(
      [&] {
        cnpy::npy_load(Write("negative.npy", NpyFile(Header("<f-4", false, "()"), Floats({1}))));
      },
      "load_the_npy_file: failed fread");
}

TEST_F(CnpyTest, ShapeNumberBeyondInt32IsTheStoiFailure) {
  const std::string path =
      Write("stoi.npy", NpyFile(Header("<f4", false, "(99999999999,)"), Floats({1})));
  try {
    cnpy::npy_load(path);
    ADD_FAILURE() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_EQ(std::string(e.what()), "stoi");
  }
}

TEST_F(CnpyTest, MissingKeysAreNamed) {
  ExpectRuntimeError(
      [&] {
        cnpy::npy_load(Write("a.npy", NpyFile("{'descr': '<f4', 'shape': (1,), }", Floats({1}))));
      },
      "parse_npy_header: failed to find header keyword: 'fortran_order'");
  ExpectRuntimeError(
      [&] {
        cnpy::npy_load(Write(
            "b.npy", NpyFile("{'descr': '<f4', 'fortran_order': False, 'shape': 1,), }", "")));
      },
      "parse_npy_header: failed to find header keyword: '(' or ')'");
  ExpectRuntimeError(
      [&] {
        cnpy::npy_load(Write(
            "c.npy", NpyFile("{'descr': '<f4', 'fortran_order': False, 'shape': (1,, }", "")));
      },
      "parse_npy_header: failed to find header keyword: '(' or ')'");
  ExpectRuntimeError(
      [&] {
        cnpy::npy_load(Write(
            "d.npy",
            NpyFile("{'dtype': '<f4', 'fortran_order': False, 'shape': (1,), }", Floats({1}))));
      },
      "parse_npy_header: failed to find header keyword: 'descr'");
}

TEST_F(CnpyTest, KeyAtTheVeryEndRaisesTheStringException) {
  // "fortran_order" too close to the end: the value lies past the text.
  const std::string text = "{'descr': '<f4', 'shape': (1,), 'fortran_order'\n";
  std::string file("\x93NUMPY\x01\x00", 8);
  file += static_cast<char>(text.size());
  file += '\0';
  const std::string path = Write("end.npy", file + text + Floats({1}));
  EXPECT_THROW(cnpy::npy_load(path), std::out_of_range);
}

TEST_F(CnpyTest, HeaderBeyond255CharactersIsCut) {
  // The line is cut after 255 characters; the rest of the header is then
  // read as the array's bytes. Such headers are not supported.
  std::string header = Header("<f4", false, "(2,)");
  header.append(300 - header.size(), ' ');
  const std::string file = NpyFile(header, Floats({1.0f, 2.0f}));
  const NpyArray a = cnpy::npy_load(Write("long.npy", file));
  EXPECT_EQ(a.shape, (std::vector<size_t>{2}));
  ASSERT_EQ(a.byteCount(), 8u);
  EXPECT_EQ(std::string(a.data<char>(), 8), file.substr(11 + 255, 8));
  EXPECT_EQ(std::string(a.data<char>(), 8), std::string(8, ' '));
}

TEST_F(CnpyTest, MissingFileIsNamed) {
  ExpectRuntimeError([&] { cnpy::npy_load(dir_ + "nope.npy"); },
                     "npy_load: Unable to open file " + dir_ + "nope.npy");
}

TEST_F(CnpyTest, FileFormOfTheHeaderParser) {
  const std::string bytes = NpyFile(Header("<f8", true, "(4, 5, 6)"), "");
  const std::string path = Write("h.npy", bytes);
  FILE* file = fopen(path.c_str(), "rb");
  ASSERT_NE(file, nullptr);
  size_t elementSize = 0;
  std::vector<size_t> shape = {9};
  bool fortran = false;
  cnpy::parse_npy_header(file, elementSize, shape, fortran);
  EXPECT_EQ(elementSize, 8u);
  EXPECT_EQ(shape, (std::vector<size_t>{4, 5, 6}));
  EXPECT_TRUE(fortran);
  EXPECT_EQ(ftell(file), static_cast<long>(bytes.size()));  // right after the header's newline
  fclose(file);
}

// ---- The memory form of the header parser ----

std::string MemoryImage(const std::string& text) {
  std::string image("\x93NUMPY\x01\x00", 8);
  image += static_cast<char>(text.size() & 0xFF);
  image += static_cast<char>(text.size() >> 8);
  return image + text;
}

TEST(CnpyMemoryHeader, ParsesNumpyHeader) {
  std::string image = MemoryImage(Header("<f4", false, "(7, 8)") + "   \n");
  size_t elementSize = 0;
  std::vector<size_t> shape;
  bool fortran = true;
  cnpy::parse_npy_header(reinterpret_cast<unsigned char*>(&image[0]), elementSize, shape, fortran);
  EXPECT_EQ(elementSize, 4u);
  EXPECT_EQ(shape, (std::vector<size_t>{7, 8}));
  EXPECT_FALSE(fortran);
}

TEST(CnpyMemoryHeader, TextStartsOneByteEarlyAndMissingKeysWrap) {
  // No "fortran_order": the not-found offset plus 16 wraps to 15, which is
  // index 14 of the text since the header starts one byte early.
  std::string text = "{'shape': (2,)True 'descr': '<f4', }\n";
  ASSERT_EQ(text.substr(14, 4), "True");
  std::string image = MemoryImage(text);
  size_t elementSize = 0;
  std::vector<size_t> shape;
  bool fortran = false;
  cnpy::parse_npy_header(reinterpret_cast<unsigned char*>(&image[0]), image.size(), elementSize,
                         shape, fortran);
  EXPECT_TRUE(fortran);
  EXPECT_EQ(shape, (std::vector<size_t>{2}));
  EXPECT_EQ(elementSize, 4u);

  // No "descr": the text from header index 10 (text index 9) is read.
  text = "{'shape':   12' (3,) }\n";
  image = MemoryImage(text);
  cnpy::parse_npy_header(reinterpret_cast<unsigned char*>(&image[0]), image.size(), elementSize,
                         shape, fortran);
  EXPECT_EQ(elementSize, 12u);
  EXPECT_EQ(shape, (std::vector<size_t>{3}));
}

TEST(CnpyMemoryHeader, SizedFormRejectsHeaderPastTheEnd) {
  std::string image = MemoryImage(Header("<f4", false, "(7, 8)"));
  size_t elementSize = 0;
  std::vector<size_t> shape;
  bool fortran = false;
  EXPECT_THROW(cnpy::parse_npy_header(reinterpret_cast<unsigned char*>(&image[0]), image.size() - 2,
                                      elementSize, shape, fortran),
               std::runtime_error);
  EXPECT_THROW(cnpy::parse_npy_header(reinterpret_cast<unsigned char*>(&image[0]), 9, elementSize,
                                      shape, fortran),
               std::runtime_error);
}

// ---- NPZ archives ----

TEST(CnpyNpz, NumpyStoredArchive) {
  const cnpy::NpzArrays arrays = cnpy::npz_load(kNpyDir + "stored.npz");
  ASSERT_EQ(arrays.size(), 2u);
  ExpectF4Array(arrays.at("a"));
  ExpectI4Array(arrays.at("b"));
  ExpectF4Array(cnpy::npz_load(kNpyDir + "stored.npz", "a"));
  ExpectI4Array(cnpy::npz_load(kNpyDir + "stored.npz", "b"));
}

TEST(CnpyNpz, NumpyDeflatedArchive) {
  const cnpy::NpzArrays arrays = cnpy::npz_load(kNpyDir + "deflated.npz");
  ASSERT_EQ(arrays.size(), 2u);
  ExpectF4Array(arrays.at("a"));
  ExpectI4Array(arrays.at("b"));
  ExpectF4Array(cnpy::npz_load(kNpyDir + "deflated.npz", "a"));
}

TEST(CnpyNpz, ByNameSkipsCompressedMembersByTheWrongSize) {
  // Member "a" is skipped by its uncompressed size, which overshoots its
  // deflated data; the next header read is misplaced and "b" is not found.
  const std::string path = kNpyDir + "deflated.npz";
  ExpectRuntimeError([&] { cnpy::npz_load(path, "b"); },
                     "npz_load: Variable name b not found in " + path);
}

TEST(CnpyNpz, MissingMemberAndMissingFile) {
  const std::string path = kNpyDir + "stored.npz";
  ExpectRuntimeError([&] { cnpy::npz_load(path, "zz"); },
                     "npz_load: Variable name zz not found in " + path);
  ExpectRuntimeError([&] { cnpy::npz_load(kNpyDir + "none.npz"); },
                     "npz_load: Error! Unable to open file " + kNpyDir + "none.npz!");
  ExpectRuntimeError([&] { cnpy::npz_load(kNpyDir + "none.npz", "a"); },
                     "npz_load: Unable to open file " + kNpyDir + "none.npz");
}

TEST_F(CnpyTest, HandMadeStoredAndDeflatedMembers) {
  const std::string x = NpyFile(Header("<f4", false, "(3,)"), Floats({1, 2, 3}));
  const std::string y = NpyFile(Header("<f4", false, "(2, 2)"), Floats({4, 5, 6, 7}));
  Member mx = Stored("x.npy", x);
  mx.extra = std::string(6, '\x7f');
  const std::string path = Write("mixed.npz", Zip({mx, Deflated("y.npy", y)}));
  const cnpy::NpzArrays arrays = cnpy::npz_load(path);
  ASSERT_EQ(arrays.size(), 2u);
  EXPECT_EQ(AsFloats(arrays.at("x")), (std::vector<float>{1, 2, 3}));
  EXPECT_EQ(arrays.at("y").shape, (std::vector<size_t>{2, 2}));
  EXPECT_EQ(AsFloats(arrays.at("y")), (std::vector<float>{4, 5, 6, 7}));
  // Behind a stored member the by-name lookup is reliable.
  EXPECT_EQ(AsFloats(cnpy::npz_load(path, "y")), (std::vector<float>{4, 5, 6, 7}));
  EXPECT_EQ(AsFloats(cnpy::npz_load(path, "x")), (std::vector<float>{1, 2, 3}));
}

TEST_F(CnpyTest, DeflatedMemberTakesItsBytesFromTheEnd) {
  // Bytes of the inflated member beyond the header and before the array are
  // skipped: the array is copied from the end of the member.
  const std::string npy = NpyFile(Header("<f4", false, "(2,)"), "JUNK" + Floats({8, 9}));
  const std::string path = Write("tail.npz", Zip({Deflated("t.npy", npy)}));
  EXPECT_EQ(AsFloats(cnpy::npz_load(path).at("t")), (std::vector<float>{8, 9}));
}

TEST_F(CnpyTest, ArchiveWithoutDirectoryFails) {
  const std::string x = NpyFile(Header("<f4", false, "(1,)"), Floats({1}));
  const std::string path = Write("nodir.npz", Zip({Stored("x.npy", x)}, false));
  ExpectRuntimeError([&] { cnpy::npz_load(path); }, "npz_load: failed fread");
  ExpectRuntimeError([&] { cnpy::npz_load(path, "other"); }, "npz_load: failed fread");
  ExpectRuntimeError([&] { cnpy::npz_load(Write("empty.npz", "")); }, "npz_load: failed fread");
}

TEST_F(CnpyTest, TruncatedNameOrExtraFieldFails) {
  const std::string x = NpyFile(Header("<f4", false, "(1,)"), Floats({1}));
  Member m = Stored("x.npy", x);
  std::string header = LocalHeader(m);
  ExpectRuntimeError([&] { cnpy::npz_load(Write("name.npz", header.substr(0, 32))); },
                     "npz_load: failed fread");
  ExpectRuntimeError([&] { cnpy::npz_load(Write("name2.npz", header.substr(0, 32)), "x"); },
                     "npz_load: failed fread");
  m.extra = std::string(200, 'e');
  header = LocalHeader(m);
  // The extra field claims 200 bytes; only 10 follow.
  const std::string cut = header.substr(0, 30 + 5 + 10);
  ExpectRuntimeError([&] { cnpy::npz_load(Write("extra.npz", cut)); }, "npz_load: failed fread");
  // The by-name form seeks over it and notices only at the next read.
  ExpectRuntimeError([&] { cnpy::npz_load(Write("extra2.npz", cut), "other"); },
                     "npz_load: failed fread");
}

TEST_F(CnpyTest, ExtraFieldPastTheEndOfTheWantedMemberFails) {
  // The by-name form seeks over the extra field before it knows the member
  // is the one wanted; reading that member must then find nothing left, not
  // trust its size fields (4 MiB deflated into 4 GiB) and allocate them.
  const std::string x = NpyFile(Header("<f4", false, "(1,)"), Floats({1}));
  Member m = Deflated("x.npy", x);
  m.compressed = 4u << 20;
  m.uncompressed = 0xffffffabu;
  m.extra = std::string(200, 'e');
  const std::string cut = LocalHeader(m).substr(0, 30 + 5 + 10);
  ExpectRuntimeError([&] { cnpy::npz_load(Write("extra3.npz", cut), "x"); },
                     "load_the_npy_file: failed fread");
  m.method = 0;
  ExpectRuntimeError(
      [&] { cnpy::npz_load(Write("extra4.npz", LocalHeader(m).substr(0, 45)), "x"); },
      "parse_npy_header: failed fread");
}

TEST_F(CnpyTest, ShortMemberNameIsAClearError) {
  const std::string x = NpyFile(Header("<f4", false, "(1,)"), Floats({1}));
  const std::string path = Write("shortname.npz", Zip({Stored("x", x)}));
  EXPECT_THROW(cnpy::npz_load(path), std::runtime_error);
  EXPECT_THROW(cnpy::npz_load(path, "x"), std::runtime_error);
}

TEST_F(CnpyTest, StoredMemberWithShortDataFails) {
  const std::string x = NpyFile(Header("<f4", false, "(4,)"), Floats({1}));
  const std::string path = Write("short.npz", Zip({Stored("x.npy", x)}, false));
  ExpectRuntimeError([&] { cnpy::npz_load(path); }, "load_the_npy_file: failed fread");
}

TEST_F(CnpyTest, DeflatedSizesPastTheEndFail) {
  const std::string x = NpyFile(Header("<f4", false, "(3,)"), Floats({1, 2, 3}));
  Member m = Deflated("x.npy", x);
  m.compressed = 0x7FFFFFF0u;
  ExpectRuntimeError([&] { cnpy::npz_load(Write("c.npz", Zip({m}))); },
                     "load_the_npy_file: failed fread");
  m = Deflated("x.npy", x);
  m.uncompressed = 0xFFFFFFFFu;  // more than any deflate stream of this size gives
  EXPECT_THROW(cnpy::npz_load(Write("u.npz", Zip({m}))), std::runtime_error);
}

TEST_F(CnpyTest, DeflatedMemberWithLyingSizesIsAClearError) {
  const std::string x = NpyFile(Header("<f4", false, "(3,)"), Floats({1, 2, 3}));
  Member m = Deflated("x.npy", x);
  m.uncompressed = 20;  // the header alone is longer
  EXPECT_THROW(cnpy::npz_load(Write("h.npz", Zip({m}))), std::runtime_error);
  // A header that claims more than the member holds.
  const std::string big = NpyFile(Header("<f4", false, "(100,)"), Floats({1, 2, 3}));
  EXPECT_THROW(cnpy::npz_load(Write("a.npz", Zip({Deflated("x.npy", big)}))), std::runtime_error);
}

TEST_F(CnpyTest, DeflatedMemberCutShortStillCopiesFromItsEnd) {
  // The stated uncompressed size is all that is inflated; the array's bytes
  // are the last ones of that, whatever they are.
  const std::string x = NpyFile(Header("<f4", false, "(3,)"), Floats({1, 2, 3}));
  Member m = Deflated("x.npy", x);
  m.uncompressed = static_cast<uint32_t>(x.size() - 6);
  const NpyArray a = cnpy::npz_load(Write("cut.npz", Zip({m}))).at("x");
  ASSERT_EQ(a.byteCount(), 12u);
  EXPECT_EQ(std::string(a.data<char>(), 12), x.substr(x.size() - 18, 12));
  EXPECT_NE(std::string(a.data<char>(), 12), Floats({1, 2, 3}));
}

TEST_F(CnpyTest, BadDeflateStreamLeavesZerosAndFailsInTheParser) {
  // inflate's result is not looked at: the buffer stays zero, the header
  // text is empty, and reading the order flag past its end throws.
  Member m{"x.npy", std::string(40, '\xff'), 8, 40, 128, ""};
  EXPECT_THROW(cnpy::npz_load(Write("bad.npz", Zip({m}))), std::out_of_range);
}

TEST_F(CnpyTest, ZipFooter) {
  const std::string x = NpyFile(Header("<f4", false, "(1,)"), Floats({1}));
  const std::string zip = Zip({Stored("x.npy", x), Stored("yy.npy", x)});
  const std::string path = Write("footer.npz", zip);
  FILE* file = fopen(path.c_str(), "rb");
  ASSERT_NE(file, nullptr);
  uint16_t records = 0;
  size_t size = 0;
  size_t offset = 0;
  cnpy::parse_zip_footer(file, records, size, offset);
  fclose(file);
  EXPECT_EQ(records, 2);
  EXPECT_EQ(offset, 2 * (30 + x.size()) + 5 + 6);
  EXPECT_EQ(size, zip.size() - 22 - offset);

  file = fopen(Write("tiny.npz", "PK\x05\x06").c_str(), "rb");
  ASSERT_NE(file, nullptr);
  ExpectRuntimeError([&] { cnpy::parse_zip_footer(file, records, size, offset); },
                     "parse_zip_footer: failed fread");
  fclose(file);
}

}  // namespace
