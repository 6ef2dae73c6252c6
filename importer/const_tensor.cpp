#include "importer/const_tensor.h"

#include <onnx/onnx_pb.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <numeric>
#include <set>
#include <sstream>
#include <type_traits>

namespace qzdl::onnx_import {

bool IsFloatType(int32_t type) {
  return type == kFloat || type == kFloat16 || type == kDouble || type == kBfloat16;
}

std::string TypeName(int32_t type) {
  static const std::map<int32_t, std::string> names = {
      {kFloat, "float"},   {kUint8, "uint8"},      {kInt8, "int8"},     {kUint16, "uint16"},
      {kInt16, "int16"},   {kInt32, "int32"},      {kInt64, "int64"},   {kString, "string"},
      {kBool, "bool"},     {kFloat16, "float16"},  {kDouble, "double"}, {kUint32, "uint32"},
      {kUint64, "uint64"}, {kBfloat16, "bfloat16"}};
  auto it = names.find(type);
  return it == names.end() ? "type " + std::to_string(type) : it->second;
}

std::string DimsString(const std::vector<int64_t>& dims) {
  std::ostringstream s;
  s << "[";
  for (size_t k = 0; k < dims.size(); ++k) s << (k ? ", " : "") << dims[k];
  s << "]";
  return s.str();
}

int64_t DimsProduct(const std::vector<int64_t>& dims, size_t from, size_t to) {
  // An empty tensor may have other dims of any size (ConstantOfShape of
  // [0, 2^62, 100]): a 0 makes the product 0, and a product past the int64
  // range saturates; the callers compare it with a limit.
  try {
    return CheckedProduct(dims, from, to);
  } catch (const ShapeOverflow&) {
    return std::numeric_limits<int64_t>::max();
  }
}

namespace {

double RoundTo(int32_t type, double v) {
  if (type == kFloat || type == kFloat16 || type == kBfloat16) return static_cast<float>(v);
  return v;
}

int64_t WrapInt(int32_t type, int64_t v) {
  switch (type) {
    case kBool:
      return v != 0;
    case kUint8:
      return static_cast<uint8_t>(v);
    case kInt8:
      return static_cast<int8_t>(v);
    case kUint16:
      return static_cast<uint16_t>(v);
    case kInt16:
      return static_cast<int16_t>(v);
    case kInt32:
      return static_cast<int32_t>(v);
    case kUint32:
      return static_cast<uint32_t>(v);
    default:
      return v;
  }
}

float HalfToFloat(uint16_t h) {
  const int sign = h >> 15, exp = (h >> 10) & 0x1f, mant = h & 0x3ff;
  double v;
  if (exp == 0) {
    v = std::ldexp(mant, -24);
  } else if (exp == 31) {
    v = mant ? std::numeric_limits<double>::quiet_NaN() : std::numeric_limits<double>::infinity();
  } else {
    v = std::ldexp(mant + 1024, exp - 25);
  }
  return static_cast<float>(sign ? -v : v);
}

float Bfloat16ToFloat(uint16_t b) {
  const uint32_t bits = static_cast<uint32_t>(b) << 16;
  float f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}

size_t ElementSize(int32_t type) {
  switch (type) {
    case kFloat:
    case kInt32:
    case kUint32:
      return 4;
    case kDouble:
    case kInt64:
    case kUint64:
      return 8;
    case kFloat16:
    case kBfloat16:
    case kInt16:
    case kUint16:
      return 2;
    case kInt8:
    case kUint8:
    case kBool:
      return 1;
    default:
      return 0;
  }
}

// ONNX raw data is little-endian whatever the host.
template <typename V>
V ReadLe(const char* p) {
  uint64_t bits = 0;
  for (size_t k = 0; k < sizeof(V); ++k) {
    bits |= static_cast<uint64_t>(static_cast<unsigned char>(p[k])) << (8 * k);
  }
  if constexpr (sizeof(V) == 8) {
    V v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
  } else {
    using U = std::conditional_t<sizeof(V) == 4, uint32_t,
                                 std::conditional_t<sizeof(V) == 2, uint16_t, uint8_t>>;
    const U narrow = static_cast<U>(bits);
    V v;
    std::memcpy(&v, &narrow, sizeof v);
    return v;
  }
}

void FromBytes(const std::string& raw, ConstTensor* t) {
  const size_t size = ElementSize(t->type);
  const int64_t n = t->Count();
  const int64_t bytes = CheckedMul(n, static_cast<int64_t>(size));
  if (static_cast<int64_t>(raw.size()) != bytes) {
    throw FoldError("holds " + std::to_string(raw.size()) + " bytes of data, expected " +
                    std::to_string(bytes) + " for shape " + DimsString(t->dims));
  }
  const char* p = raw.data();
  for (int64_t k = 0; k < n; ++k, p += size) {
    switch (t->type) {
      case kFloat:
        t->f[k] = ReadLe<float>(p);
        break;
      case kDouble:
        t->f[k] = ReadLe<double>(p);
        break;
      case kFloat16:
        t->f[k] = HalfToFloat(ReadLe<uint16_t>(p));
        break;
      case kBfloat16:
        t->f[k] = Bfloat16ToFloat(ReadLe<uint16_t>(p));
        break;
      case kInt64:
        t->i[k] = ReadLe<int64_t>(p);
        break;
      case kUint64:
        t->i[k] = static_cast<int64_t>(ReadLe<uint64_t>(p));
        break;
      case kInt32:
        t->i[k] = ReadLe<int32_t>(p);
        break;
      case kUint32:
        t->i[k] = ReadLe<uint32_t>(p);
        break;
      case kInt16:
        t->i[k] = ReadLe<int16_t>(p);
        break;
      case kUint16:
        t->i[k] = ReadLe<uint16_t>(p);
        break;
      case kInt8:
        t->i[k] = ReadLe<int8_t>(p);
        break;
      case kUint8:
      case kBool:
        t->i[k] = ReadLe<uint8_t>(p);
        break;
    }
  }
}

std::string ReadExternal(const onnx::TensorProto& proto, const std::string& base_dir) {
  std::string location;
  int64_t offset = 0, length = -1;
  auto number = [](const std::string& key, const std::string& text) {
    size_t used = 0;
    long long v = -1;
    try {
      v = std::stoll(text, &used);
    } catch (const std::exception&) {
      used = 0;
    }
    if (used == 0 || used != text.size() || v < 0) {
      throw FoldError("has external data " + key + " \"" + text + "\", not a number of bytes");
    }
    return static_cast<int64_t>(v);
  };
  for (const auto& kv : proto.external_data()) {
    if (kv.key() == "location") location = kv.value();
    if (kv.key() == "offset") offset = number("offset", kv.value());
    if (kv.key() == "length") length = number("length", kv.value());
  }
  if (location.empty()) throw FoldError("has external data without a location");
  const std::string path = base_dir.empty() ? location : base_dir + "/" + location;
  std::ifstream f(path, std::ios::binary);
  if (!f) throw FoldError("has external data in \"" + path + "\", which cannot be read");
  f.seekg(0, std::ios::end);
  const int64_t size = f.tellg();
  if (length < 0) length = size - offset;
  if (size < 0 || offset > size || length > size - offset) {
    throw FoldError("has external data past the end of \"" + path + "\"");
  }
  std::string bytes(length, '\0');
  f.seekg(offset);
  f.read(&bytes[0], length);
  return bytes;
}

}  // namespace

int64_t ConstTensor::Count() const { return DimsProduct(dims); }

std::vector<int64_t> ConstTensor::Ints() const {
  std::vector<int64_t> out(Count());
  for (int64_t k = 0, total = Count(); k < total; ++k) out[k] = GetInt(k);
  return out;
}

std::vector<float> ConstTensor::Floats() const {
  std::vector<float> out(Count());
  for (int64_t k = 0, total = Count(); k < total; ++k) out[k] = static_cast<float>(Get(k));
  return out;
}

void ConstTensor::Set(int64_t k, double v) {
  if (IsFloat()) {
    f[k] = RoundTo(type, v);
  } else if (type == kBool) {
    i[k] = v != 0;
  } else {
    i[k] = WrapInt(type, SaturatingInt(v));
  }
}

void ConstTensor::SetInt(int64_t k, int64_t v) {
  if (IsFloat()) {
    f[k] = RoundTo(type, static_cast<double>(v));
  } else {
    i[k] = WrapInt(type, v);
  }
}

bool IsPermutation(const std::vector<int64_t>& perm, size_t rank) {
  std::vector<int64_t> sorted = perm;
  std::sort(sorted.begin(), sorted.end());
  for (size_t k = 0; k < sorted.size(); ++k) {
    if (sorted[k] != static_cast<int64_t>(k)) return false;
  }
  return sorted.size() == rank;
}

int64_t CountUpTo(const std::vector<int64_t>& dims, int64_t limit) {
  for (int64_t d : dims) {
    if (d <= 0) return 0;
  }
  try {
    const int64_t n = CheckedProduct(dims);
    return n <= limit ? n : -1;
  } catch (const ShapeOverflow&) {
    return -1;
  }
}

std::vector<int64_t> WalkStrides(const std::vector<int64_t>& dims) {
  // CheckedStrides still multiplies the dims to the right of a 0 ([0, 2^63 - 1,
  // 2] overflows there), though no stride of an empty tensor is ever used.
  if (std::find(dims.begin(), dims.end(), 0) != dims.end()) {
    return std::vector<int64_t>(dims.size(), 0);
  }
  return CheckedStrides(dims);
}

namespace {
thread_local int64_t max_constant_bytes = kDefaultMaxConstantBytes;
}  // namespace

int64_t ElementBytes(int32_t type) {
  switch (type) {
    case kInt16:
    case kUint16:
    case kFloat16:
    case kBfloat16:
      return 2;
    case kFloat:
    case kInt32:
    case kUint32:
      return 4;
    case kInt64:
    case kUint64:
    case kDouble:
      return 8;
    default:
      return 1;
  }
}

int64_t MaxConstantBytes() { return max_constant_bytes; }

ConstantLimitScope::ConstantLimitScope(int64_t max_bytes) : previous_(max_constant_bytes) {
  max_constant_bytes = max_bytes;
}

ConstantLimitScope::~ConstantLimitScope() { max_constant_bytes = previous_; }

int64_t MaxConstantElements(int32_t type) { return max_constant_bytes / ElementBytes(type); }

std::string ConstantLimitText() {
  return "the limit of " + std::to_string(max_constant_bytes) +
         " bytes for a constant computed while importing (qzdl_onnx2net --max-constant-mib "
         "raises it)";
}

ConstTensor ConstTensor::Make(int32_t type, const std::vector<int64_t>& dims) {
  for (int64_t d : dims) {
    if (d < 0) throw FoldError("would have a negative dimension in " + DimsString(dims));
  }
  if (CountUpTo(dims, MaxConstantElements(type)) < 0) {
    // The byte count itself may pass the int64 range; say so rather than wrap.
    std::string size;
    try {
      size = std::to_string(CheckedMul(CheckedProduct(dims), ElementBytes(type))) + " bytes";
    } catch (const ShapeOverflow&) {
      size = "more than 2^63 bytes";
    }
    throw FoldError("would have shape " + DimsString(dims) + " of " + TypeName(type) + ", " +
                    size + ", beyond " + ConstantLimitText());
  }
  return Sized(type, dims);
}

ConstTensor ConstTensor::Sized(int32_t type, const std::vector<int64_t>& dims) {
  ConstTensor t;
  t.type = type;
  t.dims = dims;
  if (t.IsFloat()) {
    t.f.assign(t.Count(), 0.0);
  } else {
    t.i.assign(t.Count(), 0);
  }
  return t;
}

ConstTensor ConstTensor::Int64s(const std::vector<int64_t>& values) {
  ConstTensor t = Make(kInt64, {static_cast<int64_t>(values.size())});
  t.i = values;
  return t;
}

ConstTensor TensorFromProto(const onnx::TensorProto& proto, const std::string& base_dir) {
  const int32_t type = proto.data_type();
  if (ElementSize(type) == 0) {
    throw FoldError("has element type " + TypeName(type) + ", which is not supported");
  }
  if (proto.has_segment()) throw FoldError("is segmented, which is not supported");
  std::vector<int64_t> dims(proto.dims().begin(), proto.dims().end());
  for (int64_t d : dims) {
    if (d < 0) throw FoldError("has a negative dimension in " + DimsString(dims));
  }
  // The values are counted before anything is allocated: damaged dims must
  // not make the importer ask for more memory than the data could fill.
  const int64_t element_size = static_cast<int64_t>(ElementSize(type));
  const int64_t n = CountUpTo(dims, INT64_MAX / 16);
  if (n < 0) throw FoldError("has shape " + DimsString(dims) + ", too many elements");
  std::string external;
  const std::string* raw = nullptr;
  if (proto.data_location() == onnx::TensorProto::EXTERNAL) {
    external = ReadExternal(proto, base_dir);
    raw = &external;
  } else if (proto.has_raw_data()) {
    raw = &proto.raw_data();
  }
  if (raw) {
    const int64_t bytes = CheckedMul(n, element_size);  // n is below 2^63 / 16
    if (static_cast<int64_t>(raw->size()) != bytes) {
      throw FoldError("holds " + std::to_string(raw->size()) + " bytes of data, expected " +
                      std::to_string(bytes) + " for shape " + DimsString(dims));
    }
    ConstTensor t = ConstTensor::Sized(type, dims);
    FromBytes(*raw, &t);
    return t;
  }
  auto check = [&](int64_t have) {
    if (have != n) {
      throw FoldError("holds " + std::to_string(have) + " values, expected " + std::to_string(n) +
                      " for shape " + DimsString(dims));
    }
  };
  int64_t have = 0;
  switch (type) {
    case kFloat:
      have = proto.float_data_size();
      break;
    case kDouble:
      have = proto.double_data_size();
      break;
    case kInt64:
      have = proto.int64_data_size();
      break;
    case kUint32:
    case kUint64:
      have = proto.uint64_data_size();
      break;
    default:
      have = proto.int32_data_size();
      break;
  }
  check(have);
  ConstTensor t = ConstTensor::Sized(type, dims);
  switch (type) {
    case kFloat:
      for (int64_t k = 0; k < n; ++k) t.f[k] = proto.float_data(k);
      break;
    case kDouble:
      for (int64_t k = 0; k < n; ++k) t.f[k] = proto.double_data(k);
      break;
    case kInt64:
      for (int64_t k = 0; k < n; ++k) t.i[k] = proto.int64_data(k);
      break;
    case kUint32:
    case kUint64:
      for (int64_t k = 0; k < n; ++k) t.i[k] = static_cast<int64_t>(proto.uint64_data(k));
      break;
    case kFloat16:
    case kBfloat16:
      for (int64_t k = 0; k < n; ++k) {
        const uint16_t bits = static_cast<uint16_t>(proto.int32_data(k));
        t.f[k] = type == kFloat16 ? HalfToFloat(bits) : Bfloat16ToFloat(bits);
      }
      break;
    default:
      for (int64_t k = 0; k < n; ++k) t.i[k] = WrapInt(type, proto.int32_data(k));
      break;
  }
  return t;
}

std::vector<int64_t> BroadcastShapes(const std::vector<int64_t>& a, const std::vector<int64_t>& b) {
  const size_t rank = std::max(a.size(), b.size());
  std::vector<int64_t> out(rank);
  for (size_t k = 0; k < rank; ++k) {
    const int64_t da = k + a.size() >= rank ? a[k + a.size() - rank] : 1;
    const int64_t db = k + b.size() >= rank ? b[k + b.size() - rank] : 1;
    if (da != db && da != 1 && db != 1) {
      throw FoldError("shapes " + DimsString(a) + " and " + DimsString(b) +
                      " cannot be broadcast together");
    }
    out[k] = da == 1 ? db : da;
  }
  return out;
}

}  // namespace qzdl::onnx_import
