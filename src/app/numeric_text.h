#pragma once
// Numbers as the program reads and writes them in text: settings values, scale files,
// event lines and piece lines.

#include <string>
#include <string_view>

namespace veltrin {

// The leading-number rule: skips leading blanks and tabs, reads an optional sign, digits,
// one "." and more digits, and an exponent ("1e3") when digits follow the "e". Reading stops
// at the first character that cannot continue the number; text without a number reads 0.
// The decimal separator is always ".", whatever the locale.
double leadingNumber(std::string_view text);

// A whole number in a fixed-width field: the decimal text of value + 10^width without its
// first digit. Zero-padded, and a value of 10^width or more loses its leading digits
// (fixedWidth(123456, 5) == "23456"). Text order of such fields is numeric order for
// values from 0 to 10^width - 1.
std::string fixedWidth(long long value, int width);

// Rounds half to even (1.5 -> 2, 2.5 -> 2, -0.5 -> 0), as the event lines require.
long long roundHalfEven(double value);

// Shortest decimal text that reads back as the same double, always with "." (never a
// locale's separator), no exponent, no trailing zeros: 12.5, 3, -0.25, 0.1.
std::string plainNumber(double value);

}  // namespace veltrin
