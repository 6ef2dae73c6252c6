#include "runtime/json11.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>

namespace {

using json11::Json;

TEST(Json11, MissingKeyReadsAsNull) {
  std::string err;
  Json j = Json::parse(R"({"a": 1})", err);
  ASSERT_TRUE(err.empty());
  EXPECT_EQ(j["b"].type(), Json::NUL);
  EXPECT_EQ(j["a"]["x"].type(), Json::NUL);  // index into a number
  EXPECT_EQ(Json(5)["x"].type(), Json::NUL);
  EXPECT_EQ(Json(Json::array{1, 2})["x"].type(), Json::NUL);  // key into an array
  EXPECT_EQ(Json(Json::array{1, 2})[7].type(), Json::NUL);    // out of range
  EXPECT_EQ(j[0].type(), Json::NUL);                          // index into an object
}

TEST(Json11, ExplicitNullHasTypeNul) {
  std::string err;
  Json j = Json::parse(R"({"a": null})", err);
  EXPECT_EQ(j["a"].type(), Json::NUL);
  EXPECT_EQ(j.object_items().size(), 1u);
}

TEST(Json11, AccessorsOfAnotherTypeGiveEmptyValues) {
  const Json s("text");
  EXPECT_FALSE(s.bool_value());
  EXPECT_EQ(s.int_value(), 0);
  EXPECT_EQ(s.number_value(), 0.0);
  EXPECT_TRUE(s.array_items().empty());
  EXPECT_TRUE(s.object_items().empty());
  const Json n(3.5);
  EXPECT_EQ(n.string_value(), "");
  EXPECT_FALSE(n.bool_value());
  EXPECT_EQ(n.int_value(), 3);
  EXPECT_EQ(Json(true).int_value(), 0);
  EXPECT_EQ(Json(true).number_value(), 0.0);
  EXPECT_EQ(Json(1).bool_value(), false);  // a number is not a boolean
  EXPECT_EQ(Json().string_value(), "");
}

TEST(Json11, ParseReportsErrorsThroughString) {
  std::string err;
  Json j = Json::parse("{\"a\": ", err);
  EXPECT_EQ(err, "unexpected end of input");
  EXPECT_EQ(j.type(), Json::NUL);
  Json::parse("[1, 2] trailing", err);
  EXPECT_EQ(err, "unexpected trailing 't' (116)");
  Json::parse("", err);
  EXPECT_EQ(err, "unexpected end of input");
  const char* none = nullptr;
  Json::parse(none, err);
  EXPECT_EQ(err, "null input");
}

TEST(Json11, ParseClearsAPreviousError) {
  std::string err = "old";
  Json j = Json::parse("[1]", err);
  EXPECT_EQ(err, "");
  EXPECT_EQ(j[0].int_value(), 1);
}

TEST(Json11, DeepNestingIsAnErrorNotACrash) {
  std::string err;
  Json::parse(std::string(100000, '['), err);
  EXPECT_EQ(err, "exceeded maximum nesting depth");
}

// The top-level value is at depth 0 and each container's members one deeper;
// depth 200 is the last one allowed.
TEST(Json11, NestingLimitIsDepth200) {
  auto nested = [](int n, const std::string& inner) {
    return std::string(n, '[') + inner + std::string(n, ']');
  };
  std::string err;
  Json::parse(nested(201, ""), err);  // the innermost empty array at depth 200
  EXPECT_EQ(err, "");
  Json::parse(nested(202, ""), err);
  EXPECT_EQ(err, "exceeded maximum nesting depth");
  Json::parse(nested(200, "1"), err);  // the number at depth 200
  EXPECT_EQ(err, "");
  Json::parse(nested(201, "1"), err);
  EXPECT_EQ(err, "exceeded maximum nesting depth");
  std::string objects;
  for (int i = 0; i < 201; ++i) objects += "{\"k\": ";
  objects += "{}" + std::string(201, '}');
  Json::parse(objects, err);
  EXPECT_EQ(err, "exceeded maximum nesting depth");
  // An unbalanced text is refused for its brackets.
  Json::parse(nested(10, "") + "]", err);
  EXPECT_EQ(err, "unexpected trailing ']' (93)");
  Json::parse("[" + nested(3, ""), err);
  EXPECT_EQ(err, "unexpected end of input");
}

TEST(Json11, DumpUsesCompactJson11Form) {
  Json j = Json::object{{"b", Json::array{1, 2.5, "x", nullptr, true}}, {"a", Json::object{}}};
  EXPECT_EQ(j.dump(), R"({"a": {}, "b": [1, 2.5, "x", null, true]})");
  EXPECT_EQ(Json(Json::array{}).dump(), "[]");
  EXPECT_EQ(Json(0.1).dump(), "0.10000000000000001");
  EXPECT_EQ(Json(-1e9).dump(), "-1000000000");
  EXPECT_EQ(Json(3).dump(), "3");
}

TEST(Json11, DumpEscapesLikeJson11) {
  EXPECT_EQ(Json("a\"b\\c\n\t\x01").dump(), R"("a\"b\\c\n\t\u0001")");
  EXPECT_EQ(Json("\xe2\x80\xa8").dump(), R"("\u2028")");
  EXPECT_EQ(Json("\xc3\xa9").dump(), "\"\xc3\xa9\"");
}

TEST(Json11, ParsedIntegersStayIntegers) {
  std::string err;
  Json j = Json::parse("[7, 7.0, 3000000000, -2]", err);
  EXPECT_EQ(j.dump(), "[7, 7, 3000000000, -2]");
  EXPECT_EQ(j[0].int_value(), 7);
  EXPECT_EQ(j[2].number_value(), 3000000000.0);
  EXPECT_EQ(j[3].int_value(), -2);
}

TEST(Json11, RoundTripsAndCompares) {
  std::string err;
  const std::string text = R"({"k": [1, {"z": false, "a": "s"}], "n": null})";
  Json j = Json::parse(text, err);
  Json again = Json::parse(j.dump(), err);
  EXPECT_EQ(j, again);
  EXPECT_NE(j, Json(1));
  EXPECT_TRUE(Json(1) < Json(2));
  EXPECT_EQ(Json(1), Json(1.0));
}

TEST(Json11, CommentsOnlyWhenAsked) {
  std::string err;
  Json::parse("// c\n[1]", err);
  EXPECT_EQ(err, "expected value, got '/' (47)");
  Json::parse("[1] /* c */", err);
  EXPECT_EQ(err, "unexpected trailing '/' (47)");
  Json j = Json::parse("// c\n[1]", err, json11::COMMENTS);
  EXPECT_EQ(err, "");
  EXPECT_EQ(j[0].int_value(), 1);
  j = Json::parse("/* a */ [1, /* b */ 2 // c\n, 3] // end", err, json11::COMMENTS);
  EXPECT_EQ(err, "");
  EXPECT_EQ(j.dump(), "[1, 2, 3]");
}

TEST(Json11, CommentErrors) {
  std::string err;
  Json::parse("[1] /", err, json11::COMMENTS);
  EXPECT_EQ(err, "unexpected end of input after start of comment");
  Json::parse("[1] /x", err, json11::COMMENTS);
  EXPECT_EQ(err, "malformed comment");
  Json::parse("/* open [1]", err, json11::COMMENTS);
  EXPECT_EQ(err, "unexpected end of input inside multi-line comment");
  Json::parse("[1] /*", err, json11::COMMENTS);
  EXPECT_EQ(err, "unexpected end of input inside multi-line comment");
  Json::parse("[1] /* x *", err, json11::COMMENTS);
  EXPECT_EQ(err, "unexpected end of input inside multi-line comment");
}

// Bytes that are not UTF-8 are kept as they are, in values and in keys, and
// written back unchanged: paths and tensor names come in the user's encoding.
TEST(Json11, InvalidUtf8IsKeptByteForByte) {
  const std::string text =
      "{\"caf\xe9\": \"/data/n\xe9t\xff\xfe\", \"x\": \"\xc3\x28 \xed\xa0\x80 "
      "\xf8\x88\x80\x80\x80\"}";
  std::string err;
  Json j = Json::parse(text, err);
  ASSERT_EQ(err, "");
  EXPECT_EQ(j["caf\xe9"].string_value(), "/data/n\xe9t\xff\xfe");
  EXPECT_EQ(j["x"].string_value(), "\xc3\x28 \xed\xa0\x80 \xf8\x88\x80\x80\x80");
  EXPECT_EQ(j.object_items().begin()->first, "caf\xe9");
  EXPECT_EQ(j.dump(), text);
}

TEST(Json11, EveryByteSurvivesDumpAndParse) {
  std::string all;
  for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
  const Json j = Json::object{{all, all}};
  std::string err;
  const Json back = Json::parse(j.dump(), err);
  ASSERT_EQ(err, "");
  ASSERT_EQ(back.object_items().size(), 1u);
  EXPECT_EQ(back.object_items().begin()->first, all);
  EXPECT_EQ(back[all].string_value(), all);
}

TEST(Json11, LoneSurrogatesBecomeTheirThreeByteForm) {
  std::string err;
  EXPECT_EQ(Json::parse(R"("\ud800")", err).string_value(), "\xed\xa0\x80");
  EXPECT_EQ(Json::parse(R"("\uDC00")", err).string_value(), "\xed\xb0\x80");
  EXPECT_EQ(Json::parse(R"("\ud800x")", err).string_value(), "\xed\xa0\x80x");
  EXPECT_EQ(Json::parse(R"("\ud800\ud800")", err).string_value(), "\xed\xa0\x80\xed\xa0\x80");
  // A trail before a lead is no pair.
  EXPECT_EQ(Json::parse(R"("\udc00\ud800")", err).string_value(), "\xed\xb0\x80\xed\xa0\x80");
  // A lead followed by another escape is written before it.
  EXPECT_EQ(Json::parse(R"("\ud800\n")", err).string_value(), "\xed\xa0\x80\n");
  EXPECT_EQ(err, "");
  // Written back as the bytes, not as an escape.
  EXPECT_EQ(Json::parse(R"(["\ud800"])", err).dump(), "[\"\xed\xa0\x80\"]");
}

TEST(Json11, SurrogatePairDecodesToFourBytes) {
  std::string err;
  EXPECT_EQ(Json::parse(R"("\ud83d\ude00")", err).string_value(), "\xf0\x9f\x98\x80");
  EXPECT_EQ(Json::parse(R"("\uDBFF\uDFFF!")", err).string_value(), "\xf4\x8f\xbf\xbf!");
  EXPECT_EQ(Json::parse(R"("\u00e9\u20AC\u0041")", err).string_value(),
            "\xc3\xa9\xe2\x82\xac"
            "A");
  EXPECT_EQ(Json::parse(R"("\u0000")", err).string_value(), std::string(1, '\0'));
  EXPECT_EQ(Json::parse(R"("\"\\\/\b\f\n\r\t")", err).string_value(), "\"\\/\b\f\n\r\t");
  EXPECT_EQ(err, "");
}

TEST(Json11, StringErrors) {
  std::string err;
  Json::parse(R"("a\x")", err);
  EXPECT_EQ(err, "invalid escape character 'x' (120)");
  Json::parse(R"("\u12g4")", err);
  EXPECT_EQ(err, "bad \\u escape: 12g4");
  Json::parse(R"("\u12")", err);
  EXPECT_EQ(err, "bad \\u escape: 12\"");
  Json::parse("\"a\nb\"", err);
  EXPECT_EQ(err, "unescaped (10) in string");
  Json::parse(std::string("\"a\0\"", 4), err);
  EXPECT_EQ(err, "unescaped (0) in string");
  Json::parse("\"abc", err);
  EXPECT_EQ(err, "unexpected end of input in string");
  Json::parse("\"abc\\", err);
  EXPECT_EQ(err, "unexpected end of input in string");
  // DEL is no control character here.
  EXPECT_EQ(Json::parse("\"\x7f\"", err).string_value(), "\x7f");
  EXPECT_EQ(err, "");
}

TEST(Json11, ByteOrderMarkIsRefused) {
  std::string err;
  Json j = Json::parse("\xef\xbb\xbf{}", err);
  EXPECT_EQ(err, "expected value, got (-17)");
  EXPECT_EQ(j.type(), Json::NUL);
}

TEST(Json11, NumbersBeyondDoubleRange) {
  std::string err;
  Json j = Json::parse("[1e400, -1e400, 1e-400, 4.9e-324]", err);
  ASSERT_EQ(err, "");
  EXPECT_EQ(j[0].number_value(), HUGE_VAL);
  EXPECT_EQ(j[1].number_value(), -HUGE_VAL);
  EXPECT_EQ(j[2].number_value(), 0.0);
  EXPECT_EQ(j[3].number_value(), 4.9406564584124654e-324);
  // Numbers that are not finite are written as null.
  EXPECT_EQ(j.dump(), "[null, null, 0, 4.9406564584124654e-324]");
  EXPECT_EQ(Json(std::nan("")).dump(), "null");
  EXPECT_EQ(Json(-HUGE_VAL).dump(), "null");
}

TEST(Json11, IntegersAndDoubles) {
  std::string err;
  Json j = Json::parse("[3.7, -3.7, -0, -0.0, 1e2, 123456789, -12345678, 1E1, 0.5e-1]", err);
  ASSERT_EQ(err, "");
  EXPECT_EQ(j[0].int_value(), 3);
  EXPECT_EQ(j[0].number_value(), 3.7);
  EXPECT_EQ(j[1].int_value(), -3);
  EXPECT_EQ(j.dump(),
            "[3.7000000000000002, -3.7000000000000002, 0, -0, 100, 123456789, -12345678, 10, "
            "0.050000000000000003]");
  // Beyond 9 characters an integer is read as a double; the text is the same.
  j = Json::parse("[1234567890, -123456789, 99999999999999999999]", err);
  EXPECT_EQ(j.dump(), "[1234567890, -123456789, 1e+20]");
  EXPECT_EQ(j[0].int_value(), 1234567890);
}

TEST(Json11, NumberErrors) {
  const std::pair<const char*, const char*> cases[] = {
      {"01", "leading 0s not permitted in numbers"},
      {"-01", "leading 0s not permitted in numbers"},
      {"-", "invalid (0) in number"},
      {"-a", "invalid 'a' (97) in number"},
      {"1.", "at least one digit required in fractional part"},
      {"1.e5", "at least one digit required in fractional part"},
      {"1e", "at least one digit required in exponent"},
      {"1e+", "at least one digit required in exponent"},
      {"+1", "expected value, got '+' (43)"},
      {".5", "expected value, got '.' (46)"},
      {"0x10", "unexpected trailing 'x' (120)"},
      {"NaN", "expected value, got 'N' (78)"},
      {"Infinity", "expected value, got 'I' (73)"},
  };
  for (const auto& c : cases) {
    std::string err;
    Json j = Json::parse(c.first, err);
    EXPECT_EQ(err, c.second) << c.first;
    EXPECT_EQ(j.type(), Json::NUL) << c.first;
  }
}

TEST(Json11, StructureErrors) {
  const std::pair<const char*, const char*> cases[] = {
      {"   ", "unexpected end of input"},
      {"[", "unexpected end of input"},
      {"[1,", "unexpected end of input"},
      {"{", "unexpected end of input"},
      {"{\"a\"", "unexpected end of input"},
      {"{\"a\" 1}", "expected ':' in object, got '1' (49)"},
      {"{\"a\": 1,}", "expected '\"' in object, got '}' (125)"},
      {"{1: 2}", "expected '\"' in object, got '1' (49)"},
      {"{\"a\": 1 \"b\": 2}", "expected ',' in object, got '\"' (34)"},
      {"[1 2]", "expected ',' in list, got '2' (50)"},
      {"[1,]", "expected value, got ']' (93)"},
      {"[,1]", "expected value, got ',' (44)"},
      {"tru", "parse error: expected true, got tru"},
      {"falsy", "parse error: expected false, got falsy"},
      {"nul", "parse error: expected null, got nul"},
      {"nullx", "unexpected trailing 'x' (120)"},
      {"1 2", "unexpected trailing '2' (50)"},
      {"{} x", "unexpected trailing 'x' (120)"},
      {"\f1", "expected value, got (12)"},
      {"1\v", "unexpected trailing (11)"},
      {"'a'", "expected value, got ''' (39)"},
      {"\x80", "expected value, got (-128)"},
  };
  for (const auto& c : cases) {
    std::string err;
    Json j = Json::parse(c.first, err);
    EXPECT_EQ(err, c.second) << c.first;
    EXPECT_EQ(j.type(), Json::NUL) << c.first;
  }
  std::string err;
  Json::parse(std::string("[1]\0", 4), err);
  EXPECT_EQ(err, "unexpected trailing (0)");
}

TEST(Json11, WhitespaceAndRepeatedKeys) {
  std::string err;
  Json j = Json::parse(" \t\r\n{ \"a\" :\t1 ,\n\"a\": 2 } \r\n", err);
  ASSERT_EQ(err, "");
  EXPECT_EQ(j.object_items().size(), 1u);
  EXPECT_EQ(j["a"].int_value(), 2);  // the last value of a repeated key
}

TEST(Json11, DumpOfStringsAndNumbers) {
  EXPECT_EQ(Json(std::string("\0\x1f\x7f", 3)).dump(), "\"\\u0000\\u001f\x7f\"");
  EXPECT_EQ(Json("\b\f\r").dump(), R"("\b\f\r")");
  EXPECT_EQ(Json("/").dump(), "\"/\"");
  EXPECT_EQ(Json("a\xe2\x80\xa9z").dump(), R"("a\u2029z")");
  // Only the whole sequences are escaped.
  EXPECT_EQ(Json("\xe2\x80\xa7 \xe2\x80").dump(), "\"\xe2\x80\xa7 \xe2\x80\"");
  EXPECT_EQ(Json(1.0 / 3).dump(), "0.33333333333333331");
  EXPECT_EQ(Json(1e300).dump(), "1.0000000000000001e+300");
  EXPECT_EQ(Json(-0.0).dump(), "-0");
  EXPECT_EQ(Json(-2147483647 - 1).dump(), "-2147483648");
  EXPECT_EQ(Json(false).dump(), "false");
  EXPECT_EQ(Json().dump(), "null");
}

// Where a cast would be undefined, int_value saturates (NaN gives 0).
TEST(Json11, IntValueOutOfRangeIsDefined) {
  std::string err;
  Json j = Json::parse("[1e400, -1e400, 3000000000]", err);
  EXPECT_EQ(j[0].int_value(), 2147483647);
  EXPECT_EQ(j[1].int_value(), -2147483647 - 1);
  EXPECT_EQ(j[2].int_value(), 2147483647);
  EXPECT_EQ(Json(std::nan("")).int_value(), 0);
}

}  // namespace
