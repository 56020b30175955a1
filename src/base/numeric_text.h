#pragma once
// Numbers as the program reads and writes them in text: settings values, scale files,
// event lines and piece lines.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace veltrin {

// The leading-number rule: skips leading blanks and tabs, reads an optional sign, digits,
// one "." and more digits, and an exponent ("1e3") when digits follow the "e". Reading stops
// at the first character that cannot continue the number; text without a number reads 0.
// The decimal separator is always ".", whatever the locale.
double leadingNumber(std::string_view text);

// A setting's text read as a number, whole text: blanks around it are allowed, then an optional
// sign, digits with one optional ".", and an optional exponent; nothing else. nullopt for
// any other text ("abc", "4,5", "12mm", "") and for a number too large for a double.
std::optional<double> strictNumber(std::string_view text);

// A whole number in a fixed-width field: the decimal text of value + 10^width without its
// first digit. Zero-padded, and a value of 10^width or more loses its leading digits
// (fixedWidth(123456, 5) == "23456"). Text order of such fields is numeric order for
// values from 0 to 10^width - 1.
std::string fixedWidth(long long value, int width);

// Rounds half to even (1.5 -> 2, 2.5 -> 2, -0.5 -> 0), as the event lines require.
long long roundHalfEven(double value);

// The general text form of a number: at most 15 significant digits, as many as needed, no
// exponent, no trailing zeros, "0" before a leading decimal point, always "." whatever the
// locale: 12.5, 3, -0.25, 0.1, and 4.8 for 6.3 - 1.5 (whose double is 4.7999999999999998).
// Programs, settings values and resume files use it.
std::string plainNumber(double value);

// Room for any plainNumber text: a sign, then "0." and 323 zeros before the 15 digits of
// the smallest double (the largest has only 309 integer digits).
inline constexpr std::size_t kPlainNumberMaxChars = 1 + 2 + 323 + 15;

// Writes plainNumber(value) at out, which has room for kPlainNumberMaxChars, and returns
// the end of the text: the program writer's form for its many coordinates.
char* writePlainNumber(char* out, double value);

// A finite non-zero value's first 15 significant digits, correctly rounded, and the power
// of ten of the first one: |value| ~ d0.d1...d14 x 10^exponent.
struct SignificantDigits {
    bool negative = false;
    std::string digits;
    int exponent = 0;
};
SignificantDigits significantDigits15(double value);

}  // namespace veltrin
