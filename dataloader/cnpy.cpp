// NumPy array files. The NPY header is parsed as the NumPy writer lays it
// out: the keys are found by text search and the values at fixed distances
// from them; magic, version, byte order and element kind are not checked.
#include "dataloader/cnpy.h"

#include <zlib.h>

#include <complex>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <regex>
#include <stdexcept>

namespace {

constexpr size_t kNpos = std::string::npos;
// deflate never expands data by more than this factor (plus a small constant).
constexpr uint64_t kMaxInflateRatio = 1032;

// Closes a FILE* when leaving scope, unless released.
class FileCloser {
 public:
  explicit FileCloser(FILE* file) : file_(file) {}
  ~FileCloser() {
    if (file_ != nullptr) fclose(file_);
  }
  void Close() {
    fclose(file_);
    file_ = nullptr;
  }

 private:
  FILE* file_;
};

uint16_t ReadLe16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t ReadLe32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Bytes from the current position to the end of the file; the largest size
// when the stream cannot tell (a pipe), so that no check rejects it.
uint64_t RemainingBytes(FILE* file) {
  const off_t here = ftello(file);
  if (here < 0 || fseeko(file, 0, SEEK_END) != 0) return std::numeric_limits<uint64_t>::max();
  const off_t end = ftello(file);
  if (fseeko(file, here, SEEK_SET) != 0) return std::numeric_limits<uint64_t>::max();
  // A member's skip may seek past the end: nothing remains there.
  if (end < here) return 0;
  return static_cast<uint64_t>(end - here);
}

// elementCount * elementSize of a header; false when it overflows.
bool ArrayBytes(const std::vector<size_t>& shape, size_t elementSize, uint64_t& bytes) {
  uint64_t count = 1;
  for (size_t dim : shape) {
    if (dim != 0 && count > std::numeric_limits<uint64_t>::max() / dim) return false;
    count *= dim;
  }
  if (elementSize != 0 && count > std::numeric_limits<uint64_t>::max() / elementSize) return false;
  bytes = count * elementSize;
  return true;
}

// The decimal number at the head of `text`, as atoi takes it.
int LeadingInt(const std::string& text) {
  return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

// Steps shared by both header forms. `report` selects the file form, which
// names a missing key; the memory form goes on from the wrapped offsets.
void ParseHeaderText(const std::string& header, bool report, size_t& elementSize,
                     std::vector<size_t>& shape, bool& fortran_order) {
  size_t loc1 = header.find("fortran_order");
  if (loc1 == kNpos && report) {
    throw std::runtime_error("parse_npy_header: failed to find header keyword: 'fortran_order'");
  }
  fortran_order = header.substr(loc1 + 16, 4) == "True";

  loc1 = header.find("(");
  size_t loc2 = header.find(")");
  if ((loc1 == kNpos || loc2 == kNpos) && report) {
    throw std::runtime_error("parse_npy_header: failed to find header keyword: '(' or ')'");
  }
  std::string str_shape = header.substr(loc1 + 1, loc2 - loc1 - 1);
  shape.clear();
  static const std::regex num_regex("[0-9][0-9]*");
  std::smatch match;
  while (std::regex_search(str_shape, match, num_regex)) {
    shape.push_back(static_cast<size_t>(std::stoi(match[0].str())));
    str_shape = match.suffix().str();
  }

  loc1 = header.find("descr");
  if (loc1 == kNpos && report) {
    throw std::runtime_error("parse_npy_header: failed to find header keyword: 'descr'");
  }
  const std::string str_ws = header.substr(loc1 + 11);
  loc2 = str_ws.find("'");
  elementSize = static_cast<size_t>(LeadingInt(str_ws.substr(0, loc2)));
}

}  // namespace

namespace cnpy {

NpyArray::NpyArray() : bytes(std::make_shared<std::vector<char>>()) {}

NpyArray::NpyArray(const std::vector<size_t>& shape, size_t elementSize, bool fortran_order)
    : shape(shape), elementSize(elementSize), fortran_order(fortran_order) {
  uint64_t byteTotal = 0;
  if (!ArrayBytes(shape, elementSize, byteTotal) ||
      byteTotal > std::numeric_limits<size_t>::max()) {
    throw std::length_error("NpyArray: the array's size does not fit in memory");
  }
  elementCount = 1;
  for (size_t dim : shape) elementCount *= dim;
  bytes = std::make_shared<std::vector<char>>(static_cast<size_t>(byteTotal));
}

char BigEndianTest() { return '<'; }

char map_type(const std::type_info& t) {
  if (t == typeid(float) || t == typeid(double) || t == typeid(long double)) return 'f';
  if (t == typeid(int) || t == typeid(char) || t == typeid(short) || t == typeid(long) ||
      t == typeid(long long)) {
    return 'i';
  }
  if (t == typeid(unsigned char) || t == typeid(unsigned short) || t == typeid(unsigned long) ||
      t == typeid(unsigned long long) || t == typeid(unsigned int)) {
    return 'u';
  }
  if (t == typeid(bool)) return 'b';
  if (t == typeid(std::complex<float>) || t == typeid(std::complex<double>) ||
      t == typeid(std::complex<long double>)) {
    return 'c';
  }
  return '?';
}

std::vector<char>& operator+=(std::vector<char>& lhs, const std::string& rhs) {
  lhs.insert(lhs.end(), rhs.begin(), rhs.end());
  return lhs;
}

std::vector<char>& operator+=(std::vector<char>& lhs, const char* rhs) {
  lhs.insert(lhs.end(), rhs, rhs + std::strlen(rhs));
  return lhs;
}

void parse_npy_header(FILE* file, size_t& elementSize, std::vector<size_t>& shape,
                      bool& fortran_order) {
  char buffer[256];
  if (fread(buffer, sizeof(char), 11, file) != 11) {
    throw std::runtime_error("parse_npy_header: failed fread");
  }
  const char* line = fgets(buffer, 256, file);
  // A string cannot be built from a null pointer; this is the library's text.
  if (line == nullptr) throw std::logic_error("basic_string: construction from null is not valid");
  ParseHeaderText(std::string(line), true, elementSize, shape, fortran_order);
}

void parse_npy_header(unsigned char* buffer, size_t& elementSize, std::vector<size_t>& shape,
                      bool& fortran_order) {
  const uint16_t header_len = ReadLe16(buffer + 8);
  const std::string header(reinterpret_cast<char*>(buffer + 9), header_len);
  ParseHeaderText(header, false, elementSize, shape, fortran_order);
}

void parse_npy_header(unsigned char* buffer, size_t bufferSize, size_t& elementSize,
                      std::vector<size_t>& shape, bool& fortran_order) {
  if (bufferSize < 10 || 9u + ReadLe16(buffer + 8) > bufferSize) {
    throw std::runtime_error("parse_npy_header: the array header runs past the end of the data (" +
                             std::to_string(bufferSize) + " bytes)");
  }
  parse_npy_header(buffer, elementSize, shape, fortran_order);
}

void parse_zip_footer(FILE* file, uint16_t& records, size_t& directorySize,
                      size_t& directoryOffset) {
  unsigned char footer[22];
  if (fseek(file, -22, SEEK_END) != 0 || fread(footer, sizeof(char), 22, file) != 22) {
    throw std::runtime_error("parse_zip_footer: failed fread");
  }
  records = ReadLe16(footer + 10);
  directorySize = ReadLe32(footer + 12);
  directoryOffset = ReadLe32(footer + 16);
}

namespace {

NpyArray NpyLoad(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) throw std::runtime_error("npy_load: Unable to open file " + path);
  FileCloser closer(file);
  NpyArray array = load_the_npy_file(file);
  closer.Close();
  return array;
}

// One local header of an archive, after its name and extra field.
struct MemberHeader {
  bool isDirectory = false;  // the central directory was reached
  std::string name;          // without its 4-character extension
  uint16_t extraLength = 0;
  uint16_t method = 0;
  uint32_t compressedBytes = 0;
  uint32_t uncompressedBytes = 0;
};

MemberHeader ReadMemberHeader(FILE* file) {
  unsigned char local[30];
  if (fread(local, sizeof(char), 30, file) != 30)
    throw std::runtime_error("npz_load: failed fread");
  MemberHeader member;
  if (local[2] != 0x03 || local[3] != 0x04) {
    member.isDirectory = true;
    return member;
  }
  const uint16_t nameLength = ReadLe16(local + 26);
  member.name.assign(nameLength, ' ');
  if (fread(&member.name[0], sizeof(char), nameLength, file) != nameLength) {
    throw std::runtime_error("npz_load: failed fread");
  }
  if (member.name.size() < 4) {
    throw std::runtime_error("npz_load: member name \"" + member.name +
                             "\" is shorter than its 4-character extension");
  }
  member.name.erase(member.name.end() - 4, member.name.end());
  member.extraLength = ReadLe16(local + 28);
  member.method = ReadLe16(local + 8);
  member.compressedBytes = ReadLe32(local + 18);
  member.uncompressedBytes = ReadLe32(local + 22);
  return member;
}

NpyArray LoadMember(FILE* file, const MemberHeader& member) {
  if (member.method == 0) return load_the_npy_file(file);
  return load_the_npz_array(file, member.compressedBytes, member.uncompressedBytes);
}

NpzArrays NpzLoad(const std::string& path) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr)
    throw std::runtime_error("npz_load: Error! Unable to open file " + path + "!");
  FileCloser closer(file);
  NpzArrays arrays;
  while (true) {
    const MemberHeader member = ReadMemberHeader(file);
    if (member.isDirectory) break;
    if (member.extraLength > 0) {
      std::vector<char> extra(member.extraLength);
      if (fread(extra.data(), sizeof(char), member.extraLength, file) != member.extraLength) {
        throw std::runtime_error("npz_load: failed fread");
      }
    }
    arrays[member.name] = LoadMember(file, member);
  }
  closer.Close();
  return arrays;
}

NpyArray NpzLoadMember(const std::string& path, const std::string& name) {
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) throw std::runtime_error("npz_load: Unable to open file " + path);
  FileCloser closer(file);
  while (true) {
    const MemberHeader member = ReadMemberHeader(file);
    if (member.isDirectory) break;
    // Seeking past the end is allowed; the next read reports it.
    fseek(file, member.extraLength, SEEK_CUR);
    if (member.name == name) {
      NpyArray array = LoadMember(file, member);
      closer.Close();
      return array;
    }
    // Skipped by the uncompressed size, which is right for stored members.
    fseek(file, static_cast<long>(member.uncompressedBytes), SEEK_CUR);
  }
  closer.Close();
  throw std::runtime_error("npz_load: Variable name " + name + " not found in " + path);
}

// Runs a load of `path`, its failures keeping their text and naming the file.
template <typename Load>
auto NamingFile(const std::string& path, Load load) -> decltype(load()) {
  try {
    return load();
  } catch (const FileError&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw FileError(e.what(), path);
  }
}

}  // namespace

NpyArray npy_load(std::string path) {
  return NamingFile(path, [&] { return NpyLoad(path); });
}

NpzArrays npz_load(std::string path) {
  return NamingFile(path, [&] { return NpzLoad(path); });
}

NpyArray npz_load(std::string path, std::string name) {
  return NamingFile(path, [&] { return NpzLoadMember(path, name); });
}

}  // namespace cnpy

cnpy::NpyArray load_the_npy_file(FILE* file) {
  std::vector<size_t> shape;
  size_t elementSize = 0;
  bool fortran_order = false;
  cnpy::parse_npy_header(file, elementSize, shape, fortran_order);
  // The header's claim is checked against the file before anything is
  // allocated; a claim beyond the end is the short read it would become.
  uint64_t byteTotal = 0;
  if (!ArrayBytes(shape, elementSize, byteTotal) || byteTotal > RemainingBytes(file)) {
    throw std::runtime_error("load_the_npy_file: failed fread");
  }
  cnpy::NpyArray array(shape, elementSize, fortran_order);
  if (array.byteCount() > 0 &&
      fread(array.data<char>(), 1, array.byteCount(), file) != array.byteCount()) {
    throw std::runtime_error("load_the_npy_file: failed fread");
  }
  return array;
}

cnpy::NpyArray load_the_npz_array(FILE* file, uint32_t compressedBytes,
                                  uint32_t uncompressedBytes) {
  if (compressedBytes > RemainingBytes(file)) {
    throw std::runtime_error("load_the_npy_file: failed fread");
  }
  if (uncompressedBytes > kMaxInflateRatio * compressedBytes + 1024) {
    throw std::runtime_error("load_the_npz_array: " + std::to_string(uncompressedBytes) +
                             " uncompressed bytes cannot come from " +
                             std::to_string(compressedBytes) + " deflated bytes");
  }
  std::vector<unsigned char> compressed(compressedBytes);
  std::vector<unsigned char> uncompressed(uncompressedBytes);
  if (compressedBytes > 0 &&
      fread(compressed.data(), 1, compressedBytes, file) != compressedBytes) {
    throw std::runtime_error("load_the_npy_file: failed fread");
  }

  // Raw deflate (no zlib header), in one call; a bad stream leaves zeros.
  z_stream stream{};
  stream.zalloc = Z_NULL;
  stream.zfree = Z_NULL;
  stream.opaque = Z_NULL;
  stream.avail_in = 0;
  stream.next_in = Z_NULL;
  inflateInit2(&stream, -MAX_WBITS);
  stream.avail_in = compressedBytes;
  stream.next_in = compressed.data();
  stream.avail_out = uncompressedBytes;
  stream.next_out = uncompressed.data();
  inflate(&stream, Z_FINISH);
  inflateEnd(&stream);

  std::vector<size_t> shape;
  size_t elementSize = 0;
  bool fortran_order = false;
  cnpy::parse_npy_header(uncompressed.data(), uncompressed.size(), elementSize, shape,
                         fortran_order);
  uint64_t byteTotal = 0;
  if (!ArrayBytes(shape, elementSize, byteTotal) || byteTotal > uncompressedBytes) {
    throw std::runtime_error("load_the_npz_array: the member's header claims more bytes than the " +
                             std::to_string(uncompressedBytes) + " it holds");
  }
  cnpy::NpyArray array(shape, elementSize, fortran_order);
  const size_t offset = uncompressedBytes - array.byteCount();
  if (array.byteCount() > 0) {
    std::memcpy(array.data<char>(), uncompressed.data() + offset, array.byteCount());
  }
  return array;
}
