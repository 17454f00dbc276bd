#pragma once
// The sum of the logarithms of many numbers, as the logarithm of their
// product: each number is split into a binary exponent and a significand in
// [1, 2), the exponents are summed exactly and the significands multiplied,
// so that a million numbers cost a few logarithms. Zero, negatives, infinity
// and NaN carry themselves as the significand, which keeps the sum that one
// logarithm per number would give: -inf, NaN or +inf.

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <numbers>

namespace tarn {

// x = significand * 2^exponent.
struct LogFactor {
  double significand;
  std::int64_t exponent;
};

namespace log_sum_detail {

constexpr int kFractionBits = 52;
constexpr std::int64_t kBias = 1023;
constexpr std::uint64_t kFraction = (std::uint64_t{1} << kFractionBits) - 1;
constexpr std::uint64_t kExponentOfOne = std::uint64_t{kBias} << kFractionBits;
// 2^64, which makes a subnormal number normal.
constexpr double kSubnormalScale = 18446744073709551616.0;

// A positive normal x.
inline LogFactor split_normal(double x) {
  const auto bits = std::bit_cast<std::uint64_t>(x);
  return {std::bit_cast<double>((bits & kFraction) | kExponentOfOne),
          static_cast<std::int64_t>(bits >> kFractionBits) - kBias};
}

}  // namespace log_sum_detail

inline LogFactor log_factor(double x) {
  using namespace log_sum_detail;  // NOLINT(google-build-using-namespace)
  if (x >= DBL_MIN && x <= DBL_MAX) return split_normal(x);
  if (x > 0.0 && x < DBL_MIN) {
    LogFactor f = split_normal(x * kSubnormalScale);
    f.exponent -= 64;
    return f;
  }
  // Zero, a negative, infinity or NaN: log x is -inf, NaN or +inf.
  return {x < 0.0 ? std::nan("") : x, 0};
}

class LogSum {
 public:
  // Up to kMaxFactors calls may come between two calls of renormalise().
  void add(LogFactor f) {
    significand_ *= f.significand;
    exponent_ += f.exponent;
  }
  // Moves the exponent of the product of significands into the sum of
  // exponents; a product of zero, infinity or NaN stays.
  void renormalise() {
    if (significand_ >= DBL_MIN && significand_ <= DBL_MAX) {
      const LogFactor f = log_sum_detail::split_normal(significand_);
      significand_ = f.significand;
      exponent_ += f.exponent;
    }
  }
  // Adds the sum of another.
  void add(const LogSum& other) {
    renormalise();
    add(LogFactor{other.significand_, other.exponent_});
    renormalise();
  }
  double value() const {
    return std::log(significand_) + static_cast<double>(exponent_) * std::numbers::ln2;
  }

  // The product of significands stays below 2^(kMaxFactors + 1).
  static constexpr int kMaxFactors = 512;

 private:
  double significand_ = 1.0;
  std::int64_t exponent_ = 0;
};

}  // namespace tarn
