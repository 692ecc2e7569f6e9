// The exact decimals of the XPath engine: lexical forms, canonical strings, the move between
// 64-bit and GMP representations, division's precision, rounding, and double/float conversions.
#include "xml/xpath/XPathDecimal.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <utility>

namespace Veskan {
namespace Detail {
namespace XPath {
namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

std::u16string Utf16(const std::string& ascii) {
  return std::u16string(ascii.begin(), ascii.end());
}

Decimal D(const std::string& text) {
  const auto value = Decimal::ParseDecimal(Utf16(text));
  EXPECT_TRUE(value) << text;
  return value.value_or(Decimal());
}

std::string Div(const std::string& a, const std::string& b) {
  const auto q = Decimal::Divide(D(a), D(b));
  return q ? q->ToAscii() : "none";
}

std::string Idiv(const std::string& a, const std::string& b) {
  const auto q = Decimal::IntegerDivide(D(a), D(b));
  return q ? q->ToAscii() : "none";
}

std::string Mod(const std::string& a, const std::string& b) {
  const auto r = Decimal::Modulo(D(a), D(b));
  return r ? r->ToAscii() : "none";
}

TEST(XPathDecimal, ParsesLexicalFormsToCanonicalStrings) {
  EXPECT_EQ(D("+.5").ToAscii(), "0.5");
  EXPECT_EQ(D("5.").ToAscii(), "5");
  EXPECT_EQ(D("-0").ToAscii(), "0");
  EXPECT_EQ(D("-0.000").Sign(), 0);
  EXPECT_EQ(D("00012.3400").ToAscii(), "12.34");
  EXPECT_EQ(D("-.050").ToAscii(), "-0.05");
  EXPECT_EQ(D("123456789012345678901234567890.5").ToAscii(), "123456789012345678901234567890.5");
  EXPECT_EQ(D("-0.0000000000000000000000000000001").ToString(),
            u"-0.0000000000000000000000000000001");
  EXPECT_EQ(D("1.000000000000000000000000000000").Scale(), 0);
  for (const char* bad : {"", ".", "+", "-.", "1e3", "1.2.3", " 1", "1 ", "+-1", "0x1", "1,5"}) {
    EXPECT_FALSE(Decimal::ParseDecimal(Utf16(bad))) << bad;
  }
  EXPECT_EQ(Decimal::ParseInteger(u"+007")->ToAscii(), "7");
  EXPECT_EQ(Decimal::ParseInteger(u"-98765432109876543210")->ToAscii(), "-98765432109876543210");
  for (const char* bad : {"", "1.0", "1.", ".1", "-"}) {
    EXPECT_FALSE(Decimal::ParseInteger(Utf16(bad))) << bad;
  }

  EXPECT_EQ(Decimal::FromUnscaled(5, -3).ToAscii(), "5000");
  EXPECT_EQ(Decimal::FromUnscaled(-5, 3).ToAscii(), "-0.005");
  EXPECT_TRUE(Decimal::FromUnscaled(1200, 2).IsInteger());
  EXPECT_EQ(Decimal::FromUnscaled(7, -25).ToAscii(), "70000000000000000000000000");
  EXPECT_EQ(Decimal::FromUInt64(UINT64_MAX).ToAscii(), "18446744073709551615");
  EXPECT_EQ(D("1.5").ScaleByPowerOfTen(3).ToAscii(), "1500");
  EXPECT_EQ(D("15").ScaleByPowerOfTen(-20).ToAscii(), "0.00000000000000000015");
}

TEST(XPathDecimal, CrossesTheInt64BoundaryBothWays) {
  const Decimal max = Decimal::FromInt64(kMax), min = Decimal::FromInt64(kMin);
  const Decimal one = Decimal::FromInt64(1);
  const Decimal above = max + one, below = min - one;
  EXPECT_EQ(above.ToAscii(), "9223372036854775808");
  EXPECT_EQ(below.ToAscii(), "-9223372036854775809");
  EXPECT_FALSE(above.FitsInt64());
  EXPECT_FALSE(below.FitsInt64());
  EXPECT_EQ((-min).ToAscii(), "9223372036854775808");
  EXPECT_EQ(min.Abs(), above);
  EXPECT_LT(max, above);
  EXPECT_GT(min, below);

  // Back below the boundary the value must be a plain int64 again: same hash, same int64.
  const Decimal back = above - one;
  EXPECT_EQ(back, max);
  EXPECT_EQ(back.Hash(), max.Hash());
  ASSERT_TRUE(back.FitsInt64());
  EXPECT_EQ(back.ToInt64(), kMax);
  EXPECT_EQ((below + one).ToInt64(), kMin);

  const Decimal square = Decimal::FromInt64(3037000500) * Decimal::FromInt64(3037000500);
  EXPECT_EQ(square.ToAscii(), "9223372037000250000");
  const Decimal shrunk = *Decimal::Divide(square, Decimal::FromInt64(3037000500));
  EXPECT_EQ(shrunk.Hash(), Decimal::FromInt64(3037000500).Hash());
  EXPECT_EQ((square - square).Hash(), Decimal().Hash());
  EXPECT_EQ((D("0.5") * D("0.2")).ToAscii(), "0.1");
  EXPECT_EQ((max + D("0.1")).ToAscii(), "9223372036854775807.1");
  EXPECT_EQ((D("0.0000000000000000001") * D("3")).Scale(), 19);
  EXPECT_EQ(D("1.50").Compare(D("1.5")), 0);
  EXPECT_LT(D("-0.11"), D("-0.1"));
  EXPECT_LT(D("0.9999999999999999999999"), one);

  // Truncation decides: a fraction beyond the int64 range still fits once truncated.
  EXPECT_TRUE(D("-9223372036854775808.9").FitsInt64());
  EXPECT_EQ(D("-9223372036854775808.9").ToInt64(), kMin);
  EXPECT_EQ(D("-2.7").ToInt64(), -2);

  // Copies share the GMP integer and outlive the original.
  Decimal copy;
  {
    const Decimal big = D("123456789012345678901234567890");
    copy = big;
    Decimal moved = big;
    copy = std::move(moved);
  }
  EXPECT_EQ(copy.ToAscii(), "123456789012345678901234567890");
}

TEST(XPathDecimal, DividesExactlyOrToEighteenRoundedDigits) {
  EXPECT_EQ(Div("1", "3"), "0.333333333333333333");
  EXPECT_EQ(Div("2", "3"), "0.666666666666666667");
  EXPECT_EQ(Div("-2", "3"), "-0.666666666666666667");
  EXPECT_EQ(Div("1", "999999999999999999"), "0.000000000000000001");
  EXPECT_EQ(Div("32767", "-32768"), "-0.999969482421875");
  EXPECT_EQ(Div("1", "0.0000000000000000000004"), "2500000000000000000000");
  // Terminating quotients keep every digit, beyond 18 and through GMP.
  EXPECT_EQ(Div("1", "4611686018427387904"),
            "0.00000000000000000021684043449710088680149056017398834228515625");
  EXPECT_EQ(Div("123456789012345678901234567890", "0.8"), "154320986265432098626543209862.5");
  // An operand finer than 18 digits keeps its precision.
  EXPECT_EQ(Div("0.0000000000000000000001", "3"), "0");
  EXPECT_EQ(Div("0.0000000000000000000007", "3"), "0.0000000000000000000002");
  EXPECT_EQ(Div("-2000000000000000000000000000000", "3"),
            "-666666666666666666666666666666.666666666666666667");
  EXPECT_EQ(Div("5", "0"), "none");
  EXPECT_EQ(Div("0", "-5"), "0");
  // Rounded, not truncated: the eighteenth digit of this quotient ends in ...304830...
  const Decimal q = *Decimal::Divide(D("830993497117024304"), D("-999999999999999999"));
  EXPECT_EQ(q.RoundHalfToEven(18).ToAscii(), "-0.830993497117024305");
}

TEST(XPathDecimal, IntegerDivisionAndModuloTakeTheDividendsSign) {
  EXPECT_EQ(Idiv("-3.5", "3"), "-1");
  EXPECT_EQ(Idiv("3", "-2"), "-1");
  EXPECT_EQ(Idiv("-3", "-2"), "1");
  EXPECT_EQ(Idiv("3", "1.1"), "2");
  EXPECT_EQ(Mod("4.5", "1.2"), "0.9");
  EXPECT_EQ(Mod("-7", "2"), "-1");
  EXPECT_EQ(Mod("7", "-2"), "1");
  EXPECT_EQ(Mod("-1.0", "-9223372036854775808.0"), "-1");
  EXPECT_EQ(Idiv("-9223372036854775808", "-1"), "9223372036854775808");
  EXPECT_EQ(Mod("-9223372036854775808", "-1"), "0");
  EXPECT_EQ(Mod("1000000000000000000000000000007", "10"), "7");
  EXPECT_EQ(Mod("-999999999999999999", "617375191608514839"), "-382624808391485160");
  EXPECT_EQ(Idiv("1", "0.0"), "none");
  EXPECT_EQ(Mod("1", "0"), "none");
  for (const auto& [a, b] : {std::pair{"-17.25", "0.5"}, std::pair{"98765432109876543210.5", "-7"},
                             std::pair{"3", "0.0000000000000000000007"}}) {
    const Decimal q = *Decimal::IntegerDivide(D(a), D(b));
    const Decimal r = *Decimal::Modulo(D(a), D(b));
    EXPECT_EQ(q * D(b) + r, D(a)) << a << " " << b;
    EXPECT_LT(r.Abs(), D(b).Abs());
  }
}

TEST(XPathDecimal, RoundsNegativesAndHalves) {
  EXPECT_EQ(D("-2.5").Floor().ToAscii(), "-3");
  EXPECT_EQ(D("-2.5").Ceiling().ToAscii(), "-2");
  EXPECT_EQ(D("-0.1").Ceiling().ToAscii(), "0");
  EXPECT_EQ(D("2.5").Truncate().ToAscii(), "2");
  EXPECT_EQ(D("-123456789012345678901.5").Floor().ToAscii(), "-123456789012345678902");
  EXPECT_EQ(D("-123456789012345678901.5").Ceiling().ToAscii(), "-123456789012345678901");
  EXPECT_EQ(D("0.00000000000000000000001").Ceiling().ToAscii(), "1");

  EXPECT_EQ(D("2.5").Round().ToAscii(), "3");
  EXPECT_EQ(D("-2.5").Round().ToAscii(), "-2");
  EXPECT_EQ(D("-2.51").Round().ToAscii(), "-3");
  EXPECT_EQ(D("35.425").Round(2).ToAscii(), "35.43");
  EXPECT_EQ(D("-8450").Round(-2).ToAscii(), "-8400");
  EXPECT_EQ(D("-1234.567").Round(-2).ToAscii(), "-1200");

  EXPECT_EQ(D("2.5").RoundHalfToEven(0).ToAscii(), "2");
  EXPECT_EQ(D("3.5").RoundHalfToEven(0).ToAscii(), "4");
  EXPECT_EQ(D("-2.5").RoundHalfToEven(0).ToAscii(), "-2");
  EXPECT_EQ(D("0.125").RoundHalfToEven(2).ToAscii(), "0.12");
  EXPECT_EQ(D("12450").RoundHalfToEven(-2).ToAscii(), "12400");
  EXPECT_EQ(D("12550").RoundHalfToEven(-2).ToAscii(), "12600");
  EXPECT_EQ(D("35612.25").RoundHalfToEven(-2).ToAscii(), "35600");
  EXPECT_EQ(D("1.234567").RoundHalfToEven(100).ToAscii(), "1.234567");
  EXPECT_EQ(D("99999").RoundHalfToEven(-30).ToAscii(), "0");
  EXPECT_EQ(D("5").RoundHalfToEven(INT_MIN).ToAscii(), "0");
  // A tie and a near-tie nineteen digits down, beyond the int64 powers of ten.
  EXPECT_EQ(D("5000000000000000000").RoundHalfToEven(-19).ToAscii(), "0");
  EXPECT_EQ(D("5000000000000000000").Round(-19).ToAscii(), "10000000000000000000");
  EXPECT_EQ(D("-6000000000000000000").RoundHalfToEven(-19).ToAscii(), "-10000000000000000000");
  EXPECT_EQ(D("-123456789012345678901234.5").RoundHalfToEven(0).ToAscii(),
            "-123456789012345678901234");
}

TEST(XPathDecimal, ConvertsDoublesAndFloatsThroughTheirShortestForms) {
  EXPECT_EQ(Decimal::FromDouble(1.1).ToAscii(), "1.1");
  EXPECT_EQ(Decimal::FromDouble(1e20).ToAscii(), "100000000000000000000");
  EXPECT_EQ(Decimal::FromDouble(1e-7).ToAscii(), "0.0000001");
  EXPECT_EQ(Decimal::FromDouble(-0.0).ToAscii(), "0");
  EXPECT_EQ(Decimal::FromDouble(-1.75e-3).ToAscii(), "-0.00175");
  EXPECT_EQ(Decimal::FromDouble(1e308).ToAscii(), "1" + std::string(308, '0'));
  EXPECT_EQ(Decimal::FromDouble(5e-324).Scale(), 324);
  EXPECT_EQ(Decimal::FromFloat(1.1f).ToAscii(), "1.1");
  EXPECT_EQ(Decimal::FromFloat(3.4028235e38f).ToAscii(), "340282350000000000000000000000000000000");
  for (double d : {0.1, 1.0 / 3, -2.5e-300, 5e-324, 1.7976931348623157e308, 123456.789,
                   9007199254740993.0, -4611686018427387904.0}) {
    EXPECT_EQ(Decimal::FromDouble(d).ToDouble(), d) << d;
  }
  for (float f : {0.1f, 1.0f / 3, 1e-45f, 3.4028235e38f, -16777217.0f}) {
    EXPECT_EQ(Decimal::FromFloat(f).ToFloat(), f) << f;
  }
  EXPECT_EQ(D("123456789012345678901234567890.5").ToDouble(), 1.2345678901234568e29);
  EXPECT_EQ(D("9007199254740993").ToDouble(), 9007199254740992.0);  // a tie: to even
  EXPECT_EQ(D("9007199254740993.0000000000000000001").ToDouble(), 9007199254740994.0);
  EXPECT_EQ(D("1" + std::string(400, '0')).ToDouble(), HUGE_VAL);
  EXPECT_EQ(D("-0.5").ToFloat(), -0.5f);
  // Just above the tie between 1 and the next float: a double in between would round to the
  // tie itself and then to even (1); rounding once gives the float above.
  EXPECT_EQ(D("1.0000000596046447753906250001").ToFloat(), std::nextafter(1.0f, 2.0f));
}

TEST(XPathDecimal, EqualValuesHashAlikeWhateverTheirOrigin) {
  const Decimal values[] = {D("1.50"),
                            Decimal::FromUnscaled(15, 1),
                            Decimal::FromDouble(1.5),
                            *Decimal::Divide(D("3"), D("2")),
                            D("0.75") + D("0.75"),
                            D("100000000000000000001.5") - D("100000000000000000000")};
  for (const Decimal& value : values) {
    EXPECT_EQ(value, values[0]) << value.ToAscii();
    EXPECT_EQ(value.Hash(), values[0].Hash()) << value.ToAscii();
  }
  const Decimal bigs[] = {D("18446744073709551616"), Decimal::FromUInt64(UINT64_MAX) + D("1"),
                          D("4294967296") * D("4294967296"), D("1844674407370955161.6") * D("10")};
  for (const Decimal& value : bigs) {
    EXPECT_EQ(value, bigs[0]) << value.ToAscii();
    EXPECT_EQ(std::hash<Decimal>()(value), std::hash<Decimal>()(bigs[0])) << value.ToAscii();
  }
  EXPECT_NE(D("1.5").Hash(), D("15").Hash());
  EXPECT_NE(D("18446744073709551616").Hash(), D("1844674407370955161.6").Hash());
}

}  // namespace
}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
