#include "app/numeric_text.h"

#include <array>
#include <charconv>
#include <cmath>
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

std::string plainNumber(double value)
{
    if (value == 0.0 || !std::isfinite(value))
        return "0";
    const SignificantDigits d = significantDigits15(value);
    std::string digits = d.digits;
    while (digits.size() > 1 && digits.back() == '0')
        digits.pop_back();
    std::string text;
    if (d.exponent < 0) {
        text.assign("0.").append(static_cast<std::size_t>(-d.exponent - 1), '0').append(digits);
    } else {
        const auto integerCount = static_cast<std::size_t>(d.exponent) + 1;
        if (digits.size() <= integerCount) {
            text = digits + std::string(integerCount - digits.size(), '0');
        } else {
            text = digits.substr(0, integerCount) + "." + digits.substr(integerCount);
        }
    }
    if (d.negative)
        text.insert(text.begin(), '-');
    return text;
}

}  // namespace veltrin
