#include "runtime/json11.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <utility>

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

// Nesting deeper than this is refused, so that hostile input cannot exhaust
// the stack: the top-level value is at depth 0, its members at depth 1.
constexpr int kMaxDepth = 200;

// How a byte is named in error texts: "'x' (120)" for printable ASCII and DEL,
// "(n)" for the rest, n being the byte as a signed char on every target (so a
// UTF-8 byte-order mark reads "(-17)" on Arm too).
std::string Describe(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  const int value = static_cast<signed char>(c);
  char buf[16];
  if (u >= 0x20 && u <= 0x7f) {
    snprintf(buf, sizeof buf, "'%c' (%d)", c, value);
  } else {
    snprintf(buf, sizeof buf, "(%d)", value);
  }
  return buf;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Writes code point `cp` as UTF-8 without judging it: a lone surrogate gets
// its 3-byte form (0xD800 -> ED A0 80). A negative value writes nothing.
void AppendUtf8(long cp, std::string& out) {
  if (cp < 0) return;
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Recursive-descent reader with json11's grammar and error texts. Bytes inside
// strings are kept as they are, valid UTF-8 or not: the files it reads carry
// paths and tensor names in whatever encoding the user's system has. Only the
// first error is reported. Reading at in_.size() gives '\0', which no rule
// accepts, so the end needs no separate test where a byte is looked at.
class Parser {
 public:
  Parser(const std::string& in, std::string& err, JsonParse strategy)
      : in_(in), err_(err), comments_(strategy == JsonParse::COMMENTS) {}

  Json Document() {
    Json result = Value(0);
    SkipGarbage();
    if (failed_) return Json();
    if (pos_ != in_.size()) return Fail("unexpected trailing " + Describe(in_[pos_]));
    return result;
  }

 private:
  Json Fail(std::string message) { return Fail(std::move(message), Json()); }

  template <typename T>
  T Fail(std::string message, T result) {
    if (!failed_) err_ = std::move(message);
    failed_ = true;
    return result;
  }

  void SkipWhitespace() {
    while (in_[pos_] == ' ' || in_[pos_] == '\r' || in_[pos_] == '\n' || in_[pos_] == '\t') ++pos_;
  }

  // Skips one "//" or "/*" comment; false when there is none or on an error.
  bool SkipComment() {
    if (in_[pos_] != '/') return false;
    ++pos_;
    if (pos_ == in_.size()) return Fail("unexpected end of input after start of comment", false);
    if (in_[pos_] == '/') {
      ++pos_;
      while (pos_ < in_.size() && in_[pos_] != '\n') ++pos_;
      return true;
    }
    if (in_[pos_] != '*') return Fail("malformed comment", false);
    ++pos_;
    // The closing "*/" needs two bytes, so the search ends one byte early.
    while (true) {
      if (pos_ + 2 > in_.size()) {
        return Fail("unexpected end of input inside multi-line comment", false);
      }
      if (in_[pos_] == '*' && in_[pos_ + 1] == '/') break;
      ++pos_;
    }
    pos_ += 2;
    return true;
  }

  void SkipGarbage() {
    SkipWhitespace();
    if (!comments_) return;
    while (SkipComment()) SkipWhitespace();
  }

  // The next byte after whitespace (and comments); '\0' and an error at the end.
  char NextToken() {
    SkipGarbage();
    if (failed_) return '\0';
    if (pos_ == in_.size()) return Fail("unexpected end of input", '\0');
    return in_[pos_++];
  }

  Json Value(int depth) {
    if (depth > kMaxDepth) return Fail("exceeded maximum nesting depth");
    const char ch = NextToken();
    if (failed_) return Json();
    if (ch == '-' || IsDigit(ch)) {
      --pos_;
      return Number();
    }
    if (ch == 't') return Literal("true", Json(true));
    if (ch == 'f') return Literal("false", Json(false));
    if (ch == 'n') return Literal("null", Json());
    if (ch == '"') {
      std::string text = String();
      return failed_ ? Json() : Json(std::move(text));
    }
    if (ch == '{') return Object(depth);
    if (ch == '[') return Array(depth);
    return Fail("expected value, got " + Describe(ch));
  }

  // The word's first byte has been read already.
  Json Literal(const std::string& word, Json value) {
    --pos_;
    if (in_.compare(pos_, word.size(), word) == 0) {
      pos_ += word.size();
      return value;
    }
    return Fail("parse error: expected " + word + ", got " + in_.substr(pos_, word.size()));
  }

  // Integers of at most 9 characters, sign included, are kept as int; every
  // other number is read by strtod, so beyond double range it is an infinity.
  Json Number() {
    const size_t start = pos_;
    if (in_[pos_] == '-') ++pos_;
    if (in_[pos_] == '0') {
      ++pos_;
      if (IsDigit(in_[pos_])) return Fail("leading 0s not permitted in numbers");
    } else if (in_[pos_] >= '1' && in_[pos_] <= '9') {
      while (IsDigit(in_[pos_])) ++pos_;
    } else {
      return Fail("invalid " + Describe(in_[pos_]) + " in number");
    }
    const char after = in_[pos_];
    if (after != '.' && after != 'e' && after != 'E' &&
        pos_ - start <= static_cast<size_t>(std::numeric_limits<int>::digits10)) {
      return Json(std::atoi(in_.c_str() + start));
    }
    if (in_[pos_] == '.') {
      ++pos_;
      if (!IsDigit(in_[pos_])) return Fail("at least one digit required in fractional part");
      while (IsDigit(in_[pos_])) ++pos_;
    }
    if (in_[pos_] == 'e' || in_[pos_] == 'E') {
      ++pos_;
      if (in_[pos_] == '+' || in_[pos_] == '-') ++pos_;
      if (!IsDigit(in_[pos_])) return Fail("at least one digit required in exponent");
      while (IsDigit(in_[pos_])) ++pos_;
    }
    return Json(std::strtod(in_.c_str() + start, nullptr));
  }

  // The opening quote has been read. A \u escape is held back one step, so
  // that a lead surrogate followed by a trail surrogate becomes one 4-byte
  // character; any other surrogate is written on its own.
  std::string String() {
    std::string out;
    long held = -1;
    while (true) {
      if (pos_ == in_.size()) return Fail("unexpected end of input in string", std::string());
      char ch = in_[pos_++];
      if (ch == '"') {
        AppendUtf8(held, out);
        return out;
      }
      if (static_cast<unsigned char>(ch) <= 0x1f) {
        return Fail("unescaped " + Describe(ch) + " in string", std::string());
      }
      if (ch != '\\') {
        AppendUtf8(held, out);
        held = -1;
        out += ch;
        continue;
      }
      if (pos_ == in_.size()) return Fail("unexpected end of input in string", std::string());
      ch = in_[pos_++];
      if (ch == 'u') {
        const std::string hex = in_.substr(pos_, 4);
        long cp = 0;
        for (size_t k = 0; k < 4; ++k) {
          const int digit = k < hex.size() ? HexDigit(hex[k]) : -1;
          if (digit < 0) return Fail("bad \\u escape: " + hex, std::string());
          cp = cp * 16 + digit;
        }
        if (held >= 0xD800 && held <= 0xDBFF && cp >= 0xDC00 && cp <= 0xDFFF) {
          AppendUtf8((((held - 0xD800) << 10) | (cp - 0xDC00)) + 0x10000, out);
          held = -1;
        } else {
          AppendUtf8(held, out);
          held = cp;
        }
        pos_ += 4;
        continue;
      }
      AppendUtf8(held, out);
      held = -1;
      switch (ch) {
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case '"':
        case '\\':
        case '/':
          out += ch;
          break;
        default:
          return Fail("invalid escape character " + Describe(ch), std::string());
      }
    }
  }

  // The opening brace has been read. A repeated key keeps its last value.
  Json Object(int depth) {
    Json::object members;
    char ch = NextToken();
    if (failed_) return Json();
    if (ch == '}') return Json(std::move(members));
    while (true) {
      if (ch != '"') return Fail("expected '\"' in object, got " + Describe(ch));
      std::string key = String();
      if (failed_) return Json();
      ch = NextToken();
      if (failed_) return Json();
      if (ch != ':') return Fail("expected ':' in object, got " + Describe(ch));
      Json value = Value(depth + 1);
      if (failed_) return Json();
      members[std::move(key)] = std::move(value);
      ch = NextToken();
      if (failed_) return Json();
      if (ch == '}') return Json(std::move(members));
      if (ch != ',') return Fail("expected ',' in object, got " + Describe(ch));
      ch = NextToken();
      if (failed_) return Json();
    }
  }

  // The opening bracket has been read. "[1,]" is refused by the element
  // reader: "expected value, got ']' (93)".
  Json Array(int depth) {
    Json::array items;
    char ch = NextToken();
    if (failed_) return Json();
    if (ch == ']') return Json(std::move(items));
    while (true) {
      --pos_;
      items.push_back(Value(depth + 1));
      if (failed_) return Json();
      ch = NextToken();
      if (failed_) return Json();
      if (ch == ']') return Json(std::move(items));
      if (ch != ',') return Fail("expected ',' in list, got " + Describe(ch));
      NextToken();
      if (failed_) return Json();
    }
  }

  const std::string& in_;
  std::string& err_;
  const bool comments_;
  size_t pos_ = 0;
  bool failed_ = false;
};

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
  return Parser(in, err, strategy).Document();
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
