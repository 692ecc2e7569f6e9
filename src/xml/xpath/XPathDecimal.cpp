// Exact decimal arithmetic: machine integers while the unscaled values fit in 64 bits, GMP
// integers once they do not.
#include "xml/xpath/XPathDecimal.h"

#include <gmpxx.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <numeric>
#include <stdexcept>

namespace Veskan {
namespace Detail {
namespace XPath {

static_assert(sizeof(Decimal) <= 24, "a Decimal is meant to travel by value");
// GMP's _si and _ui functions take long: they carry the 64-bit values only where long has them.
static_assert(sizeof(long) == sizeof(std::int64_t) && std::numeric_limits<long>::is_signed,
              "the fast path needs a 64-bit long");

namespace {

__extension__ typedef __int128 Int128;
__extension__ typedef unsigned __int128 UInt128;

constexpr int kMaxSmallPower = 18;  // 10^18 is the largest power of ten in std::int64_t
constexpr std::array<std::int64_t, kMaxSmallPower + 1> kPow10 = [] {
  std::array<std::int64_t, kMaxSmallPower + 1> powers{};
  powers[0] = 1;
  for (std::size_t i = 1; i < powers.size(); ++i)
    powers[i] = powers[i - 1] * 10;
  return powers;
}();

// value * 10^exponent into `out`, unless that leaves std::int64_t.
bool MultiplyByPow10(std::int64_t value, std::int64_t exponent, std::int64_t& out) {
  if (value == 0) {
    out = 0;
    return true;
  }
  if (exponent < 0 || exponent > kMaxSmallPower) return false;
  return !__builtin_mul_overflow(value, kPow10[exponent], &out);
}

mpz_class Pow10(std::int64_t exponent) {
  mpz_class result;
  mpz_ui_pow_ui(result.get_mpz_t(), 10, static_cast<unsigned long>(exponent));
  return result;
}

std::int32_t CheckedScale(std::int64_t scale) {
  if (scale > std::numeric_limits<std::int32_t>::max()) {
    throw std::length_error("decimal with more than INT32_MAX fractional digits");
  }
  return static_cast<std::int32_t>(scale);
}

std::uint64_t Magnitude(std::int64_t value) {
  return value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
}

mpz_class ToMpz(Int128 value) {
  const bool negative = value < 0;
  const UInt128 magnitude =
      negative ? 0 - static_cast<UInt128>(value) : static_cast<UInt128>(value);
  mpz_class result(static_cast<unsigned long>(magnitude >> 64));
  result <<= 64;
  result += static_cast<unsigned long>(magnitude);
  if (negative) result = -result;
  return result;
}

// The splitmix64 finalizer: spreads every input bit over the whole hash.
std::uint64_t Mix(std::uint64_t x) {
  x ^= x >> 30;
  x *= 0xbf58476d1ce4e5b9ULL;
  x ^= x >> 27;
  x *= 0x94d049bb133111ebULL;
  return x ^ (x >> 31);
}

// The digits and decimal exponent of std::to_chars' shortest form ("1.25e-03", "-5e+20"):
// the value is unscaled * 10^-scale.
template <typename Float>
void ShortestForm(Float value, std::int64_t& unscaled, std::int64_t& scale) {
  char text[64];
  const auto result = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific);
  const char* p = text;
  const bool negative = *p == '-';
  if (negative) ++p;
  unscaled = 0;
  int digits = 0;
  for (; p != result.ptr && *p != 'e'; ++p) {
    if (*p == '.') continue;
    unscaled = unscaled * 10 + (*p - '0');  // at most 17 digits
    ++digits;
  }
  int exponent = 0;
  if (p != result.ptr) std::from_chars(p + (p[1] == '+' ? 2 : 1), result.ptr, exponent);
  if (negative) unscaled = -unscaled;
  scale = digits - 1 - exponent;
}

}  // namespace

// ---- The shared GMP integer

struct Decimal::Big {
  explicit Big(mpz_class&& unscaled) : value(std::move(unscaled)) {}
  std::atomic<std::size_t> references{1};
  const mpz_class value;
};

void Decimal::BigRef::Retain(Big* big) noexcept {
  big->references.fetch_add(1, std::memory_order_relaxed);
}

void Decimal::BigRef::Release(Big* big) noexcept {
  // acq_rel: the deleting thread must see every other owner's reads of the value finished.
  if (big->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete big;
}

// Builds normalized values and gives GMP's view of any value.
class DecimalArithmetic {
 public:
  // unscaled * 10^-scale; any scale, any trailing zeros.
  static Decimal Make(std::int64_t unscaled, std::int64_t scale) {
    if (unscaled == 0) return Decimal();
    if (scale < 0) {
      std::int64_t shifted;
      if (!MultiplyByPow10(unscaled, -scale, shifted)) {
        return Make(mpz_class(static_cast<long>(unscaled)), scale);
      }
      unscaled = shifted;
      scale = 0;
    }
    while (scale > 0 && unscaled % 10 == 0) {
      unscaled /= 10;
      --scale;
    }
    Decimal result;
    result.small_ = unscaled;
    result.scale_ = CheckedScale(scale);
    return result;
  }

  static Decimal Make(mpz_class unscaled, std::int64_t scale) {
    if (sgn(unscaled) == 0) return Decimal();
    if (scale < 0) {
      unscaled *= Pow10(-scale);
      scale = 0;
    } else if (scale > 0 && mpz_divisible_ui_p(unscaled.get_mpz_t(), 10)) {
      static const mpz_class kTen(10);
      mpz_class stripped;
      const auto zeros = static_cast<std::int64_t>(
          mpz_remove(stripped.get_mpz_t(), unscaled.get_mpz_t(), kTen.get_mpz_t()));
      if (zeros > scale) stripped *= Pow10(zeros - scale);
      unscaled = std::move(stripped);
      scale -= std::min(zeros, scale);
    }
    if (mpz_fits_slong_p(unscaled.get_mpz_t())) return Make(unscaled.get_si(), scale);
    Decimal result;
    result.scale_ = CheckedScale(scale);
    result.big_ = Decimal::BigRef(new Decimal::Big(std::move(unscaled)));
    return result;
  }

  static Decimal Make(Int128 unscaled, std::int64_t scale) {
    if (unscaled >= std::numeric_limits<std::int64_t>::min() &&
        unscaled <= std::numeric_limits<std::int64_t>::max()) {
      return Make(static_cast<std::int64_t>(unscaled), scale);
    }
    return Make(ToMpz(unscaled), scale);
  }

  // The unscaled integer: the shared one of big values, `storage` filled for small ones.
  static const mpz_class& Unscaled(const Decimal& value, mpz_class& storage) {
    if (value.big_) return value.big_.get()->value;
    storage = static_cast<long>(value.small_);
    return storage;
  }

  // The unscaled integer at scale `scale` (at least value.scale_).
  static mpz_class UnscaledAt(const Decimal& value, std::int64_t scale) {
    mpz_class storage;
    const mpz_class& unscaled = Unscaled(value, storage);
    if (scale == value.scale_) return unscaled;
    return unscaled * Pow10(scale - value.scale_);
  }

  // Both small unscaled values at the larger scale, when that fits in 64 bits.
  static bool AlignSmall(const Decimal& a, const Decimal& b, std::int64_t& x, std::int64_t& y) {
    if (a.big_ || b.big_) return false;
    x = a.small_;
    y = b.small_;
    if (a.scale_ < b.scale_) return MultiplyByPow10(x, b.scale_ - a.scale_, x);
    if (b.scale_ < a.scale_) return MultiplyByPow10(y, a.scale_ - b.scale_, y);
    return true;
  }

  static Decimal Sum(const Decimal& a, const Decimal& b, bool subtract) {
    const std::int64_t scale = std::max(a.scale_, b.scale_);
    std::int64_t x, y, sum;
    if (AlignSmall(a, b, x, y) &&
        !(subtract ? __builtin_sub_overflow(x, y, &sum) : __builtin_add_overflow(x, y, &sum))) {
      return Make(sum, scale);
    }
    mpz_class left = UnscaledAt(a, scale);
    mpz_class right = UnscaledAt(b, scale);
    return Make(subtract ? mpz_class(left - right) : mpz_class(left + right), scale);
  }

  // The quotient truncated toward zero and the remainder (scale of the finer operand) of a / b,
  // b not zero.
  static void TruncatingDivide(const Decimal& a, const Decimal& b, Decimal* quotient,
                               Decimal* remainder) {
    const std::int64_t scale = std::max(a.scale_, b.scale_);
    std::int64_t x, y;
    // INT64_MIN / -1 is the one quotient of two int64 that int64 cannot hold.
    if (AlignSmall(a, b, x, y) && !(y == -1 && x == std::numeric_limits<std::int64_t>::min())) {
      if (quotient) *quotient = Make(x / y, 0);
      if (remainder) *remainder = Make(x % y, scale);
      return;
    }
    const mpz_class dividend = UnscaledAt(a, scale);
    const mpz_class divisor = UnscaledAt(b, scale);
    mpz_class q, r;
    mpz_tdiv_qr(q.get_mpz_t(), r.get_mpz_t(), dividend.get_mpz_t(), divisor.get_mpz_t());
    if (quotient) *quotient = Make(std::move(q), 0);
    if (remainder) *remainder = Make(std::move(r), scale);
  }

  // Small operands whose quotient either ends within the rounding scale or does not end at all,
  // with numbers that fit in 128 bits; false leaves the rest to GMP.
  static bool DivideSmall(const Decimal& a, const Decimal& b, Decimal& result) {
    if (a.big_ || b.big_) return false;
    // a / b = small_a / small_b * 10^(scale_b - scale_a): scaled up by 10^exponent, its integer
    // part is the unscaled result at `scale`.
    const std::int64_t scale =
        std::max<std::int64_t>({Decimal::kDivisionScale, a.scale_, b.scale_});
    const std::int64_t exponent = scale + b.scale_ - a.scale_;
    if (exponent > 19) return false;  // |small_a| * 10^19 < 2^127
    const Int128 power =
        exponent <= kMaxSmallPower ? Int128{kPow10[exponent]} : Int128{10} * kPow10[18];
    const Int128 dividend = static_cast<Int128>(a.small_) * power;
    Int128 q = dividend / b.small_;
    const Int128 r = dividend % b.small_;
    if (r != 0) {
      // The quotient ends iff the divisor in lowest terms has no prime factors but 2 and 5; then
      // it needs more digits than `scale`, and GMP gives them all.
      std::uint64_t divisor =
          Magnitude(b.small_) / std::gcd(Magnitude(a.small_), Magnitude(b.small_));
      while (divisor % 2 == 0) {
        divisor /= 2;
      }
      while (divisor % 5 == 0) {
        divisor /= 5;
      }
      if (divisor == 1) return false;
      // Round to nearest; no ties, as a remainder of half the divisor would end the quotient.
      if (2 * (r < 0 ? -r : r) > static_cast<Int128>(Magnitude(b.small_))) {
        q += (r < 0) == (b.small_ < 0) ? 1 : -1;
      }
    }
    result = Make(q, scale);
    return true;
  }

  static Decimal DivideBig(const Decimal& a, const Decimal& b) {
    mpz_class storageA, storageB;
    const mpz_class& x = Unscaled(a, storageA);
    const mpz_class& y = Unscaled(b, storageB);
    // In lowest terms the quotient ends iff the denominator is 2^twos * 5^fives; then
    // max(twos, fives) more fractional digits hold it exactly.
    mpz_class divisor;
    mpz_gcd(divisor.get_mpz_t(), x.get_mpz_t(), y.get_mpz_t());
    mpz_class numerator, denominator;
    mpz_divexact(numerator.get_mpz_t(), x.get_mpz_t(), divisor.get_mpz_t());
    mpz_divexact(denominator.get_mpz_t(), y.get_mpz_t(), divisor.get_mpz_t());
    if (sgn(denominator) < 0) {
      numerator = -numerator;
      denominator = -denominator;
    }
    const auto twos = static_cast<std::int64_t>(mpz_scan1(denominator.get_mpz_t(), 0));
    mpz_class rest = denominator >> static_cast<mp_bitcnt_t>(twos);
    static const mpz_class kFive(5);
    const auto fives = static_cast<std::int64_t>(
        mpz_remove(rest.get_mpz_t(), rest.get_mpz_t(), kFive.get_mpz_t()));
    if (rest == 1) {
      const std::int64_t digits = std::max(twos, fives);
      mpz_class factor;
      mpz_ui_pow_ui(factor.get_mpz_t(), 5, static_cast<unsigned long>(digits - fives));
      factor <<= static_cast<mp_bitcnt_t>(digits - twos);
      return Make(mpz_class(numerator * factor), digits + a.scale_ - b.scale_);
    }
    const std::int64_t scale =
        std::max<std::int64_t>({Decimal::kDivisionScale, a.scale_, b.scale_});
    const mpz_class dividend = x * Pow10(scale + b.scale_ - a.scale_);
    mpz_class q, r;
    mpz_tdiv_qr(q.get_mpz_t(), r.get_mpz_t(), dividend.get_mpz_t(), y.get_mpz_t());
    // No ties: a remainder of exactly half the divisor would make the quotient end.
    r *= 2;
    if (mpz_cmpabs(r.get_mpz_t(), y.get_mpz_t()) > 0) q += sgn(dividend) == sgn(y) ? 1 : -1;
    return Make(std::move(q), scale);
  }

  enum class Direction { Floor, Ceiling, Truncate };

  static Decimal ToInteger(const Decimal& value, Direction direction) {
    if (value.scale_ == 0) return value;
    if (!value.big_ && value.scale_ <= kMaxSmallPower) {
      std::int64_t q = value.small_ / kPow10[value.scale_];
      const std::int64_t r = value.small_ % kPow10[value.scale_];
      if (direction == Direction::Floor && r < 0) --q;
      if (direction == Direction::Ceiling && r > 0) ++q;
      return Make(q, 0);
    }
    mpz_class storage;
    const mpz_class& unscaled = Unscaled(value, storage);
    const mpz_class divisor = Pow10(value.scale_);
    mpz_class q;
    switch (direction) {
      case Direction::Floor:
        mpz_fdiv_q(q.get_mpz_t(), unscaled.get_mpz_t(), divisor.get_mpz_t());
        break;
      case Direction::Ceiling:
        mpz_cdiv_q(q.get_mpz_t(), unscaled.get_mpz_t(), divisor.get_mpz_t());
        break;
      case Direction::Truncate:
        mpz_tdiv_q(q.get_mpz_t(), unscaled.get_mpz_t(), divisor.get_mpz_t());
        break;
    }
    return Make(std::move(q), 0);
  }

  // The nearest multiple of 10^-precision; halves go to the even neighbour or up.
  static Decimal RoundTo(const Decimal& value, int precision, bool halfToEven) {
    const std::int64_t dropped = static_cast<std::int64_t>(value.scale_) - precision;
    if (dropped <= 0) return value;
    // Whether the quotient truncated toward zero, q, moves one step away from zero;
    // `comparison` compares twice the remainder's magnitude with the divisor.
    const auto awayFromZero = [&](int comparison, bool qIsOdd, bool negative) {
      if (comparison != 0) return comparison > 0;
      return halfToEven ? qIsOdd : !negative;
    };
    if (!value.big_ && dropped <= kMaxSmallPower) {
      const std::int64_t divisor = kPow10[dropped];
      std::int64_t q = value.small_ / divisor;
      const std::int64_t twice = 2 * static_cast<std::int64_t>(Magnitude(value.small_ % divisor));
      const int comparison = (twice > divisor) - (twice < divisor);
      if (awayFromZero(comparison, q % 2 != 0, value.small_ < 0)) q += value.small_ < 0 ? -1 : 1;
      return Make(q, precision);
    }
    mpz_class storage;
    const mpz_class& unscaled = Unscaled(value, storage);
    // |value| < 10^(digits - scale): at most a tenth of the rounding unit when dropped > digits,
    // so zero (and no 10^dropped to build for absurd precisions).
    if (dropped > static_cast<std::int64_t>(mpz_sizeinbase(unscaled.get_mpz_t(), 10))) {
      return Decimal();
    }
    const mpz_class divisor = Pow10(dropped);
    mpz_class q, r;
    mpz_tdiv_qr(q.get_mpz_t(), r.get_mpz_t(), unscaled.get_mpz_t(), divisor.get_mpz_t());
    r *= 2;
    const int comparison = mpz_cmpabs(r.get_mpz_t(), divisor.get_mpz_t());
    const bool negative = sgn(unscaled) < 0;
    if (awayFromZero((comparison > 0) - (comparison < 0), mpz_odd_p(q.get_mpz_t()) != 0,
                     negative)) {
      q += negative ? -1 : 1;
    }
    return Make(std::move(q), precision);
  }

  // The unscaled digits with their sign, as GMP or std::to_chars writes them.
  static std::string UnscaledText(const Decimal& value) {
    if (value.big_) return value.big_.get()->value.get_str();
    char text[24];
    return std::string(text, std::to_chars(text, text + sizeof text, value.small_).ptr);
  }

  static std::optional<Decimal> Parse(std::u16string_view text, bool allowFraction) {
    std::size_t i = 0;
    const bool negative = !text.empty() && text[0] == u'-';
    if (!text.empty() && (text[0] == u'-' || text[0] == u'+')) ++i;
    std::string digits;  // leading zeros left out
    std::int64_t scale = 0;
    bool sawDigit = false, sawPoint = false;
    for (; i < text.size(); ++i) {
      const char16_t c = text[i];
      if (c >= u'0' && c <= u'9') {
        sawDigit = true;
        if (sawPoint) ++scale;
        if (!digits.empty() || c != u'0') digits.push_back(static_cast<char>(c));
      } else if (c == u'.' && allowFraction && !sawPoint) {
        sawPoint = true;
      } else {
        return std::nullopt;
      }
    }
    if (!sawDigit) return std::nullopt;
    for (; scale > 0 && !digits.empty() && digits.back() == '0'; --scale)
      digits.pop_back();
    if (digits.empty()) return Decimal();
    if (digits.size() <= kMaxSmallPower) {
      std::int64_t unscaled = 0;
      for (char c : digits)
        unscaled = unscaled * 10 + (c - '0');
      return Make(negative ? -unscaled : unscaled, scale);
    }
    if (negative) digits.insert(digits.begin(), '-');
    return Make(mpz_class(digits, 10), scale);
  }
};

using Arithmetic = DecimalArithmetic;

// ---- Construction

Decimal Decimal::FromInt64(std::int64_t value) {
  Decimal result;
  result.small_ = value;
  return result;
}

Decimal Decimal::FromUInt64(std::uint64_t value) {
  if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return FromInt64(static_cast<std::int64_t>(value));
  }
  return Arithmetic::Make(mpz_class(static_cast<unsigned long>(value)), 0);
}

Decimal Decimal::FromUnscaled(std::int64_t unscaled, int scale) {
  return Arithmetic::Make(unscaled, scale);
}

Decimal Decimal::FromDouble(double value) {
  assert(std::isfinite(value));
  if (!std::isfinite(value) || value == 0) return Decimal();
  std::int64_t unscaled, scale;
  ShortestForm(value, unscaled, scale);
  return Arithmetic::Make(unscaled, scale);
}

Decimal Decimal::FromFloat(float value) {
  assert(std::isfinite(value));
  if (!std::isfinite(value) || value == 0) return Decimal();
  std::int64_t unscaled, scale;
  ShortestForm(value, unscaled, scale);
  return Arithmetic::Make(unscaled, scale);
}

std::optional<Decimal> Decimal::ParseDecimal(std::u16string_view text) {
  return Arithmetic::Parse(text, true);
}

std::optional<Decimal> Decimal::ParseInteger(std::u16string_view text) {
  return Arithmetic::Parse(text, false);
}

// ---- Conversion

double Decimal::ToDouble() const {
  if (!big_) {
    // Exact operands and one correctly rounded operation (or conversion) when the unscaled
    // value and the power of ten are both exact doubles.
    constexpr double kPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                  1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                  1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    if (scale_ == 0) return static_cast<double>(small_);
    if (scale_ <= 22 && Magnitude(small_) <= (std::uint64_t{1} << 53)) {
      return static_cast<double>(small_) / kPowers[scale_];
    }
  }
  // glibc's strtod rounds correctly from any number of digits; without a decimal point the
  // text reads the same in every locale.
  const std::string text = Arithmetic::UnscaledText(*this) + "e-" + std::to_string(scale_);
  return std::strtod(text.c_str(), nullptr);
}

float Decimal::ToFloat() const {
  if (!big_) {
    constexpr float kPowers[] = {1e0f, 1e1f, 1e2f, 1e3f, 1e4f, 1e5f, 1e6f, 1e7f, 1e8f, 1e9f, 1e10f};
    if (scale_ == 0) return static_cast<float>(small_);
    if (scale_ <= 10 && Magnitude(small_) <= (std::uint64_t{1} << 24)) {
      return static_cast<float>(small_) / kPowers[scale_];
    }
  }
  const std::string text = Arithmetic::UnscaledText(*this) + "e-" + std::to_string(scale_);
  return std::strtof(text.c_str(), nullptr);
}

std::string Decimal::ToAscii() const {
  std::string text = Arithmetic::UnscaledText(*this);
  if (scale_ == 0) return text;
  const std::size_t signLength = text[0] == '-' ? 1 : 0;
  const std::size_t digits = text.size() - signLength;
  const auto scale = static_cast<std::size_t>(scale_);
  if (digits <= scale) {
    text.insert(signLength, scale - digits + 2, '0');  // "0." and the leading fractional zeros
    text[signLength + 1] = '.';
  } else {
    text.insert(text.size() - scale, 1, '.');
  }
  return text;
}

std::u16string Decimal::ToString() const {
  const std::string ascii = ToAscii();
  return std::u16string(ascii.begin(), ascii.end());
}

bool Decimal::FitsInt64() const {
  if (!big_) return true;  // truncation only shrinks
  return scale_ > 0 && !Truncate().big_;
}

std::int64_t Decimal::ToInt64() const {
  if (scale_ == 0 && !big_) return small_;
  const Decimal truncated = Truncate();
  assert(!truncated.big_);
  return truncated.small_;
}

// ---- Comparison

int Decimal::Sign() const {
  if (big_) return sgn(big_.get()->value);
  return (small_ > 0) - (small_ < 0);
}

std::size_t Decimal::HeapDigits() const {
  return big_ ? mpz_sizeinbase(big_.get()->value.get_mpz_t(), 10) : 0;
}

int Decimal::CompareSlow(const Decimal& other) const {
  const int sign = Sign(), otherSign = other.Sign();
  if (sign != otherSign) return sign < otherSign ? -1 : 1;
  std::int64_t x, y;
  if (Arithmetic::AlignSmall(*this, other, x, y)) return (x > y) - (x < y);
  const std::int64_t scale = std::max(scale_, other.scale_);
  const int comparison =
      cmp(Arithmetic::UnscaledAt(*this, scale), Arithmetic::UnscaledAt(other, scale));
  return (comparison > 0) - (comparison < 0);
}

std::size_t Decimal::Hash() const {
  std::uint64_t hash = Mix(static_cast<std::uint64_t>(scale_) + 0x9e3779b97f4a7c15ULL);
  if (!big_) return static_cast<std::size_t>(Mix(hash ^ static_cast<std::uint64_t>(small_)));
  const mpz_srcptr value = big_.get()->value.get_mpz_t();
  hash = Mix(hash ^ static_cast<std::uint64_t>(mpz_sgn(value) + 2));
  for (std::size_t i = 0, limbs = mpz_size(value); i < limbs; ++i) {
    hash = Mix(hash ^ static_cast<std::uint64_t>(mpz_getlimbn(value, static_cast<mp_size_t>(i))));
  }
  return static_cast<std::size_t>(hash);
}

// ---- Arithmetic

Decimal Decimal::Add(const Decimal& a, const Decimal& b) {
  return Arithmetic::Sum(a, b, false);
}

Decimal Decimal::Subtract(const Decimal& a, const Decimal& b) {
  return Arithmetic::Sum(a, b, true);
}

Decimal Decimal::Multiply(const Decimal& a, const Decimal& b) {
  const std::int64_t scale = static_cast<std::int64_t>(a.scale_) + b.scale_;
  std::int64_t product;
  if (!a.big_ && !b.big_ && !__builtin_mul_overflow(a.small_, b.small_, &product)) {
    return Arithmetic::Make(product, scale);
  }
  mpz_class storageA, storageB;
  return Arithmetic::Make(
      mpz_class(Arithmetic::Unscaled(a, storageA) * Arithmetic::Unscaled(b, storageB)), scale);
}

std::optional<Decimal> Decimal::Divide(const Decimal& a, const Decimal& b) {
  if (b.Sign() == 0) return std::nullopt;
  if (a.Sign() == 0) return Decimal();
  Decimal result;
  if (Arithmetic::DivideSmall(a, b, result)) return result;
  return Arithmetic::DivideBig(a, b);
}

std::optional<Decimal> Decimal::IntegerDivide(const Decimal& a, const Decimal& b) {
  if (b.Sign() == 0) return std::nullopt;
  Decimal quotient;
  Arithmetic::TruncatingDivide(a, b, &quotient, nullptr);
  return quotient;
}

std::optional<Decimal> Decimal::Modulo(const Decimal& a, const Decimal& b) {
  if (b.Sign() == 0) return std::nullopt;
  Decimal remainder;
  Arithmetic::TruncatingDivide(a, b, nullptr, &remainder);
  return remainder;
}

Decimal Decimal::Negate() const {
  if (!big_ && small_ != std::numeric_limits<std::int64_t>::min()) {
    Decimal result = *this;
    result.small_ = -small_;
    return result;
  }
  mpz_class storage;
  return Arithmetic::Make(mpz_class(-Arithmetic::Unscaled(*this, storage)), scale_);
}

Decimal Decimal::Abs() const {
  return Sign() < 0 ? Negate() : *this;
}

Decimal Decimal::Floor() const {
  return Arithmetic::ToInteger(*this, Arithmetic::Direction::Floor);
}

Decimal Decimal::Ceiling() const {
  return Arithmetic::ToInteger(*this, Arithmetic::Direction::Ceiling);
}

Decimal Decimal::Truncate() const {
  return Arithmetic::ToInteger(*this, Arithmetic::Direction::Truncate);
}

Decimal Decimal::Round(int precision) const {
  return Arithmetic::RoundTo(*this, precision, false);
}

Decimal Decimal::RoundHalfToEven(int precision) const {
  return Arithmetic::RoundTo(*this, precision, true);
}

Decimal Decimal::ScaleByPowerOfTen(int exponent) const {
  const std::int64_t scale = static_cast<std::int64_t>(scale_) - exponent;
  if (!big_) return Arithmetic::Make(small_, scale);
  return Arithmetic::Make(big_.get()->value, scale);
}

}  // namespace XPath
}  // namespace Detail
}  // namespace Veskan
