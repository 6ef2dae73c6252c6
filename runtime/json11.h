// JSON values with the json11 interface and a reader of our own.
//
// The rest of the system relies on json11's behaviours, and this facade keeps
// them (docs/model-format.md, "JSON text", lists what is accepted and refused):
//  - values are immutable and cheap to copy (shared storage);
//  - operator[] with a missing key, or on a value that is not an object
//    (or an index on a non-array / out of range) yields a null value (NUL);
//  - bool_value, int_value, number_value, string_value, array_items and
//    object_items yield false / 0 / empty for a value of another type;
//  - parse reports errors through a string instead of throwing, with json11's
//    texts, and keeps the bytes of strings as they are (valid UTF-8 or not);
//  - dump writes the compact json11 text: objects in key order with ": "
//    and ", " separators, arrays with ", ".
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace json11 {

enum JsonParse { STANDARD, COMMENTS };

class JsonValue;

class Json final {
 public:
  enum Type { NUL, NUMBER, BOOL, STRING, ARRAY, OBJECT };

  typedef std::vector<Json> array;
  typedef std::map<std::string, Json> object;

  Json() noexcept;
  Json(std::nullptr_t) noexcept;
  Json(double value);
  Json(int value);
  Json(bool value);
  Json(const std::string& value);
  Json(std::string&& value);
  Json(const char* value);
  Json(const array& values);
  Json(array&& values);
  Json(const object& values);
  Json(object&& values);
  // Any pointer other than const char* would silently convert to bool.
  Json(void*) = delete;

  Type type() const;
  bool is_null() const { return type() == NUL; }
  bool is_number() const { return type() == NUMBER; }
  bool is_bool() const { return type() == BOOL; }
  bool is_string() const { return type() == STRING; }
  bool is_array() const { return type() == ARRAY; }
  bool is_object() const { return type() == OBJECT; }

  double number_value() const;
  int int_value() const;
  bool bool_value() const;
  const std::string& string_value() const;
  const array& array_items() const;
  const object& object_items() const;

  const Json& operator[](size_t i) const;
  const Json& operator[](const std::string& key) const;

  void dump(std::string& out) const;
  std::string dump() const {
    std::string out;
    dump(out);
    return out;
  }

  // Parses a whole document. Clears err, and on failure returns a null value
  // and sets err. Comments are accepted only with COMMENTS.
  static Json parse(const std::string& in, std::string& err,
                    JsonParse strategy = JsonParse::STANDARD);
  static Json parse(const char* in, std::string& err, JsonParse strategy = JsonParse::STANDARD) {
    if (in == nullptr) {
      err = "null input";
      return nullptr;
    }
    return parse(std::string(in), err, strategy);
  }

  bool operator==(const Json& rhs) const;
  bool operator<(const Json& rhs) const;
  bool operator!=(const Json& rhs) const { return !(*this == rhs); }
  bool operator<=(const Json& rhs) const { return !(rhs < *this); }
  bool operator>(const Json& rhs) const { return rhs < *this; }
  bool operator>=(const Json& rhs) const { return !(*this < rhs); }

 private:
  std::shared_ptr<JsonValue> m_ptr;
};

}  // namespace json11
