#include "base/decimal.hpp"

#include <cmath>
#include <cstdint>
#include <locale>
#include <sstream>
#include <string>

namespace vistrel {

namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// Powers of ten that a double holds exactly.
constexpr double kExactPowers[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                   1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                   1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// The text, already checked to be well formed, read by the stream machinery in the classic "C"
// locale: exact, and never affected by the global locale or the C library's.
std::optional<double> readClassic(std::string_view text) {
  std::istringstream stream{std::string(text)};
  stream.imbue(std::locale::classic());
  double value = 0;
  stream >> value;
  // Out of range sets failbit. Too large leaves the largest double (or infinity); too small
  // leaves 0 or a subnormal, which is the nearest value there is.
  if (stream.fail() && !(std::fabs(value) < 1)) return std::nullopt;
  if (!std::isfinite(value)) return std::nullopt;
  return value;
}

}  // namespace

std::optional<double> parseDecimal(std::string_view text) {
  size_t i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '-' || text[i] == '+')) {
    negative = text[i] == '-';
    ++i;
  }
  // The digits as one integer `mantissa` (the first 19 significant ones) times 10^`scale`.
  uint64_t mantissa = 0;
  int significant = 0;   // digits taken into the mantissa, leading zeros not counted
  bool dropped = false;  // a non-zero digit did not fit into the mantissa
  int64_t scale = 0;
  size_t digits = 0;
  auto take = [&](char c, bool fraction) {
    ++digits;
    if (significant < 19) {
      mantissa = mantissa * 10 + static_cast<uint64_t>(c - '0');
      if (mantissa != 0) ++significant;
      if (fraction) --scale;
    } else {
      dropped = dropped || c != '0';
      if (!fraction) ++scale;
    }
  };
  for (; i < text.size() && isDigit(text[i]); ++i) take(text[i], false);
  if (i < text.size() && text[i] == '.') {
    for (++i; i < text.size() && isDigit(text[i]); ++i) take(text[i], true);
  }
  if (digits == 0) return std::nullopt;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    bool exponentNegative = false;
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) {
      exponentNegative = text[i] == '-';
      ++i;
    }
    int64_t exponent = 0;
    size_t exponentDigits = 0;
    for (; i < text.size() && isDigit(text[i]); ++i, ++exponentDigits) {
      if (exponent < 100'000) exponent = exponent * 10 + (text[i] - '0');
    }
    if (exponentDigits == 0) return std::nullopt;
    scale += exponentNegative ? -exponent : exponent;
  }
  if (i != text.size()) return std::nullopt;

  // Exact when the integer and the power of ten are both exact doubles: one multiplication or
  // division then rounds once, correctly. This covers what tools and /proc print.
  if (!dropped && mantissa <= (uint64_t{1} << 53) && scale >= -22 && scale <= 22) {
    double value = static_cast<double>(mantissa);
    value = scale < 0 ? value / kExactPowers[-scale] : value * kExactPowers[scale];
    return negative ? -value : value;
  }
  if (mantissa == 0 && !dropped) return negative ? -0.0 : 0.0;
  return readClassic(text);
}

}  // namespace vistrel
