#include "support/onnx_tensor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

namespace qzdl::test {

namespace {

struct Wire {
  const uint8_t* p;
  size_t n;
  size_t pos = 0;
  bool ok = true;

  uint64_t Varint() {
    uint64_t v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (pos >= n) {
        ok = false;
        return 0;
      }
      const uint8_t b = p[pos++];
      v |= uint64_t(b & 0x7f) << shift;
      if (!(b & 0x80)) return v;
    }
    ok = false;
    return v;
  }
  bool Skip(int wire_type) {
    switch (wire_type) {
      case 0:
        Varint();
        return ok;
      case 1:
        pos += 8;
        return pos <= n;
      case 2: {
        const uint64_t len = Varint();
        if (!ok || len > n - pos) return false;
        pos += len;
        return true;
      }
      case 5:
        pos += 4;
        return pos <= n;
      default:
        return false;
    }
  }
};

float FloatAt(const uint8_t* b) {
  float f;
  std::memcpy(&f, b, 4);
  return f;
}

}  // namespace

int64_t OnnxTensor::Count() const {
  int64_t c = 1;
  for (int64_t d : dims) c *= d;
  return c;
}

OnnxTensor ReadOnnxTensor(const std::string& path) {
  OnnxTensor t;
  std::ifstream f(path, std::ios::binary);
  if (!f) {
    ADD_FAILURE() << "cannot open " << path;
    return t;
  }
  const std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  Wire w{reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()};
  std::string raw;
  std::vector<double> doubles;
  while (w.ok && w.pos < w.n) {
    const uint64_t key = w.Varint();
    const int field = static_cast<int>(key >> 3);
    const int type = static_cast<int>(key & 7);
    auto packed_or_single = [&](auto on_value) {
      if (type == 2) {
        const uint64_t len = w.Varint();
        const size_t end = w.pos + len;
        if (!w.ok || len > w.n - w.pos) {
          w.ok = false;
          return;
        }
        while (w.ok && w.pos < end) on_value();
      } else {
        on_value();
      }
    };
    if (field == 1) {  // dims
      packed_or_single([&] { t.dims.push_back(static_cast<int64_t>(w.Varint())); });
    } else if (field == 2 && type == 0) {
      t.data_type = static_cast<int>(w.Varint());
    } else if (field == 4) {  // float_data
      packed_or_single([&] {
        if (w.pos + 4 > w.n) {
          w.ok = false;
          return;
        }
        t.values.push_back(FloatAt(w.p + w.pos));
        w.pos += 4;
      });
    } else if (field == 5 || field == 7) {  // int32_data / int64_data
      packed_or_single([&] { t.ints.push_back(static_cast<int64_t>(w.Varint())); });
    } else if (field == 10) {  // double_data
      packed_or_single([&] {
        if (w.pos + 8 > w.n) {
          w.ok = false;
          return;
        }
        double d;
        std::memcpy(&d, w.p + w.pos, 8);
        doubles.push_back(d);
        w.pos += 8;
      });
    } else if ((field == 8 || field == 9) && type == 2) {  // name / raw_data
      const uint64_t len = w.Varint();
      if (!w.ok || len > w.n - w.pos) {
        w.ok = false;
        break;
      }
      std::string s(reinterpret_cast<const char*>(w.p + w.pos), len);
      w.pos += len;
      (field == 8 ? t.name : raw) = s;
    } else if (!w.Skip(type)) {
      w.ok = false;
    }
  }
  if (!w.ok) {
    ADD_FAILURE() << "malformed tensor file " << path;
    return OnnxTensor();
  }
  if (!raw.empty()) {
    const auto* b = reinterpret_cast<const uint8_t*>(raw.data());
    switch (t.data_type) {
      case 1:
        for (size_t i = 0; i + 4 <= raw.size(); i += 4) t.values.push_back(FloatAt(b + i));
        break;
      case 11:
        for (size_t i = 0; i + 8 <= raw.size(); i += 8) {
          double d;
          std::memcpy(&d, b + i, 8);
          doubles.push_back(d);
        }
        break;
      case 7:
        for (size_t i = 0; i + 8 <= raw.size(); i += 8) {
          int64_t v;
          std::memcpy(&v, b + i, 8);
          t.ints.push_back(v);
        }
        break;
      case 6:
        for (size_t i = 0; i + 4 <= raw.size(); i += 4) {
          int32_t v;
          std::memcpy(&v, b + i, 4);
          t.ints.push_back(v);
        }
        break;
      case 2:
      case 9:
        for (uint8_t v : raw) t.ints.push_back(v);
        break;
      case 3:
        for (char v : raw) t.ints.push_back(static_cast<int8_t>(v));
        break;
      default:
        ADD_FAILURE() << "unsupported element type " << t.data_type << " in " << path;
    }
  }
  for (double d : doubles) t.values.push_back(static_cast<float>(d));
  if (t.values.empty())
    for (int64_t v : t.ints) t.values.push_back(static_cast<float>(v));
  if (static_cast<int64_t>(t.values.size()) != t.Count())
    ADD_FAILURE() << path << ": " << t.values.size() << " values for " << t.Count() << " elements";
  return t;
}

std::string OnnxCase(const std::string& group, const std::string& name) {
  return std::string(QZDL_ONNX_TESTS_DIR) + "/" + group + "/" + name;
}

double ToleranceRatio(const std::vector<float>& got, const std::vector<float>& want, double atol,
                      double rtol) {
  if (got.size() != want.size()) return INFINITY;
  double worst = 0.0;
  for (size_t i = 0; i < got.size(); ++i) {
    const double err = std::fabs(double(got[i]) - double(want[i]));
    const double allowed = atol + rtol * std::fabs(double(want[i]));
    if (std::isnan(got[i]) != std::isnan(want[i])) return INFINITY;
    if (!std::isnan(got[i])) worst = std::max(worst, err / allowed);
  }
  return worst;
}

}  // namespace qzdl::test
