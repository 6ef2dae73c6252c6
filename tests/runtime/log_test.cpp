#include "runtime/log.h"

#include <gtest/gtest.h>

#include <regex>

#include "support/net_builder.h"

namespace qzdl {
namespace {

// "[Fri Nov 20 22:40:15 2026 ]: message\n": asctime's text with its newline
// turned into a blank.
const std::regex kLogLine(
    R"(\[(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 0-9]\d \d\d:\d\d:\d\d \d{4} \]: (.*)\n)");

TEST(QLog, LineHasUtcAsctimeStampWithTrailingBlank) {
  const std::string out = test::CaptureStdout([] { qlogInstance.QZLOG("hello"); });
  std::smatch m;
  ASSERT_TRUE(std::regex_match(out, m, kLogLine)) << out;
  EXPECT_EQ(m[3].str(), "hello");
}

TEST(QLog, StampIsUtc) {
  setenv("TZ", "Asia/Tokyo", 1);
  tzset();
  time_t now = time(nullptr);
  std::string expect = asctime(gmtime(&now));
  expect.back() = ' ';
  const std::string out = test::CaptureStdout([] { qlogInstance.QZLOG("x"); });
  unsetenv("TZ");
  tzset();
  // The minute may tick between the two readings; compare the hour field.
  EXPECT_EQ(out.substr(1, 13), expect.substr(0, 13));
}

TEST(QzdlInitException, WhatText) {
  QZDLInitException e;
  EXPECT_STREQ(e.what(), "CreatNet Error");
  std::exception* base = &e;
  EXPECT_STREQ(base->what(), "CreatNet Error");
}

TEST(ThrowException, LoggingFormOnlyLogsAndReturns) {
  bool returned = false;
  const std::string out = test::CaptureStdout([&] {
    throw_exception(std::string("Please check"));
    returned = true;
  });
  EXPECT_TRUE(returned);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(out, m, kLogLine)) << out;
  EXPECT_EQ(m[3].str(), "Please check");
}

TEST(ThrowException, CreationFormLogsThenThrowsThePointer) {
  auto* error = new QZDLInitException();
  std::exception* caught = nullptr;
  const std::string out = test::CaptureStdout([&] {
    try {
      throw_exception("bad net", error);
    } catch (std::exception* e) {
      caught = e;
    }
  });
  EXPECT_EQ(caught, error);
  std::smatch m;
  ASSERT_TRUE(std::regex_match(out, m, kLogLine)) << out;
  EXPECT_EQ(m[3].str(), "bad net");
  delete error;
}

}  // namespace
}  // namespace qzdl
