#include "plan/plan_text.h"

#include "app/numeric_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <string_view>

namespace veltrin {

namespace {

// Adds one unit to the last digit of a decimal digit string.
void incrementDigits(std::string& digits)
{
    for (std::size_t i = digits.size(); i-- > 0;) {
        if (digits[i] != '9') {
            ++digits[i];
            return;
        }
        digits[i] = '0';
    }
    digits.insert(digits.begin(), '1');
}

// Lays out plainNumber's text from significant digits d0 d1 ... (no trailing zeros, at
// least one digit) whose first digit stands for 10^exponent.
void appendLaidOut(std::string& out, bool negative, std::string_view digits, int exponent)
{
    if (negative)
        out += '-';
    if (exponent < 0) {
        out.append("0.").append(static_cast<std::size_t>(-exponent - 1), '0').append(digits);
        return;
    }
    const auto integerCount = static_cast<std::size_t>(exponent) + 1;
    if (digits.size() <= integerCount) {
        out.append(digits).append(integerCount - digits.size(), '0');
    } else {
        out.append(digits.substr(0, integerCount)).append(1, '.').append(digits.substr(integerCount));
    }
}

// The digits and exponent of to_chars' scientific text "d[.ddd]e[+-]XX", trailing zeros
// of the digits dropped. Returns the digit count.
std::size_t scientificParts(const char* text, const char* end, char* digits, int& exponent)
{
    const char* e = std::find(text, end, 'e');
    std::size_t count = 0;
    for (const char* c = text; c != e; ++c)
        if (*c != '.')
            digits[count++] = *c;
    while (count > 1 && digits[count - 1] == '0')
        --count;
    exponent = 0;
    const char* p = e + 1;
    const bool negativeExponent = *p == '-';
    if (*p == '-' || *p == '+')
        ++p;
    for (; p != end; ++p)
        exponent = exponent * 10 + (*p - '0');
    if (negativeExponent)
        exponent = -exponent;
    return count;
}

// The common case of appendPlainNumber without to_chars: for magnitude from 1e-8 to 1e15,
// its 15 significant digits as the whole number rounded (10^14 <= rounded < 10^15) and the
// power of ten of the first digit. magnitude x 10^(14 - exponent) is computed with one
// rounding (the power of ten, at most 10^22, is exact), so it is off by at most 1/16 below
// 2^50; the rounding to a whole number is then the exact one unless the product lies near
// a half, and the digit count is sure away from 10^14 and 10^15. Those cases return false.
bool roundTo15Digits(double magnitude, std::uint64_t& rounded, int& exponent)
{
    static constexpr std::array<double, 23> powers = {
        1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
        1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    // The same powers from 10^-8 to 10^14 (those below 1 are the nearest doubles).
    static constexpr std::array<double, 23> guesses = {
        1e-8, 1e-7, 1e-6, 1e-5, 1e-4, 1e-3, 1e-2, 1e-1, 1e0,  1e1,  1e2, 1e3,
        1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14};
    if (!(magnitude >= 1e-8 && magnitude < 1e15))
        return false;
    // The guess of the first digit's power: the last p with magnitude >= 10^p.
    auto power = [](int p) { return guesses[static_cast<std::size_t>(p + 8)]; };
    exponent = 0;
    if (magnitude >= 1.0) {
        while (exponent < 14 && magnitude >= power(exponent + 1))
            ++exponent;
    } else {
        while (exponent > -8 && magnitude < power(exponent))
            --exponent;
    }
    const double scaled = magnitude * powers[static_cast<std::size_t>(14 - exponent)];
    if (scaled < 1e14 + 1.0 || scaled >= 1e15 - 1.0)
        return false;
    const double whole = std::floor(scaled);
    const double fraction = scaled - whole;  // exact
    if (std::fabs(fraction - 0.5) < 0.125)
        return false;
    rounded = static_cast<std::uint64_t>(whole) + (fraction > 0.5 ? 1 : 0);
    return true;
}

}  // namespace

void appendPlainNumber(std::string& out, double value)
{
    if (value == 0.0 || !std::isfinite(value)) {
        out += '0';
        return;
    }
    const double magnitude = std::fabs(value);
    std::array<char, 32> digits{};
    int exponent = 0;
    std::uint64_t rounded = 0;
    if (roundTo15Digits(magnitude, rounded, exponent)) {
        // rounded has exactly 15 digits.
        for (std::size_t i = 15; i-- > 0; rounded /= 10)
            digits[i] = static_cast<char>('0' + rounded % 10);
        std::size_t count = 15;
        while (count > 1 && digits[count - 1] == '0')
            --count;
        appendLaidOut(out, std::signbit(value), std::string_view(digits.data(), count), exponent);
        return;
    }
    std::array<char, 64> text{};
    const auto written = std::to_chars(text.data(), text.data() + text.size(), magnitude,
                                       std::chars_format::scientific, 14);
    const std::size_t count = scientificParts(text.data(), written.ptr, digits.data(), exponent);
    appendLaidOut(out, std::signbit(value), std::string_view(digits.data(), count), exponent);
}

std::string fixedDecimals(double value, int decimals, int minIntegerDigits, char decimalSeparator)
{
    // scaled: the digits of |value| x 10^decimals, rounded to a whole number.
    std::string scaled;
    bool negative = false;
    if (value != 0.0 && std::isfinite(value)) {
        const SignificantDigits d = significantDigits15(value);
        negative = d.negative;
        const int kept = d.exponent + decimals + 1;  // digits at or above 10^-decimals
        if (kept >= static_cast<int>(d.digits.size())) {
            scaled = d.digits + std::string(static_cast<std::size_t>(kept) - d.digits.size(), '0');
        } else if (kept >= 0) {
            scaled = d.digits.substr(0, static_cast<std::size_t>(kept));
            if (scaled.empty())
                scaled.assign(1, '0');
            if (d.digits[static_cast<std::size_t>(kept)] >= '5')
                incrementDigits(scaled);
        }
    }
    if (scaled.empty())
        scaled.assign(1, '0');
    while (scaled.size() > 1 && scaled.front() == '0')
        scaled.erase(scaled.begin());
    if (scaled == "0")
        negative = false;
    const auto width = static_cast<std::size_t>(decimals + minIntegerDigits);
    if (scaled.size() < width)
        scaled.insert(scaled.begin(), width - scaled.size(), '0');
    std::string text = scaled.substr(0, scaled.size() - static_cast<std::size_t>(decimals));
    if (decimals > 0) {
        text += decimalSeparator;
        text += scaled.substr(scaled.size() - static_cast<std::size_t>(decimals));
    }
    if (negative)
        text.insert(text.begin(), '-');
    return text;
}

std::string clockText(double seconds)
{
    long long whole = 0;
    if (std::isfinite(seconds) && std::fabs(seconds) < 1e15)
        whole = std::llround(seconds);
    whole %= 86400;
    if (whole < 0)
        whole += 86400;
    std::array<char, 16> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%02lld:%02lld:%02lld", whole / 3600,
                  (whole / 60) % 60, whole % 60);
    return buffer.data();
}

}  // namespace veltrin
