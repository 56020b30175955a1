#include "base/numeric_text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

namespace veltrin {

namespace {
bool isDigit(char c) { return c >= '0' && c <= '9'; }
}  // namespace

double leadingNumber(std::string_view text)
{
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t'))
        ++i;
    const std::size_t start = i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-'))
        ++i;
    bool digits = false;
    while (i < text.size() && isDigit(text[i])) {
        ++i;
        digits = true;
    }
    if (i < text.size() && text[i] == '.') {
        ++i;
        while (i < text.size() && isDigit(text[i])) {
            ++i;
            digits = true;
        }
    }
    if (!digits)
        return 0.0;
    std::size_t end = i;
    if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        std::size_t j = i + 1;
        if (j < text.size() && (text[j] == '+' || text[j] == '-'))
            ++j;
        if (j < text.size() && isDigit(text[j])) {
            while (j < text.size() && isDigit(text[j]))
                ++j;
            end = j;
        }
    }
    // from_chars is locale-free: "." stays the separator under a comma-decimal locale.
    std::string_view number = text.substr(start, end - start);
    if (!number.empty() && number.front() == '+')
        number.remove_prefix(1);
    double value = 0.0;
    const auto [ptr, ec] = std::from_chars(number.data(), number.data() + number.size(), value);
    (void)ptr;
    return ec == std::errc() ? value : 0.0;
}

std::optional<double> strictNumber(std::string_view text)
{
    std::string_view t = text;
    while (!t.empty() && (t.front() == ' ' || t.front() == '\t'))
        t.remove_prefix(1);
    while (!t.empty() && (t.back() == ' ' || t.back() == '\t'))
        t.remove_suffix(1);
    std::size_t i = 0;
    if (i < t.size() && (t[i] == '+' || t[i] == '-'))
        ++i;
    std::size_t digits = 0;
    for (; i < t.size() && isDigit(t[i]); ++i)
        ++digits;
    if (i < t.size() && t[i] == '.') {
        for (++i; i < t.size() && isDigit(t[i]); ++i)
            ++digits;
    }
    if (digits == 0)
        return std::nullopt;
    if (i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
        std::size_t j = i + 1;
        if (j < t.size() && (t[j] == '+' || t[j] == '-'))
            ++j;
        const std::size_t firstDigit = j;
        while (j < t.size() && isDigit(t[j]))
            ++j;
        if (j == firstDigit)
            return std::nullopt;
        i = j;
    }
    if (i != t.size())
        return std::nullopt;
    // A number too large (or too small) for a double is no number here: from_chars says
    // so, where the leading-number rule would read it as 0.
    std::string_view number = t;
    if (number.front() == '+')
        number.remove_prefix(1);
    double value = 0.0;
    const auto [end, ec] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (ec != std::errc() || end != number.data() + number.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

std::string fixedWidth(long long value, int width)
{
    long long power = 1;
    for (int i = 0; i < width; ++i)
        power *= 10;
    const std::string text = std::to_string(value + power);
    return text.substr(1);
}

long long roundHalfEven(double value)
{
    // Banker's rounding done explicitly so that the result does not depend on the
    // floating-point environment's rounding mode.
    const double floorValue = std::floor(value);
    const double diff = value - floorValue;
    long long result = static_cast<long long>(floorValue);
    if (diff > 0.5 || (diff == 0.5 && (result % 2 != 0)))
        ++result;
    return result;
}

SignificantDigits significantDigits15(double value)
{
    SignificantDigits out;
    out.negative = std::signbit(value);
    std::array<char, 64> buffer{};
    const auto [ptr, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(),
                                         std::fabs(value), std::chars_format::scientific, 14);
    (void)ec;
    const std::string text(buffer.data(), ptr);  // "d.dddddddddddddde+XX"
    const std::size_t e = text.find('e');
    out.digits = text.substr(0, 1) + text.substr(2, e - 2);
    out.exponent = std::stoi(text.substr(e + 1));
    return out;
}

namespace {

// The powers of ten that doubles hold exactly.
constexpr std::array<double, 23> kExactPowersOfTen = {
    1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
    1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// "00" to "99".
constexpr std::array<char, 200> kDigitPairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();

// 10^0 to 10^19.
constexpr std::array<std::uint64_t, 20> kWholePowersOfTen = [] {
    std::array<std::uint64_t, 20> powers{};
    std::uint64_t power = 1;
    for (std::uint64_t& p : powers) {
        p = power;
        power *= 10;
    }
    return powers;
}();

// The number of decimal digits of n > 0: the bit count times log10(2) (1233 / 4096),
// rounded down, is the digit count or one less; the power of ten tells which.
int decimalDigits(std::uint64_t n)
{
    const auto guess = static_cast<std::size_t>(std::bit_width(n)) * 1233 >> 12;
    return static_cast<int>(guess) + (n >= kWholePowersOfTen[guess] ? 1 : 0);
}

// Writes the last two digits of n before at.
char* putTwoDigits(char* at, std::uint64_t n)
{
    at -= 2;
    std::memcpy(at, kDigitPairs.data() + n % 100 * 2, 2);
    return at;
}

// Writes scaled / 10^decimals: the fraction without trailing zeros, "0" before a leading
// point. The text is laid out from its last digit back.
char* writeScaled(char* out, std::uint64_t scaled, int decimals)
{
    while (decimals > 0 && scaled % 10 == 0) {
        scaled /= 10;
        --decimals;
    }
    const int integerDigits = std::max(1, decimalDigits(scaled) - decimals);
    char* const end = out + integerDigits + (decimals > 0 ? decimals + 1 : 0);
    char* at = end;
    int fraction = decimals;
    for (; fraction >= 2; fraction -= 2, scaled /= 100)
        at = putTwoDigits(at, scaled);
    if (fraction == 1) {
        *--at = static_cast<char>('0' + scaled % 10);
        scaled /= 10;
    }
    if (decimals > 0)
        *--at = '.';
    for (; at - out >= 2; scaled /= 100)
        at = putTwoDigits(at, scaled);
    if (at != out)
        *--at = static_cast<char>('0' + scaled);
    return end;
}

// scaled is magnitude x 10^decimals computed with one rounding, its 15 significant digits
// before the point (10^14 <= scaled < 10^15). Rounds it to a whole number and writes that
// divided by 10^decimals. Below 2^50 the product is off by at most 1/16, so its rounding
// is the exact one unless it lies near a half, and its digit count is sure away from 10^14
// and 10^15. Those cases return nullptr.
char* writeRounded(char* out, double scaled, int decimals)
{
    if (scaled < 1e14 + 1.0 || scaled >= 1e15 - 1.0)
        return nullptr;
    const auto whole = static_cast<std::int64_t>(scaled);  // scaled > 0: rounded down
    const double fraction = scaled - static_cast<double>(whole);  // exact
    if (std::fabs(fraction - 0.5) < 0.125)
        return nullptr;
    auto rounded = static_cast<std::uint64_t>(whole) + (fraction > 0.5 ? 1 : 0);
    // The binary noise of a short decimal rounds away into trailing zeros (41.0922000000000):
    // they go 8, 4, 2 and 1 at a time.
    for (int step = 8; step > 0; step /= 2) {
        const std::uint64_t power = kWholePowersOfTen[static_cast<std::size_t>(step)];
        if (decimals >= step && rounded % power == 0) {
            rounded /= power;
            decimals -= step;
        }
    }
    return writeScaled(out, rounded, decimals);
}

// Writes the text of magnitude x 10^decimals for decimals 0, 1, ... (the powers are exact,
// so each product has one rounding) while it stays below 10^15:
// - Short decimals, the common case: magnitude is the double nearest to a decimal D of at
//   most 15 significant digits and at most 22 decimals (42.6, 316.2, 0.24). Then magnitude
//   lies within half a unit in the last place of D, less than a tenth of a unit of D's 15th
//   digit, so rounding magnitude to 15 digits gives D back and D is its text. Whether D's
//   nearest double is magnitude is checked exactly: D's digits and 10^decimals are exact
//   doubles and their quotient is correctly rounded.
// - Otherwise the last product below 10^15 holds the 15 significant digits: writeRounded.
// Returns nullptr when neither applies (magnitudes below 1e-8 or from 1e15 on, and the
// edge cases of writeRounded).
char* writeScaledNumber(char* out, double magnitude)
{
    double previous = 0.0;
    for (int decimals = 0; decimals < static_cast<int>(kExactPowersOfTen.size()); ++decimals) {
        const double power = kExactPowersOfTen[static_cast<std::size_t>(decimals)];
        const double scaled = magnitude * power;
        if (scaled >= 1e15)
            return decimals == 0 ? nullptr : writeRounded(out, previous, decimals - 1);
        const auto digits = static_cast<std::int64_t>(scaled + 0.5);
        if (static_cast<double>(digits) / power == magnitude)
            return writeScaled(out, static_cast<std::uint64_t>(digits), decimals);
        previous = scaled;
    }
    return nullptr;
}

// Lays out significant digits d0 d1 ... (no trailing zeros, at least one digit) whose first
// digit stands for 10^exponent.
char* writeLaidOut(char* out, std::string_view digits, int exponent)
{
    if (exponent < 0) {
        *out++ = '0';
        *out++ = '.';
        out = std::fill_n(out, -exponent - 1, '0');
        return std::copy(digits.begin(), digits.end(), out);
    }
    const auto integerCount = static_cast<std::size_t>(exponent) + 1;
    if (digits.size() <= integerCount) {
        out = std::copy(digits.begin(), digits.end(), out);
        return std::fill_n(out, integerCount - digits.size(), '0');
    }
    out = std::copy(digits.begin(), digits.begin() + static_cast<std::ptrdiff_t>(integerCount), out);
    *out++ = '.';
    return std::copy(digits.begin() + static_cast<std::ptrdiff_t>(integerCount), digits.end(), out);
}

}  // namespace

char* writePlainNumber(char* out, double value)
{
    if (value == 0.0 || !std::isfinite(value)) {
        *out++ = '0';
        return out;
    }
    if (std::signbit(value))
        *out++ = '-';
    // Scaled by powers of ten (most coordinates), else to_chars' correctly rounded digits.
    const double magnitude = std::fabs(value);
    if (char* const end = writeScaledNumber(out, magnitude))
        return end;
    const SignificantDigits d = significantDigits15(magnitude);
    std::size_t count = d.digits.size();
    while (count > 1 && d.digits[count - 1] == '0')
        --count;
    return writeLaidOut(out, std::string_view(d.digits.data(), count), d.exponent);
}

std::string plainNumber(double value)
{
    std::array<char, kPlainNumberMaxChars> text;  // filled by writePlainNumber
    return std::string(text.data(), writePlainNumber(text.data(), value));
}

}  // namespace veltrin
