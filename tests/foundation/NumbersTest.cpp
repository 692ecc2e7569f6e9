// Formatting and parsing of booleans and numbers.
#include <veskan/StringBuffer.h>

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>

namespace Veskan {
namespace {

TEST(FormatBooleanTest, EachStyle) {
  EXPECT_EQ(StringBuffer(FormatBoolean(true)), u"true");
  EXPECT_EQ(StringBuffer(FormatBoolean(false, FormattingStyles::Default)), u"false");
  EXPECT_EQ(StringBuffer(FormatBoolean(true, FormattingStyles::HexadecimalYesNo)), u"yes");
  EXPECT_EQ(StringBuffer(FormatBoolean(false, FormattingStyles::HexadecimalYesNo)), u"no");
  EXPECT_EQ(StringBuffer(FormatBoolean(true, FormattingStyles::NumericBoolean)), u"1");
  EXPECT_EQ(StringBuffer(FormatBoolean(false, FormattingStyles::NumericBoolean)), u"0");
  EXPECT_EQ(StringBuffer(FormatBoolean(true, 99)), u"true");
}

TEST(FormatIntegerTest, DecimalAndHexadecimal) {
  EXPECT_EQ(FormatInteger(255, FormattingStyles::HexadecimalYesNo), u"#ff");
  EXPECT_EQ(FormatInteger(-1, FormattingStyles::HexadecimalYesNo), u"#ffffffff");
  EXPECT_EQ(FormatInteger(-42), u"-42");
  EXPECT_EQ(FormatInteger(INT_MIN, FormattingStyles::NumericBoolean), u"-2147483648");
  EXPECT_EQ(FormatInteger64(-1, FormattingStyles::Default), u"-1");
  EXPECT_EQ(FormatInteger64(LLONG_MIN), u"-9223372036854775808");
  EXPECT_EQ(FormatInteger64(-1, FormattingStyles::HexadecimalYesNo), u"#ffffffffffffffff");
  EXPECT_EQ(FormatInteger64(0x1234567890LL, FormattingStyles::HexadecimalYesNo), u"#1234567890");
}

TEST(FormatDoubleTest, Examples) {
  struct {
    double value;
    const char16_t* expected;
  } const cases[] = {
      {1.0 / 3, u"0.333333333333333"},
      {-2.5, u"-2.5"},
      {-3.0, u"-3"},
      {2.5, u"2.5"},
      {0.1, u"0.1"},
      {0.1 + 0.2, u"0.3"},
      {123456.789, u"123456.789"},
      {1.0000001, u"1"},  // six decimals show nothing, so the whole number is printed
      {2.9999999, u"3"},
      {-0.0000001, u"0"},
      {1e20, u"100000000000000000000"},
      {-5e9, u"-5000000000"},
      {0.0, u"0"},
      {std::nan(""), u"NaN"},
      {HUGE_VAL, u"Infinity"},
      {-HUGE_VAL, u"-Infinity"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    EXPECT_EQ(FormatDouble(c.value), c.expected);
  }
}

// The formatting rules spelled out with printf, step by step, as an independent oracle.
std::string FormatDoubleWithPrintf(double d) {
  double whole;
  if (std::modf(d + DBL_EPSILON, &whole) == 0.0) {
    d += DBL_EPSILON;
  } else if (std::modf(d - DBL_EPSILON, &whole) == 0.0) {
    d -= DBL_EPSILON;
  }
  char text[512];
  std::snprintf(text, sizeof text, "%lf", d);
  auto decimals = [&text] {
    const char* point = std::strchr(text, '.');
    if (!point) return -1;
    int count = static_cast<int>(std::strlen(point + 1));
    while (count > 0 && point[count] == '0')
      --count;
    return count;
  };
  int count = decimals();
  if (count < 0) return text;
  if (count == 6) {
    std::snprintf(text, sizeof text, "%.15lf", d);
    count = decimals();
  }
  if (count > 0) {
    std::snprintf(text, sizeof text, "%0.*lf", count, d);
    return text;
  }
  const double rounded = d < 0 ? std::ceil(d - 0.5) : std::trunc(d + 0.5);
  std::snprintf(text, sizeof text, "%d", static_cast<int>(rounded));
  return text;
}

TEST(FormatDoubleTest, AgreesWithPrintfOverManyValues) {
  std::mt19937_64 random(20261122);
  std::uniform_real_distribution<double> mantissa(-1.0, 1.0);
  std::uniform_int_distribution<int> exponent(-12, 9);
  std::uniform_int_distribution<int> decimals(0, 8);
  for (int i = 0; i < 20000; ++i) {
    double value = mantissa(random) * std::pow(10.0, exponent(random));
    if (i % 2) {  // values with few decimals exercise the trailing-zero trimming
      const double scale = std::pow(10.0, decimals(random));
      value = std::round(value * scale) / scale;
    }
    SCOPED_TRACE(value);
    ASSERT_EQ(FormatDouble(value).ToUTF8(), FormatDoubleWithPrintf(value));
  }
}

TEST(ParseBooleanTest, WordsAndDigits) {
  for (const char16_t* yes : {u"true", u"TRUE", u"Yes", u"1"})
    EXPECT_TRUE(ParseBoolean(yes));
  for (const char16_t* no : {u"false", u"no", u"0", u"2", u"11", u"", u"y"}) {
    EXPECT_FALSE(ParseBoolean(no));
  }
  EXPECT_FALSE(ParseBoolean(nullptr));
}

TEST(ParseIntegerTest, FormsOfThirtyTwoBitNumbers) {
  struct {
    const char16_t* text;
    int expected;
  } const cases[] = {
      {u"#1F", 31},
      {u"0x1f", 31},
      {u"0X1F", 31},
      {u"0x", 0},
      {u"#", 0},
      {u"42", 42},
      {u"  -17", -17},
      {u"+5", 5},
      {u"12abc", 12},
      {u"abc", 0},
      {u"MIN", INT_MIN},
      {u"max", INT_MAX},
      {u"#FFFFFFFF", -1},
      {u"99999999999", INT_MAX},
      {u"-99999999999", INT_MIN},
      {u"", 0},
      {u"#ff00", 0xFF00},
      {u"0xFFFFFFFFFF", -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(StringBuffer(c.text));
    EXPECT_EQ(ParseInteger(c.text), c.expected);
  }
  EXPECT_EQ(ParseInteger(nullptr), 0);
}

TEST(ParseIntegerTest, SixtyFourBitsKeepTheThirtyTwoBitLimitsForMinAndMax) {
  EXPECT_EQ(ParseInteger64(u"min"), INT_MIN);
  EXPECT_EQ(ParseInteger64(u"Max"), INT_MAX);
  EXPECT_EQ(ParseInteger64(u"9223372036854775807"), LLONG_MAX);
  EXPECT_EQ(ParseInteger64(u"-9223372036854775808"), LLONG_MIN);
  EXPECT_EQ(ParseInteger64(u"99999999999999999999"), LLONG_MAX);
  EXPECT_EQ(ParseInteger64(u"0xFFFFFFFFFFFFFFFF"), -1);
  EXPECT_EQ(ParseInteger64(u"#100000000"), 0x100000000LL);
  EXPECT_EQ(ParseInteger64(u"5000000000"), 5000000000LL);
}

TEST(ParseDoubleTest, NumbersAndNames) {
  EXPECT_EQ(ParseDouble(u"3.5"), 3.5);
  EXPECT_EQ(ParseDouble(u" -2.25xyz"), -2.25);
  EXPECT_EQ(ParseDouble(u"+.5"), 0.5);
  EXPECT_EQ(ParseDouble(u"1,5"), 1.0);  // the point is '.', whatever the locale
  EXPECT_EQ(ParseDouble(u"6.02e23"), 6.02e23);
  EXPECT_TRUE(std::isnan(ParseDouble(u"nan")));
  EXPECT_EQ(ParseDouble(u"INFINITY"), HUGE_VAL);
  EXPECT_EQ(ParseDouble(u"-Infinity"), -HUGE_VAL);
  EXPECT_EQ(ParseDouble(u"max"), DBL_MAX);
  EXPECT_EQ(ParseDouble(u"MIN"), DBL_MIN);
  EXPECT_EQ(ParseDouble(u"1e400"), HUGE_VAL);
  EXPECT_EQ(ParseDouble(u"-1e400"), -HUGE_VAL);
  EXPECT_EQ(ParseDouble(u"1e-400"), 0.0);
  EXPECT_EQ(ParseDouble(u"--1"), 0.0);
  EXPECT_EQ(ParseDouble(u"abc"), 0.0);
  EXPECT_EQ(ParseDouble(u""), 0.0);
  EXPECT_EQ(ParseDouble(nullptr), 0.0);
}

TEST(ParseDoubleTest, ReadsBackWhatFormatDoubleWrites) {
  for (double value : {0.1, -2.5, 1.0 / 3, 12345.678, -0.000123, 1e15}) {
    SCOPED_TRACE(value);
    EXPECT_NEAR(ParseDouble(FormatDouble(value)), value, std::fabs(value) * 1e-14);
  }
}

}  // namespace
}  // namespace Veskan
