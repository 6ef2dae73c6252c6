#include "runtime/json11.h"

#include <gtest/gtest.h>

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
  EXPECT_FALSE(err.empty());
  EXPECT_EQ(j.type(), Json::NUL);
  err.clear();
  Json::parse("[1, 2] trailing", err);
  EXPECT_FALSE(err.empty());
  err.clear();
  Json::parse("", err);
  EXPECT_FALSE(err.empty());
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
  EXPECT_FALSE(err.empty());
  err.clear();
  Json j = Json::parse("// c\n[1]", err, json11::COMMENTS);
  EXPECT_TRUE(err.empty());
  EXPECT_EQ(j[0].int_value(), 1);
}

}  // namespace
