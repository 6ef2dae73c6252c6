#include "runtime/json11.h"

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace json11 {

// One node of a parsed or constructed document. Numbers remember whether they
// were integers so that dump() writes them back the way json11 does.
class JsonValue {
 public:
  Json::Type type = Json::NUL;
  bool is_int = false;
  int int_value = 0;
  double number = 0.0;
  bool boolean = false;
  std::string text;
  Json::array items;
  Json::object members;
};

namespace {

struct Statics {
  const std::string empty_string;
  const Json::array empty_array;
  const Json::object empty_object;
  const Json null_value;
};

const Statics& statics() {
  static const Statics s{};
  return s;
}

std::shared_ptr<JsonValue> make(Json::Type type) {
  auto v = std::make_shared<JsonValue>();
  v->type = type;
  return v;
}

void dump_string(const std::string& value, std::string& out) {
  out += '"';
  for (size_t i = 0; i < value.length(); i++) {
    const char ch = value[i];
    if (ch == '\\') {
      out += "\\\\";
    } else if (ch == '"') {
      out += "\\\"";
    } else if (ch == '\b') {
      out += "\\b";
    } else if (ch == '\f') {
      out += "\\f";
    } else if (ch == '\n') {
      out += "\\n";
    } else if (ch == '\r') {
      out += "\\r";
    } else if (ch == '\t') {
      out += "\\t";
    } else if (static_cast<uint8_t>(ch) <= 0x1f) {
      char buf[8];
      snprintf(buf, sizeof buf, "\\u%04x", ch);
      out += buf;
    } else if (static_cast<uint8_t>(ch) == 0xe2 && i + 2 < value.length() &&
               static_cast<uint8_t>(value[i + 1]) == 0x80 &&
               static_cast<uint8_t>(value[i + 2]) == 0xa8) {
      out += "\\u2028";
      i += 2;
    } else if (static_cast<uint8_t>(ch) == 0xe2 && i + 2 < value.length() &&
               static_cast<uint8_t>(value[i + 1]) == 0x80 &&
               static_cast<uint8_t>(value[i + 2]) == 0xa9) {
      out += "\\u2029";
      i += 2;
    } else {
      out += ch;
    }
  }
  out += '"';
}

constexpr int kMaxDepth = 200;

// Converts nlohmann's tree into ours. Depth is limited so that hostile input
// cannot exhaust the stack.
bool convert(const nlohmann::json& in, Json& out, int depth, std::string& err) {
  if (depth > kMaxDepth) {
    err = "exceeded maximum nesting depth";
    return false;
  }
  switch (in.type()) {
    case nlohmann::json::value_t::null:
    case nlohmann::json::value_t::discarded:
      out = Json();
      return true;
    case nlohmann::json::value_t::boolean:
      out = Json(in.get<bool>());
      return true;
    case nlohmann::json::value_t::number_integer:
    case nlohmann::json::value_t::number_unsigned: {
      // json11 keeps integers that fit an int as int, the rest as double.
      const double d = in.get<double>();
      if (in.is_number_integer() && d >= -2147483648.0 && d <= 2147483647.0) {
        out = Json(static_cast<int>(in.get<int64_t>()));
      } else {
        out = Json(d);
      }
      return true;
    }
    case nlohmann::json::value_t::number_float:
      out = Json(in.get<double>());
      return true;
    case nlohmann::json::value_t::string:
      out = Json(in.get_ref<const std::string&>());
      return true;
    case nlohmann::json::value_t::array: {
      Json::array items;
      items.reserve(in.size());
      for (const auto& element : in) {
        Json child;
        if (!convert(element, child, depth + 1, err)) return false;
        items.push_back(std::move(child));
      }
      out = Json(std::move(items));
      return true;
    }
    case nlohmann::json::value_t::object: {
      Json::object members;
      for (auto it = in.begin(); it != in.end(); ++it) {
        Json child;
        if (!convert(it.value(), child, depth + 1, err)) return false;
        members[it.key()] = std::move(child);
      }
      out = Json(std::move(members));
      return true;
    }
    case nlohmann::json::value_t::binary:
      err = "binary values are not JSON";
      return false;
  }
  return true;
}

// nlohmann's parser recurses through a stack of its own, but a hostile input
// can still make that stack huge; reject depth before handing text over.
bool depth_ok(const std::string& in, std::string& err) {
  int depth = 0;
  bool in_string = false;
  for (size_t i = 0; i < in.size(); ++i) {
    const char c = in[i];
    if (in_string) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxDepth) {
        err = "exceeded maximum nesting depth";
        return false;
      }
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

}  // namespace

Json::Json() noexcept : m_ptr(nullptr) {}
Json::Json(std::nullptr_t) noexcept : m_ptr(nullptr) {}
Json::Json(double value) : m_ptr(make(NUMBER)) { m_ptr->number = value; }
Json::Json(int value) : m_ptr(make(NUMBER)) {
  m_ptr->is_int = true;
  m_ptr->int_value = value;
  m_ptr->number = value;
}
Json::Json(bool value) : m_ptr(make(BOOL)) { m_ptr->boolean = value; }
Json::Json(const std::string& value) : m_ptr(make(STRING)) { m_ptr->text = value; }
Json::Json(std::string&& value) : m_ptr(make(STRING)) { m_ptr->text = std::move(value); }
Json::Json(const char* value) : m_ptr(make(STRING)) { m_ptr->text = value; }
Json::Json(const array& values) : m_ptr(make(ARRAY)) { m_ptr->items = values; }
Json::Json(array&& values) : m_ptr(make(ARRAY)) { m_ptr->items = std::move(values); }
Json::Json(const object& values) : m_ptr(make(OBJECT)) { m_ptr->members = values; }
Json::Json(object&& values) : m_ptr(make(OBJECT)) { m_ptr->members = std::move(values); }

Json::Type Json::type() const { return m_ptr ? m_ptr->type : NUL; }

double Json::number_value() const { return type() == NUMBER ? m_ptr->number : 0.0; }

int Json::int_value() const {
  if (type() != NUMBER) return 0;
  if (m_ptr->is_int) return m_ptr->int_value;
  // json11 converts with a plain cast; keep it defined for values out of range.
  const double d = m_ptr->number;
  if (std::isnan(d)) return 0;
  if (d >= 2147483647.0) return 2147483647;
  if (d <= -2147483648.0) return -2147483647 - 1;
  return static_cast<int>(d);
}

bool Json::bool_value() const { return type() == BOOL ? m_ptr->boolean : false; }

const std::string& Json::string_value() const {
  return type() == STRING ? m_ptr->text : statics().empty_string;
}

const Json::array& Json::array_items() const {
  return type() == ARRAY ? m_ptr->items : statics().empty_array;
}

const Json::object& Json::object_items() const {
  return type() == OBJECT ? m_ptr->members : statics().empty_object;
}

const Json& Json::operator[](size_t i) const {
  if (type() != ARRAY || i >= m_ptr->items.size()) return statics().null_value;
  return m_ptr->items[i];
}

const Json& Json::operator[](const std::string& key) const {
  if (type() != OBJECT) return statics().null_value;
  auto it = m_ptr->members.find(key);
  return it == m_ptr->members.end() ? statics().null_value : it->second;
}

void Json::dump(std::string& out) const {
  switch (type()) {
    case NUL:
      out += "null";
      return;
    case NUMBER: {
      char buf[32];
      if (m_ptr->is_int) {
        snprintf(buf, sizeof buf, "%d", m_ptr->int_value);
        out += buf;
      } else if (std::isfinite(m_ptr->number)) {
        snprintf(buf, sizeof buf, "%.17g", m_ptr->number);
        out += buf;
      } else {
        out += "null";
      }
      return;
    }
    case BOOL:
      out += m_ptr->boolean ? "true" : "false";
      return;
    case STRING:
      dump_string(m_ptr->text, out);
      return;
    case ARRAY: {
      bool first = true;
      out += "[";
      for (const auto& value : m_ptr->items) {
        if (!first) out += ", ";
        value.dump(out);
        first = false;
      }
      out += "]";
      return;
    }
    case OBJECT: {
      bool first = true;
      out += "{";
      for (const auto& kv : m_ptr->members) {
        if (!first) out += ", ";
        dump_string(kv.first, out);
        out += ": ";
        kv.second.dump(out);
        first = false;
      }
      out += "}";
      return;
    }
  }
}

Json Json::parse(const std::string& in, std::string& err, JsonParse strategy) {
  err.clear();
  if (!depth_ok(in, err)) return Json();
  nlohmann::json tree;
  try {
    tree = nlohmann::json::parse(in, nullptr, true, strategy == JsonParse::COMMENTS);
  } catch (const nlohmann::json::exception& e) {
    err = e.what();
    return Json();
  }
  Json out;
  if (!convert(tree, out, 0, err)) return Json();
  return out;
}

bool Json::operator==(const Json& rhs) const {
  if (m_ptr == rhs.m_ptr) return true;
  if (type() != rhs.type()) return false;
  switch (type()) {
    case NUL:
      return true;
    case NUMBER:
      return number_value() == rhs.number_value();
    case BOOL:
      return bool_value() == rhs.bool_value();
    case STRING:
      return string_value() == rhs.string_value();
    case ARRAY:
      return array_items() == rhs.array_items();
    case OBJECT:
      return object_items() == rhs.object_items();
  }
  return false;
}

bool Json::operator<(const Json& rhs) const {
  if (m_ptr == rhs.m_ptr) return false;
  if (type() != rhs.type()) return type() < rhs.type();
  switch (type()) {
    case NUL:
      return false;
    case NUMBER:
      return number_value() < rhs.number_value();
    case BOOL:
      return bool_value() < rhs.bool_value();
    case STRING:
      return string_value() < rhs.string_value();
    case ARRAY:
      return array_items() < rhs.array_items();
    case OBJECT:
      return object_items() < rhs.object_items();
  }
  return false;
}

}  // namespace json11
