#pragma once

#include <optional>
#include <string_view>

namespace vistrel {

// A decimal number as programs print it for other programs: an optional sign, digits with at most
// one '.', and an optional exponent ("12.5", "-0.3", "7", ".5", "1e-3"). The whole text must be
// the number: no blanks, no thousands separators, no ',' for a decimal point whatever the locale,
// no "inf", "nan" or hexadecimal. nullopt for anything else and for a value too large for a
// double; a value too small to represent reads as 0.
//
// Locale-independent on every platform (the C library's strtod reads "0,5" in a comma locale and
// std::from_chars for floating point is not available in every C++ library we build with), and
// correctly rounded.
std::optional<double> parseDecimal(std::string_view text);

}  // namespace vistrel
