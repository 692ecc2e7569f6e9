// The exact decimal numbers of the library's XPath engine: the values of xs:decimal, and of
// xs:integer and its subtypes (an integer is a decimal without fractional digits).
#ifndef VESKAN_XML_XPATH_XPATHDECIMAL_H
#define VESKAN_XML_XPATH_XPATHDECIMAL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace Veskan {
namespace Detail {
namespace XPath {

// An exact decimal number of any size: an unscaled integer times 10^-Scale().
//
// A value type. Values whose unscaled integer fits in 64 bits live inside the object (no heap,
// trivially cheap copies, and +, -, * and comparisons on machine integers); larger ones share one
// immutable GMP integer among copies, so copying any value is cheap.
//
// Always normalized: no trailing fractional zeros, and zero has scale 0. Equal values therefore
// have equal representations, which makes Hash() consistent with Compare() and lets IsInteger()
// read the scale.
//
// Arithmetic is exact except Divide(), which rounds quotients that have no terminating decimal
// form (see there). Nothing overflows: values grow as needed, and cost time and memory in
// proportion to their digits. A result with more than INT32_MAX fractional digits throws
// std::length_error; std::bad_alloc aside, nothing else throws (GMP itself aborts the process
// when it cannot allocate).
//
// Thread safety: a Decimal is immutable; distinct objects, even copies sharing a GMP integer,
// may be used from any threads at once, as may one object that no thread assigns to.
class Decimal {
 public:
  // The fractional digits a quotient without a terminating decimal form is rounded to, unless
  // an operand has more (then the quotient keeps that many, so tiny values do not collapse to
  // zero). Eighteen is what widely used XPath processors give, so `1 div 3` prints as there, and
  // rounding (not truncating) at that digit keeps round-half-to-even(q, 18) exact.
  static constexpr int kDivisionScale = 18;

  Decimal() = default;  // zero

  static Decimal FromInt64(std::int64_t value);
  static Decimal FromUInt64(std::uint64_t value);
  // unscaled * 10^-scale; a negative scale multiplies by a power of ten (FromUnscaled(5, -3) is
  // 5000), so this also builds powers of ten.
  static Decimal FromUnscaled(std::int64_t unscaled, int scale);

  // The number the shortest decimal form that reads back as `value` denotes: 0.1 gives 0.1
  // (not 0.1000000000000000055511151231257827), 1e20 gives 100000000000000000000. That is what
  // casting xs:double or xs:float to xs:decimal gives. Precondition: `value` is finite (callers
  // raise the cast error for NaN and the infinities); -0 gives 0.
  static Decimal FromDouble(double value);
  static Decimal FromFloat(float value);

  // The lexical form of xs:decimal, [+-]?(\d+(\.\d*)?|\.\d+), of any length; nullopt when
  // `text` does not match. No whitespace and no exponent: callers trim XML whitespace first.
  static std::optional<Decimal> ParseDecimal(std::u16string_view text);
  // The lexical form of xs:integer, [+-]?\d+; nullopt otherwise.
  static std::optional<Decimal> ParseInteger(std::u16string_view text);

  // The nearest double (ties to even), ±infinity beyond its range; the nearest float likewise,
  // rounded once from the exact value (not through a double).
  double ToDouble() const;
  float ToFloat() const;

  // The canonical xs:decimal string: "-0.5", "3", "0.001", "100000000000000000000"; no exponent,
  // no '+', no trailing fractional zeros, no '.' when integral, zero is "0". That is also the
  // canonical xs:integer string of integral values.
  std::u16string ToString() const;
  std::string ToAscii() const;  // the same characters

  int Sign() const;                               // -1, 0 or 1
  bool IsInteger() const { return scale_ == 0; }  // no fractional digits
  int Scale() const { return scale_; }            // the number of fractional digits, >= 0
  // The digits of an unscaled integer beyond 64 bits (perhaps one more), zero for one within:
  // the size of what the value keeps outside the object. Constant time.
  std::size_t HeapDigits() const;

  // Whether the value truncated toward zero fits in std::int64_t (2.5 and -9223372036854775808.9
  // do; 9223372036854775808 does not); ToInt64() is that truncated value, and requires it.
  bool FitsInt64() const;
  std::int64_t ToInt64() const;

  // -1, 0 or 1 as *this is less than, equal to or greater than `other`.
  int Compare(const Decimal& other) const {
    if (!big_ && !other.big_ && scale_ == other.scale_) {
      return (small_ > other.small_) - (small_ < other.small_);
    }
    return CompareSlow(other);
  }
  // Equal for equal values, whatever produced them.
  std::size_t Hash() const;

  static Decimal Add(const Decimal& a, const Decimal& b);
  static Decimal Subtract(const Decimal& a, const Decimal& b);
  static Decimal Multiply(const Decimal& a, const Decimal& b);
  // a / b; nullopt when b is zero. Exact when the quotient has a terminating decimal form (its
  // digits never outnumber what the operands' sizes allow: 1 div 2^k has k fractional digits).
  // Otherwise rounded to the nearest multiple of 10^-s, s = max(kDivisionScale, a.Scale(),
  // b.Scale()) (ties cannot occur): 1 div 3 is 0.333333333333333333, 2 div 3 ends in 7.
  static std::optional<Decimal> Divide(const Decimal& a, const Decimal& b);
  // a / b truncated toward zero (an integer); nullopt when b is zero.
  static std::optional<Decimal> IntegerDivide(const Decimal& a, const Decimal& b);
  // a - (a idiv b) * b, exact, with the sign of a (or zero); nullopt when b is zero.
  static std::optional<Decimal> Modulo(const Decimal& a, const Decimal& b);

  Decimal Negate() const;
  Decimal Abs() const;
  // The integer below, above, and toward zero.
  Decimal Floor() const;
  Decimal Ceiling() const;
  Decimal Truncate() const;
  // The nearest multiple of 10^-precision, halves toward positive infinity: Round() of 2.5 is 3,
  // of -2.5 is -2; Round(-2) of 8450 is 8500. A precision at or beyond Scale() keeps the value.
  Decimal Round(int precision = 0) const;
  // Likewise, halves to the even neighbour: RoundHalfToEven(-2) of 12450 is 12400, of 12550 is
  // 12600; RoundHalfToEven(0) of 2.5 is 2.
  Decimal RoundHalfToEven(int precision) const;
  // *this * 10^exponent, exact (a decimal point shift; a large positive exponent appends that
  // many zeros).
  Decimal ScaleByPowerOfTen(int exponent) const;

  friend Decimal operator+(const Decimal& a, const Decimal& b) { return Add(a, b); }
  friend Decimal operator-(const Decimal& a, const Decimal& b) { return Subtract(a, b); }
  friend Decimal operator*(const Decimal& a, const Decimal& b) { return Multiply(a, b); }
  friend Decimal operator-(const Decimal& a) { return a.Negate(); }
  friend bool operator==(const Decimal& a, const Decimal& b) { return a.Compare(b) == 0; }
  friend bool operator!=(const Decimal& a, const Decimal& b) { return a.Compare(b) != 0; }
  friend bool operator<(const Decimal& a, const Decimal& b) { return a.Compare(b) < 0; }
  friend bool operator<=(const Decimal& a, const Decimal& b) { return a.Compare(b) <= 0; }
  friend bool operator>(const Decimal& a, const Decimal& b) { return a.Compare(b) > 0; }
  friend bool operator>=(const Decimal& a, const Decimal& b) { return a.Compare(b) >= 0; }

 private:
  friend class DecimalArithmetic;  // the implementation, in the .cpp, where GMP is visible

  struct Big;  // a reference count and a GMP integer; defined in the .cpp

  // One counted reference to an immutable Big (or none); the last reference frees it. Copies
  // of small values never call out of line.
  class BigRef {
   public:
    BigRef() = default;
    explicit BigRef(Big* adopted) noexcept : big_(adopted) {}  // takes over one reference
    BigRef(const BigRef& other) noexcept : big_(other.big_) {
      if (big_) Retain(big_);
    }
    BigRef(BigRef&& other) noexcept : big_(std::exchange(other.big_, nullptr)) {}
    BigRef& operator=(const BigRef& other) noexcept {
      if (other.big_) Retain(other.big_);
      if (big_) Release(big_);
      big_ = other.big_;
      return *this;
    }
    BigRef& operator=(BigRef&& other) noexcept {
      if (this != &other) {
        if (big_) Release(big_);
        big_ = std::exchange(other.big_, nullptr);
      }
      return *this;
    }
    ~BigRef() {
      if (big_) Release(big_);
    }
    const Big* get() const { return big_; }
    explicit operator bool() const { return big_ != nullptr; }

   private:
    static void Retain(Big* big) noexcept;
    static void Release(Big* big) noexcept;
    Big* big_ = nullptr;
  };

  int CompareSlow(const Decimal& other) const;

  // The unscaled integer is small_ when big_ is empty, which it is exactly when the unscaled
  // integer fits in std::int64_t (another normalization: one representation per value).
  std::int64_t small_ = 0;
  std::int32_t scale_ = 0;
  BigRef big_;
};

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan

namespace std {
template <>
struct hash<Veskan::Detail::XPath::Decimal> {
  size_t operator()(const Veskan::Detail::XPath::Decimal& value) const noexcept {
    return value.Hash();
  }
};
}  // namespace std

#endif  // VESKAN_XML_XPATH_XPATHDECIMAL_H
